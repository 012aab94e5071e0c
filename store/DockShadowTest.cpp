// The key-shadowing reader against the real writer: synchronization, per-key callbacks, lapping,
// writer restart, shrink moves, validation against the queue, and readers in forked processes
// woken without polling.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <thread>

#include "Loom/EventLoop.h"
#include "Region/MappedFile.h"
#include "Spoor/Trace.h"
#include "store/DockShadow.h"
#include "store/DockWriter.h"
#include "store/WriterTestValue.h"
#include "testing/TempRoot.h"

namespace Dock {
namespace {

using DockTest::KeyOf;
using DockTest::Value;
using Writer = DockWriter<uint64_t, Value, KeyOf>;
using Shadow = DockShadow<uint64_t, Value, KeyOf>;
using KeyShadow = DockShadow<uint64_t, Value, KeyOf, KeyShadowSlot>;

DockConfig config(uint32_t heraldCapacity = 1024) {
   DockConfig c;
   c.typeName = "DockTest::Value";
   c.valueSize = sizeof(Value);
   c.minSlots = 16;
   c.maxSlots = 1u << 14;
   c.maxValueSize = DockTest::kMaxValueSize;
   c.heraldCapacity = heraldCapacity;
   return c;
}

// What a table would keep from the callbacks.
struct Seen {
   std::map<uint64_t, Value> values;
   std::vector<uint64_t> added;
   std::vector<uint64_t> removed;
   int wholeTable = 0;
   int syncComplete = 0;
   std::vector<bool> quiesced;

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

template <class Pred>
bool pump(Loom::EventLoop& loop, Pred pred, int seconds = 10) {
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
   while (!pred()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      loop.runOnce(std::chrono::milliseconds(50));
   }
   return true;
}

std::map<uint64_t, Value> contents(Writer& w) {
   std::map<uint64_t, Value> out;
   for (uint32_t s = w.firstSlot(); s != kNone;) {
      const uint64_t k = w.keyAt(s);
      out[k] = w.valueAt(s);
      s = w.nextSlot(k, s, w.flagsOf(s));
   }
   return out;
}

TEST(DockShadow, EmptyTableReachesSyncCompleteAtOnceAndReportsQuiesced) {
   Testing::TempRoot root;
   Writer w(config());
   w.initialize("t/empty");
   Loom::EventLoop loop;
   Shadow r("empty", w.directory(), loop);
   Seen seen;
   seen.attach(r);
   Spoor::Capture cap;
   ASSERT_EQ(r.state(), ReaderState::kDetached);
   ASSERT_TRUE(r.initialize()) << r.attachError();
   EXPECT_EQ(seen.syncComplete, 1);
   EXPECT_EQ(seen.quiesced, std::vector<bool>{true});
   EXPECT_TRUE(r.quiesced());
   EXPECT_EQ(r.state(), ReaderState::kQuiesced);
   EXPECT_EQ(r.members(), 0u);
   EXPECT_EQ(r.relumeId(), w.relumeId());
   EXPECT_EQ(r.capacity(), w.capacity());
   EXPECT_EQ(cap.count("DockShadow", fmt::format("Synchronization complete, seq:{}", r.sequence())),
             1u);
   // The sync-complete trace precedes the quiesced report.
   const auto recs = cap.records();
   size_t sync = recs.size(), quiet = recs.size();
   for (size_t i = 0; i < recs.size(); ++i) {
      if (recs[i].text.find("Synchronization complete") != std::string::npos) sync = i;
      if (recs[i].text.find("empty quiesced:true") != std::string::npos) quiet = i;
   }
   EXPECT_LT(sync, quiet);
   EXPECT_EQ(seen.wholeTable, 0);
}

TEST(DockShadow, ReportsEachKeyAddedChangedAndRemoved) {
   Testing::TempRoot root;
   Writer w(config());
   w.initialize("t/keys");
   for (uint64_t k = 1; k <= 50; ++k) w.write(Value(k, 1, uint32_t(k % 7 + 1)));
   w.flush();
   Loom::EventLoop loop;
   Shadow r("keys", w.directory(), loop);
   Seen seen;
   seen.attach(r);
   ASSERT_TRUE(r.initialize()) << r.attachError();
   ASSERT_TRUE(pump(loop, [&] { return r.quiesced(); }));
   EXPECT_EQ(seen.values.size(), 50u);
   EXPECT_EQ(seen.values, contents(w));
   EXPECT_EQ(r.members(), 50u);
   seen.added.clear();

   w.write(Value(7, 2, 600));  // change, the largest value
   w.write(Value(7, 2, 600));  // same value again: the shadow sees no change
   w.write(Value(100, 1, 1));  // add
   w.remove(3);                // remove
   w.flush();
   ASSERT_TRUE(pump(loop, [&] { return r.quiesced(); }));
   EXPECT_EQ(seen.added, (std::vector<uint64_t>{7, 100}));
   EXPECT_EQ(seen.removed, std::vector<uint64_t>{3});
   EXPECT_EQ(seen.values, contents(w));
   EXPECT_EQ(r.lookup(7), Value(7, 2, 600));
   EXPECT_FALSE(r.lookup(3).has_value());
   // Iteration in slot order visits every key once.
   std::set<uint64_t> keys;
   IterHint hint;
   Value v;
   for (bool ok = r.first(hint, v); ok; ok = r.next(hint, v))
      EXPECT_TRUE(keys.insert(v.key).second);
   EXPECT_EQ(keys.size(), 50u);
   // quiesced went false while the batch was applied, then true again.
   ASSERT_GE(seen.quiesced.size(), 3u);
   EXPECT_EQ(seen.quiesced.back(), true);
   EXPECT_EQ(seen.syncComplete, 1);
   std::string reason;
   EXPECT_TRUE(r.validateAgainstHerald(reason)) << reason;
}

TEST(DockShadow, LongCatchUpYieldsToTheLoopAndHeadersDump) {
   Testing::TempRoot root;
   Writer w(config(1 << 14));
   w.initialize("t/yield");
   Loom::EventLoop loop;
   Shadow r("yield", w.directory(), loop);
   Seen seen;
   seen.attach(r);
   ASSERT_TRUE(r.initialize());
   const auto anchor = r.getCacheVersionAnchor();
   EXPECT_TRUE(anchor.valid());
   r.yieldTimeIs(1e-9);  // every check of the clock finds the turn over
   for (uint64_t k = 1; k <= 3000; ++k) w.write(Value(k, 1, 1));
   w.flush();
   // Another task posted meanwhile runs between the reader's turns.
   bool otherRan = false;
   loop.post([&] { otherRan = true; });
   ASSERT_TRUE(pump(loop, [&] { return r.quiesced(); }));
   EXPECT_TRUE(otherRan);
   EXPECT_GT(r.readerCounters().yields, 10u);
   EXPECT_EQ(seen.values.size(), 3000u);
   // The slot file grew: the anchor follows the resize, the view stays valid.
   EXPECT_TRUE(r.validateVersionAnchor());
   EXPECT_NE(r.getCacheVersionAnchor(), anchor);
   const std::string dump = r.dumpHeaders();
   EXPECT_EQ(dump.rfind("magic:0x544f4c534b434f44 version:23 relume:", 0), 0u) << dump;
   EXPECT_NE(dump.find(fmt::format("numSlots:{}", w.capacity())), std::string::npos);
   EXPECT_NE(dump.find(fmt::format("herald capacity:16384 relume:{} writerPos:{} readerPos:{}",
                                   w.relumeId(), w.sequence(), w.sequence())),
             std::string::npos)
       << dump;
   // Callbacks off: the shadow still follows, the table hears nothing.
   r.notifyingIs(false);
   w.write(Value(1, 5, 5));
   w.flush();
   ASSERT_TRUE(pump(loop, [&] { return r.quiesced(); }));
   EXPECT_EQ(seen.values.at(1), Value(1, 1, 1));
   EXPECT_EQ(r.lookup(1), Value(1, 5, 5));
}

TEST(DockShadow, KeyShadowAnnouncesEveryNotifiedWrite) {
   Testing::TempRoot root;
   Writer w(config());
   w.initialize("t/keyonly");
   w.write(Value(1, 1, 1));
   w.flush();
   Loom::EventLoop loop;
   KeyShadow r("keyonly", w.directory(), loop);
   Seen seen;
   seen.attach(r);
   ASSERT_TRUE(r.initialize());
   ASSERT_TRUE(pump(loop, [&] { return r.quiesced(); }));
   w.write(Value(1, 1, 1));  // rewritten with equal bytes: a key shadow cannot tell
   w.flush();
   ASSERT_TRUE(pump(
       loop, [&] { return r.sequence() == w.sequence() + (uint64_t(w.relumeId()) << 32) - 1; }));
   EXPECT_EQ(seen.added, (std::vector<uint64_t>{1, 1}));
}

TEST(DockShadow, ReaderResynchronizesAfterBeingLapped) {
   Testing::TempRoot root;
   Writer w(config(16));
   w.initialize("t/lapped");
   for (uint64_t k = 1; k <= 20; ++k) w.write(Value(k, 1, 2));
   w.flush();
   Loom::EventLoop loop;
   Shadow r("lapped", w.directory(), loop);
   Seen seen;
   seen.attach(r);
   ASSERT_TRUE(r.initialize());
   ASSERT_TRUE(pump(loop, [&] { return r.quiesced(); }));
   seen.added.clear();
   // 60 notifications into a ring of 16 while the reader does not run.
   for (uint64_t k = 1; k <= 10; ++k) w.remove(k);
   for (uint64_t k = 11; k <= 30; ++k) w.write(Value(k, 2, 3));
   for (uint64_t k = 31; k <= 60; ++k) w.write(Value(k, 1, 1));
   w.flush();
   Spoor::Capture cap;
   ASSERT_TRUE(pump(loop, [&] { return r.quiesced(); }));
   EXPECT_EQ(r.readerCounters().lapped, 1u);
   EXPECT_EQ(seen.wholeTable, 1);
   EXPECT_EQ(cap.count("DockShadow", "lapped at position:"), 1u);
   EXPECT_EQ(seen.values, contents(w));
   std::set<uint64_t> removed(seen.removed.begin(), seen.removed.end());
   EXPECT_EQ(removed, (std::set<uint64_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
   EXPECT_EQ(r.members(), 50u);
   EXPECT_EQ(seen.syncComplete, 1);  // once per reader, not per resynchronization
}

TEST(DockShadow, ReaderFollowsWriterRestartWithoutLosingKeys) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Seen seen;
   std::unique_ptr<Shadow> r;
   std::string dir;
   uint32_t firstRelume = 0;
   {
      Writer w(config());
      w.initialize("t/restart");
      dir = w.directory();
      firstRelume = w.relumeId();
      for (uint64_t k = 1; k <= 40; ++k) w.write(Value(k, 1, 2));
      w.flush();
      r = std::make_unique<Shadow>("restart", dir, loop);
      seen.attach(*r);
      ASSERT_TRUE(r->initialize());
      ASSERT_TRUE(pump(loop, [&] { return r->quiesced(); }));
   }
   Writer again(config());
   again.initialize("t/restart");
   ASSERT_NE(again.relumeId(), firstRelume);
   again.remove(5);
   again.write(Value(41, 1, 1));
   again.flush();
   ASSERT_TRUE(pump(loop, [&] { return r->relumeId() == again.relumeId() && r->quiesced(); }));
   EXPECT_GE(r->readerCounters().reattaches, 1u);
   EXPECT_EQ(seen.values, contents(again));
   EXPECT_EQ(seen.removed, std::vector<uint64_t>{5});  // only the key really removed
   EXPECT_GE(seen.wholeTable, 1);
}

// A shadow `r` quiesced on a 30-key table "t/<name>" whose slot file is then damaged, so that
// the next writer of the table must re-format it. `seed` is the first writer's hash seed.
void shadowATableToReformat(const std::string& name, Loom::EventLoop& loop, Seen& seen,
                            std::unique_ptr<Shadow>& r, uint32_t& seed) {
   Writer w(config());
   w.initialize("t/" + name);
   for (uint64_t k = 1; k <= 30; ++k) w.write(Value(k, 1, 1));
   w.flush();
   seed = w.table().header()->hashSeed;
   r = std::make_unique<Shadow>(name, w.directory(), loop);
   seen.attach(*r);
   ASSERT_TRUE(r->initialize());
   ASSERT_TRUE(pump(loop, [&] { return r->quiesced(); }));
   Region::MappedFile f = Region::MappedFile::openReadWrite(w.directory() + "/slots");
   f.data()[20] ^= 0xFF;
}

TEST(DockShadow, ReaderFollowsAReformattedTable) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Seen seen;
   std::unique_ptr<Shadow> r;
   uint32_t seed = 0;
   ASSERT_NO_FATAL_FAILURE(shadowATableToReformat("reformat", loop, seen, r, seed));
   Writer again(config());
   again.initialize("t/reformat");
   again.write(Value(5, 2, 2));
   again.write(Value(99, 1, 1));
   again.flush();
   ASSERT_TRUE(pump(loop, [&] { return r->relumeId() == again.relumeId() && r->quiesced(); }));
   EXPECT_EQ(seen.values, contents(again));
   EXPECT_EQ(seen.removed.size(), 29u);  // every old key but 5, which the new table holds again
   EXPECT_EQ(r->members(), 2u);
   EXPECT_EQ(r->lookup(5), Value(5, 2, 2));
}

// A resynchronization takes a key out of the shadow before it knows whether the key is gone or
// only moved. Here the writer restarts while the reader's resynchronization is half done (cut after
// its first turn of slots, with removed keys among them): the next resynchronization must still
// report those keys removed, exactly once.
TEST(DockShadow, RemovalsFoundByAnInterruptedResyncAreReportedAfterTheNextRestart) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Seen seen;
   std::unique_ptr<Shadow> r;
   auto w = std::make_unique<Writer>(config());
   w->initialize("t/cut");
   for (uint64_t k = 1; k <= 1000; ++k) w->write(Value(k, 1, 1));
   w->flush();
   r = std::make_unique<Shadow>("cut", w->directory(), loop);
   seen.attach(*r);
   ASSERT_TRUE(r->initialize());
   ASSERT_TRUE(pump(loop, [&] { return r->quiesced(); }));
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
   ASSERT_TRUE(pump(loop, [&] { return r->relumeId() == w->relumeId() && r->quiesced(); }));
   EXPECT_GE(r->readerCounters().reattaches, 2u);
   EXPECT_EQ(seen.values, contents(*w));
   EXPECT_EQ(std::set<uint64_t>(seen.removed.begin(), seen.removed.end()), gone);
   EXPECT_EQ(seen.removed.size(), gone.size());
}

// A re-formatted table chooses a new hash seed: keys the shadow keeps across the re-attach (same
// key in the same slot) are found by lookup under the new seed.
TEST(DockShadow, KeysKeptAcrossAReformatAreFoundUnderTheNewSeed) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Seen seen;
   std::unique_ptr<Shadow> r;
   uint32_t firstSeed = 0;
   ASSERT_NO_FATAL_FAILURE(shadowATableToReformat("seed", loop, seen, r, firstSeed));
   Writer again(config());
   again.initialize("t/seed");
   ASSERT_EQ(again.mountStatus(), MountStatus::kReformatted);
   ASSERT_NE(again.table().header()->hashSeed, firstSeed);
   // The same keys in the same order: each lands in the slot it had before.
   for (uint64_t k = 1; k <= 30; ++k) again.write(Value(k, 1, 1));
   again.flush();
   ASSERT_TRUE(pump(loop, [&] { return r->relumeId() == again.relumeId() && r->quiesced(); }));
   EXPECT_TRUE(seen.removed.empty());
   EXPECT_EQ(seen.values, contents(again));
   for (uint64_t k = 1; k <= 30; ++k) EXPECT_EQ(r->lookup(k), Value(k, 1, 1)) << k;
}

TEST(DockShadow, ShrinkMovesKeysWithoutReportingThemRemoved) {
   Testing::TempRoot root;
   Writer w(config());
   w.initialize("t/shrink");
   for (uint64_t k = 1; k <= 300; ++k) w.write(Value(k, 1, 1));
   w.flush();
   Loom::EventLoop loop;
   Shadow r("shrink", w.directory(), loop);
   Seen seen;
   seen.attach(r);
   ASSERT_TRUE(r.initialize());
   ASSERT_TRUE(pump(loop, [&] { return r.quiesced(); }));
   for (uint64_t k = 1; k <= 290; ++k) w.remove(k);
   w.flush();
   ASSERT_TRUE(pump(loop, [&] { return r.quiesced(); }));
   seen.removed.clear();
   const uint32_t before = w.capacity();
   w.shrink();
   w.flush();
   ASSERT_LT(w.capacity(), before);
   ASSERT_TRUE(pump(loop, [&] { return r.quiesced(); }));
   EXPECT_TRUE(seen.removed.empty());
   EXPECT_EQ(seen.values, contents(w));
   EXPECT_EQ(r.members(), 10u);
   for (uint64_t k = 291; k <= 300; ++k) EXPECT_EQ(r.lookup(k), Value(k, 1, 1));
}

TEST(DockShadow, AttachFailureNamesFileSizeAndReason) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Shadow r("missing", root.path() + "/nothing", loop);
   EXPECT_FALSE(r.initialize());
   EXPECT_EQ(r.attachError(),
             fmt::format("missing::attach() cannot attach to shmem {}/nothing/slots "
                         "size:0: no relume",
                         root.path()));
   Writer w(config());
   w.initialize("t/bad");
   // Damage the slot table header's checksummed type name.
   {
      Region::MappedFile f = Region::MappedFile::openReadWrite(w.directory() + "/slots");
      f.data()[20] ^= 0xFF;
   }
   Shadow bad("bad", w.directory(), loop);
   EXPECT_FALSE(bad.initialize());
   EXPECT_NE(bad.attachError().find("bad::attach() cannot attach to shmem " + w.directory() +
                                    "/slots size:"),
             std::string::npos);
   EXPECT_NE(bad.attachError().find(": checksum fail: "), std::string::npos);
   EXPECT_EQ(bad.state(), ReaderState::kDetached);
}

