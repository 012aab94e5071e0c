// Slab files: size classes, the slab header's validation, and a SlabWriter's free list, growth,
// lookups and validation walk, each failure reached on a real file. (Shrinking: ReaderAllocator
// and SlabRepair in WriterAllocatorTest.)
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <vector>

#include "Loom/CorruptionException.h"
#include "Region/Error.h"
#include "Vela/Hash.h"
#include "store/slab/EntryCheck.h"
#include "store/slab/LinearSizeConfig.h"
#include "store/slab/Slab.h"
#include "store/slab/SlabWriter.h"
#include "testing/Expect.h"
#include "testing/TempRoot.h"

namespace {

using Dock::kNone;
using Tessel::LinearSizeConfig;
using Tessel::SlabHeader;
using Tessel::SlabWriter;

using Testing::errorText;

TEST(LinearSizeConfig, ClassBoundariesAndEveryClassHoldsItsWholeRange) {
   struct Case {
      uint32_t m, classesInUse;
      std::vector<std::pair<uint32_t, uint32_t>> sizeAndClass;
   };
   // Widths 23 and 1443 (m / 32 + 1, as checked below for every m).
   for (const Case& c : {Case{704, 31, {{1, 0}, {23, 0}, {24, 1}, {46, 1}, {47, 2}, {704, 30}}},
                         Case{46168, 32, {{1443, 0}, {1444, 1}, {46168, 31}}}}) {
      SCOPED_TRACE(c.m);
      LinearSizeConfig l(c.m);
      EXPECT_EQ(l.classesInUse(), c.classesInUse);
      for (auto [size, k] : c.sizeAndClass) EXPECT_EQ(l.classOf(size), k) << size;
   }
   for (uint32_t m : {1u, 31u, 32u, 33u, 704u, 46168u, 1u << 20}) {
      LinearSizeConfig c(m);
      EXPECT_EQ(c.width(), m / 32 + 1);
      for (uint32_t k = 0; k < Tessel::kNumClasses; ++k) {
         EXPECT_GE(c.maxPayload(k), (k + 1) * c.width()) << m << " class " << k;
         EXPECT_EQ(c.entrySize(k) % 8, 0u);
         EXPECT_EQ(c.entrySize(k), c.maxPayload(k) + Dock::kSlabEntryHeaderSize);
         if (k > 0) {
            EXPECT_GE(c.entrySize(k), c.entrySize(k - 1));  // equal when 8-byte rounding merges
         }
      }
      for (uint32_t n = 1; n <= m && n < 5000; ++n) {
         ASSERT_LE(n, c.maxPayload(c.classOf(n))) << m << " size " << n;
         ASSERT_GT(n, c.classOf(n) * c.width());  // never in a class above its range
      }
   }
   EXPECT_DEATH(LinearSizeConfig(0),
                "assertion failed: maxAllocSize >= 1 && maxAllocSize <= kMaxAllocSizeLimit");
}

// The entry check pinned on golden inputs (computed independently of this code), and the
// guarantee it is built for: any one flipped payload bit changes it; the copy pass agrees.
TEST(EntryCheck, GoldenValuesAndEveryFlippedBitChangesIt) {
   std::vector<uint8_t> bytes(45);
   for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 37 + 1);
   using C = std::tuple<uint32_t, uint32_t, uint64_t>;  // size, client, check
   for (const auto& [size, client, check] :
        {C{0, 0, 0x666407bf02a8a4a2ull}, C{0, 7, 0x1b5cdeb0882e2783ull},
         C{8, 7, 0x8b3a4fb39d249ac4ull}, C{21, 7, 0x4b5e8da2205a477dull},
         C{45, 7, 0x10b5f84d3246866aull}, C{45, kNone, 0x169005b2ad8d8ebeull}}) {
      EXPECT_EQ(Tessel::entryCheck(bytes.data(), size, client), check) << size;
      EXPECT_NE(Tessel::entryCheck(bytes.data(), size, client ^ 0x100), check) << size;
      for (uint32_t bit = 0; bit < size * 8; ++bit) {
         auto flipped = bytes;
         flipped[bit / 8] ^= uint8_t(1u << (bit % 8));
         ASSERT_NE(Tessel::entryCheck(flipped.data(), size, client), check) << bit;
      }
      // The copy passes agree: word blocks at an aligned address, bytes at an unaligned one.
      uint64_t shared[7] = {};
      for (const size_t at : {size_t(0), size_t(1)}) {
         auto* dst = reinterpret_cast<uint8_t*>(shared) + at;
         Tessel::EntryCheck in(int32_t(size), client), out(int32_t(size), client);
         Dock::copyToSharedFolding(dst, bytes.data(), size, in);
         std::vector<uint8_t> back(size);
         Dock::copyFromSharedFolding(back.data(), dst, size, out);
         EXPECT_EQ(in.value(), check) << size << " at " << at;
         EXPECT_EQ(out.value(), check) << size << " at " << at;
         EXPECT_TRUE(std::equal(back.begin(), back.end(), bytes.begin())) << size;
      }
   }
   // Copies around the length that prefetches ahead of its stores: every byte lands and is folded
   // once, with one prefetching step, one byte too short for any, and many.
   for (const size_t size :
        {Dock::kWriteAhead + 64 + 43, Dock::kWriteAhead + 63, 3 * Dock::kWriteAhead + 8}) {
      std::vector<uint8_t> src(size), back(size);
      for (size_t i = 0; i < size; ++i) src[i] = uint8_t(i * 131 + 7);
      std::vector<uint64_t> shared(size / 8 + 1);
      auto* dst = reinterpret_cast<uint8_t*>(shared.data());
      Tessel::EntryCheck in(int32_t(size), 3), out(int32_t(size), 3);
      Dock::copyToSharedFolding(dst, src.data(), size, in);
      Dock::copyFromSharedFolding(back.data(), dst, size, out);
      const uint64_t check = Tessel::entryCheck(src.data(), uint32_t(size), 3);
      EXPECT_EQ(std::tuple(in.value(), out.value(), back == src), std::tuple(check, check, true))
          << size;
   }
}

