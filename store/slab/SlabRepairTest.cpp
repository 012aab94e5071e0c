// A writer killed between two bookkeeping stores of a slab: the next writer repairs the one
// operation its intent record names and keeps every committed entry, while the same damage
// without a record is still reported. Each interrupted state is made by a real SIGKILL at an exact
// store boundary (Tessel::storeHook in a forked child); a churning writer killed at random points
// shows the same end to end; half-created slab files are removed.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "Spoor/Trace.h"
#include "store/writer/DockWriter.h"
#include "store/slab/SlabIntent.h"
#include "store/StoreTestSupport.h"
#include "store/slab/WriterAllocator.h"
#include "testing/Expect.h"
#include "testing/TempRoot.h"

namespace {

using DockTest::Value;
using Tessel::LinearSizeConfig;
using Tessel::Offset;
using Tessel::SlabOp;
using Tessel::StorePoint;
using Tessel::WriterAllocator;
using Testing::errorText;
using Writer = Dock::DockWriter<uint64_t, Value, DockTest::KeyOf>;
namespace fs = std::filesystem;

std::optional<StorePoint> killPoint;
void killAtPoint(StorePoint p) {
   if (p == killPoint) ::kill(::getpid(), SIGKILL);
}

// Runs `body` in a child that must die by SIGKILL: at store point `p` when given, else by its own
// hand. Returns the child's pid.
pid_t killedAt(std::optional<StorePoint> p, const std::function<void()>& body) {
   const pid_t child = Testing::forkChild([&] {
      killPoint = p;
      Tessel::storeHook = killAtPoint;
      body();
      return 1;
   });
   EXPECT_EQ(Testing::waitChild(child), 128 + SIGKILL);
   return child;
}

// Slab 30 of M = 704: 22 entries of 728 bytes at first. Committed entry i has payload size
// 50 + i % 13, clientData 100 + i and 64 payload bytes derived from i.
constexpr uint32_t kMax = 704;
constexpr uint32_t kSize = 700;
constexpr uint32_t kSlab = 30;

void expectCommitted(WriterAllocator& wa, const std::set<uint32_t>& kept) {
   for (uint32_t i : kept) {
      const Offset o = Offset::make(kSlab, i);
      ASSERT_EQ(wa.lookup(o)->payloadSize.load(), int32_t(50 + i % 13)) << i;
      EXPECT_EQ(wa.lookup(o)->clientData.load(), 100 + i) << i;
      const uint8_t* p = wa.payload(o);
      for (uint32_t j = 0; j < 64; ++j) ASSERT_EQ(p[j], uint8_t(i * 7 + j)) << i;
   }
}

// The slab each operation starts from: alloc and free from 12 entries with 3, 5 and 8 freed; grow
// from 22 (full); shrink from 100 with 10..99, then 3, 5 and 8 freed. Returns the entries kept.
std::set<uint32_t> prepare(const std::string& dir, SlabOp op) {
   const uint32_t allocs = op == SlabOp::kGrow ? 22 : op == SlabOp::kShrink ? 100 : 12;
   WriterAllocator wa(dir, LinearSizeConfig(kMax), 1);
   wa.create();
   std::set<uint32_t> kept;
   for (uint32_t i = 0; i < allocs; ++i) {
      const Offset o = wa.alloc(kSize);
      EXPECT_EQ(o, Offset::make(kSlab, i));
      uint8_t* p = wa.payload(o);
      for (uint32_t j = 0; j < 64; ++j) p[j] = uint8_t(i * 7 + j);
      wa.lookup(o)->clientData.store(100 + i);
      wa.lookup(o)->payloadSize.store(int32_t(50 + i % 13));
      kept.insert(i);
   }
   std::vector<uint32_t> frees;
   if (op == SlabOp::kShrink) {
      for (uint32_t i = 10; i < allocs; ++i) frees.push_back(i);
   }
   if (op != SlabOp::kGrow) frees.insert(frees.end(), {3, 5, 8});
   for (uint32_t i : frees) {
      wa.free(Offset::make(kSlab, i));
      kept.erase(i);
   }
   return kept;
}

void operate(WriterAllocator& wa, SlabOp op) {
   if (op == SlabOp::kFree) {
      wa.free(Offset::make(kSlab, 4));
   } else if (op == SlabOp::kShrink) {
      wa.shrink();
   } else {
      wa.alloc(kSize);  // a grow when the slab is full
   }
}

TEST(SlabRepair, EveryInterruptedOperationIsRepairedOnlyWhenRecorded) {
   struct Case {
      StorePoint point;
      SlabOp op;
      // What validation of the same file without an intent record reports.
      std::string unrecorded;
      // After repair: the operation rolled back or finished, never half kept.
      uint32_t entries, occupied;
   };
   // The walk's findings on slab 30, and what validation of a consistent file says.
   auto listed = [](int free, int occupied, int entries) {
      return fmt::format(
          "slab.30::validate() found {} entries on free-list and {} occupied "
          "entries, but header's numEntries: {}",
          free, occupied, entries);
   };
   auto counted = [](int found, int header) {
      return fmt::format(
          "slab.30::validate() found {} occupied entries, but header's "
          "numOccupied: {}",
          found, header);
   };
   const std::string kConsistent = "(no exception)";
   const Case cases[] = {
       {StorePoint::kAllocPopped, SlabOp::kAlloc, listed(12, 9, 22), 22, 9},
       {StorePoint::kAllocUnlinked, SlabOp::kAlloc, listed(12, 9, 22), 22, 9},
       {StorePoint::kAllocSized, SlabOp::kAlloc, counted(10, 9), 22, 10},
       {StorePoint::kAllocCounted, SlabOp::kAlloc, kConsistent, 22, 10},
       {StorePoint::kFreeMarked, SlabOp::kFree, counted(8, 9), 22, 8},
       {StorePoint::kFreeLinked, SlabOp::kFree, counted(8, 9), 22, 8},
       {StorePoint::kFreeHeaded, SlabOp::kFree, counted(8, 9), 22, 8},
       {StorePoint::kFreeCounted, SlabOp::kFree, kConsistent, 22, 8},
       {StorePoint::kGrowExtended, SlabOp::kGrow, kConsistent, 22, 22},
       {StorePoint::kGrowHalfFormatted, SlabOp::kGrow, kConsistent, 22, 22},
       {StorePoint::kGrowListed, SlabOp::kGrow, "bad freeList: 22 maxIndex: 21", 22, 22},
       {StorePoint::kGrowCounted, SlabOp::kGrow, kConsistent, 44, 22},
       {StorePoint::kGrowVersioned, SlabOp::kGrow, kConsistent, 44, 22},
       {StorePoint::kShrinkRelinked, SlabOp::kShrink, listed(13, 7, 176), 176, 7},
       {StorePoint::kShrinkHeaded, SlabOp::kShrink, listed(15, 7, 176), 176, 7},
       {StorePoint::kShrinkCounted, SlabOp::kShrink, kConsistent, 22, 7},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(fmt::format("store point {}", int(c.point)));
      Testing::TempRoot root;
      const std::string dir = root.path() + "/t";
      const std::string bare = root.path() + "/bare";
      std::set<uint32_t> kept = prepare(dir, c.op);
      if (c.op == SlabOp::kFree) kept.erase(4);  // the entry being freed
      killedAt(c.point, [&] {
         WriterAllocator wa(dir, LinearSizeConfig(kMax), 2);
         wa.attach();
         operate(wa, c.op);
      });

      // The same file without the record: reported as in any untouched file, not repaired.
      fs::create_directories(bare);
      fs::copy_file(dir + "/slab.30", bare + "/slab.30");
      {
         WriterAllocator wa(bare, LinearSizeConfig(kMax), 3);
         wa.attach();
         EXPECT_EQ(wa.repairedOp(), SlabOp::kIdle);
         EXPECT_EQ(errorText([&] { wa.validate(); }), c.unrecorded);
      }

      // With the record: repaired and valid (the walk agrees with numOccupied).
      WriterAllocator wa(dir, LinearSizeConfig(kMax), 4);
      wa.attach();
      EXPECT_EQ(wa.repairedOp(), c.op);
      EXPECT_EQ(wa.repairedSlab(), kSlab);
      EXPECT_EQ(errorText([&] { wa.validate(); }), kConsistent);
      Tessel::SlabWriter* slab = wa.attachedSlab(kSlab);
      ASSERT_NE(slab, nullptr);
      EXPECT_EQ(slab->numEntries(), c.entries);
      EXPECT_EQ(slab->numOccupied(), c.occupied);
      // The repaired slab works on: every free entry taken, then all given back, and every
      // committed entry is as it was.
      std::vector<Offset> taken;
      while (slab->header()->freeList.load() != Dock::kNone) taken.push_back(wa.alloc(kSize));
      for (Offset o : taken) wa.free(o);
      EXPECT_EQ(errorText([&] { wa.validate(); }), kConsistent);
      expectCommitted(wa, kept);
      // And the record is idle again: the next writer repairs nothing.
      wa.detach();
      WriterAllocator again(dir, LinearSizeConfig(kMax), 5);
      again.attach();
      EXPECT_EQ(again.repairedOp(), SlabOp::kIdle);
   }
}

Dock::DockConfig config() {
   return DockTest::tableConfig(8, 1 << 16);
}

// 50 keys, version 1, one via each (all in slab 0, which has grown three times).
void writeTable(const std::string& name) {
   Writer w(config());
   w.initialize(name);
   for (uint64_t k = 0; k < 50; ++k) w.write(Value(k, 1, 1));
   w.flush();
}

// A replacement of key 7 up to its last step, by hand: the new entry (same bytes) names the slot,
// the slot names the new entry with its write counter advanced; the old entry is still occupied.
void replaceButKeepOld(Writer& w) {
   const uint32_t s = w.slotOf(7);
   Dock::Slot& slot = w.table().slot(s);
   const Offset old = Offset::fromWord(slot.offset.load());
   const int32_t length = w.allocator().lookup(old)->payloadSize.load();
   const Offset fresh = w.allocator().alloc(uint32_t(length) + Tessel::kEntryOverhead);
   std::memcpy(w.allocator().payload(fresh), w.allocator().payload(old), size_t(length));
   w.allocator().lookup(fresh)->clientData.store(s);
   w.allocator().lookup(fresh)->payloadSize.store(length);
   slot.offset.store(fresh.value);
   slot.flags.store(slot.flags.load() + Dock::kWriteStep);
   ::kill(::getpid(), SIGKILL);
}

TEST(SlabRepair, WriterKilledAroundASlotsEntryKeepsTheTable) {
   struct Case {
      const char* what;
      std::optional<StorePoint> point;  // none: `op` kills the child itself
      std::function<void(Writer&)> op;
      uint64_t key;      // the key `op` changes
      uint32_t version;  // its version afterwards, 0 when absent
      uint64_t reclaimed;
   };
   const Case cases[] = {
       // The entry was taken (size 0) but no slot names it: reclaimed.
       {"insert killed inside the entry's allocation", StorePoint::kAllocSized,
        [](Writer& w) { w.write(Value(50, 1, 1)); }, 50, 0, 1},
       {"insert killed after the entry was taken, before the slot names it",
        StorePoint::kAllocCounted, [](Writer& w) { w.write(Value(50, 1, 1)); }, 50, 0, 1},
       {"replace killed while freeing the old version's entry", StorePoint::kFreeLinked,
        [](Writer& w) { w.write(Value(7, 2, 1)); }, 7, 2, 0},
       {"remove killed while freeing the entry", StorePoint::kFreeMarked,
        [](Writer& w) { w.remove(9); }, 9, 0, 0},
       {"replace killed after the slot names the new entry, before the old is freed", std::nullopt,
        replaceButKeepOld, 7, 1, 1},
   };
   Testing::TempRoot root;
   int n = 0;
   for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      const std::string name = "t" + std::to_string(n++);
      writeTable(name);
      killedAt(c.point, [&] {
         Writer w(config());
         w.initialize(name);
         c.op(w);
      });
      std::map<uint64_t, Value> expected;
      for (uint64_t k = 0; k < 50; ++k) expected[k] = Value(k, 1, 1);
      expected[c.key] = Value(c.key, c.version, 1);
      if (c.version == 0) expected.erase(c.key);

      Writer w(config());
      w.initialize(name);
      EXPECT_EQ(w.mountStatus(), Dock::MountStatus::kReattached);
      EXPECT_EQ(w.members(), expected.size());
      EXPECT_EQ(DockTest::contents(w), expected);
      EXPECT_EQ(w.writerCounters().reclaimedEntries, c.reclaimed);
      EXPECT_TRUE(w.validate());
   }

