// remove TABLE: deletes the files of a table no writer holds. The writer's lock on the owner file
// is what says a writer holds it: remove takes that lock itself (non-blocking) and keeps it while
// the files go, so no writer can attach to a half-removed table; when a live writer has it, the
// table is left alone.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "Commands.h"
#include "Region/OwnerFile.h"
#include "store/format/Layout.h"

namespace TunnelCtl {

namespace fs = std::filesystem;

int runRemove(std::ostream& out, const std::string& name) {
   const TableEntry& table = requireTable(name);
   const fs::path dir = existingTableDirectory(table);
   const fs::path owner = dir / Dock::kOwnerFile;
   // Created when missing, so a writer starting now and this removal meet on the same lock.
   const int fd = ::open(owner.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
   if (fd < 0) {
      throw std::runtime_error("cannot open " + owner.string() + ": " + std::strerror(errno));
   }
   struct Closer {
      int fd;
      ~Closer() { ::close(fd); }  // drops the lock too
   } closer{fd};
   if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK) {
         throw std::runtime_error("cannot lock " + owner.string() + ": " + std::strerror(errno));
      }
      Region::OwnerText holder;
      const bool named = Region::OwnerText::parse(Region::OwnerFile::read(dir), holder);
      std::cerr << "tunnelctl: " << table.mountName << " has a live writer (pid "
                << (named ? std::to_string(holder.pid) : std::string("unknown"))
                << "); not removed\n";
      return 1;
   }
   // The owner file goes last: until then a writer that starts opens it and finds it locked.
   for (const auto& e : fs::directory_iterator(dir)) {
      if (e.path().filename() != Dock::kOwnerFile) fs::remove_all(e.path());
   }
   fs::remove(owner);
   fs::remove(dir);
   // The table's own directory goes too when the entry collection was all it held.
   std::error_code ec;
   if (fs::is_empty(dir.parent_path(), ec) && !ec) fs::remove(dir.parent_path(), ec);
   out << table.mountName << ": removed " << dir.string() << "\n";
   return 0;
}

}  // namespace TunnelCtl
