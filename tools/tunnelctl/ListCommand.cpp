// list: the tables under the store root, each with its writer, its readers, its size and what its
// files say. It maps the slot table read-only and never mounts, so it works on any table, damaged
// or not.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Commands.h"
#include "Region/MappedFile.h"
#include "Region/OwnerFile.h"
#include "Region/ProcessStart.h"
#include "Region/StoreRoot.h"
#include "StrictJson.h"
#include "store/format/Layout.h"
#include "store/format/SlotTable.h"
#include "store/herald/WakeDirectory.h"

namespace TunnelCtl {

using json = nlohmann::ordered_json;

// Whether a writer holds its lock on <dir>/owner (an exclusive flock, for the writer's whole life):
// a shared non-blocking attempt fails exactly then. When it succeeds, closing the descriptor drops
// it at once, so no lock is left behind. A writer holding its lock never notices the attempt; one
// starting in that very instant retries its own lock briefly (Region::OwnerFile::acquire).
bool writerLockHeld(const std::string& dir) {
   const std::string path = dir + "/" + Dock::kOwnerFile;
   const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) return false;
   const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
   ::close(fd);
   return held;
}

namespace {

bool fileExists(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0;
}

struct WriterState {
   pid_t pid = 0;       // as the owner file names it; 0 when it names none
   bool alive = false;  // the writer's lock is held
   std::string text() const {
      if (pid == 0) return alive ? "alive (pid unknown)" : "none";
      return "pid " + std::to_string(pid) + (alive ? " (alive)" : " (gone)");
   }
};

// The writer is alive while its lock is held; the owner file only names it. A pid that still
// runs is not enough (the writer may have released the table, or the pid been reused).
WriterState writerOf(const std::string& dir) {
   WriterState w;
   w.alive = writerLockHeld(dir);
   Region::OwnerText owner;
   if (Region::OwnerText::parse(Region::OwnerFile::read(dir), owner)) w.pid = owner.pid;
   return w;
}

// The live reader processes of a table, by pid, from the names of their wake sockets
// ("<pid>-<start>-<n>"). A name whose pid no longer runs with that start time is a dead reader's,
// not yet removed by the writer.
std::set<pid_t> readersOf(const std::string& dir) {
   std::set<pid_t> pids;
   DIR* d = ::opendir(Dock::Wake::directory(dir).c_str());
   if (!d) return pids;
   while (const dirent* e = ::readdir(d)) {
      const std::string name = e->d_name;
      if (!Dock::Wake::isReaderName(name)) continue;
      unsigned long long pid = 0, start = 0;
      std::istringstream in(name);
      char dash = 0;
      if (!(in >> pid >> dash >> start) || pid == 0 || pid > 0x7fffffffull || start == 0) continue;
      if (Region::processStartTime(pid_t(pid)) == start) pids.insert(pid_t(pid));
   }
   ::closedir(d);
   return pids;
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
        << std::setw(8) << "READERS" << std::setw(9) << "ENTRIES" << std::setw(10) << "CAPACITY"
        << std::setw(10) << "MAX"
        << "\n";
   size_t found = 0;
   for (const auto& t : tableCatalog()) {
      const std::string dir = tableDirectory(root, t);
      if (!fileExists(dir + "/" + Dock::kSlotsFile)) continue;
      ++found;
      const TableFacts f = factsOf(dir);
      const WriterState w = writerOf(dir);
      const std::set<pid_t> readers = readersOf(dir);
      json j = {{"table", t.mountName}, {"path", t.path}};
      if (w.pid || w.alive) {
         j["writer"] = {{"pid", w.pid ? json(w.pid) : json(nullptr)}, {"alive", w.alive}};
      } else {
         j["writer"] = nullptr;
      }
      j["readers"] = json::array();
      for (const pid_t pid : readers) j["readers"].push_back({{"pid", pid}});
      if (f.readable) {
         j["entries"] = f.entries;
         j["capacity"] = f.capacity;
         j["maxSlots"] = f.maxSlots;
      } else {
         j["problem"] = f.problem;
      }
      tables.push_back(j);
      text << std::left << std::setw(26) << t.mountName << std::setw(20) << w.text() << std::right
           << std::setw(8) << readers.size();
      if (f.readable) {
         text << std::setw(9) << f.entries << std::setw(10) << f.capacity << std::setw(10)
              << f.maxSlots << "\n";
      } else {
         text << "  unreadable: " << f.problem << "\n";
      }
   }
   if (asJson) {
      out << dumpJson(json{{"root", root}, {"tables", tables}}, 2) << "\n";
   } else if (found == 0) {
      out << "no tunnel tables under " << root << "\n";
   } else {
      out << text.str();
   }
   return 0;
}

}  // namespace TunnelCtl
