// The readers against the real writer. The key-shadowing reader: synchronization, per-key
// callbacks, lapping, writer restart and re-format, shrink moves, validation against the queue,
// readers in forked processes woken without polling, a reader thread. Its index: sorted
// split-ordered chains, growth by splitting, update-in-place. The plain reader: lookups through the
// writer's shared chains, iteration with hints, values by slot, attach steps and their texts, and
// the chain anomalies it refuses to loop on.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "Loom/CorruptionException.h"
#include "Loom/EventLoop.h"
#include "Region/MappedFile.h"
#include "Spoor/Trace.h"
#include "Vela/Exception.h"
#include "store/reader/DockReader.h"
#include "store/reader/DockShadow.h"
#include "store/reader/ShadowHashMap.h"
#include "store/writer/DockWriter.h"
#include "testing/Expect.h"
#include "testing/StoreTestSupport.h"
#include "testing/TempRoot.h"

namespace Dock {
namespace {

using DockTest::contents;
using DockTest::KeyOf;
using DockTest::pump;
using DockTest::Value;
using Writer = DockWriter<uint64_t, Value, KeyOf>;
using Shadow = DockShadow<uint64_t, Value, KeyOf>;
using KeyShadow = DockShadow<uint64_t, Value, KeyOf, KeyShadowSlot>;
using Reader = DockReader<uint64_t, Value, KeyOf>;

DockConfig config(uint32_t heraldCapacity = 1024) {
   return DockTest::tableConfig(16, 1u << 14, heraldCapacity);
}

// What a table would keep from the callbacks.
struct Seen {
   std::map<uint64_t, Value> values;
   std::vector<uint64_t> added;
   std::vector<uint64_t> removed;
   int wholeTable = 0;
   int syncComplete = 0;
   std::vector<bool> quiesced;

   std::vector<uint64_t> removedSorted() const {
      std::vector<uint64_t> out = removed;
      std::sort(out.begin(), out.end());
      return out;
   }

   template <class S>
   void attach(S& shadow) {
      Region::Notify<uint64_t, Value> n;
      n.onValue = [this](const Value& v) { values[v.key] = v; };
      n.onKey = [this](const uint64_t& k) { added.push_back(k); };
      n.onKeyRemoved = [this](const uint64_t& k) {
         removed.push_back(k);
         values.erase(k);
      };
      n.onWholeTable = [this] { ++wholeTable; };
      n.onSyncComplete = [this] { ++syncComplete; };
      n.onQuiesced = [this](bool q) { quiesced.push_back(q); };
      shadow.notifyIs(n);
   }
};

class DockShadowTest : public ::testing::Test {
  protected:
   // A writer of "t/<name>" holding keys 1..keys (version 1, `vias` vias), flushed if any.
   std::unique_ptr<Writer> writer(const std::string& name, uint64_t keys, uint32_t vias = 1,
                                  uint32_t heraldCapacity = 1024) {
      auto w = std::make_unique<Writer>(config(heraldCapacity));
      w->initialize("t/" + name);
      for (uint64_t k = 1; k <= keys; ++k) w->write(Value(k, 1, vias));
      if (keys > 0) w->flush();
      return w;
   }
   // A shadow of the table in `dir` reporting to `seen`, synchronized and quiesced.
   template <class S = Shadow>
   std::unique_ptr<S> follow(const std::string& dir) {
      auto r = std::make_unique<S>("r", dir, loop);
      seen.attach(*r);
      EXPECT_TRUE(r->initialize()) << r->attachError();
      EXPECT_TRUE(settle(*r));
      return r;
   }
   template <class S>
   bool settle(S& r) {
      return pump(loop, [&] { return r.quiesced(); });
   }
   // `r` has followed writer `w` through a restart and caught up with it.
   bool followed(Shadow& r, Writer& w) {
      return pump(loop, [&] { return r.relumeId() == w.relumeId() && r.quiesced(); });
   }

