// The read-only commands: list, show, watch and validate. None of them ever writes a table file:
// list and validate map the files read-only, show and watch mount the table as a key-shadowing
// reader, exactly as a consuming agent would.
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "Agent.h"
#include "Commands.h"
#include "EntryFilter.h"
#include "EntryJson.h"
#include "EntryRows.h"
#include "Region/MappedFile.h"
#include "Region/OwnerFile.h"
#include "Region/StoreRoot.h"
#include "StrictJson.h"
#include "TunnelTable/EntryRecord.h"
#include "TunnelTable/TunnelId.h"
#include "store/DeepValidate.h"
#include "store/KeyTraits.h"
#include "store/format/Layout.h"
#include "store/format/SlotTable.h"
#include "store/slab/LinearSizeConfig.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

namespace {

bool fileExists(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0;
}

}  // namespace

std::string existingTableDirectory(const TableEntry& table) {
   const std::string root = Region::storeRoot();
   const std::string dir = tableDirectory(root, table);
   if (!fileExists(dir + "/" + Dock::kSlotsFile)) {
      throw TableMissing("no table '" + table.mountName + "' under " + root +
                         " (no writer has published it)");
   }
   return dir;
}

std::vector<std::pair<TT::TunnelId, Vela::String>> tableSnapshot(const TT::TunnelTableBase& table) {
   std::vector<std::pair<TT::TunnelId, Vela::String>> out;
   for (const auto& key : table.entryKeys()) {
      if (auto text = table.entryStrep(key)) out.emplace_back(key, *text);
   }
   std::sort(out.begin(), out.end(),
             [](const auto& a, const auto& b) { return a.first < b.first; });
   return out;
}

std::string keyText(const TT::TunnelId& id) {
   return "index " + std::to_string(id.tunnelIndex());
}

namespace {

// The keys `show` looks at, in order: the one asked for, or every key of the table.
std::vector<TT::TunnelId> keysToShow(const TableEntry& table, const TT::TunnelTableBase& mounted,
                                     const std::optional<uint64_t>& index) {
   if (index) {
      return {TT::TunnelId(TT::TunnelId::convertToTunnelValue(table.type->tunnelType, *index))};
   }
   std::vector<TT::TunnelId> keys = mounted.entryKeys();
   std::sort(keys.begin(), keys.end());
   return keys;
}

}  // namespace

int runShow(std::ostream& out, const std::string& name, const ShowOptions& o) {
   const TableEntry& table = requireTable(name);
   if (o.index && *o.index >= (uint64_t{1} << TT::TunnelId::kTypeShift)) {
      throw UsageError("tunnel index " + std::to_string(*o.index) + " is out of range");
   }
   existingTableDirectory(table);
   Agent agent;
   auto mounted = mountSynchronized(agent, table);
   const EntryReader read = entryReaderFor(*mounted);
   const size_t total = mounted->entryCount();

   // JSON streams entry by entry (the count comes last); the text views gather their lines
   // first, for column widths and a header that says how many matched.
   size_t shown = 0;
   EntryRows rows;
   std::vector<Vela::String> texts;
   if (o.json) {
      out << "{\"table\": " << Json(table.mountName)
          << ", \"typeName\": " << Json(table.type->typeName)
          << ", \"entryType\": " << Json(table.type->entryTypeName) << ", \"entries\": [";
   }
   auto emit = [&](const EntryView& e) {
      if (o.count) {
      } else if (o.json) {
         Json j = e.fields;
         j["text"] = e.text;
         out << (shown ? ",\n" : "\n") << dumpJson(j);
      } else if (o.detail) {
         texts.push_back(e.text);
      } else {
         rows.add(e);
      }
      ++shown;
   };
   // With an endpoint, only the entries of the longest matching endpoint: held until known.
   std::vector<std::pair<unsigned, EntryView>> held;
   unsigned longest = 0;
   // Counting everything needs no entry read.
   const bool countOnly = o.count && !o.index && !o.filter.any();
   if (countOnly) shown = total;
   for (const TT::TunnelId& key :
        countOnly ? std::vector<TT::TunnelId>() : keysToShow(table, *mounted, o.index)) {
      std::optional<EntryView> e = read(key);
      if (!e || !o.filter.matchesNonEndpoint(*e)) continue;
      const std::optional<unsigned> len = o.filter.endpointMatch(*e);
      if (!len) continue;
      if (!o.filter.endpoint) {
         emit(*e);
         continue;
      }
      if (*len < longest) continue;
      longest = *len;
      held.emplace_back(*len, std::move(*e));
   }
   for (auto& [len, e] : held) {
      if (len == longest) emit(e);
   }

   if (o.json) out << (shown ? "\n" : "") << "], \"count\": " << shown << "}\n";
   if (o.index && shown == 0) {
      std::cerr << "tunnelctl: " << table.mountName << " has no tunnel with index " << *o.index
                << "\n";
      return 1;
   }
   if (o.json) return 0;
   out << table.mountName << ": " << total << " entries";
   if (o.index || o.filter.any()) out << ", " << shown << " shown";
   out << "\n";
   if (o.count || shown == 0) return 0;
   if (o.detail) {
      for (const auto& t : texts) out << t << "\n";
   } else {
      rows.print(out);
   }
   return 0;
}

