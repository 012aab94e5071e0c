// SlotCopy: retry loops around the single-attempt copies (policy in the header).
#include "store/reader/SlotCopy.h"

#include <fmt/format.h>

#include <thread>

#include "Loom/CorruptionException.h"
#include "store/herald/Herald.h"
#include "store/slab/ReaderAllocator.h"

namespace Dock {

void copySlot(const SlotTableHeader& header, const Slot* slots, uint32_t index, SlotImage& out) {
   for (uint32_t tries = 1;; ++tries) {
      if (trySlotCopy(header, slots[index], index, out)) return;
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
      if (!readSlotWords(read, header, slots[index], index, image)) continue;
      if (!image.occupied()) {
         if (read.unchanged()) return false;
         continue;
      }
      if (bytes.size() < image.length) bytes.resize(image.length);
      uint32_t clientData = kNone;
      const int64_t got = allocator.copy(Tessel::Offset::fromWord(image.offset), bytes.data(),
                                         image.length, clientData);
      if (!read.unchanged()) continue;
      std::string reason;
      if (got < 0) {
         reason = fmt::format("slot:{} offset:{} cannot be read", index,
                              Tessel::Offset::fromWord(image.offset));
      } else if (clientData != index) {
         reason = fmt::format("slot:{} offset:{} entry references slot: {}", index,
                              Tessel::Offset::fromWord(image.offset), clientData);
      } else if (uint64_t(got) != image.length) {
         reason = fmt::format("slot:{} offset:{} payloadSize:{} but slot length:{}", index,
                              Tessel::Offset::fromWord(image.offset), got, image.length);
      } else {
         bytes.resize(image.length);
         return true;
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