   Testing::TempRoot root;
   Loom::EventLoop loop;
   Seen seen;
};

TEST_F(DockShadowTest, AttachFailureNamesFileAndReasonAndAnEmptyTableSyncsAtOnce) {
   Shadow missing("missing", root.path() + "/nothing", loop);
   EXPECT_FALSE(missing.initialize());
   EXPECT_EQ(missing.attachError(),
             fmt::format("missing::attach() cannot attach to shmem {}/nothing/slots "
                         "size:0: no relume",
                         root.path()));
   auto b = writer("bad", 0);
   {
      Region::MappedFile f = Region::MappedFile::openReadWrite(b->directory() + "/slots");
      f.data()[20] ^= 0xFF;  // the slot table header's checksummed type name
   }
   Shadow bad("bad", b->directory(), loop);
   EXPECT_FALSE(bad.initialize());
   EXPECT_EQ(bad.attachError().rfind(fmt::format("bad::attach() cannot attach to shmem {}/slots "
                                                 "size:{}: checksum fail: ",
                                                 b->directory(), SlotTable::fileSizeFor(16)),
                                     0),
             0u)
       << bad.attachError();
   EXPECT_EQ(bad.state(), ReaderState::kDetached);
   // An empty table: sync complete at once, and quiesced.
   auto w = writer("empty", 0);
   Shadow r("empty", w->directory(), loop);
   seen.attach(r);
   Spoor::Capture cap;
   ASSERT_EQ(r.state(), ReaderState::kDetached);
   ASSERT_TRUE(r.initialize()) << r.attachError();
   EXPECT_EQ(seen.syncComplete, 1);
   EXPECT_EQ(seen.quiesced, std::vector<bool>{true});
   EXPECT_EQ(r.state(), ReaderState::kQuiesced);
   EXPECT_EQ(r.members(), 0u);
   EXPECT_EQ(r.relumeId(), w->relumeId());
   EXPECT_EQ(r.capacity(), w->capacity());
   EXPECT_EQ(seen.wholeTable, 0);
   // Exactly one sync-complete trace, and it precedes the quiesced report.
   const std::string sync = fmt::format("Synchronization complete, seq:{}", r.sequence());
   EXPECT_EQ(cap.count("DockShadow", sync), 1u);
   const auto recs = cap.records();
   auto indexOf = [&](const std::string& text) {
      for (size_t i = 0; i < recs.size(); ++i) {
         if (recs[i].text.find(text) != std::string::npos) return i;
      }
      return recs.size();
   };
   EXPECT_LT(indexOf(sync), indexOf("empty quiesced:true"));
}

TEST_F(DockShadowTest, ReportsEachKeyAddedChangedAndRemoved) {
   auto w = writer("keys", 0);
   for (uint64_t k = 1; k <= 50; ++k) w->write(Value(k, 1, uint32_t(k % 7 + 1)));
   w->flush();
   auto r = follow(w->directory());
   EXPECT_EQ(seen.values, contents(*w));
   EXPECT_EQ(r->members(), 50u);
   seen.added.clear();

   w->write(Value(7, 2, 600));  // change, the largest value
   w->write(Value(7, 2, 600));  // same value again: the shadow sees no change
   w->write(Value(100, 1, 1));  // add
   w->remove(3);                // remove
   w->flush();
   ASSERT_TRUE(settle(*r));
   EXPECT_EQ(seen.added, (std::vector<uint64_t>{7, 100}));
   EXPECT_EQ(seen.removed, std::vector<uint64_t>{3});
   EXPECT_EQ(seen.values, contents(*w));
   EXPECT_EQ(r->lookup(7), Value(7, 2, 600));
   EXPECT_FALSE(r->lookup(3).has_value());
   // Iteration in slot order visits every key once.
   std::set<uint64_t> keys;
   IterHint hint;
   Value v;
   for (bool ok = r->first(hint, v); ok; ok = r->next(hint, v))
      EXPECT_TRUE(keys.insert(v.key).second);
   EXPECT_EQ(keys.size(), 50u);
   // quiesced went false while the batch was applied, then true again.
   ASSERT_GE(seen.quiesced.size(), 3u);
   EXPECT_EQ(seen.quiesced.back(), true);
   EXPECT_EQ(seen.syncComplete, 1);
   std::string reason;
   EXPECT_TRUE(r->validateAgainstHerald(reason)) << reason;
}

TEST_F(DockShadowTest, LongCatchUpYieldsToTheLoopAndHeadersDump) {
   auto w = writer("yield", 0, 1, 1 << 14);
   auto r = follow(w->directory());
   const auto anchor = r->getCacheVersionAnchor();
   EXPECT_TRUE(anchor.valid());
   r->yieldTimeIs(1e-9);  // every check of the clock finds the turn over
   for (uint64_t k = 1; k <= 3000; ++k) w->write(Value(k, 1, 1));
   w->flush();
   // Another task posted meanwhile runs between the reader's turns.
   bool otherRan = false;
   loop.post([&] { otherRan = true; });
   ASSERT_TRUE(settle(*r));
   EXPECT_TRUE(otherRan);
   EXPECT_GT(r->readerCounters().yields, 10u);
   EXPECT_EQ(seen.values.size(), 3000u);
   // The slot file grew: the anchor follows the resize, the view stays valid.
   EXPECT_TRUE(r->validateVersionAnchor());
   EXPECT_NE(r->getCacheVersionAnchor(), anchor);
   const std::string dump = r->dumpHeaders();
   EXPECT_EQ(dump.rfind("magic:0x544f4c534b434f44 version:23 relume:", 0), 0u) << dump;
   EXPECT_NE(dump.find(fmt::format("numSlots:{}", w->capacity())), std::string::npos);
   EXPECT_NE(dump.find(fmt::format("herald capacity:16384 relume:{} writerPos:{} readerPos:{}",
                                   w->relumeId(), w->sequence(), w->sequence())),
             std::string::npos)
       << dump;
   // Callbacks off: the shadow still follows, the table hears nothing.
   r->notifyingIs(false);
   w->write(Value(1, 5, 5));
   w->flush();
   ASSERT_TRUE(settle(*r));
   EXPECT_EQ(seen.values.at(1), Value(1, 1, 1));
   EXPECT_EQ(r->lookup(1), Value(1, 5, 5));
}

TEST_F(DockShadowTest, KeyShadowAnnouncesEveryNotifiedWrite) {
   auto w = writer("keyonly", 1);
   auto r = follow<KeyShadow>(w->directory());
   w->write(Value(1, 1, 1));  // rewritten with equal bytes: a key shadow cannot tell
   w->flush();
   ASSERT_TRUE(pump(
       loop, [&] { return r->sequence() == w->sequence() + (uint64_t(w->relumeId()) << 32) - 1; }));
   EXPECT_EQ(seen.added, (std::vector<uint64_t>{1, 1}));
}

TEST_F(DockShadowTest, ReaderResynchronizesAfterBeingLapped) {
   auto w = writer("lapped", 20, 2, 16);
   auto r = follow(w->directory());
   // 60 notifications into a ring of 16 while the reader does not run.
   for (uint64_t k = 1; k <= 10; ++k) w->remove(k);
   for (uint64_t k = 11; k <= 30; ++k) w->write(Value(k, 2, 3));
   for (uint64_t k = 31; k <= 60; ++k) w->write(Value(k, 1, 1));
   w->flush();
   Spoor::Capture cap;
   ASSERT_TRUE(settle(*r));
   EXPECT_EQ(r->readerCounters().lapped, 1u);
   EXPECT_EQ(seen.wholeTable, 1);
   EXPECT_EQ(cap.count("DockShadow", "lapped at position:"), 1u);
   EXPECT_EQ(seen.values, contents(*w));
   EXPECT_EQ(seen.removedSorted(), (std::vector<uint64_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
   EXPECT_EQ(r->members(), 50u);
   EXPECT_EQ(seen.syncComplete, 1);  // once per reader, not per resynchronization
}

// A restarted writer keeps the table. A re-formatted one chooses a new hash seed: keys rewritten
// into the slot they had are kept across the re-attach and must be found under the new seed; a
// key that lands in another slot is moved, not removed; every key not written again is reported
// removed, once.
TEST_F(DockShadowTest, ReaderFollowsWriterRestartAndReformat) {
   auto w = writer("restart", 40, 2);
   auto r = follow(w->directory());
   const uint32_t firstRelume = w->relumeId(), firstSeed = w->table().header()->hashSeed;
   const std::string dir = w->directory();
   w.reset();
   w = writer("restart", 0);
   ASSERT_NE(w->relumeId(), firstRelume);
   w->remove(5);
   w->write(Value(41, 1, 2));
   w->flush();
   ASSERT_TRUE(followed(*r, *w));
   EXPECT_GE(r->readerCounters().reattaches, 1u);
   EXPECT_EQ(seen.values, contents(*w));
   EXPECT_EQ(seen.removed, std::vector<uint64_t>{5});  // only the key really removed
   EXPECT_GE(seen.wholeTable, 1);

   w.reset();
   {
      Region::MappedFile f = Region::MappedFile::openReadWrite(dir + "/slots");
      f.data()[20] ^= 0xFF;  // the checksummed type name: the next writer must re-format
   }
   w = writer("restart", 0);
   ASSERT_EQ(w->mountStatus(), MountStatus::kReformatted);
   ASSERT_NE(w->table().header()->hashSeed, firstSeed);
   seen.removed.clear();
   // Keys 1..3 take slots 0..2 again; key 20 moves from slot 19 to 3; key 99 is new.
   for (uint64_t k : {1, 2, 3, 20, 99}) w->write(Value(k, k == 20 ? 2 : 1, 2));
   w->flush();
   ASSERT_TRUE(followed(*r, *w));
   EXPECT_EQ(seen.values, contents(*w));
   std::vector<uint64_t> gone;
   for (uint64_t k = 4; k <= 41; ++k) {
      if (k != 5 && k != 20) gone.push_back(k);
   }
   EXPECT_EQ(seen.removedSorted(), gone);
   EXPECT_EQ(r->members(), 5u);
   for (uint64_t k : {1, 2, 3, 20, 99}) EXPECT_EQ(r->lookup(k), *w->lookup(k)) << k;
}

// A resynchronization takes a key out of the shadow before it knows whether the key is gone or
// only moved. Here the writer restarts while the reader's resynchronization is half done (cut after
// its first turn of slots, with removed keys among them): the next resynchronization must still
// report those keys removed, exactly once.
TEST_F(DockShadowTest, RemovalsFoundByAnInterruptedResyncAreReportedAfterTheNextRestart) {
   auto w = writer("cut", 1000);
   auto r = follow(w->directory());
   // Keys removed from the first 100 slots, which the first turn of a resync compares.
   std::set<uint64_t> gone;
   for (uint64_t k = 1; k <= 1000; ++k) {
      if (w->slotOf(k) < 100) gone.insert(k);
   }
   ASSERT_EQ(gone.size(), 100u);
   for (uint64_t k : gone) w->remove(k);
   w.reset();  // the writer dies before the reader has read the removals
   w = std::make_unique<Writer>(config());
   w->initialize("t/cut");
   r->yieldTimeIs(1e-9);  // every turn of a resync ends after its first 256 slots
   r->processQueue();     // sees the restart, re-attaches, compares slots 0..255, yields
   ASSERT_EQ(r->state(), ReaderState::kSynchronized);  // mid-flush
   ASSERT_EQ(r->members(), 900u);
   ASSERT_TRUE(seen.removed.empty());
   // Restarted again before the reader's next turn: the cut resync is abandoned.
   w.reset();
   w = std::make_unique<Writer>(config());
   w->initialize("t/cut");
   w->write(Value(1001, 1, 1));
   w->flush();
   ASSERT_TRUE(followed(*r, *w));
   EXPECT_GE(r->readerCounters().reattaches, 2u);
   EXPECT_EQ(seen.values, contents(*w));
   EXPECT_EQ(seen.removedSorted(), std::vector<uint64_t>(gone.begin(), gone.end()));
}

TEST_F(DockShadowTest, ShrinkMovesKeysWithoutReportingThemRemoved) {
   auto w = writer("shrink", 300);
   auto r = follow(w->directory());
   for (uint64_t k = 1; k <= 290; ++k) w->remove(k);
   w->flush();
   ASSERT_TRUE(settle(*r));
   seen.removed.clear();
   const uint32_t before = w->capacity();
   w->shrink();
   w->flush();
   ASSERT_LT(w->capacity(), before);
   ASSERT_TRUE(settle(*r));
   EXPECT_TRUE(seen.removed.empty());
   EXPECT_EQ(seen.values, contents(*w));
   EXPECT_EQ(r->members(), 10u);
   for (uint64_t k = 291; k <= 300; ++k) EXPECT_EQ(r->lookup(k), Value(k, 1, 1));
}

TEST_F(DockShadowTest, ValidationAgainstTheQueueFindsAForeignNotification) {
   auto w = writer("validate", 5);
   Shadow r("validate", w->directory(), loop);
   ASSERT_TRUE(r.initialize());
   std::string reason;
   ASSERT_TRUE(r.validateAgainstHerald(reason)) << reason;
   // Point the latest notification of key 3's slot at another slot.
   const uint32_t slot = w->slotOf(3);
   const uint32_t pos = w->table().slot(slot).heraldPos.load();
   Region::MappedFile f = Region::MappedFile::openReadWrite(w->directory() + "/herald");
   auto* ring = reinterpret_cast<Notification*>(f.data() + kHeraldHeaderSize);
   const uint32_t cap = reinterpret_cast<const HeraldHeader*>(f.data())->capacity;
   ring[pos % cap].slot.store(slot + 1000);
   EXPECT_FALSE(r.validateAgainstHerald(reason));
   EXPECT_EQ(reason,
             fmt::format("slot index:{} has out of range herald slot: {}", pos, slot + 1000));
   ring[pos % cap].slot.store(w->slotOf(4));
   EXPECT_FALSE(r.validateAgainstHerald(reason));
   EXPECT_EQ(reason, fmt::format("slot:{} bad notification:{} slot:{}", slot, pos, w->slotOf(4)));
}

TEST_F(DockShadowTest, ForkedReadersAreWokenWithoutPolling) {
   auto w = writer("fork", 0, 1, 256);
   const std::string dir = w->directory();
   constexpr uint64_t kKeys = 400;
   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   auto body = [&] {
      Loom::EventLoop childLoop;
      Shadow r("child", dir, childLoop);
      Seen mine;
      mine.attach(r);
      if (!r.initialize()) return 2;
      char c = 'r';
      if (::write(ready[1], &c, 1) != 1) return 3;
      // The loop sleeps in epoll with no timers: only the herald's eventfd wakes it.
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (!(mine.values.size() == kKeys && mine.values.at(kKeys).version == 9)) {
         if (std::chrono::steady_clock::now() > deadline) return 4;
         childLoop.runOnce(std::chrono::seconds(30));
      }
      for (const auto& [k, v] : mine.values) {
         if (r.lookup(k) != v) return 5;
      }
      return r.readerCounters().wakes > 0 ? 0 : 6;
   };
   const pid_t a = Testing::forkChild(body);
   const pid_t b = Testing::forkChild(body);
   char c;
   ASSERT_EQ(::read(ready[0], &c, 1), 1);
   ASSERT_EQ(::read(ready[0], &c, 1), 1);
   for (uint64_t k = 1; k <= kKeys; ++k) {
      w->write(Value(k, 1, uint32_t(k % 11 + 1)));
      if (k % 50 == 0) w->flush();
   }
   w->write(Value(kKeys, 9, 3));
   w->flush();
   EXPECT_EQ(Testing::waitChild(a), 0);
   EXPECT_EQ(Testing::waitChild(b), 0);
   ::close(ready[0]);
   ::close(ready[1]);
}

// Writer and reader as threads of one process: every shared access is an atomic, so this runs
// clean under ThreadSanitizer; the final shadow must equal the writer's table.
TEST_F(DockShadowTest, ReaderThreadFollowsWriterThread) {
   auto w = writer("threads", 0, 1, 64);
   const std::string dir = w->directory();
   std::atomic<bool> done{false};
   std::map<uint64_t, Value> seenValues;
   std::thread reader([&] {
      Loom::EventLoop threadLoop;
      Shadow r("thread", dir, threadLoop);
      Seen mine;
      mine.attach(r);
      ASSERT_TRUE(r.initialize());
      while (!done.load()) threadLoop.runOnce(std::chrono::milliseconds(20));
      pump(threadLoop, [&] { return r.quiesced(); });
      seenValues = mine.values;
   });
   std::mt19937 rng(3);
   for (int i = 0; i < 3000; ++i) {
      const uint64_t k = rng() % 200;
      if (rng() % 4 == 0) {
         w->remove(k);
      } else {
         w->write(Value(k, uint32_t(i), uint32_t(rng() % 40 + 1)));
      }
      if (i % 16 == 0) w->flush();
   }
   w->flush();
   const auto final = contents(*w);
   done.store(true);
   reader.join();
   EXPECT_EQ(seenValues, final);
}

std::vector<const ShadowRecord*> chain(const ShadowHashMap& m, uint32_t bucket) {
   std::vector<const ShadowRecord*> out;
   for (const ShadowRecord* r = m.bucketHead(bucket); r; r = r->next) out.push_back(r);
   return out;
}

TEST(ShadowHashMap, ReverseBitsMirrorsTheWord) {
   EXPECT_EQ(reverseHash(1u), 0x80000000u);
   EXPECT_EQ(reverseHash(0x80000000u), 1u);
   EXPECT_EQ(reverseHash(0x0000000Fu), 0xF0000000u);
   EXPECT_EQ(reverseHash(0x12345678u), 0x1E6A2C48u);
}

TEST(ShadowHashMap, GrowingFromOneToTwoBucketsMovesExactlyTheTopBitEntriesInOrder) {
   // maxBits 0 first: the map cannot grow, so all records stay in bucket 0, sorted.
   ShadowHashMap m("grow", 0);
   std::deque<ShadowRecord> recs(6);
   const uint32_t hashes[] = {0xF0000000u, 0x10000000u, 0x80000001u,
                              0x7FFFFFFFu, 0x80000000u, 0x00000001u};
   for (uint32_t i = 0; i < 6; ++i) {
      recs[i].hash = hashes[i];
      recs[i].secondary = i;
      m.write(i, recs[i]);
   }
   const auto before = chain(m, 0);
   ASSERT_EQ(before.size(), 6u);
   for (size_t i = 1; i < before.size(); ++i) EXPECT_LT(before[i - 1]->hash, before[i]->hash);

   ShadowHashMap big("grow2", 1);
   std::deque<ShadowRecord> recs2(6);
   for (uint32_t i = 0; i < 6; ++i) recs2[i] = ShadowRecord{.hash = hashes[i], .secondary = i};
   // Three records fit one bucket (3 > 1 << 1 triggers growth at the third).
   Spoor::Capture cap;
   big.write(0, recs2[0]);
   big.write(1, recs2[1]);
   EXPECT_EQ(big.buckets(), 1u);
   big.write(2, recs2[2]);
   ASSERT_EQ(big.buckets(), 2u);
   EXPECT_EQ(cap.count("ShadowHashMap", "grow2 buckets growing from:1 to:2"), 1u);
   EXPECT_EQ(cap.count("ShadowHashMap", "grow2 splitting bucket 0 to buckets 0 and 1"), 1u);
   std::vector<uint32_t> low, high;
   for (auto* r : chain(big, 0)) low.push_back(r->hash);
   for (auto* r : chain(big, 1)) high.push_back(r->hash);
   EXPECT_EQ(low, (std::vector<uint32_t>{0x10000000u}));
   EXPECT_EQ(high, (std::vector<uint32_t>{0x80000001u, 0xF0000000u}));
   // Back links are consistent after the split.
   for (uint32_t b = 0; b < 2; ++b) {
      ShadowRecord* const* link = nullptr;
      for (const ShadowRecord* r = big.bucketHead(b); r; r = r->next) {
         if (!link) {
            EXPECT_EQ(*r->prevLink, r);
         } else {
            EXPECT_EQ(r->prevLink, link);
         }
         link = &r->next;
      }
   }
}

TEST(ShadowHashMap, SplitKeepsOrderAcrossManyGrowths) {
   ShadowHashMap m("many");
   std::deque<ShadowRecord> recs(5000);
   std::mt19937 rng(7);
   for (uint32_t i = 0; i < recs.size(); ++i) {
      recs[i].hash = rng();
      recs[i].secondary = rng();
      m.write(i, recs[i]);
   }
   EXPECT_EQ(m.size(), 5000u);
   EXPECT_GE(uint64_t(m.buckets()) << ShadowHashMap::kLoadShift, 5000u);
   uint64_t seen = 0;
   for (uint32_t b = 0; b < m.buckets(); ++b) {
      const ShadowRecord* prev = nullptr;
      for (const ShadowRecord* r = m.bucketHead(b); r; r = r->next) {
         EXPECT_EQ(m.bucketOf(r->hash), b);
         if (prev) {
            EXPECT_TRUE(prev->hash < r->hash ||
                        (prev->hash == r->hash && prev->secondary < r->secondary));
         }
         prev = r;
         ++seen;
      }
   }
   EXPECT_EQ(seen, 5000u);
   for (auto& r : recs) EXPECT_EQ(m.find(r.hash, r.secondary), &r);
   for (uint32_t i = 0; i < recs.size(); i += 2) m.remove(recs[i]);
   EXPECT_EQ(m.size(), 2500u);
   for (uint32_t i = 0; i < recs.size(); ++i) {
      EXPECT_EQ(m.find(recs[i].hash, recs[i].secondary), i % 2 ? &recs[i] : nullptr);
   }
}

TEST(ShadowHashMap, SameRecordTwiceNeedsNoUpdateAndSameKeyElsewhereReplaces) {
   ShadowHashMap m("upd");
   ShadowRecord a, b, c, other;
   a.hash = b.hash = 0x40000000u;
   a.secondary = b.secondary = 42;
   other.hash = 0x40000000u;
   other.secondary = 41;
   c.hash = 0x40000000u;
   c.secondary = 43;
   Spoor::Capture cap;
   EXPECT_EQ(m.write(3, other), ShadowHashMap::WriteResult::inserted);
   EXPECT_EQ(cap.count("ShadowHashMap", "upd slot:3 bucket:0 value inserted in fresh bucket"), 1u);
   EXPECT_EQ(m.write(7, a), ShadowHashMap::WriteResult::inserted);
   EXPECT_EQ(cap.count("ShadowHashMap", "upd slot:7 bucket:0 value inserted"), 1u);
   EXPECT_EQ(m.write(7, a), ShadowHashMap::WriteResult::unchanged);
   EXPECT_EQ(cap.count("ShadowHashMap", "upd slot:7 bucket:0 no index update needed"), 1u);
   m.write(8, c);
   ShadowRecord* replaced = nullptr;
   EXPECT_EQ(m.write(9, b, &replaced), ShadowHashMap::WriteResult::updated);
   EXPECT_EQ(cap.count("ShadowHashMap", "upd slot:9 bucket:0 replaces slot:7 value updated"), 1u);
   EXPECT_EQ(replaced, &a);
   EXPECT_FALSE(a.linked());
   EXPECT_EQ(m.size(), 3u);
   EXPECT_EQ(m.find(0x40000000u, 42), &b);
   EXPECT_EQ(chain(m, 0), (std::vector<const ShadowRecord*>{&other, &b, &c}));
}

TEST(ShadowHashMap, FailedEnlargementNamesMapAndCounts) {
   ShadowHashMap m("tiny", 2);
   m.grow();
   m.grow();
   EXPECT_EQ(Testing::errorText<Vela::Exception>([&] { m.grow(); }),
             "failed to resize tiny from 4 to 8 buckets : more than 4 buckets");
   EXPECT_EQ(m.buckets(), 4u);
}

TEST(DockReader, LooksUpEveryKeyAndFollowsGrowth) {
   Testing::TempRoot root;
   Writer w(DockTest::tableConfig());
   w.initialize("t/plain");
   for (uint64_t k = 1; k <= 20; ++k) w.write(Value(k, 1, uint32_t(k % 5 + 1)));
   Reader r("plain", w.directory());
   ASSERT_TRUE(r.attach()) << r.lastStatus();
   EXPECT_EQ(r.lastStatus().rfind(fmt::format("success {} capacity:{} relumeId:{} mtime:",
                                              w.directory(), w.capacity(), w.relumeId()),
                                  0),
             0u)
       << r.lastStatus();
   EXPECT_NE(r.lastStatus().find(" event:1"), std::string::npos);
   for (uint64_t k = 1; k <= 20; ++k) EXPECT_EQ(r.lookup(k), Value(k, 1, uint32_t(k % 5 + 1)));
   EXPECT_FALSE(r.lookup(21).has_value());
   // The writer grows slots and buckets; the attached reader follows both.
   const uint32_t attachedBuckets = r.buckets();
   Spoor::Capture cap;
   for (uint64_t k = 21; k <= 2000; ++k) w.write(Value(k, 2, 1));
   ASSERT_GT(w.buckets(), 16u);
   for (uint64_t k = 21; k <= 2000; k += 37) EXPECT_EQ(r.lookup(k), Value(k, 2, 1));
   EXPECT_EQ(r.buckets(), w.buckets());
   EXPECT_EQ(cap.count("DockReader", fmt::format("found mismatch, local numBuckets:{} header "
                                                 "numBuckets:{}",
                                                 attachedBuckets, w.buckets())),
             1u);
   EXPECT_EQ(r.capacity(), w.capacity());
   EXPECT_EQ(r.members(), 2000u);
   const uint32_t slot = w.slotOf(77);
   EXPECT_EQ(r.getValue(slot), Value(77, 2, 1));
   w.remove(77);
   EXPECT_FALSE(r.getValue(slot).has_value());
   EXPECT_FALSE(r.lookup(77).has_value());
}

TEST(DockReader, IterationWithHintsVisitsEveryKeyOnceAndSurvivesChanges) {
   Testing::TempRoot root;
   Writer w(DockTest::tableConfig());
   w.initialize("t/iter");
   for (uint64_t k = 1; k <= 300; ++k) w.write(Value(k, 1, 1));
   Reader r("iter", w.directory());
   ASSERT_TRUE(r.attach());
   std::set<uint64_t> keys;
   IterHint hint;
   Value v;
   for (bool ok = r.first(hint, v); ok; ok = r.next(hint, v)) {
      EXPECT_TRUE(keys.insert(v.key).second) << v.key;
   }
   EXPECT_EQ(keys.size(), 300u);
   EXPECT_FALSE(hint.valid());

   // Change the hinted slot between steps: the step restarts from the hinted bucket.
   ASSERT_TRUE(r.first(hint, v));
   const IterHint saved = hint;
   w.write(Value(v.key, 2, 2));  // the slot's flags word moves on
   Spoor::Capture cap;
   keys.clear();
   keys.insert(v.key);
   for (bool ok = r.next(hint, v); ok; ok = r.next(hint, v)) keys.insert(v.key);
   EXPECT_EQ(keys.size(), 300u);
   EXPECT_EQ(cap.count("DockReader", fmt::format("iter next bucket {} using ", saved.bucket)), 1u);
   EXPECT_EQ(cap.count("DockReader", "saving new slot hint"), 1u);
}

TEST(DockReader, AttachReportsEachMissingPiece) {
   Testing::TempRoot root;
   Reader none("none", root.path() + "/absent");
   EXPECT_FALSE(none.attach());
   EXPECT_EQ(none.lastStatus(), "no shared memory region");
   ::mkdir((root.path() + "/empty").c_str(), 0755);
   Reader empty("empty", root.path() + "/empty");
   EXPECT_FALSE(empty.attach());
   EXPECT_EQ(empty.lastStatus(), "cannot attach to shmem size:0");

   Writer w(DockTest::tableConfig());
   w.initialize("t/steps");
   const std::string dir = w.directory();
   {
      Region::MappedFile b = Region::MappedFile::openReadWrite(dir + "/buckets");
      b.data()[28] ^= 1;  // the check word
   }
   Reader bad("bad", dir);
   EXPECT_FALSE(bad.attach());
   EXPECT_EQ(bad.lastStatus(), "failed to validate buckets");
   {
      Region::MappedFile b = Region::MappedFile::openReadWrite(dir + "/buckets");
      b.data()[28] ^= 1;
      Region::MappedFile s = Region::MappedFile::openReadWrite(dir + "/slots");
      s.data()[8] = 99;  // version
   }
   EXPECT_FALSE(bad.attach());
   EXPECT_EQ(bad.lastStatus(), "failed to validate slots");
   ::unlink((dir + "/relume").c_str());
   EXPECT_FALSE(bad.attach());
   EXPECT_EQ(bad.lastStatus(), "failed to read relume file");
   ::unlink((dir + "/buckets").c_str());
   EXPECT_FALSE(bad.attach());
   EXPECT_EQ(bad.lastStatus(), "failed to attach to buckets");
}

TEST(DockReader, ChainAnomaliesAreReportedNotLoopedOn) {
   Testing::TempRoot root;
   Writer w(DockTest::tableConfig());
   w.initialize("t/chains");
   Region::MappedFile f = Region::MappedFile::openReadWrite(w.directory() + "/slots");
   const uint32_t seed = reinterpret_cast<const SlotTableHeader*>(f.data())->hashSeed;
   const uint32_t mask = w.buckets() - 1;
   // Two keys in one chain (the later one links to the earlier one), whatever the table's seed:
   // key 1 and the first key hashing to its bucket.
   uint64_t partner = 2;
   while ((KeyTraits<uint64_t>::hash(partner, seed) & mask) !=
          (KeyTraits<uint64_t>::hash(1, seed) & mask)) {
      ++partner;
   }
   w.write(Value(1, 1, 1));
   w.write(Value(partner, 1, 1));
   Slot* slots = SlotTable::slots(reinterpret_cast<SlotTableHeader*>(f.data()));
   uint32_t head = w.slotOf(1), second = slots[head].next.load();
   if (second == kNone) second = slots[head = w.slotOf(partner)].next.load();
   ASSERT_NE(second, kNone) << "keys 1 and " << partner << " share a bucket but no chain";
   // An absent key of the chain's bucket.
   uint64_t probe = partner + 1;
   while ((KeyTraits<uint64_t>::hash(probe, seed) & mask) != (slots[head].keyHash.load() & mask)) {
      ++probe;
   }
   Reader r("chains", w.directory());
   ASSERT_TRUE(r.attach());
   EXPECT_FALSE(r.lookup(probe).has_value());

   // Each damage to the chain's second slot, undone after its lookup.
   auto lookupWith = [&](std::atomic<uint32_t>& word, uint32_t value) {
      const uint32_t saved = word.exchange(value);
      const std::string text =
          Testing::errorText<Loom::CorruptionException>([&] { r.lookup(probe); });
      word.store(saved);
      return text;
   };
   EXPECT_EQ(lookupWith(slots[second].next, head),  // a cycle
             fmt::format("hash chain cycle detected, slotCount:{} capacity:{}", w.capacity() + 1,
                         w.capacity()));
   EXPECT_EQ(lookupWith(slots[second].flags, slots[second].flags.load() & ~kOccupied),
             fmt::format("slot:{} not marked as occupied key:{}", second, probe));
   const uint32_t hash = slots[second].keyHash.load();
   EXPECT_EQ(lookupWith(slots[second].keyHash, hash + 1),
             fmt::format("corrupt key detected. key:{} bucketIndex {}", probe, hash & mask));
   EXPECT_FALSE(r.lookup(probe).has_value());
}

}  // namespace
}  // namespace Dock
