// Consistent copies: the header copy retries until its version word is stable, the slot copy takes
// a rewritten slot's value from the lookaside area, and a copy racing a writer is never torn.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "store/reader/SlotCopy.h"

namespace Dock {
namespace {

TEST(SlotCopy, HeaderCopyIsRetriedUntilTheVersionWordIsStable) {
   alignas(8) SlotTableHeader h;
   std::memset(static_cast<void*>(&h), 0, sizeof h);
   h.sizeWord.store(makeSizeWord(4, 64));
   h.occupiedSlots.store(10);
   // The "writer" resizes during the first three copies (between the two version loads).
   int resizes = 3;
   const auto copy = safeHeaderCopy(&h, h.sizeWord, [&] {
      if (resizes > 0) {
         --resizes;
         const uint32_t c = sizeWordCounter(h.sizeWord.load());
         h.occupiedSlots.store(20 + c);
         h.sizeWord.store(makeSizeWord(c + 1, 128));
      }
      return size_t(4096);
   });
   EXPECT_EQ(copy.tries, 4u);
   EXPECT_EQ(copy.version, makeSizeWord(7, 128));
   EXPECT_EQ(copy.header->occupiedSlots.load(), 26u);
   EXPECT_EQ(sizeWordNumSlots(copy.header->sizeWord.load()), 128u);
   EXPECT_EQ(copy.size, 4096u);
}

TEST(SlotCopy, RewrittenSlotIsReadFromTheLookasideArea) {
   alignas(8) unsigned char file[kSlotHeaderSize + 4 * kSlotSize] = {};
   auto* h = reinterpret_cast<SlotTableHeader*>(file);
   Slot* slots = reinterpret_cast<Slot*>(file + kSlotHeaderSize);
   slots[2].flags.store(kOccupied | 8);
   slots[2].offset.store(111);
   slots[2].length.store(10);
   h->lookaside.slot.store(2);
   h->lookaside.offset.store(222);
   h->lookaside.length.store(20);
   SlotImage img;
   ASSERT_TRUE(trySlotCopy(*h, slots[2], 2, img));
   EXPECT_EQ(img.offset, 111u);
   slots[2].flags.store(kOccupied | kLookaside | 8);
   ASSERT_TRUE(trySlotCopy(*h, slots[2], 2, img));
   EXPECT_EQ(img.offset, 222u);
   EXPECT_EQ(img.length, 20u);
   // A lookaside naming another slot cannot be this slot's value: not a consistent copy.
   h->lookaside.slot.store(3);
   EXPECT_FALSE(trySlotCopy(*h, slots[2], 2, img));
}

TEST(SlotCopy, CopyRacingAWriterIsNeverTorn) {
   // The writer keeps offset == length * 3 in every published state, using the lookaside
   // protocol; a reader must never see another pair.
   alignas(8) unsigned char file[kSlotHeaderSize + kSlotSize] = {};
   auto* h = reinterpret_cast<SlotTableHeader*>(file);
   Slot& slot = *reinterpret_cast<Slot*>(file + kSlotHeaderSize);
   slot.length.store(1);
   slot.offset.store(3);
   slot.flags.store(kOccupied);
   h->lookaside.slot.store(0);
   std::atomic<bool> stop{false};
   std::thread writer([&] {
      for (uint32_t i = 2; !stop.load(std::memory_order_relaxed); ++i) {
         h->lookaside.length.store(i, std::memory_order_release);
         h->lookaside.offset.store(i * 3, std::memory_order_release);
         const uint32_t f = slot.flags.load(std::memory_order_relaxed);
         slot.flags.store(f + 2, std::memory_order_release);
         slot.length.store(i, std::memory_order_release);
         slot.offset.store(i * 3, std::memory_order_release);
         slot.flags.store(f + 4, std::memory_order_release);
      }
   });
   uint64_t checked = 0;
   for (int n = 0; n < 200000; ++n) {
      SlotImage img;
      copySlot(*h, &slot, 0, img);
      ASSERT_EQ(img.offset, img.length * 3) << "flags " << img.flags;
      ++checked;
   }
   stop.store(true);
   writer.join();
   EXPECT_EQ(checked, 200000u);
}

}  // namespace
}  // namespace Dock