// A header in an aligned buffer, formatted for 8 entries of 64 bytes.
struct HeaderBuffer {
   HeaderBuffer() { Tessel::formatSlabHeader(header(), 5, 64, 8); }
   SlabHeader* header() { return reinterpret_cast<SlabHeader*>(words); }
   uint64_t words[5] = {};
};

TEST(SlabHeader, FormatBytesStringAndEveryValidationFailure) {
   HeaderBuffer b;
   const auto* p = reinterpret_cast<const uint8_t*>(b.words);
   EXPECT_EQ(std::memcmp(p, "TESSLSLB", 8), 0);
   // version, relume, resize counter, numEntries, numOccupied, entrySize, hash, freeList
   std::vector<uint32_t> words(8);
   std::memcpy(words.data(), p + 8, 32);
   EXPECT_EQ(words, (std::vector<uint32_t>{3, 5, 0, 8, 0, 64, Vela::oneAtATimeOf(64u), kNone}));
   EXPECT_EQ(Tessel::slabHeaderString(*b.header()),
             "magic:424c534c53534554 version:3 relume:5 numEntries:8 entrySize:64 "
             "freeList:4294967295");
   std::string reason;
   EXPECT_TRUE(Tessel::validateSlabHeader(*b.header(), 40 + 8 * 64, 5, reason)) << reason;
   EXPECT_TRUE(Tessel::validateSlabHeader(*b.header(), 40 + 8 * 64, 0, reason)) << reason;

   // Each failure reached by one fault, with its exact reason.
   struct Case {
      std::function<void(SlabHeader*, size_t&, uint32_t&)> apply;
      std::string message;
   };
   const std::vector<Case> cases = {
       {[](SlabHeader*, size_t& s, uint32_t&) { s = 39; }, "bad header file size: 39 wanted: 40"},
       {[](SlabHeader*, size_t& s, uint32_t&) { s = size_t(1) << 36; },
        "bad file size:68719476736"},
       {[](SlabHeader* h, size_t&, uint32_t&) { h->magic = 0x1234; },
        "bad magic: 1234 wanted: 424c534c53534554"},
       {[](SlabHeader* h, size_t&, uint32_t&) { h->version = 1; }, "bad version: 1 wanted: 3"},
       {[](SlabHeader*, size_t&, uint32_t& w) { w = 6; }, "bad relume:5 wanted:6"},
       {[](SlabHeader* h, size_t&, uint32_t&) { h->hash ^= 1; },
        fmt::format("checksum fail: {:x} != {:x}", Vela::oneAtATimeOf(64u),
                    Vela::oneAtATimeOf(64u) ^ 1)},
       {[](SlabHeader* h, size_t&, uint32_t&) { h->numOccupied = 9; },
        "bad numOccupied: 9 but numEntries: 8"},
       {[](SlabHeader* h, size_t&, uint32_t&) { h->numEntries = 0xFFFFFFFFu; },
        "bad numEntries: 4294967295 message: 40 + 4294967295 * 64 reaches the largest mapping "
        "size 68719476736"},
       {[](SlabHeader*, size_t& s, uint32_t&) { s = 551; },
        "bad shmem size: 551 wanted: 552 for 8 entries"},
   };
   for (size_t k = 0; k < cases.size(); ++k) {
      HeaderBuffer c;
      size_t size = 552;
      uint32_t wanted = 5;
      cases[k].apply(c.header(), size, wanted);
      EXPECT_FALSE(Tessel::validateSlabHeader(*c.header(), size, wanted, reason)) << k;
      EXPECT_EQ(reason, cases[k].message) << k;
   }
   // An empty slab (numEntries 0) is a valid header; its maxIndex prints as -1.
   HeaderBuffer e;
   e.header()->numEntries = 0;
   EXPECT_TRUE(Tessel::validateSlabHeader(*e.header(), 40, 5, reason)) << reason;
   e.header()->freeList = 0;
   EXPECT_FALSE(Tessel::validateSlabHeader(*e.header(), 40, 5, reason));
   EXPECT_EQ(reason, "bad freeList: 0 maxIndex: -1");
}