TEST(DockShadow, ValidationAgainstTheQueueFindsAForeignNotification) {
   Testing::TempRoot root;
   Writer w(config());
   w.initialize("t/validate");
   for (uint64_t k = 1; k <= 5; ++k) w.write(Value(k, 1, 1));
   w.flush();
   Loom::EventLoop loop;
   Shadow r("validate", w.directory(), loop);
   ASSERT_TRUE(r.initialize());
   std::string reason;
   ASSERT_TRUE(r.validateAgainstHerald(reason)) << reason;
   const uint32_t slot = w.slotOf(3);
   // Point the latest notification of slot `slot` at another slot.
   Region::MappedFile f = Region::MappedFile::openReadWrite(w.directory() + "/herald");
   auto* ring = reinterpret_cast<Notification*>(f.data() + kHeraldHeaderSize);
   const auto* slots = SlotTable::slots(reinterpret_cast<const SlotTableHeader*>(
       Region::MappedFile::openReadOnly(w.directory() + "/slots").data()));
   (void)slots;
   Region::MappedFile sf = Region::MappedFile::openReadOnly(w.directory() + "/slots");
   const uint32_t pos =
       SlotTable::slots(reinterpret_cast<const SlotTableHeader*>(sf.data()))[slot].heraldPos.load();
   const uint32_t cap = reinterpret_cast<const HeraldHeader*>(f.data())->capacity;
   ring[pos % cap].slot.store(slot + 1000);
   EXPECT_FALSE(r.validateAgainstHerald(reason));
   EXPECT_EQ(reason,
             fmt::format("slot index:{} has out of range herald slot: {}", pos, slot + 1000));
   ring[pos % cap].slot.store(w.slotOf(4));
   EXPECT_FALSE(r.validateAgainstHerald(reason));
   EXPECT_EQ(reason, fmt::format("slot:{} bad notification:{} slot:{}", slot, pos, w.slotOf(4)));
}