   // The same damage with the record cleared, as if the stores had happened outside any
   // operation: corruption, and the table is re-formatted.
   writeTable("n");
   killedAt(StorePoint::kAllocSized, [] {
      Writer w(config());
      w.initialize("n");
      w.write(Value(50, 1, 1));
   });
   Tessel::IntentFile record;
   record.open(root.path() + "/n");
   record.clear();
   record.close();
   Spoor::Capture cap;
   Writer w(config());
   w.initialize("n");
   EXPECT_EQ(w.mountStatus(), Dock::MountStatus::kReformatted);
   EXPECT_EQ(w.members(), 0u);
   EXPECT_TRUE(
       cap.contains("slab.00::validate() found 51 occupied entries, but header's numOccupied: 50"));
   EXPECT_TRUE(cap.contains("corrupted slab: " + root.path() +
                            "/n/slab.00 was detected when lazily attaching"));
}

TEST(SlabRepair, HalfCreatedSlabFilesAreRemovedOnAttachAndCleanup) {
   Testing::TempRoot root;
   writeTable("t");
   const std::string dir = root.path() + "/t";
   // Killed while formatting a new slab (its first value of 40 vias goes to slab 2).
   const pid_t pid = killedAt(StorePoint::kGrowHalfFormatted, [] {
      Writer w(config());
      w.initialize("t");
      w.write(Value(60, 1, 40));
   });
   const std::string stray = fmt::format("{}/slab.02.{}.tmp", dir, pid);
   ASSERT_TRUE(fs::exists(stray));
   EXPECT_FALSE(fs::exists(dir + "/slab.02"));
   Spoor::Capture cap;
   Writer w(config());
   w.initialize("t");
   EXPECT_EQ(w.mountStatus(), Dock::MountStatus::kReattached);
   EXPECT_FALSE(fs::exists(stray));
   EXPECT_EQ(w.allocator().strayFilesRemoved(), 1u);
   EXPECT_TRUE(cap.contains("removed: left by a writer killed while creating a slab"));
   EXPECT_EQ(w.members(), 50u);
   // Cleanup removes the table's files and temporary slab files; names that only look alike stay.
   const std::pair<const char*, bool> names[] = {
       {"slab.02.123.tmp", false}, {"slab.7.1.tmp", true},    {"slab.02.x1.tmp", true},
       {"slab.02..tmp", true},     {"slab.02.12.tmpx", true}, {"other.02.1.tmp", true}};
   for (const auto& [name, stays] : names) std::ofstream(dir + "/" + name) << "x";
   w.cleanup();
   for (const auto& [name, stays] : names) EXPECT_EQ(fs::exists(dir + "/" + name), stays) << name;
   EXPECT_FALSE(fs::exists(dir + "/slab.00"));
   EXPECT_FALSE(fs::exists(dir + "/" + Tessel::kIntentFile));
}