class SlabWriterTest : public ::testing::Test {
  protected:
   std::string path() const { return root.path() + "/slab.00"; }
   void occupy(SlabWriter& w, uint32_t index, int32_t size) {
      w.getEntry(index)->payloadSize.store(size);
   }
   // A fresh slab.00 of 64-byte entries, relume 3.
   SlabWriter& created() {
      slab.emplace(path(), kEntry, 3);
      slab->create();
      return *slab;
   }
   Testing::TempRoot root;
   std::optional<SlabWriter> slab;
   static constexpr uint32_t kEntry = 64;
};

TEST_F(SlabWriterTest, CreateChainsEveryEntryThenAllocFreeReuseGrowthAndLookups) {
   SlabWriter& w = created();
   const uint32_t n = Tessel::initialEntries(kEntry);
   EXPECT_EQ(n, (16384u - 40) / 64);
   EXPECT_EQ(Tessel::initialEntries(16384), 8u);  // at least 8 entries, however large
   EXPECT_EQ(w.file().fileSize(), 40u + n * kEntry);
   w.validate();  // all n entries listed, each free (negative size)
   // Handed out in index order, each empty and naming no slot.
   for (uint32_t i = 0; i < n; ++i) {
      ASSERT_EQ(w.alloc(), i);
      EXPECT_EQ(w.getEntry(i)->payloadSize.load(), 0);
      EXPECT_EQ(w.getEntry(i)->clientData.load(), kNone);
   }
   EXPECT_EQ(w.header()->resizeCounter.load(), 0u);
   // The free list is empty: the next allocation doubles the slab.
   EXPECT_EQ(w.alloc(), n);
   EXPECT_EQ(w.numEntries(), 2 * n);
   EXPECT_EQ(w.header()->resizeCounter.load(), 1u);
   EXPECT_EQ(w.file().fileSize(), 40u + 2 * n * kEntry);
   // Freed entries are reused last-in first-out; a freed entry is negative and heads the list.
   w.free(3);
   w.free(7);
   EXPECT_LT(w.getEntry(7)->payloadSize.load(), 0);
   EXPECT_EQ(w.header()->freeList.load(), 7u);
   EXPECT_EQ(w.getEntry(7)->clientData.load(), 3u);
   EXPECT_EQ(w.alloc(), 7u);
   EXPECT_EQ(w.alloc(), 3u);
   EXPECT_EQ(w.alloc(), n + 1);
   w.validate();
   // Lookups and misuse name the slab: an index beyond it, a size over its entries' (the largest
   // passes), and new entries while some are free.
   EXPECT_EQ(errorText<Loom::CorruptionException>([&] { w.getEntry(2 * n); }),
             fmt::format("slab.00::getEntry() index: {} is beyond farthest possible index: {}",
                         2 * n, 2 * n - 1));
   occupy(w, 0, int32_t(w.maxPayload()) + 1);
   EXPECT_EQ(errorText([&] { w.lookup(0); }),
             fmt::format("slab.00::lookup() encountered payloadSize: {}, but max payloadSize:{} at "
                         "index: 0",
                         w.maxPayload() + 1, w.maxPayload()));
   occupy(w, 0, int32_t(w.maxPayload()));
   EXPECT_NO_THROW(w.lookup(0));
   EXPECT_EQ(errorText([&] { w.addFreeEntries(0, 1); }),
             "slab.00::addFreeEntries() free-list isn't empty");
   EXPECT_DEATH((w.free(5), w.free(5)), "assertion failed: freeing unoccupied entry 5 of slab.00");
   // Growth steps: at least the initial size, at most 512 KiB of entries.
   EXPECT_EQ(Tessel::growthStep(1, kEntry), n);
   EXPECT_EQ(Tessel::growthStep(1000, kEntry), 1000u);
   EXPECT_EQ(Tessel::growthStep(10'000'000, kEntry), 512u * 1024 / kEntry);
   EXPECT_EQ(Tessel::growthStep(100, 1 << 24), Tessel::initialEntries(1 << 24));
}

