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

// The start time (clock ticks since boot) of process `pid`, or 0 when it is gone.
unsigned long long processStart(pid_t pid) {
   std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
   std::string line;
   if (!std::getline(in, line)) return 0;
   // Field 2 (the command) may hold blanks; fields after its closing parenthesis are fixed.
   const auto close = line.rfind(')');
   if (close == std::string::npos) return 0;
   std::istringstream rest(line.substr(close + 2));
   std::string field;
   for (int i = 3; i < 22 && rest >> field; ++i) {
   }
   unsigned long long start = 0;
   rest >> start;
   return start;
}

struct WriterState {
   pid_t pid = 0;
   bool alive = false;
   std::string text() const {
      if (pid == 0) return "none";
      return "pid " + std::to_string(pid) + (alive ? " (alive)" : " (gone)");
   }
};

// The writer named by the owner file. A pid is alive only when a process with that pid and the
// recorded start time runs on this host (a recycled pid is not the writer).
WriterState writerOf(const std::string& dir) {
   WriterState w;
   Region::OwnerText owner;
   if (!Region::OwnerText::parse(Region::OwnerFile::read(dir), owner)) return w;
   w.pid = owner.pid;
   w.alive = owner.host == Region::OwnerText::self().host && processStart(owner.pid) == owner.start;
   return w;
}

struct TableFacts {
   bool readable = false;
   std::string problem;
   uint32_t entries = 0;
   uint32_t capacity = 0;
   uint32_t maxSlots = 0;
};

TableFacts factsOf(const std::string& dir) {
   TableFacts f;
   try {
      auto file = Region::MappedFile::openReadOnly(dir + "/" + Dock::kSlotsFile);
      if (file.size() < Dock::kSlotHeaderSize) {
         f.problem = "slot table shorter than its header";
         return f;
      }
      const auto* h = reinterpret_cast<const Dock::SlotTableHeader*>(file.data());
      if (h->magic != Dock::kSlotMagic) {
         f.problem = "bad magic";
         return f;
      }
      f.readable = true;
      f.entries = h->occupiedSlots.load(std::memory_order_acquire);
      f.capacity = Dock::SlotTable::numSlots(*h);
      f.maxSlots = h->maxSlots;
   } catch (const std::exception& e) {
      f.problem = e.what();
   }
   return f;
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

int runList(std::ostream& out, bool asJson) {
   const std::string root = Region::storeRoot();
   json tables = json::array();
   std::ostringstream text;
   text << std::left << std::setw(26) << "TABLE" << std::setw(20) << "WRITER" << std::right
        << std::setw(9) << "ENTRIES" << std::setw(10) << "CAPACITY" << std::setw(10) << "MAX"
        << "\n";
   size_t found = 0;
   for (const auto& t : tableCatalog()) {
      const std::string dir = tableDirectory(root, t);
      if (!fileExists(dir + "/" + Dock::kSlotsFile)) continue;
      ++found;
      const TableFacts f = factsOf(dir);
      const WriterState w = writerOf(dir);
      json j = {{"table", t.mountName}, {"path", t.path}};
      j["writer"] = w.pid ? json{{"pid", w.pid}, {"alive", w.alive}} : json(nullptr);
      if (f.readable) {
         j["entries"] = f.entries;
         j["capacity"] = f.capacity;
         j["maxSlots"] = f.maxSlots;
      } else {
         j["problem"] = f.problem;
      }
      tables.push_back(j);
      text << std::left << std::setw(26) << t.mountName << std::setw(20) << w.text() << std::right;
      if (f.readable) {
         text << std::setw(9) << f.entries << std::setw(10) << f.capacity << std::setw(10)
              << f.maxSlots << "\n";
      } else {
         text << "  unreadable: " << f.problem << "\n";
      }
   }
   if (asJson) {
      out << json{{"root", root}, {"tables", tables}}.dump(2) << "\n";
   } else if (found == 0) {
      out << "no tunnel tables under " << root << "\n";
   } else {
      out << text.str();
   }
   return 0;
}

namespace {

// Mounts `table` as a key-shadowing reader and waits until it has synchronized.
Vela::Ptr<TT::TunnelTableBase> mountSynchronized(Agent& agent, const TableEntry& table) {
   auto mounted = agent.mounter().mountKeyshadow(table.id);
   if (!mounted) throw std::runtime_error(table.mountName + ": the mount gave no tunnel table");
   if (!agent.runUntil([&] { return readerSynchronized(*mounted); }, std::chrono::seconds(10))) {
      throw std::runtime_error(table.mountName + ": the reader did not synchronize within 10 s");
   }
   return mounted;
}

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

int runWatch(std::ostream& out, const std::string& name, uint64_t count, double seconds) {
   const TableEntry& table = requireTable(name);
   existingTableDirectory(table);
   Agent agent;
   bool stop = false;
   agent.signalsIs({SIGINT, SIGTERM}, [&](int) { stop = true; });
   auto mounted = mountSynchronized(agent, table);
   out << table.mountName << ": synchronized, " << mounted->entryCount() << " entries" << std::endl;

   // One line per notification, the entry as the reader sees it at that moment.
   struct Printer : Vela::Entity::Notifiee {
      std::ostream* out;
      const TT::TunnelTableBase* table;
      const std::string* mountName;
      uint64_t seen = 0;
      void onAttribute(Vela::AttributeId attr, const void* key) override {
         if (attr != Vela::attrEntry || !key) return;
         const auto& id = *static_cast<const TT::TunnelId*>(key);
         ++seen;
         if (auto text = table->entryStrep(id)) {
            *out << *mountName << " " << keyText(id) << " changed: " << *text << std::endl;
         } else {
            *out << *mountName << " " << keyText(id) << " removed" << std::endl;
         }
      }
   } printer;
   printer.out = &out;
   printer.table = mounted.get();
   printer.mountName = &table.mountName;
   mounted->notifieeAdd(&printer);
   const auto limit = seconds > 0 ? std::chrono::milliseconds(int64_t(seconds * 1000))
                                  : std::chrono::milliseconds(std::chrono::hours(24 * 365));
   agent.runUntil([&] { return stop || (count && printer.seen >= count); }, limit);
   mounted->notifieeDel(&printer);
   out << table.mountName << ": " << printer.seen << " changes" << std::endl;
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
