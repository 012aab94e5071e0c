// The readers against the real writer. The key-shadowing reader: synchronization, per-key
// callbacks, writer restart and re-format, shrink moves, validation against the queue. Its index:
// sorted split-ordered chains, growth by splitting, update-in-place. The plain reader: lookups
// through the writer's shared chains, iteration with hints, values by slot, attach steps and their
// texts, chain anomalies, a killed rehash's odd resize counter, a killed writer's restart. Both:
// stable damage is corruption, never a value. Consistent copies: the header copy retries until
// its version word is stable, and a slot copy racing a writer is never torn.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "Loom/CorruptionException.h"
#include "Loom/EventLoop.h"
#include "Region/MappedFile.h"
#include "Region/StoreRoot.h"
#include "Spoor/Trace.h"
#include "Vela/Exception.h"
#include "store/reader/DockReader.h"
#include "store/reader/DockShadow.h"
#include "store/reader/ShadowHashMap.h"
#include "store/reader/SlotCopy.h"
#include "store/slab/EntryCheck.h"
#include "store/writer/DockWriter.h"
#include "testing/Expect.h"
#include "testing/RunUntil.h"
#include "testing/StoreTestSupport.h"
#include "testing/TempRoot.h"

namespace Dock {
namespace {

using DockTest::contents;
using DockTest::KeyOf;
using DockTest::Value;
using Testing::runUntil;
using Writer = DockWriter<uint64_t, Value, KeyOf>;
using Shadow = DockShadow<uint64_t, Value, KeyOf>;
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

