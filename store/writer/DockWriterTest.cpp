// The single writer on its own: publishing order in the flags word, the index under growth and
// shrinking, direct-mode pairing, the table bounds, restart and re-format, damaged files, critical
// tasks during long work; and its huge-page buffers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "Loom/EventLoop.h"
#include "Region/MappedFile.h"
#include "Spoor/Trace.h"
#include "Vela/Hash.h"
#include "store/format/SlotTable.h"
#include "store/writer/DockWriter.h"
#include "store/writer/HugePageBuffer.h"
#include "testing/Expect.h"
#include "testing/StoreTestSupport.h"
#include "testing/TempRoot.h"

namespace {

using DockTest::Value;
using Writer = Dock::DockWriter<uint64_t, Value, DockTest::KeyOf>;

Dock::DockConfig testConfig(uint32_t minSlots = 8, uint32_t maxSlots = 1 << 18) {
   return DockTest::tableConfig(minSlots, maxSlots);
}

// A fresh store root, where start() starts (or restarts) the writer of table "t/entry".
class DockWriter : public ::testing::Test {
  protected:
   Writer& start(const Dock::DockConfig& config = testConfig()) {
      own.reset();
      own = std::make_unique<Writer>(config);
      own->initialize("t/entry");
      return *own;
   }
   Testing::TempRoot root;
   std::unique_ptr<Writer> own;
};
using DockWriterDeathTest = DockWriter;

TEST_F(DockWriter, FlagsAdvanceByFourPerWriteAndEveryWritePostsOneNotification) {
   Writer& w = start();
   EXPECT_EQ(w.mountStatus(), Dock::MountStatus::kCreated);
   w.write(Value(7, 1, 1));
   const uint32_t s = w.slotOf(7);
   ASSERT_NE(s, Dock::kNone);
   EXPECT_EQ(w.flagsOf(s), Dock::kWriteStep | Dock::kOccupied);  // fresh slot: 0 + 4 | OCCUPIED
   w.write(Value(7, 2, 600));
   EXPECT_EQ(w.flagsOf(s), 2 * Dock::kWriteStep | Dock::kOccupied);
   EXPECT_EQ(w.slotOf(7), s);
   EXPECT_EQ(*w.lookup(7), Value(7, 2, 600));
   Value removed;
   EXPECT_TRUE(w.remove(7, &removed));
   EXPECT_EQ(removed, Value(7, 2, 600));
   EXPECT_EQ(w.flagsOf(s), 3 * Dock::kWriteStep);
   EXPECT_FALSE(w.lookup(7).has_value());
   EXPECT_FALSE(w.remove(7));
   EXPECT_EQ(w.members(), 0u);
   // Re-inserting into the freed slot: old + 4 with OCCUPIED.
   w.write(Value(7, 4, 2));
   EXPECT_EQ(w.slotOf(7), s);
   EXPECT_EQ(w.flagsOf(s), 4 * Dock::kWriteStep | Dock::kOccupied);
   EXPECT_EQ(w.writerCounters().inserts, 2u);
   EXPECT_EQ(w.writerCounters().replaces, 1u);
   EXPECT_EQ(w.writerCounters().removes, 1u);

   // One notification per write or removal; a flush wakes the readers once per batch.
   const uint64_t p0 = w.sequence();
   w.write(Value(1, 1, 1));
   w.write(Value(1, 2, 1));
   w.write(Value(2, 1, 3));
   w.remove(1);
   EXPECT_EQ(w.sequence(), p0 + 4);
   EXPECT_EQ(w.table().slot(w.slotOf(2)).heraldPos.load(), uint32_t(p0 + 2));
   EXPECT_FALSE(w.quiesced());
   const uint64_t wakes = w.writerCounters().wakes;
   const uint32_t word = w.herald().header()->wakeWord.load();
   w.wakeSoon();  // without a loop: at once
   w.wakeSoon();  // nothing posted since: neither a request nor a flush wakes again
   w.flush();
   EXPECT_EQ(w.writerCounters().wakes, wakes + 1);
   EXPECT_EQ(w.herald().header()->wakeWord.load(), word + 1);
   EXPECT_TRUE(w.quiesced());

   // With a loop on this thread, the flush is a task posted once per turn; a request waits for it.
   Loom::EventLoop loop;
   loop.post([&] {
      for (uint32_t i = 0; i < 10; ++i) w.write(Value(100 + i, 1, 1));
      w.wakeSoon();
      EXPECT_FALSE(w.quiesced());
   });
   loop.runOnce(std::chrono::milliseconds(0));
   loop.runOnce(std::chrono::milliseconds(0));
   EXPECT_TRUE(w.quiesced());
   EXPECT_EQ(w.writerCounters().wakes, wakes + 2);
}

// The key hash, inlined for the key's fixed length, equals the library's one-at-a-time hash over
// the key's bytes from the table's seed, for 8-byte and wider keys.
TEST(KeyTraits, HashIsTheLibrarysOneAtATimeOverTheKeyBytes) {
   struct Wide {
      uint64_t a, b, c;
   };
   std::mt19937_64 rng(11);
   for (int i = 0; i < 1000; ++i) {
      const uint64_t k = rng();
      const uint32_t seed = uint32_t(rng());
      ASSERT_EQ(Dock::KeyTraits<uint64_t>::hash(k, seed), Vela::oneAtATime(&k, sizeof k, seed));
      const Wide w{rng(), rng(), rng()};
      ASSERT_EQ(Dock::KeyTraits<Wide>::hash(w, seed), Vela::oneAtATime(&w, sizeof w, seed));
   }
}

TEST_F(DockWriter, BucketDoublingKeepsEveryKeyFindable) {
   Writer& w = start();
   Spoor::Capture cap;
   EXPECT_EQ(w.buckets(), Dock::kInitialBuckets);
   for (uint64_t k = 1; k <= Dock::kInitialBuckets; ++k) w.write(Value(k, 1, 1));
   EXPECT_EQ(w.buckets(), Dock::kInitialBuckets);
   w.write(Value(1000, 1, 1));  // occupiedSlots 17 > 16 buckets
   EXPECT_EQ(w.buckets(), 2 * Dock::kInitialBuckets);
   EXPECT_TRUE(cap.contains("growing from: 16 to: 32"));
   std::mt19937_64 rng(5);
   std::vector<uint64_t> keys;
   // Enough keys for the slot records to span more than one of their chunks.
   const uint32_t n = Writer::Table::Slots::kChunk + 8000;
   for (uint32_t i = 0; i < n; ++i) {
      keys.push_back(rng());
      w.write(Value(keys.back(), 1, 1));
   }
   const uint32_t grown = std::bit_ceil(n + Dock::kInitialBuckets);
   EXPECT_EQ(w.buckets(), grown);
   EXPECT_GT(w.table().records().size(), Writer::Table::Slots::kChunk);
   for (uint64_t k : keys) ASSERT_EQ(w.lookup(k)->key, k);
   for (uint64_t k = 1; k <= Dock::kInitialBuckets; ++k) ASSERT_TRUE(w.contains(k));
   // The shared chains (what plain readers walk) hold every key once, each in the bucket its
   // hash names, sorted by reversed hash.
   auto checkSharedChains = [&w] {
      uint32_t reachable = 0;
      const uint32_t nb = w.buckets();
      for (uint32_t b = 0; b < nb; ++b) {
         uint32_t last = 0;
         // The writer's private mirror of each chain's first two slots agrees with the file, and
         // its prefetch hints name the slots' current entries.
         const auto& start = w.bucketFile().chainStart(b);
         ASSERT_EQ(start.first, w.bucketFile().sharedHead(b));
         if (start.first != Dock::kNone) {
            ASSERT_EQ(start.second, w.table().slot(start.first).next.load());
            ASSERT_EQ(start.firstHint, w.table().slot(start.first).offset.load());
            ASSERT_EQ(start.firstHash, w.table().slot(start.first).keyHash.load());
         }
         if (start.second != Dock::kNone) {
            ASSERT_EQ(start.secondHint, w.table().slot(start.second).offset.load());
            ASSERT_EQ(start.secondHash, w.table().slot(start.second).keyHash.load());
         }
         for (uint32_t s = w.bucketFile().sharedHead(b); s != Dock::kNone;
              s = w.table().slot(s).next.load()) {
            ASSERT_TRUE(w.flagsOf(s) & Dock::kOccupied);
            const uint32_t hash = w.table().slot(s).keyHash.load();
            ASSERT_EQ(hash,
                      Dock::KeyTraits<uint64_t>::hash(w.keyAt(s), w.table().header()->hashSeed));
            ASSERT_EQ(hash & (nb - 1), b);
            ASSERT_GE(Dock::bitReversed(hash), last);
            last = Dock::bitReversed(hash);
            ASSERT_LE(++reachable, w.members());
         }
      }
      EXPECT_EQ(reachable, w.members());
   };
   // Replacements move values to new entries: the hints follow.
   for (size_t i = 0; i < keys.size(); i += 3) w.write(Value(keys[i], 2, 1 + i % 7));
   checkSharedChains();
   // Removing most keys halves the buckets again; the rest stay findable.
   for (size_t i = 0; i < keys.size() - 10; ++i) ASSERT_TRUE(w.remove(keys[i]));
   EXPECT_LT(w.buckets(), grown);
   EXPECT_GE(w.buckets(), Dock::kInitialBuckets);
   for (size_t i = keys.size() - 10; i < keys.size(); ++i) ASSERT_TRUE(w.contains(keys[i]));
   checkSharedChains();
}

TEST_F(DockWriter, IterationVisitsEveryKeyOnceAndSurvivesRemovalOfTheCurrentKey) {
   Writer& w = start();
   Spoor::Capture cap;
   std::set<uint64_t> keys;
   for (uint64_t k = 1; k <= 200; ++k) {
      w.write(Value(k * 977, 1, 1));
      keys.insert(k * 977);
   }
   // A hint that no longer matches (the slot was rewritten) drops to the slow path.
   const uint32_t s0 = w.firstSlot();
   const uint64_t k0 = w.keyAt(s0);
   const uint32_t v0 = w.flagsOf(s0);
   w.write(Value(k0, 2, 1));
   EXPECT_EQ(w.nextSlot(k0, s0, v0), w.nextSlot(k0, s0, w.flagsOf(s0)));
   // A hint beyond the table throws in the fast path and is traced.
   const uint32_t n = w.nextSlot(k0, 1u << 30, 0);
   EXPECT_EQ(n, w.nextSlot(k0, s0, w.flagsOf(s0)));
   EXPECT_TRUE(cap.contains("saw exception in fast path: out-of-range index: 1073741824 max:"));

   // Removing the current key and stepping on from it (as entryDelAll does) visits every key
   // exactly once: the rest of a chain is not skipped, and the bucket shrinks the removals cause
   // under the iteration neither skip nor repeat keys.
   uint32_t longestChain = 0;
   for (uint32_t s = w.firstSlot(); s != Dock::kNone;) {
      uint32_t len = 1;
      while (w.table().records()[s].next != Dock::kNone) {
         s = w.table().records()[s].next;
         ++len;
      }
      longestChain = std::max(longestChain, len);
      s = w.nextSlot(w.keyAt(s), s, w.flagsOf(s));
   }
   ASSERT_GE(longestChain, 2u);  // the case that used to skip
   const uint32_t bucketsBefore = w.buckets();
   std::set<uint64_t> removed;
   for (uint32_t s = w.firstSlot(); s != Dock::kNone;) {
      const uint64_t k = w.keyAt(s);
      const uint32_t version = w.flagsOf(s);
      EXPECT_TRUE(removed.insert(k).second) << k;
      ASSERT_TRUE(w.remove(k));
      s = w.nextSlot(k, s, version);
   }
   EXPECT_EQ(removed, keys);
   EXPECT_EQ(w.members(), 0u);
   EXPECT_LT(w.buckets(), bucketsBefore);
   EXPECT_TRUE(
       cap.contains(fmt::format("shrinking from: {} to: {}", 2 * w.buckets(), w.buckets())));
}

TEST_F(DockWriter, SlotFileGrowsUpToMaxSlotsThenReportsTableFull) {
   Writer& w = start(testConfig(4, 20));
   EXPECT_EQ(w.capacity(), 4u);
   for (uint64_t k = 0; k < 5; ++k) w.write(Value(k, 1, 1));
   EXPECT_EQ(w.capacity(), 8u);  // doubled
   for (uint64_t k = 5; k < 20; ++k) w.write(Value(k, 1, 1));
   EXPECT_EQ(w.capacity(), 20u);  // capped at maxSlots
   EXPECT_EQ(w.table().header()->mostSlots.load(), 20u);
   EXPECT_EQ(Testing::errorText<Dock::TableFullError>([&] { w.write(Value(99, 1, 1)); }),
             "Dock table full (occupancy:20 tableSize:20) t/entry");
   EXPECT_FALSE(w.directOpen());
   for (uint64_t k = 0; k < 20; ++k) ASSERT_EQ(w.lookup(k)->key, k);
   // Replacing in a full table needs no new slot.
   w.write(Value(3, 2, 600));
   EXPECT_EQ(w.lookup(3)->count, 600u);
}

TEST_F(DockWriter, ShrinkMovesSlotsBelowTheTargetAndKeepsEveryKey) {
   Writer& w = start();
   Spoor::Capture cap;
   w.autoShrinkIs(false);
   for (uint64_t k = 0; k < 300; ++k) w.write(Value(k, 1, 1 + k % 5));
   ASSERT_EQ(w.capacity(), 512u);
   for (uint64_t k = 0; k < 290; ++k) w.remove(k);
   const uint64_t seq = w.sequence();
   w.doMaybeShrinkSlots(0);  // nothing
   EXPECT_EQ(w.sequence(), seq);
   w.shrink();
   // occupancy 10 -> 2^(bits(10)+1) = 32 slots
   EXPECT_EQ(w.capacity(), 32u);
   EXPECT_TRUE(cap.contains("threshold:32 shrinkThreshold:512 SUPER SHRINK!"));
   EXPECT_TRUE(cap.contains("newNumSlots:32"));
   EXPECT_TRUE(cap.contains("t/entry from 512 slots to 32"));
   EXPECT_TRUE(cap.contains("at threshold:512 done"));
   for (uint64_t k = 290; k < 300; ++k) {
      ASSERT_LT(w.slotOf(k), 32u);
      EXPECT_EQ(*w.lookup(k), Value(k, 1, 1 + k % 5));
   }
   const auto* h = w.table().header();
   EXPECT_EQ(Dock::sizeWordNumSlots(h->sizeWord.load()), 32u);
   EXPECT_EQ(h->occupiedSlots.load(), 10u);
   EXPECT_EQ(w.table().freeListLength(), 22u);
   // Herald: the shrink marks plus, per moved slot, new slot + tombstone + old slot.
   EXPECT_EQ(w.herald().header()->shrinkEnd.load(), w.sequence() - 1);
   std::string reason;
   EXPECT_TRUE(w.validateFiles(reason)) << reason;
   // Left on, removals shrink the table down to its least size.
   w.autoShrinkIs(true);
   const uint64_t shrinks = w.writerCounters().slotShrinks;
   for (uint64_t k = 290; k < 300; ++k) w.remove(k);
   EXPECT_EQ(w.capacity(), 8u);
   EXPECT_GT(w.writerCounters().slotShrinks, shrinks);
   EXPECT_TRUE(w.validateFiles(reason)) << reason;
}

TEST_F(DockWriterDeathTest, DirectModeMustBePaired) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   Writer& w = start();
   EXPECT_DEATH(w.directCommit(Value(1, 1, 1)),
                "assertion failed: not in direct mode! Make sure the DirectIs/Commit are properly "
                "paired!");
   w.directWrite(5);
   w.directCommit(Value(5, 1, 1));
   EXPECT_DEATH(w.directCommit(Value(5, 2, 1)), "not in direct mode!");
   w.directWrite(5);
   EXPECT_DEATH(w.directWrite(6),
                "unbalanced directSlot:[0-9]+ containing value:5 when writing value:6 - Make sure "
                "the DirectIs/Commit are properly paired!");
   EXPECT_EQ(w.table().header()->runtimeFlags.load() & Dock::kRuntimeDirectOpen, 1);
   w.directCommit(Value(5, 2, 3));
   EXPECT_EQ(w.table().header()->runtimeFlags.load(), 0);
   EXPECT_FALSE(w.directUpdate(77));
   EXPECT_TRUE(w.directUpdate(5));
   w.directCommit(Value(5, 3, 3));
   EXPECT_EQ(w.lookup(5)->version, 3u);
}

