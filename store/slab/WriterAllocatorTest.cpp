// The allocators end to end: classes chosen by size, lazy slab files, lazy attach of damaged
// slabs, values put into slabs for slots and checked back, and readers copying entries while the
// writer reuses and grows them, in threads and across processes.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "Loom/CorruptionException.h"
#include "Spoor/Trace.h"
#include "store/slab/DynamicSlotAllocator.h"
#include "store/slab/ReaderAllocator.h"
#include "store/slab/SlabReader.h"
#include "store/slab/SlabTestValue.h"
#include "store/slab/WriterAllocator.h"
#include "testing/Expect.h"
#include "testing/TempRoot.h"

namespace {

using Tessel::DynamicSlotAllocator;
using Tessel::LinearSizeConfig;
using Tessel::Offset;
using Tessel::ReaderAllocator;
using Tessel::WriterAllocator;
using Tessel::Testing::ViaValue;

using Testing::errorText;

bool exists(const std::string& p) {
   return ::access(p.c_str(), F_OK) == 0;
}

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
   EXPECT_FALSE(exists(a.slabPath(0)));
   Offset o23 = a.alloc(23), o24 = a.alloc(24), o704 = a.alloc(704);
   EXPECT_EQ(o23.slab(), 0u);
   EXPECT_EQ(o24.slab(), 1u);
   EXPECT_EQ(o704.slab(), 30u);
   EXPECT_TRUE(exists(a.slabPath(0)));
   EXPECT_TRUE(exists(a.slabPath(30)));
   EXPECT_FALSE(exists(a.slabPath(2)));
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
   EXPECT_FALSE(exists(a.slabPath(0)));
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

TEST(DynamicSlotAllocator, ValuesGoToTheirClassAndNameTheirSlot) {
   Testing::TempRoot root;
   WriterAllocator a(root.path() + "/t", LinearSizeConfig(kViaM), 7);
   a.create();
   DynamicSlotAllocator<ViaValue> d(a);
   std::vector<Tessel::SlabValue> stored;
   const std::vector<uint32_t> counts = {1, 2, 18, 19, 100, 599, 600};
   for (uint32_t i = 0; i < counts.size(); ++i) {
      ViaValue v(1000 + i, counts[i]);
      auto sv = storeValue(d.allocator(), i, v);
      EXPECT_EQ(sv.length, v.serializeLen());
      EXPECT_EQ(sv.offset.slab(), a.config().classOf(v.serializeLen() + Tessel::kEntryOverhead));
      auto* e = a.lookup(sv.offset);
      EXPECT_EQ(e->clientData.load(), i);
      EXPECT_EQ(e->payloadSize.load(), int32_t(sv.length));
      std::vector<uint8_t> bytes(sv.length);
      v.serialize(bytes.data());
      EXPECT_EQ(std::memcmp(a.payload(sv.offset), bytes.data(), sv.length), 0);
      stored.push_back(sv);
   }
   EXPECT_EQ(stored[0].offset.slab(), 0u);   // 16 + 76 + 8 = 100 bytes
   EXPECT_EQ(stored[6].offset.slab(), 31u);  // 16 + 45600 + 8 = 45624 bytes
   for (uint32_t i = 0; i < counts.size(); ++i) {
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
   DynamicSlotAllocator<ViaValue> d(a);
   ReaderAllocator r(dir, 7);
   std::vector<uint8_t> buf(kViaM);
   EXPECT_EQ(r.copy(Offset::make(0, 0), buf.data(), kViaM), -1);  // no slab file yet
   ViaValue v(5, 3);
   auto sv = storeValue(d.allocator(), 9, v);
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
   d.release(sv.offset);
   EXPECT_EQ(r.copy(sv.offset, buf.data(), kViaM), -1);
   EXPECT_EQ(r.copy(Offset::make(sv.offset.slab(), 1'000'000), buf.data(), kViaM), -1);
   // Another generation's reader refuses the slab.
   ReaderAllocator other(dir, 8);
   auto sv2 = storeValue(d.allocator(), 1, v);
   EXPECT_EQ(other.copy(sv2.offset, buf.data(), kViaM), -1);
   EXPECT_EQ(r.copy(sv2.offset, buf.data(), kViaM), int64_t(sv2.length));
}

TEST(ReaderAllocator, FollowsTheWriterGrowingAndShrinkingASlab) {
   Testing::TempRoot root;
   const std::string dir = root.path() + "/t";
   WriterAllocator a(dir, LinearSizeConfig(704), 7);
   a.create();
   DynamicSlotAllocator<ViaValue> d(a);
   // ViaValue(k, 0) is 16 bytes + 8 overhead: class 1 of M = 704.
   auto first = storeValue(d.allocator(), 0, ViaValue(0, 0));
   Tessel::SlabReader sr(a.slabPath(first.offset.slab()), 7);
   std::string reason;
   ASSERT_TRUE(sr.attach(reason)) << reason;
   // Occupy the address range right after the reader's mapping, so that its growth must move.
   const size_t page = size_t(::sysconf(_SC_PAGESIZE));
   uint8_t* end = sr.file().data() + (sr.file().size() + page - 1) / page * page;
   void* guard =
       ::mmap(end, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
   std::vector<Tessel::SlabValue> values{first};
   for (uint32_t i = 1; i < 2000; ++i)
      values.push_back(storeValue(d.allocator(), i, ViaValue(i, 0)));
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
   for (uint32_t i = 10; i < values.size(); ++i) d.release(values[i].offset);
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
   const uint32_t f1 = s.flags.load(std::memory_order_acquire);
   if (!(f1 & Dock::kOccupied) || (f1 & Dock::kLookaside)) return 0;
   const Offset off = Offset::fromWord(s.offset.load(std::memory_order_relaxed));
   const uint32_t len = s.length.load(std::memory_order_relaxed);
   uint32_t client = 0;
   const int64_t n = r.copy(off, buf.data(), uint32_t(buf.size()), client);
   const uint32_t f2 = s.flags.load(std::memory_order_relaxed);
   if (f1 != f2 || n < 0) return 0;
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
   DynamicSlotAllocator<ViaValue> d(a);
   constexpr uint32_t kSlotsN = 8;
   std::vector<MiniSlot> slots(kSlotsN);
   for (uint32_t i = 0; i < kSlotsN; ++i)
      publish(slots[i], storeValue(d.allocator(), i, ViaValue(i, 1 + i)));
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
      publish(slots[i], storeValue(d.allocator(), i, ViaValue(i, 1 + (gen * 7) % 40, gen)));
      d.release(old);
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
      DynamicSlotAllocator<ViaValue> d(a);
      for (uint32_t i = 0; i < 3; ++i)
         publish(slots[i], storeValue(d.allocator(), i, ViaValue(i, 1)));
      for (uint32_t gen = 1; gen < 6000; ++gen) {
         const uint32_t i = gen % 3;
         const Offset old = Offset::fromWord(slots[i].offset.load(std::memory_order_relaxed));
         publish(slots[i], storeValue(d.allocator(), i, ViaValue(i, 1 + gen % 200, gen)));
         d.release(old);
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

}  // namespace
