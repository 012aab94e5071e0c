// The allocators end to end: lazy slab files, damaged slabs, values for slots read back, a reader
// following a slab that grows and shrinks (readers racing a writer process: DockMapProcessTest).
// Then writers SIGKILLed at exact store boundaries (Tessel::storeHook in a forked child): the next
// writer repairs the one operation its intent record names and keeps every committed entry, the
// same damage without a record is still reported, and half-created slab files are removed.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "Region/Error.h"
#include "Spoor/Trace.h"
#include "store/slab/DynamicSlotAllocator.h"
#include "store/slab/EntryCheck.h"
#include "store/slab/ReaderAllocator.h"
#include "store/slab/SlabIntent.h"
#include "store/slab/SlabReader.h"
#include "store/writer/DockWriter.h"
#include "testing/Expect.h"
#include "testing/StoreTestSupport.h"
#include "testing/TempRoot.h"

namespace {

using DockTest::storeValue;
using DockTest::Value;
using Tessel::DynamicSlotAllocator;
using Tessel::LinearSizeConfig;
using Tessel::Offset;
using Tessel::ReaderAllocator;
using Tessel::SlabOp;
using Tessel::StorePoint;
using Tessel::WriterAllocator;
using Testing::errorText;
using Writer = Dock::DockWriter<uint64_t, Value, DockTest::KeyOf>;
namespace fs = std::filesystem;

// Slab files are made lazily; a slab damaged behind the allocator's back is refused as a whole
// when first used after a restart, while the sound ones work on; a new table removes the files.
TEST(WriterAllocator, LazySlabFilesAndADamagedSlabRefusedWhenLazilyAttached) {
   Testing::TempRoot root;
   const std::string dir = root.path() + "/t";
   Offset kept;
   {
      WriterAllocator a(dir, LinearSizeConfig(704), 7);
      a.create();
      kept = a.alloc(10);
      const Offset o704 = a.alloc(704);  // (sizes to classes: LinearSizeConfig in SlabTest)
      EXPECT_EQ(o704.slab(), 30u);
      EXPECT_GE(a.maxPayload(o704), 704u);
      EXPECT_FALSE(fs::exists(a.slabPath(4)));
      EXPECT_EQ(errorText([&] { a.lookup(Offset::make(5, 0)); }),
                "slab.05::getEntry() index: 0 is beyond farthest possible index: -1");
      EXPECT_DEATH(a.alloc(705), "assertion failed: Unhandled allocation size: 705");
      EXPECT_DEATH(a.alloc(0), "assertion failed: doing an allocation of size 0 is forbidden");
   }
   {
      // Restart: attach re-stamps the relume of every sound slab right away.
      WriterAllocator a(dir, LinearSizeConfig(704), 8);
      a.attach();
      ReaderAllocator fresh(dir, 8);
      uint8_t buf[64];
      ReaderAllocator::Copied entry;  // reserved, never stored: no check to match
      EXPECT_EQ(fresh.copy(kept, buf, sizeof buf, entry), 0);
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
   EXPECT_EQ(a.alloc(700).slab(), 30u);
   {
      auto f = Region::MappedFile::openReadWrite(dir + "/slab.00");
      reinterpret_cast<Dock::SlabHeader*>(f.data())->magic = 0;
   }
   WriterAllocator b(dir, LinearSizeConfig(704), 10);
   b.attach();
   EXPECT_EQ(errorText([&] { b.lookup(kept); }), want);
   // Whole-allocator validation names the unattached slab's own failure.
   EXPECT_EQ(errorText([&] { b.validate(); }), "bad magic: 0 wanted: 424c534c53534554");
   WriterAllocator c(dir, LinearSizeConfig(704), 11);
   c.create();
   EXPECT_FALSE(fs::exists(dir + "/slab.30"));
}

constexpr uint32_t kViaM = DockTest::kMaxValueSize;  // the largest Value: 600 vias

TEST(DynamicSlotAllocator, ReadsValuesBackAndChecksTheSlotTheyNameByOffset) {
   Testing::TempRoot root;
   WriterAllocator a(root.path() + "/t", LinearSizeConfig(kViaM), 7);
   a.create();
   DynamicSlotAllocator<Value> d(a);
   std::vector<Tessel::SlabValue> stored;
   // Slot i naming `sv`'s entry and recording `length`: validateSlot's finding.
   const auto check = [&](uint32_t i, const Tessel::SlabValue& sv, uint32_t length) {
      Dock::Slot slot{};
      slot.offset.store(sv.offset.value);
      slot.length.store(length);
      return errorText([&] { d.validateSlot(i, slot); });
   };
   // The smallest and largest values, and the two sides of the first class boundary.
   const uint32_t counts[] = {1, 18, 19, 600};
   for (uint32_t i = 0; i < 4; ++i) {
      stored.push_back(storeValue(a, i, Value(1000 + i, 1, counts[i])));
      EXPECT_EQ(d.getValue(stored[i].offset), Value(1000 + i, 1, counts[i]));
      EXPECT_EQ(check(i, stored[i], stored[i].length), "(no exception)");
   }
   // An Offset's word and text.
   EXPECT_EQ(Offset::make(17, 123456).value, (123456u << 5) | 17u);
   EXPECT_EQ(fmt::format("{}", Offset::make(0, Offset::kMaxIndex)),
             "Offset{ slab: 0 index: 134217727 }");
   // A slot naming another slot's entry, recording another length, or naming damaged bytes.
   const std::string at = stored[2].offset.toString();
   const uint32_t length = stored[2].length;
   EXPECT_EQ(check(3, stored[2], length),
             fmt::format("Clientdata mismatch, slot 3 contains offset: {} but slabEntry "
                         "references slot: 2",
                         at));
   EXPECT_EQ(
       check(2, stored[2], length + 1),
       fmt::format("slot:2 offset:{} payloadSize:{} but slot length:{}", at, length, length + 1));
   a.payload(stored[2].offset)[5] ^= 0x10;
   EXPECT_EQ(check(2, stored[2], length),
             fmt::format("slot:2 offset:{} entry check mismatch: stored:{:#018x}", at,
                         a.lookup(stored[2].offset)->check.load()));
}

TEST(ReaderAllocator, CopiesEntriesAndRefusesWhatItCannotTrust) {
   Testing::TempRoot root;
   const std::string dir = root.path() + "/t";
   WriterAllocator a(dir, LinearSizeConfig(kViaM), 7);
   a.create();
   ReaderAllocator r(dir, 7);
   std::vector<uint8_t> buf(kViaM);
   EXPECT_EQ(r.copy(Offset::make(0, 0), buf.data(), kViaM), -1);  // no slab file yet
   const Value v(5, 1, 3);
   auto sv = storeValue(a, 9, v);
   ReaderAllocator::Copied entry;
   ASSERT_EQ(r.copy(sv.offset, buf.data(), kViaM, entry), int64_t(sv.length));
   const auto intact = [&] {
      return Tessel::entryIntact(*a.lookup(sv.offset), a.maxPayload(sv.offset));
   };
   EXPECT_EQ(std::tuple(entry.clientData, entry.stored, entry.intact(), intact()),
             std::tuple(9u, Tessel::entryCheck(buf.data(), sv.length, 9), true, true));
   Value back;
   back.deserialize(buf.data(), sv.length);
   EXPECT_EQ(back, v);
   // One flipped payload bit: the copy is refused, the check says which.
   a.payload(sv.offset)[sv.length - 1] ^= 0x10;
   EXPECT_EQ(r.copy(sv.offset, buf.data(), kViaM), -1);
   EXPECT_EQ(r.copy(sv.offset, buf.data(), kViaM, entry), int64_t(sv.length));
   EXPECT_EQ(std::pair(entry.computed, intact()),
             std::pair(Tessel::entryCheck(buf.data(), sv.length, 9), false));
   a.payload(sv.offset)[sv.length - 1] ^= 0x10;
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
   // Value(k, 1, 0) is 20 bytes + 8 overhead: class 1 of M = 704.
   auto first = storeValue(a, 0, Value(0, 1, 0));
   Tessel::SlabReader sr(a.slabPath(first.offset.slab()), 7);
   std::string reason;
   ASSERT_TRUE(sr.attach(reason)) << reason;
   // Occupy the address range right after the reader's mapping, so that its growth must move.
   const size_t page = size_t(::sysconf(_SC_PAGESIZE));
   uint8_t* end = sr.file().data() + (sr.file().size() + page - 1) / page * page;
   void* guard =
       ::mmap(end, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
   std::vector<Tessel::SlabValue> values{first};
   for (uint32_t i = 1; i < 2000; ++i) values.push_back(storeValue(a, i, Value(i, 1, 0)));
   EXPECT_GT(a.attachedSlab(1)->header()->resizeCounter.load(), 0u);
   const uint8_t* before = sr.file().data();
   Spoor::Capture cap;
   const Dock::SlabEntryHeader* e = sr.getEntry(values.back().offset.index());
   ASSERT_NE(e, nullptr);
   EXPECT_EQ(e->clientData.load(), 1999u);
   // Something already mapped there forces the move as well, but then it cannot be unmapped.
   ASSERT_NE(sr.file().data(), before);
   if (guard != MAP_FAILED) {
      EXPECT_EQ(cap.count("Tessel", fmt::format("base address moved from {} to {}",
                                                fmt::ptr(before), fmt::ptr(sr.file().data()))),
                1u);
      ::munmap(guard, page);
   }
   // Shrink to the initial size (more than twice the ten entries kept): the file keeps its length
   // for readers, the released tail reads as zeros, and the reader follows the smaller slab.
   Tessel::SlabWriter* slab = a.attachedSlab(1);
   const uint32_t grown = slab->numEntries();
   const size_t length = slab->file().fileSize();
   for (uint32_t i = 10; i < values.size(); ++i) a.free(values[i].offset);
   EXPECT_EQ(a.shrink(), 1u);
   const uint32_t target = Tessel::initialEntries(slab->entrySize());
   EXPECT_EQ(slab->numEntries(), target);
   EXPECT_EQ(
       cap.count("Tessel", fmt::format("slab.01::shrink() from {} entries to {}", grown, target)),
       1u);
   EXPECT_EQ(slab->file().fileSize(), length);
   const size_t tail = (40 + size_t(target) * slab->entrySize() + page - 1) / page * page;
   ASSERT_LT(tail, length);
   EXPECT_TRUE(std::all_of(slab->file().data() + tail, slab->file().data() + length,
                           [](uint8_t b) { return b == 0; }));
   EXPECT_EQ(a.shrink(), 0u);  // already within four times the used prefix
   EXPECT_TRUE(sr.doResize());
   EXPECT_EQ(sr.resizeCounter(), a.attachedSlab(1)->header()->resizeCounter.load());
   EXPECT_EQ(sr.getEntry(values.back().offset.index()), nullptr);
   ReaderAllocator r(dir, 7);
   uint8_t buf[64];
   EXPECT_EQ(r.copy(values[9].offset, buf, sizeof buf), 20);
   EXPECT_EQ(r.copy(values.back().offset, buf, sizeof buf), -1);
}

std::optional<StorePoint> killPoint;
void killAtPoint(StorePoint p) {
   if (p == killPoint) ::kill(::getpid(), SIGKILL);
}

// Kills at the storesLeft-th store point from now, recording each point's kind in *pointsSeen.
uint32_t storesLeft = 0;
uint32_t* pointsSeen = nullptr;
void killAtCount(StorePoint p) {
   *pointsSeen |= 1u << uint32_t(p);
   if (--storesLeft == 0) ::kill(::getpid(), SIGKILL);
}

// Runs `body` in a child that must die by SIGKILL, at store point `p` or by its own hand; its pid.
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
          "slab.30::validate() found {} entries on free-list and {} occupied entries, "
          "but header's numEntries: {}",
          free, occupied, entries);
   };
   auto counted = [](int found, int header) {
      return fmt::format(
          "slab.30::validate() found {} occupied entries, but header's numOccupied: "
          "{}",
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

const Dock::DockConfig kConfig = DockTest::tableConfig(8, 1 << 16);

// 50 keys, version 1, one via each (all in slab 0, which has grown three times).
void writeTable(const std::string& name, uint64_t keys = 50) {
   Writer w(kConfig);
   w.initialize(name);
   for (uint64_t k = 0; k < keys; ++k) w.write(Value(k, 1, 1));
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
   w.allocator().lookup(fresh)->check.store(w.allocator().lookup(old)->check.load());
   w.allocator().lookup(fresh)->payloadSize.store(length);
   slot.offset.store(fresh.value);
   slot.flags.store(slot.flags.load() + Dock::kWriteStep);
   ::kill(::getpid(), SIGKILL);
}

// A writer of a 50-key table killed in `op` (at store `point`, or by `op` itself); the next writer
// re-attaches with every key as before and gives back the one entry no slot names.
TEST(SlabRepair, WriterKilledAroundASlotsEntryKeepsTheTable) {
   Testing::TempRoot root;
   const std::pair<std::optional<StorePoint>, std::function<void(Writer&)>> cases[] = {
       // An insert, after the entry was taken and before the slot names it.
       {StorePoint::kAllocCounted, [](Writer& w) { w.write(Value(50, 1, 1)); }},
       // A replacement, after the slot names the new entry and before the old is freed.
       {std::nullopt, replaceButKeepOld},
   };
   std::map<uint64_t, Value> expected;
   for (uint64_t k = 0; k < 50; ++k) expected[k] = Value(k, 1, 1);
   std::string name = "t";
   for (const auto& [point, op] : cases) {
      name += "t";
      writeTable(name);
      killedAt(point, [&] {
         Writer w(kConfig);
         w.initialize(name);
         op(w);
      });
      Writer w(kConfig);
      w.initialize(name);
      EXPECT_EQ(w.mountStatus(), Dock::MountStatus::kReattached);
      EXPECT_EQ(w.members(), 50u);
      EXPECT_EQ(DockTest::contents(w), expected);
      EXPECT_EQ(w.writerCounters().reclaimedEntries, 1u);
      EXPECT_TRUE(w.validate());
   }

   // Slab damage no record explains (as repaired above, without its record): the table is
   // re-formatted.
   writeTable("n");
   {
      auto f = Region::MappedFile::openReadWrite(root.path() + "/n/slab.00");
      reinterpret_cast<Dock::SlabHeader*>(f.data())->numOccupied.fetch_add(1);
   }
   Spoor::Capture cap;
   Writer w(kConfig);
   w.initialize("n");
   EXPECT_EQ(w.mountStatus(), Dock::MountStatus::kReformatted);
   EXPECT_EQ(w.members(), 0u);
   EXPECT_TRUE(cap.contains("corrupted slab: " + root.path() +
                            "/n/slab.00 was detected when lazily attaching"));
}

TEST(SlabRepair, HalfCreatedSlabFilesAreRemovedOnAttachAndCleanup) {
   Testing::TempRoot root;
   writeTable("t");
   const std::string dir = root.path() + "/t";
   // A slab file that cannot be sized (no file may pass 16 KiB) is not left behind.
   const pid_t failed = Testing::forkChild([] {
      Writer w(kConfig);
      w.initialize("t");
      const rlimit limit{16384, 16384};
      ::signal(SIGXFSZ, SIG_IGN), ::setrlimit(RLIMIT_FSIZE, &limit);
      return int(errorText<Region::Error>([&] { w.write(Value(60, 1, 40)); }).find("cannot size"));
   });
   EXPECT_EQ(Testing::waitChild(failed), 0);
   EXPECT_FALSE(fs::exists(fmt::format("{}/slab.02.{}.tmp", dir, failed)));
   // Killed while formatting a new slab (its first value of 40 vias goes to slab 2).
   const pid_t pid = killedAt(StorePoint::kGrowHalfFormatted, [] {
      Writer w(kConfig);
      w.initialize("t");
      w.write(Value(60, 1, 40));
   });
   const std::string stray = fmt::format("{}/slab.02.{}.tmp", dir, pid);
   ASSERT_TRUE(fs::exists(stray));
   EXPECT_FALSE(fs::exists(dir + "/slab.02"));
   // The herald's and the relume file's temporaries go too.
   for (const char* name : {"herald.42.tmp", "relume.tmp.42"}) std::ofstream(dir + "/" + name);
   Spoor::Capture cap;
   Writer w(kConfig);
   w.initialize("t");
   EXPECT_EQ(w.mountStatus(), Dock::MountStatus::kReattached);
   EXPECT_FALSE(fs::exists(stray));
   EXPECT_EQ(w.allocator().strayFilesRemoved(), 3u);
   EXPECT_TRUE(cap.contains("removed: left by a writer killed while creating it"));
   EXPECT_EQ(w.members(), 50u);
   // Cleanup removes the table's files and temporary files; names that only look alike stay.
   const std::pair<const char*, bool> names[] = {
       {"slab.02.123.tmp", false}, {"slab.7.1.tmp", true},    {"slab.02.x1.tmp", true},
       {"slab.02..tmp", true},     {"slab.02.12.tmpx", true}, {"other.02.1.tmp", true},
       {"herald.77.tmp", false},   {"relume.tmp.77", false},  {"herald..tmp", true},
       {"relume.tmp.7x", true},    {"herald.77.tmp.x", true}};
   for (const auto& [name, stays] : names) std::ofstream(dir + "/" + name) << "x";
   w.cleanup();
   for (const auto& [name, stays] : names) EXPECT_EQ(fs::exists(dir + "/" + name), stays) << name;
   EXPECT_FALSE(fs::exists(dir + "/slab.00"));
   EXPECT_FALSE(fs::exists(dir + "/" + Tessel::kIntentFile));
}

// A table's files after a burst: each has its mode, whatever the umask; the slot file and the slabs
// hold no more pages than their format needs for what is left, their lengths kept.
TEST(WriterAllocator, ATablesFilesAfterABurst) {
   Testing::TempRoot root;
   const mode_t mask = ::umask(077);
   Writer w(kConfig);
   w.initialize("m/g");
   for (uint64_t k = 0; k < 2000; ++k) w.write(Value(k, 1, 1));
   for (uint64_t k = 0; k < 1995; ++k) w.remove(k);
   ::umask(mask);
   size_t files = 0;
   for (const auto& e : fs::recursive_directory_iterator(root.path() + "/m")) {
      files += e.is_regular_file();
      const uint32_t mode = e.path().filename() == "wake" ? 01777 : e.is_directory() ? 0755 : 0644;
      EXPECT_EQ(uint32_t(e.status().permissions()), mode) << e.path();
   }
   EXPECT_EQ(files, 7u);  // slots, buckets, slab.00, herald, relume, owner, slabs.intent
   const Tessel::SlabWriter& slab = *w.allocator().attachedSlab(0);
   EXPECT_LE(slab.numEntries(), 2 * Tessel::initialEntries(slab.entrySize()));  // was 2816
   const size_t page = size_t(::sysconf(_SC_PAGESIZE));
   for (auto [file, bytes] : {std::pair{slab.path(), 40 + slab.numEntries() * slab.entrySize()},
                              {w.table().path(), 600 + 24 * w.capacity()}}) {
      struct stat st {};
      ::stat(file.c_str(), &st);
      EXPECT_LE(size_t(st.st_blocks) * 512, (bytes + page - 1) / page * page) << file;
      EXPECT_GT(size_t(st.st_size), bytes) << file;  // the length stays
   }
}

// Operation i of a burst: inserts (one of 40 vias per nine, in a slab of its own), replacements,
// then removals of all but two keys, which shrink the slot file and the slabs.
constexpr uint32_t kBurstOps = 42;
std::pair<uint64_t, std::optional<Value>> burstOp(uint32_t i) {
   if (i < 16) return {i + 8, Value(i + 8, 1, (i + 8) % 9 ? 1 : 40)};
   if (i < 20) return {(i - 16) * 5, Value((i - 16) * 5, 2, 2)};
   return {(i * 7) % 22, std::nullopt};
}

// A writer killed at the n-th store point of the burst, for every n: the next writer keeps every
// key as the operations before the interrupted one left it, and that one's as before or after it.
TEST(SlabRepair, WriterKilledAtEveryStoreOfABurstKeepsTheTable) {
   Testing::TempRoot root;
   auto* shared = static_cast<uint32_t*>(
       ::mmap(nullptr, 8, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   uint32_t& done = shared[0];  // operations the child completed
   pointsSeen = &shared[1];
   for (uint32_t n = 1;; ++n) {
      SCOPED_TRACE(fmt::format("killed at store point {}", n));
      const std::string name = fmt::format("b{}", n);
      writeTable(name, 8);
      done = 0;
      const int code = Testing::waitChild(Testing::forkChild([&] {
         storesLeft = n;
         Tessel::storeHook = killAtCount;
         Writer w(kConfig);
         w.initialize(name);
         for (; done < kBurstOps; ++done) {
            auto [key, value] = burstOp(done);
            value ? w.write(*value) : void(w.remove(key));
         }
         return 0;
      }));
      std::map<uint64_t, Value> before, after;
      for (uint64_t k = 0; k < 8; ++k) after[k] = Value(k, 1, 1);
      for (uint32_t i = 0; i <= done && i < kBurstOps; ++i) {
         before = after;
         auto [key, value] = burstOp(i);
         value ? void(after[key] = *value) : void(after.erase(key));
      }
      Writer w(kConfig);
      w.initialize(name);
      ASSERT_EQ(w.mountStatus(), Dock::MountStatus::kReattached);
      EXPECT_TRUE(w.validate());
      const auto got = DockTest::contents(w);
      ASSERT_TRUE(got == after || (code != 0 && got == before)) << "interrupted operation " << done;
      if (code == 0) break;  // run through: every store point was a kill point
      ASSERT_EQ(code, 128 + SIGKILL);
      w.cleanup();
   }
   EXPECT_EQ(*pointsSeen, (2u << uint32_t(StorePoint::kMovePublished)) - 1);
   ::munmap(shared, 8);
}

}  // namespace
