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

Dock::SafeHeader<SlabHeader, uint32_t> SlabReader::headerCopy() const {
   const auto* h = reinterpret_cast<const SlabHeader*>(file_.data());
   // The writer's resize stores the counter with release and fences after it (SlabWriter::resize).
   return Dock::safeHeaderCopy(h, h->resizeCounter, [this] { return file_.fileSize(); });
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
   const auto copy = headerCopy();
   // The mapping may be shorter than the file if it grew since it was mapped.
   if (copy.size > file_.size()) file_.remap();
   if (!validateSlabHeader(*copy.header, std::min(copy.size, file_.size()), relume_, reason)) {
      file_.close();
      return false;
   }
   entrySize_ = copy.header->entrySize;
   resizeCounter_ = copy.version;
   mappedEntries_ = std::min<uint64_t>(copy.header->numEntries.load(std::memory_order_relaxed),
                                       entriesIn(file_.size(), entrySize_));
   return true;
}

void SlabReader::detach() {
   file_.close();
   mappedEntries_ = 0;
}

bool SlabReader::doResize() {
   if (!file_) return false;
   const auto copy = headerCopy();
   const uint32_t counter = copy.version;
   const size_t fileSize = copy.size;
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
   if (copy.header->entrySize != entrySize_ ||
       !validateSlabHeader(*copy.header, std::min(fileSize, file_.size()), relume_, reason)) {
      SPOOR_TRACE(Spoor::handle("Tessel"), 5, "{} after resize: {}", path_,
                  reason.empty() ? "entrySize changed" : reason);
      return false;
   }
   resizeCounter_ = counter;
   mappedEntries_ = std::min<uint64_t>(copy.header->numEntries.load(std::memory_order_relaxed),
                                       entriesIn(file_.size(), entrySize_));
   return true;
}

const SlabEntryHeader* SlabReader::getEntry(uint32_t index) {
   if (!file_) return nullptr;
   if (index >= mappedEntries_ && (!doResize() || index >= mappedEntries_)) return nullptr;
   return reinterpret_cast<const SlabEntryHeader*>(entryAt(file_.data(), entrySize_, index));
}

}  // namespace Tessel
