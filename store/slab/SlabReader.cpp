// SlabReader: mapping one slab file read-only, following its resizes, finding entries.
#include "store/slab/SlabReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>

#include "Region/Error.h"
#include "Spoor/Trace.h"

namespace Tessel {

SlabReader::SlabReader(std::string path, uint32_t relume)
    : path_(std::move(path)), relume_(relume) {}

void SlabReader::safeHeaderCopy(SlabHeader& out, size_t& fileSize) const {
   const auto* h = reinterpret_cast<const SlabHeader*>(file_.data());
   // No retry limit: the counter changes only when the writer resizes, which is rare.
   for (;;) {
      // Acquire: pairs with the release store of the counter in SlabWriter::resize/shrink.
      const uint32_t before = h->resizeCounter.load(std::memory_order_acquire);
      copySlabHeader(*h, out);
      fileSize = file_.fileSize();
      // Acquire fence: pairs with the release fence after the counter store in SlabWriter; the
      // second load sees the counter of any resize whose later stores the copy saw.
      std::atomic_thread_fence(std::memory_order_acquire);
      if (h->resizeCounter.load(std::memory_order_relaxed) == before) return;
   }
}

bool SlabReader::attach(std::string& reason) {
   try {
      file_ = Region::MappedFile::openReadOnly(path_);
   } catch (const Region::Error& e) {
      reason = e.what();
      return false;
   }
   if (file_.size() < Dock::kSlabHeaderSize) {
      reason =
          fmt::format("bad header file size: {} wanted: {}", file_.size(), Dock::kSlabHeaderSize);
      file_.close();
      return false;
   }
   SlabHeader copy;
   size_t fileSize = 0;
   safeHeaderCopy(copy, fileSize);
   // The mapping may be shorter than the file if it grew since it was mapped.
   if (fileSize > file_.size()) file_.remap();
   if (!validateSlabHeader(copy, std::min(fileSize, file_.size()), relume_, reason)) {
      file_.close();
      return false;
   }
   entrySize_ = copy.entrySize;
   resizeCounter_ = copy.resizeCounter.load(std::memory_order_relaxed);
   mappedEntries_ = std::min<uint64_t>(copy.numEntries.load(std::memory_order_relaxed),
                                       entriesIn(file_.size(), entrySize_));
   return true;
}

void SlabReader::detach() {
   file_.close();
   mappedEntries_ = 0;
}

bool SlabReader::doResize() {
   if (!file_) return false;
   SlabHeader copy;
   size_t fileSize = 0;
   safeHeaderCopy(copy, fileSize);
   const uint32_t counter = copy.resizeCounter.load(std::memory_order_relaxed);
   if (counter != resizeCounter_ || fileSize > file_.size()) {
      const uint8_t* before = file_.data();
      try {
         file_.remap();
      } catch (const Region::Error& e) {
         SPOOR_TRACE(Spoor::handle("Tessel"), 1, "{} remap failed: {}", path_, e.what());
         return false;
      }
      if (file_.data() != before) {
         SPOOR_TRACE(Spoor::handle("Tessel"), 5, "base address moved from {} to {}",
                     fmt::ptr(before), fmt::ptr(file_.data()));
      }
   }
   std::string reason;
   if (copy.entrySize != entrySize_ ||
       !validateSlabHeader(copy, std::min(fileSize, file_.size()), relume_, reason)) {
      SPOOR_TRACE(Spoor::handle("Tessel"), 5, "{} after resize: {}", path_,
                  reason.empty() ? "entrySize changed" : reason);
      return false;
   }
   resizeCounter_ = counter;
   mappedEntries_ = std::min<uint64_t>(copy.numEntries.load(std::memory_order_relaxed),
                                       entriesIn(file_.size(), entrySize_));
   return true;
}

const SlabEntryHeader* SlabReader::getEntry(uint32_t index) {
   if (!file_) return nullptr;
   if (index >= mappedEntries_ && (!doResize() || index >= mappedEntries_)) return nullptr;
   return reinterpret_cast<const SlabEntryHeader*>(entryAt(file_.data(), entrySize_, index));
}

}  // namespace Tessel