TEST_F(DockWriter, RestartKeepsEntriesUnderANewRelumeAndReformatsForAnotherValueType) {
   Writer* w = &start();
   for (uint64_t k = 0; k < 100; ++k) w->write(Value(k, 1, 1 + k % 7));
   for (uint64_t k = 0; k < 10; ++k) w->remove(k);
   const uint32_t relume1 = w->relumeId();
   {
      Spoor::Capture cap;
      w = &start();
      EXPECT_EQ(w->mountStatus(), Dock::MountStatus::kReattached);
      EXPECT_NE(w->relumeId(), relume1);
      EXPECT_EQ(w->members(), 90u);
      for (uint64_t k = 10; k < 100; ++k) ASSERT_EQ(*w->lookup(k), Value(k, 1, 1 + k % 7));
      EXPECT_FALSE(cap.contains("will be lost"));
      EXPECT_TRUE(w->validateVersionAnchor());
   }
   Spoor::Capture cap;
   auto c = testConfig();
   c.typeName = "Other";
   w = &start(c);
   EXPECT_EQ(w->mountStatus(), Dock::MountStatus::kReformatted);
   EXPECT_EQ(cap.count("Dock", "failed to validate existing files"), 1u);
   EXPECT_EQ(cap.count("Dock", "all entries from t/entry will be lost"), 1u);
   EXPECT_EQ(cap.count("Dock", "re-formatted successfully"), 1u);
   EXPECT_EQ(w->members(), 0u);
}

