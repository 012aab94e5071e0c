// SlabIntent: the table's intent file, and the removal of half-created slab files.
#include "store/slab/SlabIntent.h"

#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <cstring>

#include "Region/Error.h"
#include "Spoor/Trace.h"

namespace Tessel {

StoreHook storeHook = nullptr;

const char* slabOpName(SlabOp op) {
   switch (op) {
      case SlabOp::kIdle:
         return "idle";
      case SlabOp::kAlloc:
         return "alloc";
      case SlabOp::kFree:
         return "free";
      case SlabOp::kGrow:
         return "grow";
      case SlabOp::kShrink:
         return "shrink";
   }
   return "unknown";
}

void IntentFile::open(const std::string& dir) {
   const std::string path = dir + "/" + kIntentFile;
   close();
   if (::access(path.c_str(), F_OK) == 0) {
      try {
         file_ = Region::MappedFile::openReadWrite(path);
      } catch (const Region::Error& e) {
         SPOOR_TRACE(Spoor::handle("Tessel"), 1, "{} not kept: {}", path, e.what());
      }
      if (file_ && file_.size() >= kIntentSize && record()->magic == kIntentMagic &&
          record()->version == kIntentVersion) {
         return;
      }
      // Not a record: nothing can be repaired from it, and the slabs' own validation decides.
      file_.close();
   }
   file_ = Region::MappedFile::create(path, kIntentSize, 0600);
   IntentRecord* r = record();
   r->version = kIntentVersion;
   r->op.store(0, std::memory_order_relaxed);
   // A record is trusted only once its magic is there. The file is private to the writer and
   // the next writer reads it after this one is gone, so only the compiler could reorder.
   std::atomic_signal_fence(std::memory_order_seq_cst);
   r->magic = kIntentMagic;
}

uint32_t removeStraySlabFiles(const std::string& dir) {
   DIR* d = ::opendir(dir.c_str());
   if (!d) return 0;
   uint32_t removed = 0;
   while (const dirent* e = ::readdir(d)) {
      // "slab.NN.<pid>.tmp"
      const char* n = e->d_name;
      const size_t len = std::strlen(n);
      if (len < 13 || std::strncmp(n, "slab.", 5) != 0 || std::strcmp(n + len - 4, ".tmp") != 0 ||
          !std::isdigit(uint8_t(n[5])) || !std::isdigit(uint8_t(n[6])) || n[7] != '.') {
         continue;
      }
      bool digits = true;  // the pid, between "slab.NN." and ".tmp" (at least one: len >= 13)
      for (size_t i = 8; i < len - 4; ++i) digits = digits && std::isdigit(uint8_t(n[i]));
      if (!digits) continue;
      if (::unlinkat(::dirfd(d), n, 0) == 0) {
         ++removed;
         SPOOR_TRACE(Spoor::handle("Tessel"), 1,
                     "{}/{} removed: left by a writer killed while creating a slab", dir, n);
      }
   }
   ::closedir(d);
   return removed;
}

}  // namespace Tessel
