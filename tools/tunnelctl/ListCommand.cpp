// list: the tables under the store root, each with its writer, its size and what its files say.
// It maps the slot table read-only and never mounts, so it works on any table, damaged or not.
#include <sys/stat.h>

#include <fstream>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Commands.h"
#include "Region/MappedFile.h"
#include "Region/OwnerFile.h"
#include "Region/StoreRoot.h"
#include "store/Layout.h"
#include "store/SlotTable.h"

namespace TunnelCtl {

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

}  // namespace TunnelCtl