// Flips bytes of the files one at a time and restarts the writer on each damaged copy, in a child
// so that a crash is a failure: the restart either keeps exactly the entries or re-formats.
TEST_F(DockWriter, DamagedFilesAreKeptOrReformattedNeverACrash) {
   Writer& first = start();
   std::map<uint64_t, Value> want;
   for (uint64_t k = 0; k < 40; ++k) {
      want[k] = Value(k, 1, 1 + k % 3);
      first.write(want[k]);
   }
   const std::string dir = first.directory();
   own.reset();
   const std::string saved = root.path() + "/saved";
   ASSERT_EQ(std::system(("cp -r " + dir + " " + saved).c_str()), 0);
   const size_t slotsSize = Dock::SlotTable::fileSizeFor(64);
   std::vector<std::pair<std::string, size_t>> targets;
   for (size_t off = 0; off < slotsSize; off += (off < Dock::kSlotHeaderSize ? 1 : 9)) {
      targets.emplace_back(Dock::kSlotsFile, off);
   }
   for (size_t off = 0; off < 200; off += 3) targets.emplace_back(Dock::slabFileName(0), off);
   int kept = 0, reformatted = 0;
   for (auto& [file, off] : targets) {
      ASSERT_EQ(std::system(("rm -rf " + dir + " && cp -r " + saved + " " + dir).c_str()), 0);
      {
         Region::MappedFile f = Region::MappedFile::openReadWrite(dir + "/" + file);
         if (off >= f.size()) continue;
         f.data()[off] ^= 0x5a;
      }
      const pid_t child = Testing::forkChild([&] {
         Spoor::Capture cap;
         Writer& w = start();
         if (w.mountStatus() == Dock::MountStatus::kReformatted) {
            if (!cap.contains("all entries from t/entry will be lost") ||
                !cap.contains("re-formatted successfully") || w.members() != 0) {
               return 3;
            }
            return 2;
         }
         // Kept: every entry the table still has is exactly the one written. A damaged flags
         // word or slot count reads like an interrupted removal, so an entry may be missing.
         uint32_t found = 0;
         for (auto& [k, v] : want) {
            auto got = w.lookup(k);
            if (got && !(*got == v)) return 5;
            found += got ? 1 : 0;
         }
         if (found != w.members()) return 4;
         return found == want.size() ? 0 : 6;
      });
      const int rc = Testing::waitChild(child);
      ASSERT_TRUE(rc == 0 || rc == 2 || rc == 6) << file << " byte " << off << " rc " << rc;
      (rc == 2 ? reformatted : kept)++;
   }
   EXPECT_GT(kept, 0);
   EXPECT_GT(reformatted, 0);
}