TEST(DockShadow, ForkedReadersAreWokenWithoutPolling) {
   Testing::TempRoot root;
   Writer w(config(256));
   w.initialize("t/fork");
   const std::string dir = w.directory();
   constexpr uint64_t kKeys = 400;
   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   auto body = [&] {
      Loom::EventLoop loop;
      Shadow r("child", dir, loop);
      Seen seen;
      seen.attach(r);
      if (!r.initialize()) return 2;
      char c = 'r';
      if (::write(ready[1], &c, 1) != 1) return 3;
      // The loop sleeps in epoll with no timers: only the herald's eventfd wakes it.
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (!(seen.values.size() == kKeys && seen.values.at(kKeys).version == 9)) {
         if (std::chrono::steady_clock::now() > deadline) return 4;
         loop.runOnce(std::chrono::seconds(30));
      }
      for (const auto& [k, v] : seen.values) {
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
      w.write(Value(k, 1, uint32_t(k % 11 + 1)));
      if (k % 50 == 0) w.flush();
   }
   w.write(Value(kKeys, 9, 3));
   w.flush();
   EXPECT_EQ(Testing::waitChild(a), 0);
   EXPECT_EQ(Testing::waitChild(b), 0);
   ::close(ready[0]);
   ::close(ready[1]);
}

TEST(DockShadow, ReaderThreadFollowsWriterThread) {
   // Writer and reader as threads of one process: every shared access is an atomic, so this runs
   // clean under ThreadSanitizer; the final shadow must equal the writer's table.
   Testing::TempRoot root;
   Writer w(config(64));
   w.initialize("t/threads");
   const std::string dir = w.directory();
   std::atomic<bool> done{false};
   std::map<uint64_t, Value> final;
   std::map<uint64_t, Value> seenValues;
   uint64_t lapped = 0;
   std::thread reader([&] {
      Loom::EventLoop loop;
      Shadow r("thread", dir, loop);
      Seen seen;
      seen.attach(r);
      ASSERT_TRUE(r.initialize());
      while (!done.load()) loop.runOnce(std::chrono::milliseconds(20));
      pump(loop, [&] { return r.quiesced(); });
      seenValues = seen.values;
      lapped = r.readerCounters().lapped;
   });
   std::mt19937 rng(3);
   for (int i = 0; i < 3000; ++i) {
      const uint64_t k = rng() % 200;
      if (rng() % 4 == 0) {
         w.remove(k);
      } else {
         w.write(Value(k, uint32_t(i), uint32_t(rng() % 40 + 1)));
      }
      if (i % 16 == 0) w.flush();
   }
   w.flush();
   final = contents(w);
   done.store(true);
   reader.join();
   EXPECT_EQ(seenValues, final);
   (void)lapped;
}

}  // namespace
}  // namespace Dock