   void attach(Shadow& shadow) {
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
   std::unique_ptr<Shadow> follow(const std::string& dir) {
      auto r = std::make_unique<Shadow>("r", dir, loop);
      seen.attach(*r);
      EXPECT_TRUE(r->initialize()) << r->attachError();
      EXPECT_TRUE(settle(*r));
      return r;
   }
   bool settle(Shadow& r) {
      return runUntil(loop, [&] { return r.quiesced(); });
   }
   // `r` has followed writer `w` through a restart and caught up with it.
   bool followed(Shadow& r, Writer& w) {
      return runUntil(loop, [&] { return r.relumeId() == w.relumeId() && r.quiesced(); });
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
   ASSERT_TRUE(r.initialize()) << r.attachError();
   EXPECT_EQ(seen.syncComplete, 1);
   EXPECT_EQ(seen.quiesced, std::vector<bool>{true});
   EXPECT_EQ(r.state(), ReaderState::kQuiesced);
   EXPECT_EQ(r.capacity(), w->capacity());
   EXPECT_EQ(seen.wholeTable, 0);
   EXPECT_EQ(cap.count("DockShadow", fmt::format("Synchronization complete, seq:{}", r.sequence())),
             1u);
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

// A restarted writer keeps the table. A re-formatted one chooses a new hash seed: keys rewritten
// into their old slot are kept and must be found under the new seed; a key that lands in another
// slot is moved, not removed; every key not written again is reported removed, once.
TEST_F(DockShadowTest, ReaderFollowsWriterRestartAndReformat) {
   auto w = writer("restart", 40, 2);
   auto r = follow(w->directory());
   const uint32_t firstRelume = w->relumeId(), firstSeed = w->table().header()->hashSeed;
   const std::string dir = w->directory();
   w.reset();
   w = writer("restart", 0);
   ASSERT_NE(w->relumeId(), firstRelume);
   ASSERT_TRUE(followed(*r, *w));  // woken by the re-stamp alone: nothing posted yet
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
   for (uint64_t k = 4; k <= 41; ++k) k != 5 && k != 20 ? gone.push_back(k) : void();
   EXPECT_EQ(seen.removedSorted(), gone);
   EXPECT_EQ(r->members(), 5u);
   for (uint64_t k : {1, 2, 3, 20, 99}) EXPECT_EQ(r->lookup(k), *w->lookup(k)) << k;
   EXPECT_EQ(seen.syncComplete, 1);  // once per reader, not per resynchronization
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

// The handler reads the queue, then drains the socket: a change posted and woken for in between
// (here by the quiesced callback) is applied by the same handler's second look.
TEST_F(DockShadowTest, AWakeDrainedAfterTheQueueWasReadStillGetsItsChangeApplied) {
   auto w = writer("drain", 1);
   auto r = follow(w->directory());
   Region::Notify<uint64_t, Value> n;
   n.onValue = [&](const Value& v) { seen.values[v.key] = v; };
   n.onQuiesced = [&](bool q) {
      if (q && !seen.values.count(2)) w->write(Value(2, 1, 1)), w->flush();
   };
   r->notifyIs(n);
   w->write(Value(1, 2, 1));
   w->flush();
   ASSERT_TRUE(runUntil(
       loop, [&] { return seen.values.count(2) == 1; }, std::chrono::seconds(2)));
   EXPECT_EQ(seen.values, contents(*w));
}

struct CountedValue : Value {  // counts its deserializations
   static inline uint64_t deserialized = 0;
   using Value::Value;
   void deserialize(const void* b, uint32_t n) { ++deserialized, Value::deserialize(b, n); }
};

TEST_F(DockShadowTest, ReadingANotifiedKeyCostsOneCopyAndOneDeserializationAndIsNeverStale) {
   using Cost = std::pair<uint64_t, uint64_t>;
   using Read = std::vector<std::optional<Value>>;
   auto w = writer("once", 0);
   DockShadow<uint64_t, CountedValue, KeyOf, KeyShadowSlot> r("once", w->directory(), loop);
   std::function<void(uint64_t)> beforeRead;  // what the writer does before the callback reads
   Read read;
   Region::Notify<uint64_t, CountedValue> n;
   n.onKey = [&](const uint64_t& k) {
      if (beforeRead) std::exchange(beforeRead, nullptr)(k);
      read.push_back(r.lookup(k));
   };
   r.notifyIs(n);
   ASSERT_TRUE(r.initialize());
   Cost last;
   const auto cost = [&] {  // slot copies and deserializations since the last call
      const Cost now(r.readerCounters().slotsCopied, CountedValue::deserialized);
      const Cost spent(now.first - last.first, now.second - last.second);
      return last = now, spent;
   };
   cost();
   const auto apply = [&](const std::vector<Value>& values) {
      read.clear();
      for (const Value& v : values) w->write(v);
      w->flush();
      return runUntil(loop, [&] { return r.quiesced(); });
   };
   // Inserts, then replacements up to the largest value: each read in its callback.
   std::vector<Value> inserts, changes;
   for (uint64_t k = 1; k <= 8; ++k) {
      inserts.push_back(Value(k, 1, 2));
      changes.push_back(Value(k, 2, k == 8 ? 600 : 1));
   }
   for (const auto* values : {&inserts, &changes}) {
      ASSERT_TRUE(apply(*values));
      EXPECT_EQ(read, Read(values->begin(), values->end()));
   }
   EXPECT_EQ(cost(), Cost(16, 16));
   // Read a turn later, as a consumer batching its keys does: nothing copied again.
   for (uint64_t k = 1; k <= 8; ++k) EXPECT_EQ(r.lookup(k), changes[k - 1]);
   EXPECT_EQ(cost(), Cost(0, 0));
   // Changed, or removed, again before the read: the newer state, never the notified one.
   beforeRead = [&](uint64_t k) { w->write(Value(k, 4, 3)); };
   ASSERT_TRUE(apply({Value(1, 3, 1)}));
   EXPECT_EQ(read, (Read{Value(1, 4, 3), Value(1, 4, 3)}));
   beforeRead = [&](uint64_t k) { w->remove(k); };
   ASSERT_TRUE(apply({Value(2, 3, 1)}));
   EXPECT_EQ(read, Read{std::nullopt});
   // Written while the reader does not run, or after a resize (whose re-initialized slots could
   // bring an old flags word back): a lookup copies afresh.
   w->write(Value(3, 5, 1));
   EXPECT_EQ(r.lookup(3), Value(3, 5, 1));
   const uint32_t slots = w->capacity();
   for (uint64_t k = 100; k < 200; ++k) w->write(Value(k, 1, 1));
   ASSERT_GT(w->capacity(), slots);
   cost();
   EXPECT_EQ(r.lookup(5), changes[4]);
   EXPECT_EQ(cost(), Cost(1, 1));
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

std::vector<const ShadowRecord*> chain(const ShadowHashMap& m, uint32_t bucket) {
   std::vector<const ShadowRecord*> out;
   for (const ShadowRecord* r = m.bucketHead(bucket); r; r = r->next) out.push_back(r);
   return out;
}

TEST(ShadowHashMap, GrowingFromOneToTwoBucketsMovesExactlyTheTopBitEntriesInOrder) {
   ShadowHashMap big("grow2", 1);
   std::deque<ShadowRecord> recs2(3);
   const uint32_t hashes[] = {0xF0000000u, 0x10000000u, 0x80000001u};
   for (uint32_t i = 0; i < 3; ++i) recs2[i] = ShadowRecord{.hash = hashes[i], .secondary = i};
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

TEST(DockReader, LooksUpAndIteratesEveryKeyAndFollowsGrowth) {
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
   {
      Spoor::Capture cap;
      for (uint64_t k = 21; k <= 2000; ++k) w.write(Value(k, 2, 1));
      ASSERT_GT(w.buckets(), 16u);
      for (uint64_t k = 21; k <= 2000; k += 37) EXPECT_EQ(r.lookup(k), Value(k, 2, 1));
      EXPECT_EQ(r.buckets(), w.buckets());
      EXPECT_EQ(cap.count("DockReader", fmt::format("found mismatch, local numBuckets:{} header "
                                                    "numBuckets:{}",
                                                    attachedBuckets, w.buckets())),
                1u);
   }
   EXPECT_EQ(r.capacity(), w.capacity());
   const uint32_t slot = w.slotOf(77);
   EXPECT_EQ(r.getValue(slot), Value(77, 2, 1));
   w.remove(77);
   EXPECT_FALSE(r.getValue(slot).has_value());
   EXPECT_FALSE(r.lookup(77).has_value());
   EXPECT_EQ(r.members(), 1999u);

   // Iteration with hints visits every key once.
   std::set<uint64_t> keys;
   IterHint hint;
   Value v;
   for (bool ok = r.first(hint, v); ok; ok = r.next(hint, v))
      EXPECT_TRUE(keys.insert(v.key).second);
   EXPECT_EQ(keys.size(), 1999u);
   EXPECT_FALSE(hint.valid());
   // Change the hinted slot between steps: the step restarts from the hinted bucket.
   ASSERT_TRUE(r.first(hint, v));
   const IterHint saved = hint;
   w.write(Value(v.key, 3, 2));  // the slot's flags word moves on
   Spoor::Capture cap;
   keys = {v.key};
   for (bool ok = r.next(hint, v); ok; ok = r.next(hint, v)) keys.insert(v.key);
   EXPECT_EQ(keys.size(), 1999u);
   EXPECT_EQ(cap.count("DockReader", fmt::format("plain next bucket {} using ", saved.bucket)), 1u);
   EXPECT_EQ(cap.count("DockReader", "saving new slot hint"), 1u);
}

// The chain anomalies a lookup refuses to loop on, then each missing or damaged piece an attach
// reports.
TEST(DockReader, ChainAnomaliesAndEachMissingPieceAreReported) {
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

   // Attach steps, each failing on one missing or damaged piece.
   Reader none("none", root.path() + "/absent");
   EXPECT_FALSE(none.attach());
   EXPECT_EQ(none.lastStatus(), "no shared memory region");
   ::mkdir((root.path() + "/empty").c_str(), 0755);
   Reader empty("empty", root.path() + "/empty");
   EXPECT_FALSE(empty.attach());
   EXPECT_EQ(empty.lastStatus(), "cannot attach to shmem size:0");

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

// Damage no concurrent write explains, in a real writer's files: both readers report it as
// corruption with its reason, never a value. (More keys than the shadow keeps recent copies of:
// key 3 is read from the files again.) Each damage is undone by doing it again.
TEST_F(DockShadowTest, StableDamageIsCorruptionForBothReadersNeverAValue) {
   auto w = writer("damage", 2 * Dock::RecentCopies<Value>::kCapacity, 3);
   auto shadow = follow(w->directory());
   Reader plain("plain", w->directory());
   ASSERT_TRUE(plain.attach()) << plain.lastStatus();
   SlotTableHeader* h = w->table().header();
   const uint32_t s = w->slotOf(3), other = w->slotOf(4), lookaside = h->lookaside.slot.load();
   Slot& slot = w->table().slot(s);
   const auto offset = Tessel::Offset::fromWord(slot.offset.load());
   uint8_t* payload = w->allocator().payload(offset);
   std::vector<uint8_t> flipped(payload, payload + slot.length.load());
   flipped[20] ^= 0x40;  // a via byte
   const std::pair<std::function<void()>, std::string> cases[] = {
       {[&] {
           slot.flags.fetch_xor(kLookaside);
           h->lookaside.slot.store(h->lookaside.slot.load() == other ? lookaside : other);
        },
        fmt::format("slot:{} LOOKASIDE set but lookaside names slot:{}", s, other)},
       {[&] { payload[20] ^= 0x40; },
        fmt::format("slot:{} offset:{} entry check mismatch: computed:{:#018x} stored:{:#018x}", s,
                    offset, Tessel::entryCheck(flipped.data(), uint32_t(flipped.size()), s),
                    w->allocator().lookup(offset)->check.load())}};
   for (const auto& [damage, message] : cases) {
      damage();
      EXPECT_EQ(Testing::errorText<Loom::CorruptionException>([&] { shadow->lookup(3); }), message);
      EXPECT_EQ(Testing::errorText<Loom::CorruptionException>([&] { plain.lookup(3); }), message);
      damage();
      EXPECT_EQ(plain.lookup(3), Value(3, 1, 3));
   }
}

// A writer killed halfway through halving 64 buckets leaves the resize counter odd until a writer
// returns: upper chains 32..39 appended to their partners and emptied, 40..55 appended only,
// 56..63 untouched. A plain reader finds every key and iterates each once, without waiting.
TEST(DockReader, OddResizeCounterOfAKilledRehashStillFindsEveryKeyOnce) {
   Testing::TempRoot root;
   Writer w(DockTest::tableConfig());
   w.initialize("t/odd");
   for (uint64_t k = 1; k <= 60; ++k) w.write(Value(k, 1, 1));
   ASSERT_EQ(w.buckets(), 64u);
   Region::MappedFile bf = Region::MappedFile::openReadWrite(w.directory() + "/buckets");
   auto* heads = reinterpret_cast<std::atomic<uint32_t>*>(bf.data() + kBucketHeaderSize);
   for (uint32_t u = 32; u < 56; ++u) {
      if (heads[u].load() == kNone) continue;
      std::atomic<uint32_t>* link = &heads[u - 32];
      while (link->load() != kNone) link = &w.table().slot(link->load()).next;
      link->store(heads[u].load());
      if (u < 40) heads[u].store(kNone);
   }
   auto& sizeWord = reinterpret_cast<BucketHeader*>(bf.data())->sizeWord;
   sizeWord.store(makeSizeWord(sizeWordCounter(sizeWord.load()) + 1, 64));
   Reader r("odd", w.directory());
   ASSERT_TRUE(r.attach()) << r.lastStatus();
   for (uint64_t k = 1; k <= 60; ++k) EXPECT_EQ(r.lookup(k), Value(k, 1, 1)) << k;
   EXPECT_FALSE(r.lookup(61).has_value());
   std::set<uint64_t> keys;
   IterHint hint;
   Value v;
   for (bool ok = r.first(hint, v); ok; ok = r.next(hint, v))
      EXPECT_TRUE(keys.insert(v.key).second);
   EXPECT_EQ(keys.size(), 60u);
}

// A writer process killed, then a new writer with values in another size class (new slab files),
// over the kept files or over files removed and re-created: the plain reader answers from them.
TEST(DockReader, ReadsThroughAKilledWritersRestartAndRemoval) {
   Testing::TempRoot root;
   for (const bool removed : {false, true}) {
      SCOPED_TRACE(removed);
      const std::string name = removed ? "t/removed" : "t/restarted";
      const std::string dir = Region::tableDirectory(Region::storeRoot(), name);
      Testing::Pipe ready;
      const pid_t first = Testing::forkChild([&] {
         Writer w(DockTest::tableConfig());
         w.initialize(name);
         for (uint64_t k = 1; k <= 20; ++k) w.write(Value(k, 1, 1));
         ready.send();
         ::pause();
         return 0;
      });
      ASSERT_EQ(ready.receive(), 'x');
      Reader r("plain", dir);
      ASSERT_TRUE(r.attach()) << r.lastStatus();
      EXPECT_EQ(r.lookup(5), Value(5, 1, 1));
      ::kill(first, SIGKILL);
      EXPECT_EQ(Testing::waitChild(first), 128 + SIGKILL);
      if (removed) std::filesystem::remove_all(dir);
      Writer w(DockTest::tableConfig());
      w.initialize(name);
      for (uint64_t k = 1; k <= 20; ++k) w.write(Value(k, 2, 40));
      // Replaced files are noticed by the next read that finds nothing, else within this.
      if (removed) std::this_thread::sleep_for(Reader::kReplacedCheck);
      for (uint64_t k = 1; k <= 20; ++k) EXPECT_EQ(r.lookup(k), Value(k, 2, 40)) << k;
      EXPECT_EQ(r.reattaches(), 1u);
      EXPECT_EQ(r.relumeId(), w.relumeId());
   }
}

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
   for (int n = 0; n < 200000; ++n) {
      SlotImage img;
      copySlot(*h, &slot, 0, img);
      ASSERT_EQ(img.offset, img.length * 3) << "flags " << img.flags;
   }
   stop.store(true);
   writer.join();
}

}  // namespace
}  // namespace Dock
