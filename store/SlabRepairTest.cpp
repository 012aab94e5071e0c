// A writer killed between two bookkeeping stores of a slab: the next writer repairs the one
// operation its intent record names and keeps every committed entry, while the same damage
// without a record is still reported. Each interrupted state is made by a real SIGKILL at an exact
// store boundary (Tessel::storeHook in a forked child); a churning writer killed at random points
// shows the same end to end; half-created slab files are removed.
#include <fcntl.h>
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
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "Spoor/Trace.h"
#include "store/DockWriter.h"
#include "store/SlabIntent.h"
#include "store/WriterAllocator.h"
#include "store/WriterTestValue.h"
#include "testing/TempRoot.h"

namespace {

using DockTest::Value;
using Tessel::LinearSizeConfig;
using Tessel::Offset;
using Tessel::SlabOp;
using Tessel::StorePoint;
using Tessel::WriterAllocator;
using Writer = Dock::DockWriter<uint64_t, Value, DockTest::KeyOf>;
namespace fs = std::filesystem;

StorePoint killPoint;
void killAtPoint(StorePoint p) {
   if (p == killPoint) ::kill(::getpid(), SIGKILL);
}
// Runs `body` in a child that dies by SIGKILL at `p`; the test fails if it ends otherwise.
void killedAt(StorePoint p, const std::function<void()>& body) {
   const pid_t child = Testing::forkChild([&] {
      killPoint = p;
      Tessel::storeHook = killAtPoint;
      body();
      return 1;
   });
   ASSERT_EQ(Testing::waitChild(child), 128 + SIGKILL);
}

std::string messageOf(const std::function<void()>& f) {
   try {
      f();
   } catch (const std::exception& e) {
      return e.what();
   }
   return "";
}

// Slab 30 of M = 704: 22 entries of 728 bytes at first.
constexpr uint32_t kMax = 704;
constexpr uint32_t kSize = 700;
constexpr uint32_t kSlab = 30;

struct Committed {
   std::map<uint32_t, int32_t> sizes;  // index -> payloadSize; clientData is 100 + index
};

void fill(WriterAllocator& wa, Offset o) {
   uint8_t* p = wa.payload(o);
   for (uint32_t j = 0; j < 64; ++j) p[j] = uint8_t(o.index() * 7 + j);
   wa.lookup(o)->clientData.store(100 + o.index());
   wa.lookup(o)->payloadSize.store(int32_t(50 + o.index() % 13));
}

// `allocs` entries allocated and filled, then `frees` freed in order.
Committed prepare(const std::string& dir, uint32_t allocs, const std::vector<uint32_t>& frees) {
   WriterAllocator wa(dir, LinearSizeConfig(kMax), 1);
   wa.create();
   Committed c;
   for (uint32_t i = 0; i < allocs; ++i) {
      const Offset o = wa.alloc(kSize);
      EXPECT_EQ(o, Offset::make(kSlab, i));
      fill(wa, o);
      c.sizes[i] = int32_t(50 + i % 13);
   }
   for (uint32_t i : frees) {
      wa.free(Offset::make(kSlab, i));
      c.sizes.erase(i);
   }
   return c;
}

void expectCommitted(WriterAllocator& wa, const Committed& c) {
   for (const auto& [i, size] : c.sizes) {
      const Offset o = Offset::make(kSlab, i);
      ASSERT_EQ(wa.lookup(o)->payloadSize.load(), size) << i;
      EXPECT_EQ(wa.lookup(o)->clientData.load(), 100 + i) << i;
      const uint8_t* p = wa.payload(o);
      for (uint32_t j = 0; j < 64; ++j) ASSERT_EQ(p[j], uint8_t(i * 7 + j)) << i;
   }
}

struct Case {
   StorePoint point;
   SlabOp op;
   // What validation of the same file without an intent record reports ("" when consistent).
   const char* unrecorded;
};

// What the child does before dying, and the prepared table it starts from.
struct Prep {
   uint32_t allocs;
   std::vector<uint32_t> frees;
   std::function<void(WriterAllocator&)> op;
};

Prep prepFor(SlabOp op) {
   std::vector<uint32_t> shrinkFrees;
   for (uint32_t i = 10; i < 100; ++i) shrinkFrees.push_back(i);
   for (uint32_t i : {3u, 5u, 8u}) shrinkFrees.push_back(i);
   switch (op) {
      case SlabOp::kAlloc:
         return {12, {3, 5, 8}, [](WriterAllocator& wa) { wa.alloc(kSize); }};
      case SlabOp::kFree:
         return {12, {3, 5, 8}, [](WriterAllocator& wa) { wa.free(Offset::make(kSlab, 4)); }};
      case SlabOp::kGrow:
         return {22, {}, [](WriterAllocator& wa) { wa.alloc(kSize); }};
      default:
         return {100, shrinkFrees, [](WriterAllocator& wa) { wa.shrink(); }};
   }
}

TEST(SlabRepair, EveryInterruptedOperationIsRepairedOnlyWhenRecorded) {
   const Case cases[] = {
       {StorePoint::kAllocPopped, SlabOp::kAlloc,
        "slab.30::validate() found 12 entries on free-list and 9 occupied entries, but header's "
        "numEntries: 22"},
       {StorePoint::kAllocUnlinked, SlabOp::kAlloc,
        "slab.30::validate() found 12 entries on free-list and 9 occupied entries, but header's "
        "numEntries: 22"},
       {StorePoint::kAllocSized, SlabOp::kAlloc,
        "slab.30::validate() found 10 occupied entries, but header's numOccupied: 9"},
       {StorePoint::kAllocCounted, SlabOp::kAlloc, ""},
       {StorePoint::kFreeMarked, SlabOp::kFree,
        "slab.30::validate() found 8 occupied entries, but header's numOccupied: 9"},
       {StorePoint::kFreeLinked, SlabOp::kFree,
        "slab.30::validate() found 8 occupied entries, but header's numOccupied: 9"},
       {StorePoint::kFreeHeaded, SlabOp::kFree,
        "slab.30::validate() found 8 occupied entries, but header's numOccupied: 9"},
       {StorePoint::kFreeCounted, SlabOp::kFree, ""},
       {StorePoint::kGrowExtended, SlabOp::kGrow, ""},
       {StorePoint::kGrowHalfFormatted, SlabOp::kGrow, ""},
       {StorePoint::kGrowListed, SlabOp::kGrow, "bad freeList: 22 maxIndex: 21"},
       {StorePoint::kGrowCounted, SlabOp::kGrow, ""},
       {StorePoint::kGrowVersioned, SlabOp::kGrow, ""},
       {StorePoint::kShrinkRelinked, SlabOp::kShrink,
        "slab.30::validate() found 13 entries on free-list and 7 occupied entries, but header's "
        "numEntries: 176"},
       {StorePoint::kShrinkHeaded, SlabOp::kShrink,
        "slab.30::validate() found 15 entries on free-list and 7 occupied entries, but header's "
        "numEntries: 176"},
       {StorePoint::kShrinkCounted, SlabOp::kShrink, ""},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(fmt::format("store point {}", int(c.point)));
      Testing::TempRoot root;
      const std::string dir = root.path() + "/t";
      const std::string bare = root.path() + "/bare";
      const Prep setup = prepFor(c.op);
      Committed committed = prepare(dir, setup.allocs, setup.frees);
      if (c.op == SlabOp::kFree) committed.sizes.erase(4);  // the entry being freed
      killedAt(c.point, [&] {
         WriterAllocator wa(dir, LinearSizeConfig(kMax), 2);
         wa.attach();
         setup.op(wa);
      });

      // The same files without the record: the damage is reported, as in any untouched file.
      fs::create_directories(bare);
      fs::copy_file(dir + "/slab.30", bare + "/slab.30");
      {
         Tessel::SlabWriter slab(bare + "/slab.30", LinearSizeConfig(kMax).entrySize(kSlab), 3);
         EXPECT_EQ(messageOf([&] {
                      slab.attach();
                      slab.validate();
                   }),
                   c.unrecorded);
         WriterAllocator wa(bare, LinearSizeConfig(kMax), 3);
         wa.attach();
         EXPECT_EQ(wa.repairedOp(), SlabOp::kIdle);
         if (*c.unrecorded) {
            EXPECT_EQ(messageOf([&] { wa.lookup(Offset::make(kSlab, 0)); }),
                      "corrupted slab: " + bare + "/slab.30 was detected when lazily attaching");
         }
      }

      // With the record: repaired, valid, every committed entry as it was.
      WriterAllocator wa(dir, LinearSizeConfig(kMax), 4);
      wa.attach();
      EXPECT_EQ(wa.repairedOp(), c.op);
      EXPECT_EQ(wa.repairedSlab(), kSlab);
      EXPECT_EQ(messageOf([&] { wa.validate(); }), "");
      expectCommitted(wa, committed);
      Tessel::SlabWriter* slab = wa.attachedSlab(kSlab);
      ASSERT_NE(slab, nullptr);
      uint32_t occupied = 0;
      for (uint32_t i = 0; i < slab->numEntries(); ++i) {
         occupied += slab->getEntry(i)->payloadSize.load() >= 0;
      }
      EXPECT_EQ(slab->numOccupied(), occupied);
      // The interrupted operation was rolled back or finished, never half kept.
      const bool finished =
          c.point == StorePoint::kAllocSized || c.point == StorePoint::kAllocCounted ||
          c.point == StorePoint::kGrowCounted || c.point == StorePoint::kGrowVersioned ||
          c.point == StorePoint::kShrinkCounted || c.op == SlabOp::kFree;
      switch (c.op) {
         case SlabOp::kAlloc:
            EXPECT_EQ(occupied, finished ? 10u : 9u);
            EXPECT_EQ(slab->getEntry(8)->payloadSize.load(), finished ? 0 : -1);
            break;
         case SlabOp::kFree:
            EXPECT_EQ(occupied, 8u);
            break;
         case SlabOp::kGrow:
            EXPECT_EQ(slab->numEntries(), finished ? 44u : 22u);
            EXPECT_EQ(occupied, 22u);
            break;
         default:
            EXPECT_EQ(slab->numEntries(), finished ? 22u : 176u);
            EXPECT_EQ(occupied, 7u);
            break;
      }
      // The repaired slab works on: every free entry taken, then all given back.
      std::vector<Offset> taken;
      while (slab->header()->freeList.load() != Dock::kNone) taken.push_back(wa.alloc(kSize));
      for (Offset o : taken) wa.free(o);
      EXPECT_EQ(messageOf([&] { wa.validate(); }), "");
      expectCommitted(wa, committed);
      // And the record is idle again: the next writer repairs nothing.
      wa.detach();
      WriterAllocator again(dir, LinearSizeConfig(kMax), 5);
      again.attach();
      EXPECT_EQ(again.repairedOp(), SlabOp::kIdle);
   }
}

Dock::DockConfig tableConfig() {
   Dock::DockConfig c;
   c.typeName = "DockTest::Value";
   c.valueSize = sizeof(Value);
   c.minSlots = 8;
   c.maxSlots = 1 << 16;
   c.maxValueSize = DockTest::kMaxValueSize;
   c.heraldCapacity = 1024;
   return c;
}

// 50 keys, version 1, one via each (all in slab 0, which has grown three times).
void writeTable(const std::string& name) {
   Writer w(tableConfig());
   w.initialize(name);
   for (uint64_t k = 0; k < 50; ++k) w.write(Value(k, 1, 1));
   w.flush();
}

// Re-attaches and checks the keys: `expected` maps each key to its version (absent: not there).
void expectTable(const std::string& name, const std::map<uint64_t, uint32_t>& expected,
                 uint64_t reclaimed) {
   Writer w(tableConfig());
   w.initialize(name);
   EXPECT_EQ(w.mountStatus(), Dock::MountStatus::kReattached);
   EXPECT_EQ(w.members(), expected.size());
   for (const auto& [k, version] : expected) {
      const auto v = w.lookup(k);
      ASSERT_TRUE(v.has_value()) << k;
      EXPECT_EQ(*v, Value(k, version, 1)) << k;
   }
   EXPECT_EQ(w.writerCounters().reclaimedEntries, reclaimed);
   EXPECT_TRUE(w.validate());
}

std::map<uint64_t, uint32_t> firstFifty() {
   std::map<uint64_t, uint32_t> m;
   for (uint64_t k = 0; k < 50; ++k) m[k] = 1;
   return m;
}

TEST(SlabRepair, WriterKilledAroundASlotsEntryKeepsTheTable) {
   Testing::TempRoot root;
   {
      SCOPED_TRACE("insert killed inside the entry's allocation");
      writeTable("a");
      killedAt(StorePoint::kAllocSized, [&] {
         Writer w(tableConfig());
         w.initialize("a");
         w.write(Value(50, 1, 1));
      });
      // The entry was taken (size 0) but no slot names it: reclaimed.
      expectTable("a", firstFifty(), 1);
   }
   {
      SCOPED_TRACE("insert killed after the entry was taken, before the slot names it");
      writeTable("b");
      killedAt(StorePoint::kAllocCounted, [&] {
         Writer w(tableConfig());
         w.initialize("b");
         w.write(Value(50, 1, 1));
      });
      expectTable("b", firstFifty(), 1);
   }
   {
      SCOPED_TRACE("replace killed while freeing the old version's entry");
      writeTable("c");
      killedAt(StorePoint::kFreeLinked, [&] {
         Writer w(tableConfig());
         w.initialize("c");
         w.write(Value(7, 2, 1));
      });
      auto m = firstFifty();
      m[7] = 2;
      expectTable("c", m, 0);
   }
   {
      SCOPED_TRACE("remove killed while freeing the entry");
      writeTable("d");
      killedAt(StorePoint::kFreeMarked, [&] {
         Writer w(tableConfig());
         w.initialize("d");
         w.remove(9);
      });
      auto m = firstFifty();
      m.erase(9);
      expectTable("d", m, 0);
   }
   {
      SCOPED_TRACE("replace killed after the slot names the new entry, before the old is freed");
      writeTable("e");
      const pid_t child = Testing::forkChild([&] {
         Writer w(tableConfig());
         w.initialize("e");
         // A replacement up to its last step, by hand: the new entry (same bytes) names the
         // slot, the slot names the new entry with its write counter advanced; the old entry is
         // still occupied.
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
         return 1;
      });
      ASSERT_EQ(Testing::waitChild(child), 128 + SIGKILL);
      expectTable("e", firstFifty(), 1);
   }
}

TEST(SlabRepair, SameDamageWithoutARecordStillReformatsWithTheSystemsMessages) {
   Testing::TempRoot root;
   writeTable("t");
   killedAt(StorePoint::kAllocSized, [&] {
      Writer w(tableConfig());
      w.initialize("t");
      w.write(Value(50, 1, 1));
   });
   // Clear the record, as if the stores had happened outside any operation.
   const std::string intent = root.path() + "/t/" + Tessel::kIntentFile;
   {
      const int fd = ::open(intent.c_str(), O_RDWR);
      ASSERT_GE(fd, 0);
      const uint32_t zero = 0;
      ASSERT_EQ(::pwrite(fd, &zero, 4, 12), 4);
      ::close(fd);
   }
   Spoor::Capture cap;
   Writer w(tableConfig());
   w.initialize("t");
   EXPECT_EQ(w.mountStatus(), Dock::MountStatus::kReformatted);
   EXPECT_EQ(w.members(), 0u);
   EXPECT_TRUE(
       cap.contains("slab.00::validate() found 51 occupied entries, but header's "
                    "numOccupied: 50"));
   EXPECT_TRUE(cap.contains("corrupted slab: " + root.path() +
                            "/t/slab.00 was detected when lazily attaching"));
   EXPECT_TRUE(cap.contains("all entries from t will be lost"));
   EXPECT_TRUE(cap.contains("re-formatted successfully"));
}

TEST(SlabRepair, HalfCreatedSlabFilesAreRemovedOnAttachAndCleanup) {
   Testing::TempRoot root;
   writeTable("t");
   const std::string dir = root.path() + "/t";
   // Killed while formatting a new slab (its first value of 40 vias goes to slab 2).
   pid_t pid = 0;
   int pipeFds[2];
   ASSERT_EQ(::pipe(pipeFds), 0);
   killedAt(StorePoint::kGrowHalfFormatted, [&] {
      const pid_t self = ::getpid();
      (void)!::write(pipeFds[1], &self, sizeof(self));
      Writer w(tableConfig());
      w.initialize("t");
      w.write(Value(60, 1, 40));
   });
   ASSERT_EQ(::read(pipeFds[0], &pid, sizeof(pid)), ssize_t(sizeof(pid)));
   ::close(pipeFds[0]);
   ::close(pipeFds[1]);
   const std::string stray = fmt::format("{}/slab.02.{}.tmp", dir, pid);
   ASSERT_TRUE(fs::exists(stray));
   EXPECT_FALSE(fs::exists(dir + "/slab.02"));
   {
      Spoor::Capture cap;
      Writer w(tableConfig());
      w.initialize("t");
      EXPECT_EQ(w.mountStatus(), Dock::MountStatus::kReattached);
      EXPECT_FALSE(fs::exists(stray));
      EXPECT_EQ(w.allocator().strayFilesRemoved(), 1u);
      EXPECT_TRUE(cap.contains("removed: left by a writer killed while creating a slab"));
      EXPECT_EQ(w.members(), 50u);
      // Names that only look alike stay.
      for (const char* name : {"slab.02.123.tmp", "slab.7.1.tmp", "slab.02.x1.tmp", "slab.02..tmp",
                               "slab.02.12.tmpx", "other.02.1.tmp"}) {
         std::ofstream(dir + "/" + name) << "x";
      }
      w.cleanup();
      EXPECT_FALSE(fs::exists(dir + "/slab.02.123.tmp"));
      for (const char* name : {"slab.7.1.tmp", "slab.02.x1.tmp", "slab.02..tmp", "slab.02.12.tmpx",
                               "other.02.1.tmp"}) {
         EXPECT_TRUE(fs::exists(dir + "/" + name)) << name;
      }
      EXPECT_FALSE(fs::exists(dir + "/slab.00"));
      EXPECT_FALSE(fs::exists(dir + "/" + Tessel::kIntentFile));
   }
}

// A child writer churns (inserts, replaces, removes of values of 1 to 40 vias, so slabs are
// created, grown and shrunk) and is SIGKILLed at a random moment, many times. After each kill the
// table re-attaches without re-formatting and holds exactly what the committed operations left,
// up to the one in flight.
TEST(SlabRepair, ChurningWriterKilledAtRandomNeverCostsTheTable) {
   Testing::TempRoot root;
   struct Progress {
      std::atomic<uint64_t> done;  // operations committed (write or remove returned)
   };
   auto* progress = static_cast<Progress*>(::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   ASSERT_NE(progress, MAP_FAILED);
   new (progress) Progress{};
   // Operation i: key i*7 % 300; every fifth removes, the others write version i.
   auto key = [](uint64_t i) { return i * 7 % 300; };
   auto vias = [](uint64_t i) { return uint32_t(1 + (i * 13) % 40); };
   auto apply = [&](std::map<uint64_t, Value>& m, uint64_t i) {
      if (i % 5 == 4) {
         m.erase(key(i));
      } else {
         m[key(i)] = Value(key(i), uint32_t(i), vias(i));
      }
   };
   std::map<uint64_t, Value> model;
   uint64_t applied = 0;
   std::mt19937 rng(12345);
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(4);
   int rounds = 0;
   while (std::chrono::steady_clock::now() < deadline && rounds < 200) {
      ++rounds;
      const uint64_t start = progress->done.load();
      const pid_t child = Testing::forkChild([&] {
         Writer w(tableConfig());
         w.initialize("churn");
         if (w.mountStatus() == Dock::MountStatus::kReformatted) return 3;
         for (uint64_t i = start;; ++i) {
            if (i % 5 == 4) {
               w.remove(key(i));
            } else {
               w.write(Value(key(i), uint32_t(i), vias(i)));
            }
            progress->done.store(i + 1);
            if (i % 16 == 0) w.flush();
         }
      });
      // Let it attach and work, then kill it somewhere.
      const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
      while (progress->done.load() == start && std::chrono::steady_clock::now() < limit) {
         std::this_thread::yield();
      }
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
      ::kill(child, SIGKILL);
      ASSERT_EQ(Testing::waitChild(child), 128 + SIGKILL) << "round " << rounds;
      const uint64_t done = progress->done.load();
      ASSERT_GT(done, start) << "round " << rounds;
      for (; applied < done; ++applied) apply(model, applied);
      // Operation `done` may have been committed before the kill, or not.
      std::map<uint64_t, Value> after = model;
      apply(after, done);

      Writer w(tableConfig());
      w.initialize("churn");
      ASSERT_EQ(w.mountStatus(), Dock::MountStatus::kReattached) << "round " << rounds;
      const uint64_t k = key(done);
      for (const auto& [key2, value] : model) {
         if (key2 == k) continue;
         const auto v = w.lookup(key2);
         ASSERT_TRUE(v.has_value()) << "round " << rounds << " key " << key2;
         ASSERT_EQ(*v, value) << "round " << rounds << " key " << key2;
      }
      const auto v = w.lookup(k);
      const bool before = model.count(k) ? (v && *v == model.at(k)) : !v;
      const bool later = after.count(k) ? (v && *v == after.at(k)) : !v;
      ASSERT_TRUE(before || later) << "round " << rounds << " key " << k;
      if (later && !before) {
         // The child committed it but was killed before counting it.
         apply(model, done);
         progress->done.store(done + 1);
         ++applied;
      }
      ASSERT_EQ(w.members(), model.size()) << "round " << rounds;
   }
   EXPECT_GE(rounds, 10);
   ::munmap(progress, sizeof(Progress));
}

}  // namespace