TEST_F(DockWriter, CriticalTasksRunEveryTenMillisecondsOfLongWork) {
   // Critical tasks pending while a long operation checks its budget run inside it, each budget
   // once. (Loop until they did: on a loaded machine the thread may be preempted for a span.)
   Loom::EventLoop loop;
   int ran = 0;
   std::function<void()> probe = [&] {
      if (++ran < 3) loop.postCritical(probe);
   };
   uint64_t yields = 0;
   loop.post([&] {
      loop.postCritical(probe);
      Dock::CriticalYield y(true);
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while (ran < 3 && std::chrono::steady_clock::now() < deadline) y.check();
      yields = y.yields();
   });
   loop.runOnce(std::chrono::milliseconds(0));
   EXPECT_EQ(ran, 3);
   EXPECT_EQ(yields, 3u);
   Dock::CriticalYield off(false);
   off.check();
   EXPECT_EQ(off.yields(), 0u);
}

// Whole 2 MiB units, 2 MiB aligned (or whole pages when asked for no huge pages), zero-filled,
// and moved without copying.
TEST(HugePageBuffer, IsAlignedZeroFilledAndRoundedToWholeHugePages) {
   constexpr size_t kHuge = Dock::HugePageBuffer::kHugePage;
   EXPECT_EQ(Dock::HugePageBuffer(0).size(), 0u);
   for (size_t bytes : {size_t(1), kHuge - 1, kHuge, kHuge + 1, 3 * kHuge + 5}) {
      Dock::HugePageBuffer b(bytes);
      ASSERT_NE(b.data(), nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(b.data()) % kHuge, 0u) << bytes;
      EXPECT_EQ(b.size(), (bytes + kHuge - 1) / kHuge * kHuge) << bytes;
      EXPECT_EQ(b.data()[b.size() - 1], 0);
      b.data()[b.size() - 1] = 7;  // the whole rounded size is writable
   }
   // Without huge pages: whole 4 KiB pages, nothing more.
   const size_t page = size_t(::sysconf(_SC_PAGESIZE));
   for (size_t bytes : {size_t(1), page, page + 1}) {
      Dock::HugePageBuffer b(bytes, false);
      EXPECT_EQ(b.size(), (bytes + page - 1) / page * page) << bytes;
      EXPECT_EQ(b.data()[b.size() - 1], 0);
      b.data()[b.size() - 1] = 7;
   }
   Dock::HugePageBuffer a(100), other(1);
   a.as<uint32_t>()[3] = 42;
   uint8_t* const at = a.data();
   other = std::move(a);
   EXPECT_EQ(a.data(), nullptr);
   EXPECT_EQ(other.data(), at);
   EXPECT_EQ(other.as<uint32_t>()[3], 42u);
}

