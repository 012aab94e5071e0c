// DynamicSlotAllocator<V>: puts a table value into a slab entry for a slot, and checks that a
// slot and the entry it names agree.
//
// setValue serializes the value into a NEW entry (allocation size: serializeLen() +
// kEntryOverhead), records the owning slot in the entry's clientData and returns the entry's Offset
// and the length; the caller publishes both words in the slot (through the lookaside area for a
// replacement) and only then frees the entry the slot named before. The value is serialized into a
// private buffer and moved into the shared entry with atomic stores (SlabBytes.h), since a reader
// may still be copying an entry that is being reused.
#pragma once

#include <cstdint>
#include <vector>

#include "Loom/CorruptionException.h"
#include "store/format/Layout.h"
#include "store/slab/SlabBytes.h"
#include "store/slab/WriterAllocator.h"

namespace Tessel {

struct SlabValue {
   Offset offset;
   uint32_t length = 0;
};

template <class V>
class DynamicSlotAllocator {
  public:
   explicit DynamicSlotAllocator(WriterAllocator& allocator) : allocator_(allocator) {}

   // REQUIRES: 1 <= value.serializeLen() + kEntryOverhead <= maxAllocSize (asserted by alloc).
   SlabValue setValue(uint32_t slotIndex, const V& value) {
      const uint32_t length = value.serializeLen();
      Offset offset = allocator_.alloc(length + kEntryOverhead);
      scratch_.resize(length);
      value.serialize(scratch_.data());
      SlabEntryHeader* entry = allocator_.lookup(offset);
      copyToShared(reinterpret_cast<uint8_t*>(entry) + Dock::kSlabEntryHeaderSize, scratch_.data(),
                   length);
      entry->clientData.store(slotIndex, std::memory_order_relaxed);
      // Release: a reader that sees this size (acquire) sees the payload and clientData. The
      // slot's publication (the caller's release on the flags word) orders it for slot readers.
      entry->payloadSize.store(int32_t(length), std::memory_order_release);
      return SlabValue{offset, length};
   }

   // The value stored at `offset` (writer's own read). Throws the lookup texts, or the value's own
   // exception when its bytes do not deserialize.
   V getValue(Offset offset) {
      SlabEntryHeader* entry = allocator_.lookup(offset);
      const uint32_t length = uint32_t(entry->payloadSize.load(std::memory_order_relaxed));
      scratch_.resize(length);
      copyFromShared(scratch_.data(), allocator_.payload(offset), length);
      V value;
      value.deserialize(scratch_.data(), length);
      return value;
   }

   void release(Offset offset) { allocator_.free(offset); }

   // The entry named by `slot`'s Offset must be occupied, within its class and name `slotIndex`
   // back. Throws Loom::CorruptionException (the lookup texts, or "Clientdata mismatch, slot {}
   // contains offset: {} but slabEntry references slot: {}").
   void validateSlot(uint32_t slotIndex, const Dock::Slot& slot) {
      validateSlot(slotIndex, Offset::fromWord(slot.offset.load(std::memory_order_relaxed)));
   }
   void validateSlot(uint32_t slotIndex, Offset offset) {
      SlabEntryHeader* entry = allocator_.lookup(offset);
      const uint32_t client = entry->clientData.load(std::memory_order_relaxed);
      if (client != slotIndex) {
         throw Loom::CorruptionException(fmt::format(
             "Clientdata mismatch, slot {} contains offset: {} but slabEntry references slot: {}",
             slotIndex, offset.toString(), client));
      }
   }

   WriterAllocator& allocator() { return allocator_; }

  private:
   WriterAllocator& allocator_;
   std::vector<uint8_t> scratch_;
};

}  // namespace Tessel
