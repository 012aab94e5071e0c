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

#include "Agent.h"
#include "Commands.h"
#include "Mldp/MldpTunnelTable.h"
#include "Region/MappedFile.h"
#include "Region/OwnerFile.h"
#include "Region/StoreRoot.h"
#include "store/DeepValidate.h"
#include "store/Layout.h"
#include "store/LinearSizeConfig.h"
#include "store/SlotTable.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;
using json = nlohmann::ordered_json;

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

// One entry as `show --json` gives it: the key's parts, then what a program wants without parsing
// the text form (the mLDP tree id), then the text form.
struct ShownEntry {
   TT::TunnelId id;
   json fields;
   Vela::String text;
};

// Every entry of `table`, by tunnel id. An mLDP entry is read once, and its tree id and text
// both come from that one copy, so they cannot straddle a concurrent write.
std::vector<ShownEntry> showSnapshot(const TT::TunnelTableBase& table) {
   std::vector<ShownEntry> out;
   if (const auto* mldp = dynamic_cast<const TT::MldpTunnelTable*>(&table)) {
      for (const auto& key : mldp->entryKeys()) {
         if (auto e = mldp->entryIf(key)) {
            out.push_back(
                {key, {{"mcastTreeId", std::string(e->mcastTreeId().text())}}, valueToStrep(*e)});
         }
      }
      std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
   } else {
      for (auto& [key, text] : tableSnapshot(table)) out.push_back({key, json::object(), text});
   }
   return out;
}

}  // namespace

int runShow(std::ostream& out, const std::string& name, bool asJson) {
   const TableEntry& table = requireTable(name);
   existingTableDirectory(table);
   Agent agent;
   auto mounted = mountSynchronized(agent, table);
   const auto entries = showSnapshot(*mounted);
   if (asJson) {
      json list = json::array();
      for (const auto& e : entries) {
         json j = {{"tunnelId", e.id.value()},
                   {"tunnelType", TT::tunnelTypeCode(e.id.tunnelType())},
                   {"tunnelIndex", e.id.tunnelIndex()}};
         j.update(e.fields);
         j["text"] = e.text;
         list.push_back(std::move(j));
      }
      out << json{{"table", table.mountName},
                  {"typeName", table.type->typeName},
                  {"entryType", table.type->entryTypeName},
                  {"count", entries.size()},
                  {"entries", list}}
                 .dump(2)
          << "\n";
   } else {
      out << table.mountName << ": " << entries.size() << " entries\n";
      for (const auto& e : entries) out << e.text << "\n";
   }
   return 0;
}

int runValidate(std::ostream& out, const std::string& name) {
   const TableEntry& table = requireTable(name);
   const std::string dir = existingTableDirectory(table);
   const std::string storeName = table.path + "/" + kEntryCollection;
   try {
      const auto counts =
          Dock::validateTableFiles(dir, table.type->maxEntryLen + Tessel::kEntryOverhead);
      out << table.mountName << ": valid: " << counts.occupiedSlots << " occupied slots, "
          << counts.freeSlots << " free slots, " << counts.slabEntries << " slab entries\n";
      return 0;
   } catch (const std::exception& e) {
      std::cerr << "tunnelctl: Dock " << storeName << " validation failed: " << e.what() << "\n";
      return 1;
   }
}

}  // namespace TunnelCtl
