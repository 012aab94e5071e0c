// DynamicSlotAllocator<V>: the writer's own reads of table values out of slab entries, and the
// check that a slot and the entry it names agree. Values go in through WriterAllocator::store.
#pragma once

#include <cstdint>
#include <vector>

#include "Loom/CorruptionException.h"
#include "store/format/Layout.h"
#include "store/format/SharedBytes.h"
#include "store/slab/SlotEntryCheck.h"
#include "store/slab/WriterAllocator.h"

namespace Tessel {

template <class V>
class DynamicSlotAllocator {
  public:
   explicit DynamicSlotAllocator(WriterAllocator& allocator) : allocator_(allocator) {}

   // The value stored at `offset` (writer's own read). Throws the lookup texts, or the value's own
   // exception when its bytes do not deserialize.
   V getValue(Offset offset) {
      SlabEntryHeader* entry = allocator_.lookup(offset);
      const uint32_t length = uint32_t(entry->payloadSize.load(std::memory_order_relaxed));
      scratch_.resize(length);
      Dock::copyFromShared(scratch_.data(), allocator_.payload(offset), length);
      V value;
      value.deserialize(scratch_.data(), length);
      return value;
   }

   void release(Offset offset) { allocator_.free(offset); }

   // The entry named by `slot`'s Offset must be occupied, within its class, name `slotIndex` back,
   // hold the slot's recorded length and match its check. Throws Loom::CorruptionException (the
   // lookup texts, or checkSlotEntry's).
   void validateSlot(uint32_t slotIndex, const Dock::Slot& slot) {
      const Offset offset = Offset::fromWord(slot.offset.load(std::memory_order_relaxed));
      checkSlotEntry(slotIndex, offset, slot.length.load(std::memory_order_relaxed),
                     *allocator_.lookup(offset), allocator_.maxPayload(offset));
   }

   WriterAllocator& allocator() { return allocator_; }

  private:
   WriterAllocator& allocator_;
   std::vector<uint8_t> scratch_;
};

}  // namespace Tessel
