// The allocators end to end: classes chosen by size, lazy slab files, lazy attach of damaged
// slabs, values put into slabs for slots and checked back, and readers copying entries while the
// writer reuses and grows them, in threads and across processes.
//
// Then a writer killed between two bookkeeping stores of a slab: the next writer repairs the one
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

#include "Loom/CorruptionException.h"
#include "Spoor/Trace.h"
#include "store/format/SeqRead.h"
#include "store/slab/DynamicSlotAllocator.h"
#include "store/slab/ReaderAllocator.h"
#include "store/slab/SlabIntent.h"
#include "store/slab/SlabReader.h"
#include "store/slab/WriterAllocator.h"
#include "store/writer/DockWriter.h"
#include "testing/Expect.h"
#include "testing/SlabTestValue.h"
#include "testing/StoreTestSupport.h"
#include "testing/TempRoot.h"

namespace {

using DockTest::Value;
using Tessel::DynamicSlotAllocator;
using Tessel::LinearSizeConfig;
using Tessel::Offset;
using Tessel::ReaderAllocator;
using Tessel::SlabOp;
using Tessel::StorePoint;
using Tessel::WriterAllocator;
using Tessel::Testing::ViaValue;
using Testing::errorText;
using Writer = Dock::DockWriter<uint64_t, Value, DockTest::KeyOf>;
namespace fs = std::filesystem;

TEST(Offset, BitsAndText) {
   Offset o = Offset::make(17, 123456);
   EXPECT_EQ(o.slab(), 17u);
   EXPECT_EQ(o.index(), 123456u);
   EXPECT_EQ(o.value, (123456u << 5) | 17u);
   EXPECT_EQ(o.toString(), "Offset{ slab: 17 index: 123456 }");
   EXPECT_EQ(fmt::format("{}", Offset::make(0, Offset::kMaxIndex)),
             "Offset{ slab: 0 index: 134217727 }");
   EXPECT_EQ(Offset::fromWord(o.value), o);
}

TEST(WriterAllocator, ClassesAndLazySlabFiles) {
   Testing::TempRoot root;
   WriterAllocator a(root.path() + "/t", LinearSizeConfig(704), 7);
   a.create();
   EXPECT_FALSE(fs::exists(a.slabPath(0)));
   Offset o23 = a.alloc(23), o24 = a.alloc(24), o704 = a.alloc(704);
   EXPECT_EQ(o23.slab(), 0u);
   EXPECT_EQ(o24.slab(), 1u);
   EXPECT_EQ(o704.slab(), 30u);
   EXPECT_TRUE(fs::exists(a.slabPath(0)));
   EXPECT_TRUE(fs::exists(a.slabPath(30)));
   EXPECT_FALSE(fs::exists(a.slabPath(2)));
   EXPECT_GE(a.maxPayload(o704), 704u);
   EXPECT_EQ(a.numOccupied(), 3u);
   EXPECT_EQ(errorText([&] { a.lookup(Offset::make(5, 0)); }),
             "slab.05::getEntry() index: 0 is beyond farthest possible index: -1");
   a.free(o24);
   a.validate();
   EXPECT_DEATH(a.alloc(705), "assertion failed: Unhandled allocation size: 705");
   EXPECT_DEATH(a.alloc(0), "assertion failed: doing an allocation of size 0 is forbidden");

   // A new table removes the old slab files.
   WriterAllocator b(root.path() + "/t", LinearSizeConfig(704), 8);
   b.create();
   EXPECT_FALSE(fs::exists(a.slabPath(0)));
   // With M = 46168 all 32 classes are in use.
   WriterAllocator big(root.path() + "/u", LinearSizeConfig(46168), 7);
   big.create();
   EXPECT_EQ(big.alloc(1443).slab(), 0u);
   EXPECT_EQ(big.alloc(1444).slab(), 1u);
   EXPECT_EQ(big.alloc(46168).slab(), 31u);
   EXPECT_DEATH(big.alloc(46169), "assertion failed: Unhandled allocation size: 46169");
}

TEST(WriterAllocator, DamagedSlabIsReportedWhenLazilyAttached) {
   Testing::TempRoot root;
   const std::string dir = root.path() + "/t";
   Offset kept;
   {
      WriterAllocator a(dir, LinearSizeConfig(704), 7);
      a.create();
      kept = a.alloc(10);
      a.alloc(100);
   }
   {
      // Restart: attach re-stamps the relume of every sound slab right away.
      WriterAllocator a(dir, LinearSizeConfig(704), 8);
      a.attach();
      ReaderAllocator fresh(dir, 8);
      uint8_t buf[64];
      EXPECT_EQ(fresh.copy(kept, buf, sizeof buf), 0);
      ReaderAllocator stale(dir, 7);
      EXPECT_EQ(stale.copy(kept, buf, sizeof buf), -1);
      EXPECT_NO_THROW(a.lookup(kept));
      a.validate();
   }
   {
      // Damage slab.00 behind the allocator's back: its occupied count is off by one.
      auto f = Region::MappedFile::openReadWrite(dir + "/slab.00");
      reinterpret_cast<Dock::SlabHeader*>(f.data())->numOccupied.fetch_add(1);
   }
   Spoor::Capture cap;
   WriterAllocator a(dir, LinearSizeConfig(704), 9);
   a.attach();
   const std::string want =
       fmt::format("corrupted slab: {}/slab.00 was detected when lazily attaching", dir);
   EXPECT_EQ(errorText([&] { a.lookup(kept); }), want);
   EXPECT_EQ(errorText([&] { a.alloc(10); }), want);
   EXPECT_TRUE(
       cap.contains("slab.00::validate() found 1 occupied entries, but header's "
                    "numOccupied: 2"));
   // The sound slab is still usable.
   EXPECT_EQ(a.alloc(100).slab(), 4u);
   {
      auto f = Region::MappedFile::openReadWrite(dir + "/slab.00");
      reinterpret_cast<Dock::SlabHeader*>(f.data())->magic = 0;
   }
   WriterAllocator b(dir, LinearSizeConfig(704), 10);
   b.attach();
   EXPECT_EQ(errorText([&] { b.lookup(kept); }), want);
   // Whole-allocator validation names the unattached slab's own failure.
   EXPECT_EQ(errorText([&] { b.validate(); }), "bad magic: 0 wanted: 424c534c53534554");
}

// 1..600 vias of 76 bytes: the largest value is 16 + 45600 bytes, within M = 46168.
constexpr uint32_t kViaM = 46168;

TEST(DynamicSlotAllocator, ReadsValuesBackAndChecksTheSlotTheyName) {
   Testing::TempRoot root;
   WriterAllocator a(root.path() + "/t", LinearSizeConfig(kViaM), 7);
   a.create();
   DynamicSlotAllocator<ViaValue> d(a);
   std::vector<Tessel::SlabValue> stored;
   const std::vector<uint32_t> counts = {1, 2, 18, 19, 100, 599, 600};
   for (uint32_t i = 0; i < counts.size(); ++i) {
      stored.push_back(storeValue(a, i, ViaValue(1000 + i, counts[i])));
      EXPECT_EQ(d.getValue(stored[i].offset), ViaValue(1000 + i, counts[i]));
      EXPECT_NO_THROW(d.validateSlot(i, stored[i].offset));
      Dock::Slot slot{};
      slot.offset.store(stored[i].offset.value);
      EXPECT_NO_THROW(d.validateSlot(i, slot));
   }
   // A slot naming another slot's entry.
   EXPECT_EQ(errorText([&] { d.validateSlot(4, stored[3].offset); }),
             fmt::format("Clientdata mismatch, slot 4 contains offset: {} but slabEntry "
                         "references slot: 3",
                         stored[3].offset.toString()));
   // A slot still pointing at a freed entry.
   d.release(stored[2].offset);
   EXPECT_EQ(errorText([&] { d.validateSlot(2, stored[2].offset); }),
             fmt::format("slab.{:02}::lookup() entry at index: {} is marked unoccupied",
                         stored[2].offset.slab(), stored[2].offset.index()));
}

TEST(ReaderAllocator, CopiesEntriesAndRefusesWhatItCannotTrust) {
   Testing::TempRoot root;
   const std::string dir = root.path() + "/t";
   WriterAllocator a(dir, LinearSizeConfig(kViaM), 7);
   a.create();
   ReaderAllocator r(dir, 7);
   std::vector<uint8_t> buf(kViaM);
   EXPECT_EQ(r.copy(Offset::make(0, 0), buf.data(), kViaM), -1);  // no slab file yet
   ViaValue v(5, 3);
   auto sv = storeValue(a, 9, v);
   uint32_t client = 0;
   ASSERT_EQ(r.copy(sv.offset, buf.data(), kViaM, client), int64_t(sv.length));
   EXPECT_EQ(client, 9u);
   ViaValue back;
   back.deserialize(buf.data(), sv.length);
   EXPECT_EQ(back, v);
   // A short buffer gets a prefix; the size says how much there was.
   std::vector<uint8_t> small(10, 0xee);
   EXPECT_EQ(r.copy(sv.offset, small.data(), 8), int64_t(sv.length));
   EXPECT_EQ(std::memcmp(small.data(), buf.data(), 8), 0);
   EXPECT_EQ(small[8], 0xee);
   // Free entries and indexes beyond the slab.
   a.free(sv.offset);
   EXPECT_EQ(r.copy(sv.offset, buf.data(), kViaM), -1);
   EXPECT_EQ(r.copy(Offset::make(sv.offset.slab(), 1'000'000), buf.data(), kViaM), -1);
   // Another generation's reader refuses the slab.
   ReaderAllocator other(dir, 8);
   auto sv2 = storeValue(a, 1, v);
   EXPECT_EQ(other.copy(sv2.offset, buf.data(), kViaM), -1);
   EXPECT_EQ(r.copy(sv2.offset, buf.data(), kViaM), int64_t(sv2.length));
}

TEST(ReaderAllocator, FollowsTheWriterGrowingAndShrinkingASlab) {
   Testing::TempRoot root;
   const std::string dir = root.path() + "/t";
   WriterAllocator a(dir, LinearSizeConfig(704), 7);
   a.create();
   // ViaValue(k, 0) is 16 bytes + 8 overhead: class 1 of M = 704.
   auto first = storeValue(a, 0, ViaValue(0, 0));
   Tessel::SlabReader sr(a.slabPath(first.offset.slab()), 7);
   std::string reason;
   ASSERT_TRUE(sr.attach(reason)) << reason;
   // Occupy the address range right after the reader's mapping, so that its growth must move.
   const size_t page = size_t(::sysconf(_SC_PAGESIZE));
   uint8_t* end = sr.file().data() + (sr.file().size() + page - 1) / page * page;
   void* guard =
       ::mmap(end, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
   std::vector<Tessel::SlabValue> values{first};
   for (uint32_t i = 1; i < 2000; ++i) values.push_back(storeValue(a, i, ViaValue(i, 0)));
   EXPECT_GT(a.attachedSlab(1)->header()->resizeCounter.load(), 0u);
   const uint8_t* before = sr.file().data();
   Spoor::Capture cap;
   const Dock::SlabEntryHeader* e = sr.getEntry(values.back().offset.index());
   ASSERT_NE(e, nullptr);
   EXPECT_EQ(e->clientData.load(), 1999u);
   EXPECT_EQ(sr.resizeCounter(), a.attachedSlab(1)->header()->resizeCounter.load());
   // Something already mapped there forces the move as well, but then it cannot be unmapped.
   ASSERT_NE(sr.file().data(), before);
   if (guard != MAP_FAILED) {
      EXPECT_EQ(cap.count("Tessel", fmt::format("base address moved from {} to {}",
                                                fmt::ptr(before), fmt::ptr(sr.file().data()))),
                1u);
      ::munmap(guard, page);
   }
   // Shrink: free all but the first few, then the reader follows the smaller slab.
   for (uint32_t i = 10; i < values.size(); ++i) a.free(values[i].offset);
   EXPECT_EQ(a.shrink(), 1u);
   EXPECT_TRUE(sr.doResize());
   EXPECT_EQ(sr.resizeCounter(), a.attachedSlab(1)->header()->resizeCounter.load());
   EXPECT_EQ(sr.getEntry(values.back().offset.index()), nullptr);
   ReaderAllocator r(dir, 7);
   uint8_t buf[64];
   EXPECT_EQ(r.copy(values[9].offset, buf, sizeof buf), 16);
   EXPECT_EQ(r.copy(values.back().offset, buf, sizeof buf), -1);
}

// A slot published the way the writer does it: LOOKASIDE up (+2), new value words, LOOKASIDE
// down (+2, release); the old entry is freed only afterwards.
struct MiniSlot {
   std::atomic<uint32_t> flags{0};
   std::atomic<uint32_t> offset{0};
   std::atomic<uint32_t> length{0};
};

void publish(MiniSlot& s, Tessel::SlabValue v) {
   const uint32_t f = s.flags.load(std::memory_order_relaxed);
   s.flags.store(f + 2, std::memory_order_relaxed);
   std::atomic_thread_fence(std::memory_order_release);
   s.offset.store(v.offset.value, std::memory_order_relaxed);
   s.length.store(v.length, std::memory_order_relaxed);
   s.flags.store((f + 4) | Dock::kOccupied, std::memory_order_release);
}

// Reader side: a copy is good when the flags word did not change around it. Returns 1 for a good
// copy that checks out, 0 for a retry, -1 for a good copy that is wrong (a real fault).
int readOnce(ReaderAllocator& r, MiniSlot& s, uint32_t slot, std::vector<uint8_t>& buf) {
   const Dock::SeqRead<uint32_t> read(s.flags);
   const uint32_t f1 = read.begin();
   if (!(f1 & Dock::kOccupied) || (f1 & Dock::kLookaside)) return 0;
   const Offset off = Offset::fromWord(read.load(s.offset));
   const uint32_t len = read.load(s.length);
   uint32_t client = 0;
   const int64_t n = r.copy(off, buf.data(), uint32_t(buf.size()), client);
   if (!read.unchanged() || n < 0) return 0;
   if (n != len || client != slot) return -1;
   ViaValue v;
   try {
      v.deserialize(buf.data(), len);
   } catch (const std::exception&) {
      return -1;
   }
   return v.key == slot ? 1 : -1;
}

TEST(ReaderAllocator, ReadersNeverAcceptATornCopyWhileTheWriterReusesEntries) {
   Testing::TempRoot root;
   const std::string dir = root.path() + "/t";
   WriterAllocator a(dir, LinearSizeConfig(kViaM), 7);
   a.create();
   constexpr uint32_t kSlotsN = 8;
   std::vector<MiniSlot> slots(kSlotsN);
   for (uint32_t i = 0; i < kSlotsN; ++i) publish(slots[i], storeValue(a, i, ViaValue(i, 1 + i)));
   std::atomic<bool> stop{false};
   std::atomic<uint64_t> good{0}, bad{0};
   std::vector<std::thread> readers;
   for (int t = 0; t < 2; ++t) {
      readers.emplace_back([&] {
         ReaderAllocator r(dir, 7);
         std::vector<uint8_t> buf(kViaM);
         for (uint32_t n = 0; !stop.load(std::memory_order_relaxed); ++n) {
            int rc = readOnce(r, slots[n % kSlotsN], n % kSlotsN, buf);
            if (rc > 0) good.fetch_add(1, std::memory_order_relaxed);
            if (rc < 0) bad.fetch_add(1, std::memory_order_relaxed);
         }
      });
   }
   // Replacements of changing sizes: entries are freed and reused at once, slabs grow.
   const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(400);
   for (uint32_t gen = 1; std::chrono::steady_clock::now() < until || good.load() < 100; ++gen) {
      const uint32_t i = gen % kSlotsN;
      const Offset old = Offset::fromWord(slots[i].offset.load(std::memory_order_relaxed));
      publish(slots[i], storeValue(a, i, ViaValue(i, 1 + (gen * 7) % 40, gen)));
      a.free(old);
   }
   stop = true;
   for (auto& t : readers) t.join();
   EXPECT_EQ(bad.load(), 0u);
   EXPECT_GT(good.load(), 0u);
   a.validate();
}

TEST(ReaderAllocator, ReaderProcessFollowsAWriterProcess) {
   Testing::TempRoot root;
   const std::string dir = root.path() + "/t";
   {
      WriterAllocator a(dir, LinearSizeConfig(kViaM), 7);
      a.create();
   }
   // The writer's slot words live in a shared anonymous mapping; the slabs are the real files.
   void* mem = ::mmap(nullptr, sizeof(MiniSlot) * 4, PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
   ASSERT_NE(mem, MAP_FAILED);
   auto* slots = new (mem) MiniSlot[4];
   std::atomic<uint32_t>* done = &slots[3].length;  // slot 3 is not used as a slot
   pid_t writer = Testing::forkChild([&] {
      WriterAllocator a(dir, LinearSizeConfig(kViaM), 7);
      a.attach();
      for (uint32_t i = 0; i < 3; ++i) publish(slots[i], storeValue(a, i, ViaValue(i, 1)));
      for (uint32_t gen = 1; gen < 6000; ++gen) {
         const uint32_t i = gen % 3;
         const Offset old = Offset::fromWord(slots[i].offset.load(std::memory_order_relaxed));
         publish(slots[i], storeValue(a, i, ViaValue(i, 1 + gen % 200, gen)));
         a.free(old);
      }
      a.validate();
      done->store(1, std::memory_order_release);
      return 0;
   });
   ReaderAllocator r(dir, 7);
   std::vector<uint8_t> buf(kViaM);
   uint64_t bad = 0;
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
   for (uint32_t n = 0; done->load(std::memory_order_acquire) == 0; ++n) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "writer process did not finish";
      bad += readOnce(r, slots[n % 3], n % 3, buf) < 0;
   }
   EXPECT_EQ(Testing::waitChild(writer), 0);
   // After the writer is done every slot reads back its final value.
   for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(readOnce(r, slots[i], i, buf), 1);
   EXPECT_EQ(bad, 0u);
   ::munmap(mem, sizeof(MiniSlot) * 4);
}

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
