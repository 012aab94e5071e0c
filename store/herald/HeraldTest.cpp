// Notification queue: positions and sequences, wrap-around, lapping, the two tables, quiesced,
// and relume re-stamping that wakes the readers already there. (Wakes in general: WakeTest;
// readers in other processes woken: DockShadowTest.)
#include <gtest/gtest.h>
#include <poll.h>

#include "Region/MappedFile.h"
#include "Spoor/Trace.h"
#include "Vela/Exception.h"
#include "store/herald/Herald.h"
#include "store/herald/HeraldReader.h"
#include "store/herald/HeraldWriter.h"
#include "testing/Expect.h"
#include "testing/TempRoot.h"

namespace Dock {
namespace {

bool waitReadable(int fd, int ms) {
   pollfd p{fd, POLLIN, 0};
   return ::poll(&p, 1, ms) == 1;
}

class HeraldTest : public ::testing::Test {
  protected:
   // A ring of `capacity` notifications stamped `relume`, and reader `r` attached to it.
   void open(uint32_t relume, uint32_t capacity) {
      w.create(root.path(), relume, capacity);
      ASSERT_TRUE(r.attach(root.path(), relume, reason)) << reason;
   }

   Testing::TempRoot root;
   HeraldWriter w;
   HeraldReader r;
   std::string reason;
   HeraldReader::Entry e;
};

TEST_F(HeraldTest, ReaderFollowsTheWriterAcrossTheWrapAndSwapsTables) {
   ASSERT_NO_FATAL_FAILURE(open(77, 8));
   EXPECT_EQ(r.position(), 0u);
   EXPECT_EQ(r.next(e), HeraldReader::Next::kEmpty);
   Spoor::Capture cap;
   // 20 notifications read in steps of 3: crosses the halves five times, wraps twice.
   uint32_t nextSlot = 100;
   for (int round = 0; round < 7; ++round) {
      for (int i = 0; i < 3; ++i) EXPECT_EQ(w.post(nextSlot + i), uint64_t(round * 3 + i));
      for (int i = 0; i < 3; ++i) {
         ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
         EXPECT_EQ(e.slot, nextSlot + i);
         EXPECT_EQ(e.kind, kSlotChanged);
         EXPECT_EQ(e.seq, (uint64_t(77) << 32) + round * 3 + i);
      }
      nextSlot += 3;
   }
   EXPECT_EQ(r.next(e), HeraldReader::Next::kEmpty);
   EXPECT_EQ(r.position(), 21u);
   // Positions 4, 8, 12, 16, 20 change the table.
   EXPECT_EQ(cap.count("Herald", "herald swapped"), 5u);
   EXPECT_EQ(r.current(), 1u);  // position 21 is index 5: upper half
}

TEST_F(HeraldTest, LappedReaderIsToldAndResumesAtTheWriter) {
   ASSERT_NO_FATAL_FAILURE(open(5, 8));
   w.post(1);
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   // Exactly a capacity ahead is still readable...
   for (uint32_t i = 0; i < 8; ++i) w.post(10 + i);
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   EXPECT_EQ(e.slot, 10u);
   // ...one more overwrites the next unread entry.
   w.post(18);
   w.post(19);
   EXPECT_EQ(r.next(e), HeraldReader::Next::kLapped);
   EXPECT_EQ(r.position(), 2u);  // unchanged
   r.restartAt(r.writerPosition());
   EXPECT_EQ(r.lastSeq(), r.seqOf(10));
   EXPECT_TRUE(r.quiesced(r.lastSeq()));
   EXPECT_FALSE(r.quiesced(r.lastSeq() - 1));
   w.postTombstone(3);
   EXPECT_FALSE(r.quiesced(r.lastSeq()));
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   EXPECT_EQ(e.kind, kTombstone);
   EXPECT_EQ(e.slot, 3u);
   EXPECT_TRUE(r.quiesced(e.seq));
}

// A reader checks the entry's sequence around its copy: an overwritten entry is reported as lapped
// even when the writer position alone would not tell (the overwrite raced the read).
TEST_F(HeraldTest, EntryOverwrittenWhileReadIsNotTrustedAndTablesCheckTheirIndex) {
   ASSERT_NO_FATAL_FAILURE(open(9, 4));
   for (uint32_t i = 0; i < 4; ++i) w.post(i);
   ASSERT_TRUE(r.entryAt(0, e));
   w.post(99);  // overwrites position 0
   EXPECT_FALSE(r.entryAt(0, e));
   ASSERT_TRUE(r.entryAt(4, e));
   EXPECT_EQ(e.slot, 99u);
   // Each table is half the ring.
   EXPECT_EQ(r.table(0).size(), 2u);
   EXPECT_NO_THROW(r.table(1).at(1));
   EXPECT_EQ(Testing::errorText<Vela::Exception>([&] { r.table(1).at(2); }),
             "out-of-range index:2 max:2");
}

TEST_F(HeraldTest, QuiescedNeedsTheLatestNotificationInTheRing) {
   ASSERT_NO_FATAL_FAILURE(open(3, 4));
   EXPECT_TRUE(r.quiesced(0));  // nothing ever posted
   w.post(1);
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   // Corrupt the latest entry's sequence behind the reader's back (as a lapping writer would).
   Region::MappedFile raw = Region::MappedFile::openReadWrite(Herald::path(root.path()));
   auto* ring = reinterpret_cast<Notification*>(raw.data() + kHeraldHeaderSize);
   ring[0].seq.store(12345, std::memory_order_release);
   Spoor::Capture cap;
   EXPECT_FALSE(r.quiesced(e.seq));
   EXPECT_TRUE(cap.contains("latest notification out-of-range"));
}

TEST(Herald, AttachAndValidationRejectWrongFiles) {
   Testing::TempRoot root;
   HeraldReader r;
   std::string reason;
   EXPECT_FALSE(r.attach(root.path(), 1, reason));
   HeraldWriter w;
   w.create(root.path(), 4, 8);
   EXPECT_FALSE(r.attach(root.path(), 5, reason));
   EXPECT_EQ(reason, "bad relume:4 wanted:5");
   EXPECT_TRUE(r.attach(root.path(), 0, reason));
   HeraldHeader h{};
   h.magic = kHeraldMagic;
   h.version = kHeraldVersion;
   h.capacity = 6;
   EXPECT_FALSE(Herald::validate(h, 4096, 0, reason));
   EXPECT_EQ(reason, "bad capacity: 6");
   h.capacity = 8;
   EXPECT_FALSE(Herald::validate(h, Herald::fileSizeFor(8) - 1, 0, reason));
   EXPECT_EQ(reason, "bad shmem size:191 wanted:192 for 8 notifications");
   h.version = 2;
   EXPECT_FALSE(Herald::validate(h, 4096, 0, reason));
   EXPECT_EQ(reason, "bad version: 2");
}

TEST(Herald, RestartedWriterRestampsAndWakesReadersOfTheOldFile) {
   Testing::TempRoot root;
   HeraldWriter w;
   w.create(root.path(), 10, 8);
   w.post(1);
   HeraldReader r;
   std::string reason;
   ASSERT_TRUE(r.attach(root.path(), 10, reason));
   EXPECT_EQ(r.relume(), 10u);
   {
      // A writer that keeps its files continues the positions.
      HeraldWriter again;
      again.attach(root.path(), 11);
      EXPECT_EQ(again.position(), 1u);
      EXPECT_EQ(again.fanout().counters().sent, 1u);  // the reader found by listing the directory
      ASSERT_TRUE(waitReadable(r.eventFd(), 5000));
      EXPECT_EQ(r.relume(), 11u);
      r.drainWake();
      // A writer that formats anew replaces the file; the old one is re-stamped and woken.
      HeraldWriter fresh;
      fresh.create(root.path(), 12, 8);
      ASSERT_TRUE(waitReadable(r.eventFd(), 5000));
      EXPECT_EQ(r.relume(), 12u);
      EXPECT_EQ(fresh.position(), 0u);
   }
   HeraldReader r2;
   ASSERT_TRUE(r2.attach(root.path(), 12, reason)) << reason;
}

}  // namespace
}  // namespace Dock
