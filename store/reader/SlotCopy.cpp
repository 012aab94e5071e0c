// SlotCopy: retry loops around the single-attempt copies (policy in the header).
#include "store/reader/SlotCopy.h"

#include <fmt/format.h>

#include <thread>

#include "Loom/CorruptionException.h"
#include "store/herald/Herald.h"
#include "store/slab/ReaderAllocator.h"

namespace Dock {

namespace {
std::string lookasideReason(uint32_t index, uint32_t named) {
   return fmt::format("slot:{} LOOKASIDE set but lookaside names slot:{}", index, named);
}
}  // namespace

void copySlot(const SlotTableHeader& header, const Slot* slots, uint32_t index, SlotImage& out) {
   uint32_t stableFailures = 0;
   for (uint32_t tries = 1;; ++tries) {
      const SeqRead<uint32_t> read(slots[index].flags);
      uint32_t named = kNone;
      const bool copied = readSlotWords(read, header, slots[index], index, out, named);
      if (read.unchanged()) {
         if (copied) return;
         if (++stableFailures >= SlotCopyPolicy::kCorruptAfter) {
            throw Loom::CorruptionException(lookasideReason(index, named));
         }
      }
      if (tries % SlotCopyPolicy::kYieldAfter == 0) std::this_thread::yield();
   }
}

bool writerRestarted(uint32_t relume, const SlotTableHeader& slots, const HeraldHeader* herald) {
   // Acquire, both: pairs with the restarted writer's release stores of its relume.
   if (herald && Herald::relumeOf(*herald) != relume) return true;
   return slots.relume.load(std::memory_order_acquire) != relume;
}

bool copySlotValue(const SlotTableHeader& header, const Slot* slots, uint32_t index,
                   Tessel::ReaderAllocator& allocator, SlotImage& image,
                   std::vector<uint8_t>& bytes) {
   uint32_t stableFailures = 0;
   for (uint32_t tries = 1;; ++tries) {
      if (tries % SlotCopyPolicy::kYieldAfter == 0) std::this_thread::yield();
      const SeqRead<uint32_t> read(slots[index].flags);
      uint32_t named = kNone;
      std::string reason;
      if (!readSlotWords(read, header, slots[index], index, image, named)) {
         if (!read.unchanged()) continue;
         reason = lookasideReason(index, named);
      } else if (!image.occupied()) {
         if (read.unchanged()) return false;
         continue;
      } else {
         if (bytes.size() < image.length) bytes.resize(image.length);
         Tessel::ReaderAllocator::Copied entry;
         const Tessel::Offset offset = Tessel::Offset::fromWord(image.offset);
         const int64_t got = allocator.copy(offset, bytes.data(), image.length, entry);
         if (!read.unchanged()) continue;
         if (got < 0) {
            reason = fmt::format("slot:{} offset:{} cannot be read", index, offset);
         } else if (entry.clientData != index) {
            reason = fmt::format("slot:{} offset:{} entry references slot: {}", index, offset,
                                 entry.clientData);
         } else if (uint64_t(got) != image.length) {
            reason = fmt::format("slot:{} offset:{} payloadSize:{} but slot length:{}", index,
                                 offset, got, image.length);
         } else if (!entry.intact()) {
            reason = fmt::format(
                "slot:{} offset:{} entry check mismatch: computed:{:#018x} "
                "stored:{:#018x}",
                index, offset, entry.computed, entry.stored);
         } else {
            bytes.resize(image.length);
            return true;
         }
      }
      // A restarted writer re-stamps the slot table before any slab, so a slab that fails the
      // reader's relume shows here as a restart.
      if (writerRestarted(allocator.relume(), header, nullptr)) {
         throw WriterRestarted(fmt::format("slot:{} relume changed from {} to {}", index,
                                           allocator.relume(),
                                           header.relume.load(std::memory_order_relaxed)));
      }
      if (++stableFailures >= SlotCopyPolicy::kCorruptAfter) {
         throw Loom::CorruptionException(reason);
      }
   }
}

}  // namespace Dock
