// SlabIntent: the table's intent file, and the removal of half-created slab files.
#include "store/slab/SlabIntent.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string_view>

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
   // 0644 like every file of the table (README): tools of any user inspect it.
   file_ = Region::MappedFile::create(path, kIntentSize);
   IntentRecord* r = record();
   r->version = kIntentVersion;
   r->op.store(0, std::memory_order_relaxed);
   // A record is trusted only once its magic is there. Only the writer writes the file and the
   // next writer reads it after this one is gone, so only the compiler could reorder.
   std::atomic_signal_fence(std::memory_order_seq_cst);
   r->magic = kIntentMagic;
}

namespace {

bool allDigits(std::string_view s) {
   return !s.empty() &&
          std::all_of(s.begin(), s.end(), [](char c) { return std::isdigit(uint8_t(c)); });
}

// A temporary name of a table file: "slab.NN.<pid>.tmp" (SlabWriter::create),
// "herald.<pid>.tmp" (HeraldWriter::create), "relume.tmp.<pid>" (Region::RelumeFile::write).
bool isTemporaryName(std::string_view n) {
   auto cut = [&](std::string_view prefix, std::string_view suffix, std::string_view& middle) {
      if (n.size() < prefix.size() + suffix.size() || !n.starts_with(prefix) ||
          !n.ends_with(suffix)) {
         return false;
      }
      middle = n.substr(prefix.size(), n.size() - prefix.size() - suffix.size());
      return true;
   };
   std::string_view m;
   if (cut("slab.", ".tmp", m)) {
      return m.size() > 3 && allDigits(m.substr(0, 2)) && m[2] == '.' && allDigits(m.substr(3));
   }
   if (cut(std::string(Dock::kHeraldFile) + ".", ".tmp", m)) return allDigits(m);
   if (cut(std::string(Dock::kRelumeFile) + ".tmp.", "", m)) return allDigits(m);
   return false;
}

}  // namespace

uint32_t removeStrayFiles(const std::string& dir) {
   DIR* d = ::opendir(dir.c_str());
   if (!d) return 0;
   uint32_t removed = 0;
   while (const dirent* e = ::readdir(d)) {
      if (!isTemporaryName(e->d_name)) continue;
      if (::unlinkat(::dirfd(d), e->d_name, 0) == 0) {
         ++removed;
         SPOOR_TRACE(Spoor::handle("Tessel"), 1,
                     "{}/{} removed: left by a writer killed while creating it", dir, e->d_name);
      }
   }
   ::closedir(d);
   return removed;
}

}  // namespace Tessel