// Each case damages a fresh slab of 255 entries (48 payload bytes each) whose entries 0..5 were
// taken and 2 given back, so that its free list is 2, 6, 7, ...; then the walk's finding.
TEST_F(SlabWriterTest, ValidationWalkFindsEachDamage) {
   const std::pair<std::function<void(SlabWriter&)>, std::string> cases[] = {
       // On the free list, but claims a payload.
       {[&](SlabWriter& w) { occupy(w, 6, 10); },
        "slab.00::validate() found occupied entry with index: 6 on free-list"},
       {[&](SlabWriter& w) { occupy(w, 4, 49); },
        "slab.00::validate() found occupied entry with payloadSize:49, but max payloadSize:48"},
       // The list loops back to its head, or leaves the slab. (The count findings: SlabRepair in
       // WriterAllocatorTest.)
       {[](SlabWriter& w) { w.getEntry(w.numEntries() - 1)->clientData.store(2); },
        "slab.00::validate() free-list visits index: 2 twice"},
       {[](SlabWriter& w) { w.getEntry(w.numEntries() - 1)->clientData.store(255); },
        "slab.00::validate() free-list index: 255 is beyond numEntries: 255"},
   };
   for (const auto& [damage, want] : cases) {
      SCOPED_TRACE(want);
      SlabWriter& w = created();
      for (int i = 0; i < 6; ++i) w.alloc();
      w.free(2);
      EXPECT_NO_THROW(w.validate());
      damage(w);
      EXPECT_EQ(errorText([&] { w.validate(); }), want);
   }
}

TEST_F(SlabWriterTest, AttachChecksTheHeaderAndRestampsTheRelume) {
   created().alloc();
   slab.reset();
   SlabWriter again(path(), kEntry, 9);
   again.attach();
   EXPECT_EQ(Tessel::slabRelume(*again.header()), 9u);
   EXPECT_EQ(again.numOccupied(), 1u);
   again.validate();
   again.detach();
   EXPECT_FALSE(again.attached());

   SlabWriter other(path(), kEntry + 8, 9);
   EXPECT_EQ(errorText([&] { other.attach(); }),
             "slab.00::attach() entrySize: 64 but expected: 72");
   EXPECT_FALSE(other.attached());

   SlabWriter missing(root.path() + "/slab.09", kEntry, 9);
   EXPECT_THROW(missing.attach(), Region::Error);

   // Read-only inspection writes nothing, not even the relume.
   SlabWriter inspect(path(), kEntry, 11);
   inspect.attachReadOnly();
   EXPECT_EQ(Tessel::slabRelume(*inspect.header()), 9u);
   inspect.validate();
}

TEST_F(SlabWriterTest, ValidateUnattachedMessages) {
   const std::string missing = root.path() + "/slab.03";
   EXPECT_EQ(errorText([&] { Tessel::validateUnattached(missing, kEntry); }),
             fmt::format("slab.03::validateUnattached() cannot attach to shmem {} size:0: cannot "
                         "open {}: No such file or directory",
                         missing, missing));
   created().alloc();
   slab->header()->numOccupied.store(2);
   slab.reset();
   // A slab with entries: the walk's own text. (An empty slab's failure: DeepValidateTest.)
   EXPECT_EQ(errorText([&] { Tessel::validateUnattached(path(), kEntry); }),
             "slab.00::validate() found 1 occupied entries, but header's numOccupied: 2");
}

}  // namespace
