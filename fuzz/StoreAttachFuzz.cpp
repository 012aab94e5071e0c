// Arbitrary bytes as a table's files: the first two input bytes choose how the rest splits into
// a slot table file and a slab file (slab.01 of M = 704, whose entries are 32 bytes). Header
// validation runs on both, then the deep walk over the directory as `tunnelctl validate` runs it.
// Every outcome is a report or a pass; a crash, a hang or a sanitizer finding is a bug.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Region/MappedFile.h"
#include "store/DeepValidate.h"
#include "store/format/SlotTable.h"
#include "store/slab/Slab.h"

namespace {

// The scratch directory, made on first use and removed at exit. Held in a plain array: the exit
// handler runs after static objects are destroyed, so it must not touch a std::string.
char scratchDir[] = "/dev/shm/store-attach-fuzz-XXXXXX";

void removeScratch() {
   ::unlink((std::string(scratchDir) + "/slots").c_str());
   ::unlink((std::string(scratchDir) + "/slab.01").c_str());
   ::rmdir(scratchDir);
}

std::string dir() {
   static const bool made = [] {
      if (!::mkdtemp(scratchDir)) std::abort();
      std::atexit(removeScratch);
      return true;
   }();
   (void)made;
   return scratchDir;
}

void writeFile(const std::string& path, const uint8_t* data, size_t len) {
   ::unlink(path.c_str());
   int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
   if (fd < 0) std::abort();
   if (len && ::write(fd, data, len) != ssize_t(len)) std::abort();
   ::close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   if (size < 2) return 0;
   const size_t split = std::min<size_t>(size - 2, (size_t(data[0]) << 8 | data[1]));
   const uint8_t* slots = data + 2;
   const uint8_t* slab = slots + split;
   const size_t slabLen = size - 2 - split;

   // Headers straight from (aligned copies of) the bytes.
   std::vector<uint64_t> a((std::max<size_t>(split, Dock::kSlotHeaderSize) + 7) / 8, 0);
   std::memcpy(a.data(), slots, split);
   std::string reason;
   Dock::SlotTable::validateHeader(*reinterpret_cast<const Dock::SlotTableHeader*>(a.data()), split,
                                   0, reason);
   std::vector<uint64_t> b((std::max<size_t>(slabLen, Dock::kSlabHeaderSize) + 7) / 8, 0);
   std::memcpy(b.data(), slab, slabLen);
   Tessel::validateSlabHeader(*reinterpret_cast<const Dock::SlabHeader*>(b.data()), slabLen, 0,
                              reason);

   // The files, then the walk.
   writeFile(dir() + "/slots", slots, split);
   writeFile(dir() + "/slab.01", slab, slabLen);
   // Nothing changes these files: one walk, no confirmation.
   Dock::ValidatePatience once;
   once.walks = 1;
   once.confirm.clear();
   try {
      Dock::validateTableFiles(dir(), 704, once);
   } catch (const std::exception&) {
   }
   return 0;
}