// A child writer churns (inserts, replaces, removes of values of 1 to 40 vias, so slabs are
// created, grown and shrunk) and is SIGKILLed at a random moment, many times. After each kill the
// table re-attaches without re-formatting and holds exactly what the committed operations left,
// up to the one in flight.
TEST(SlabRepair, ChurningWriterKilledAtRandomNeverCostsTheTable) {
   Testing::TempRoot root;
   // Operations committed (write or remove returned), shared with the children.
   auto* done = static_cast<std::atomic<uint64_t>*>(::mmap(nullptr, sizeof(std::atomic<uint64_t>),
                                                           PROT_READ | PROT_WRITE,
                                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   ASSERT_NE(done, MAP_FAILED);
   new (done) std::atomic<uint64_t>(0);
   // Operation i: key i*7 % 300; every fifth removes, the others write version i.
   auto key = [](uint64_t i) { return i * 7 % 300; };
   auto valueOf = [&](uint64_t i) {
      return Value(key(i), uint32_t(i), uint32_t(1 + (i * 13) % 40));
   };
   auto apply = [&](std::map<uint64_t, Value>& m, uint64_t i) {
      if (i % 5 == 4) {
         m.erase(key(i));
      } else {
         m[key(i)] = valueOf(i);
      }
   };
   std::map<uint64_t, Value> model;
   std::mt19937 rng(12345);
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(4);
   int rounds = 0;
   while (std::chrono::steady_clock::now() < deadline && rounds < 200) {
      SCOPED_TRACE(fmt::format("round {}", ++rounds));
      const uint64_t start = done->load();
      const pid_t child = Testing::forkChild([&] {
         Writer w(config());
         w.initialize("churn");
         if (w.mountStatus() == Dock::MountStatus::kReformatted) return 3;
         for (uint64_t i = start;; ++i) {
            if (i % 5 == 4) {
               w.remove(key(i));
            } else {
               w.write(valueOf(i));
            }
            done->store(i + 1);
            if (i % 16 == 0) w.flush();
         }
      });
      // Let it attach and work, then kill it somewhere.
      const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
      while (done->load() == start && std::chrono::steady_clock::now() < limit) {
         std::this_thread::yield();
      }
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
      ::kill(child, SIGKILL);
      ASSERT_EQ(Testing::waitChild(child), 128 + SIGKILL);
      const uint64_t n = done->load();
      ASSERT_GT(n, start);
      for (uint64_t i = start; i < n; ++i) apply(model, i);
      // Operation `n` may have been committed before the kill, or not.
      std::map<uint64_t, Value> after = model;
      apply(after, n);

      Writer w(config());
      w.initialize("churn");
      ASSERT_EQ(w.mountStatus(), Dock::MountStatus::kReattached);
      std::map<uint64_t, Value> have;
      for (uint64_t k = 0; k < 300; ++k) {
         if (const auto v = w.lookup(k)) have[k] = *v;
      }
      ASSERT_EQ(w.members(), have.size());
      ASSERT_TRUE(have == model || have == after);
      if (have == after && have != model) {
         // The child committed it but was killed before counting it.
         model = after;
         done->store(n + 1);
      }
   }
   EXPECT_GE(rounds, 10);
   ::munmap(done, sizeof(std::atomic<uint64_t>));
}

}  // namespace