// Exit status of `validate` when the table never held still: distinct from 1 (corruption or a
// missing file) and 2 (usage).
constexpr int kValidateBusy = 3;

int runValidate(std::ostream& out, const std::string& name, bool asJson) {
   const TableEntry& table = requireTable(name);
   const std::string dir = existingTableDirectory(table);
   const std::string storeName = table.path + "/" + kEntryCollection;
   Json verdict = {{"table", table.mountName}};
   try {
      // Every tunnel table is keyed by the entry's tunnel id: the first field after the record
      // header, or the first 8 bytes of an mLDP entry. Its hash is checked against each slot's
      // keyHash word.
      const uint32_t keyAt = table.id == TunnelTableIdentifier::mldpTunnelTable
                                 ? 0
                                 : Tunnel::TunnelTable::Codec::kRecordHeaderLen;
      const Dock::KeyHashOf keyHash = [keyAt](const uint8_t* value, uint32_t length,
                                              uint32_t seed) -> uint32_t {
         if (length < keyAt + 8) {
            throw std::runtime_error("entry of " + std::to_string(length) + " bytes has no key");
         }
         const auto id = Tunnel::TunnelTable::TunnelId::deserialize(value + keyAt);
         return Dock::KeyTraits<Tunnel::TunnelTable::TunnelId>::hash(id, seed);
      };
      const auto counts = Dock::validateTableFiles(
          dir, table.type->maxEntryLen + Tessel::kEntryOverhead, {}, keyHash);
      if (asJson) {
         verdict["valid"] = true;
         verdict["occupiedSlots"] = counts.occupiedSlots;
         verdict["freeSlots"] = counts.freeSlots;
         verdict["slabEntries"] = counts.slabEntries;
         out << dumpJson(verdict) << "\n";
      } else {
         out << table.mountName << ": valid: " << counts.occupiedSlots << " occupied slots, "
             << counts.freeSlots << " free slots, " << counts.slabEntries << " slab entries\n";
      }
      return 0;
   } catch (const Dock::TableBusy& e) {
      // The writer changed the table under every walk: no verdict, and no corruption claimed.
      const std::string why = "Dock " + storeName + " validation " + e.what();
      if (asJson) {
         verdict["busy"] = true;
         verdict["error"] = why;
         out << dumpJson(verdict) << "\n";
      }
      std::cerr << "tunnelctl: " << why << "\n";
      return kValidateBusy;
   } catch (const std::exception& e) {
      const std::string why = "Dock " + storeName + " validation failed: " + e.what();
      if (asJson) {
         verdict["valid"] = false;
         verdict["error"] = why;
         out << dumpJson(verdict) << "\n";
      }
      std::cerr << "tunnelctl: " << why << "\n";
      return 1;
   }
}

}  // namespace TunnelCtl
