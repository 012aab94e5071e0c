// The deep check of a table's files: the free list, every occupied slot against its slab entry.
#include "store/DeepValidate.h"

#include <fmt/format.h>

#include <vector>

#include "Loom/CorruptionException.h"
#include "Region/MappedFile.h"
#include "store/format/Offset.h"
#include "store/format/SlotTable.h"

namespace Dock {

namespace {

[[noreturn]] void corrupt(std::string text) {
   throw Loom::CorruptionException(std::move(text));
}

}  // namespace

DeepValidateCounts deepValidate(const SlotTableHeader& header, Tessel::WriterAllocator& slabs) {
   DeepValidateCounts counts;
   const uint32_t n = SlotTable::numSlots(header);
   const Slot* slots = SlotTable::slots(&header);
   std::vector<bool> free(n, false);

   for (uint32_t i = header.freeSlots.load(std::memory_order_acquire); i != kNone;) {
      if (i >= n)
         corrupt(fmt::format("corrupted free slot detected with out of bound index: {}", i));
      if (free[i]) corrupt(fmt::format("duplicate freeSlot detected: {}", i));
      free[i] = true;
      ++counts.freeSlots;
      i = slots[i].next.load(std::memory_order_relaxed);
   }

   for (uint32_t i = 0; i < n; ++i) {
      const uint32_t flags = slots[i].flags.load(std::memory_order_acquire);
      if (free[i]) {
         // Reached once through the free list and once more as an occupied slot.
         if (flags & kOccupied) corrupt(fmt::format("duplicate slot: {}", i));
         continue;
      }
      if (!(flags & kOccupied)) corrupt(fmt::format("missing OCCUPIED bit: {:#x}", flags));
      if (flags & kLookaside) corrupt(fmt::format("stuck LOOKASIDE bit: {:#x}", flags));
      const auto offset = Tessel::Offset::fromWord(slots[i].offset.load(std::memory_order_relaxed));
      const SlabEntryHeader* entry = slabs.lookup(offset);
      const uint32_t client = entry->clientData.load(std::memory_order_relaxed);
      if (client != i) {
         corrupt(fmt::format(
             "Clientdata mismatch, slot {} contains offset: {} but slabEntry references slot: {}",
             i, offset.toString(), client));
      }
      ++counts.occupiedSlots;
      ++counts.slabEntries;
   }

   const uint32_t occupied = header.occupiedSlots.load(std::memory_order_relaxed);
   if (uint64_t(counts.freeSlots) + occupied != n) {
      corrupt(
          fmt::format("numSlots mismatch, length of freeList: {}, occupiedSlots: {} do not add up "
                      "to numSlots: {}",
                      counts.freeSlots, occupied, n));
   }

   slabs.validate();
   const uint64_t expected = slabs.numOccupied();
   if (counts.slabEntries < expected) {
      corrupt(fmt::format("validation failed, expected: {} allocated SlabEntries but only saw: {}",
                          expected, counts.slabEntries));
   }
   return counts;
}

DeepValidateCounts validateTableFiles(const std::string& dir, uint32_t maxAllocSize) {
   auto file = Region::MappedFile::openReadOnly(dir + "/" + kSlotsFile);
   if (file.size() < kSlotHeaderSize) {
      corrupt(fmt::format("bad header file size: {} wanted:{}", file.size(), kSlotHeaderSize));
   }
   const auto* header = reinterpret_cast<const SlotTableHeader*>(file.data());
   std::string reason;
   if (!SlotTable::validateHeader(*header, file.size(), 0, reason)) corrupt(reason);
   Tessel::WriterAllocator slabs(dir, Tessel::LinearSizeConfig(maxAllocSize), header->relume);
   slabs.attachReadOnly();
   return deepValidate(*header, slabs);
}

}  // namespace Dock