// Faulting in a range keeps what the buffer holds and lets the pending critical tasks run before
// each 2 MiB unit it touches, whatever the budget: one huge page's fault cannot be cut.
TEST(HugePageBuffer, FaultsInOneHugePageAtATimeKeepingContents) {
   constexpr size_t kHuge = Dock::HugePageBuffer::kHugePage;
   Loom::EventLoop loop;
   int ran = 0;
   std::function<void()> probe = [&] {
      ++ran;
      loop.postCritical(probe);
   };
   int before = -1;
   loop.post([&] {
      Dock::HugePageBuffer b(4 * kHuge);
      b.data()[kHuge + 5] = 9;
      b.data()[3 * kHuge - 1] = 4;
      loop.postCritical(probe);
      Dock::CriticalYield y(true);
      before = ran;
      b.faultIn(kHuge + 5, 3 * kHuge + 1, y);  // three units: the second, third and fourth
      EXPECT_EQ(ran - before, 3);
      EXPECT_EQ(b.data()[kHuge + 5], 9);
      EXPECT_EQ(b.data()[3 * kHuge - 1], 4);
      EXPECT_EQ(b.data()[3 * kHuge], 0);
      b.faultIn(0, 0, y);
      EXPECT_EQ(ran - before, 3);
   });
   loop.runOnce(std::chrono::milliseconds(0));
   EXPECT_EQ(before, 1);
}

}  // namespace
