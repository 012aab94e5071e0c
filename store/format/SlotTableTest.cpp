// The slot table header: format-time bytes, the checksum, the human-readable form and every
// validation failure reached by a crafted header, in order.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "Region/MappedFile.h"
#include "Vela/Exception.h"
#include "store/format/SlotTable.h"
#include "testing/Expect.h"

namespace {

using Dock::SlotTableHeader;
namespace SlotTable = Dock::SlotTable;

// An 8-byte aligned buffer holding a header and `numSlots` slots.
struct Buffer {
   explicit Buffer(uint32_t numSlots)
       : words((SlotTable::fileSizeFor(numSlots) + 7) / 8, 0xEEEEEEEEEEEEEEEEull) {}
   SlotTableHeader* header() { return reinterpret_cast<SlotTableHeader*>(words.data()); }
   uint8_t* bytes() { return reinterpret_cast<uint8_t*>(words.data()); }
   template <class T>
   T at(size_t offset) {
      T v;
      std::memcpy(&v, bytes() + offset, sizeof v);
      return v;
   }
   std::vector<uint64_t> words;
};

// Reference FNV-1a 32 over the raw file bytes, written independently of the implementation.
uint32_t referenceChecksum(const uint8_t* file) {
   uint32_t h = 2166136261u;
   auto feed = [&](size_t offset, size_t len) {
      for (size_t i = 0; i < len; ++i) {
         h ^= file[offset + i];
         h *= 16777619u;
      }
   };
   feed(20, 512);  // valueType
   feed(532, 4);   // valueSize
   feed(536, 4);   // slotSize
   feed(540, 4);   // maxSlots
   feed(544, 2);   // constFlags
   feed(564, 4);   // hashSeed
   return h;
}

constexpr uint32_t kSlots = 10;

void formatDefault(Buffer& b, uint32_t relume = 5) {
   SlotTable::format(b.header(), "Test::Value", 48, 1000, 0x3, relume, 0xabcdef, kSlots);
}

TEST(SlotTable, FormatLaysDownTheFormatTimeBytes) {
   Buffer b(kSlots);
   formatDefault(b);
   EXPECT_EQ(std::memcmp(b.bytes(), "DOCKSLOT", 8), 0);
   EXPECT_EQ(b.at<uint64_t>(0), 0x544f4c534b434f44ull);
   EXPECT_EQ(b.at<uint32_t>(8), 23u);
   EXPECT_EQ(b.at<uint32_t>(12), 5u);
   EXPECT_EQ(b.at<uint32_t>(16), 1u);
   EXPECT_STREQ(reinterpret_cast<const char*>(b.bytes() + 20), "Test::Value");
   for (size_t i = 20 + 11; i < 532; ++i) ASSERT_EQ(b.bytes()[i], 0) << i;
   EXPECT_EQ(b.at<uint32_t>(532), 48u);
   EXPECT_EQ(b.at<uint32_t>(536), 24u);
   EXPECT_EQ(b.at<uint32_t>(540), 1000u);
   EXPECT_EQ(b.at<uint16_t>(544), 0x3);
   EXPECT_EQ(b.at<uint16_t>(546), 0);
   EXPECT_EQ(b.at<uint32_t>(548), referenceChecksum(b.bytes()));
   EXPECT_EQ(b.at<uint32_t>(552), 0u);
   EXPECT_EQ(b.at<uint32_t>(556), 0xFFFFFFFFu);
   EXPECT_EQ(b.at<uint32_t>(560), kSlots);
   EXPECT_EQ(b.at<uint32_t>(564), 0xabcdefu);
   EXPECT_EQ(b.at<uint32_t>(568), 0u);
   EXPECT_EQ(b.at<uint32_t>(572), kSlots);
   EXPECT_EQ(b.at<uint32_t>(576), 0u);
   EXPECT_EQ(b.at<uint32_t>(580), 0xFFFFFFFFu);
   EXPECT_EQ(b.at<uint32_t>(584), 0u);
   EXPECT_EQ(b.at<uint32_t>(588), 0u);
   EXPECT_EQ(b.at<uint32_t>(592), 0xFFFFFFFFu);
   EXPECT_EQ(b.at<uint32_t>(596), 0xEEEEEEEEu);  // reserved: not written
   EXPECT_EQ(b.at<uint32_t>(600), 0xEEEEEEEEu);  // slots: not touched
   std::string reason;
   EXPECT_TRUE(SlotTable::validateHeader(*b.header(), SlotTable::fileSizeFor(kSlots), 5, reason))
       << reason;
}

TEST(SlotTable, HeaderStringIsExact) {
   Buffer b(kSlots);
   formatDefault(b);
   b.header()->occupiedSlots.store(2);
   b.header()->freeSlots.store(4);
   b.header()->runtimeFlags.store(1);
   EXPECT_EQ(SlotTable::headerString(*b.header()),
             fmt::format("magic:0x544f4c534b434f44 version:23 relume:5 platform:1 "
                         "valueType:\"Test::Value\" valueSize:48 slotSize:24 maxSlots:1000 "
                         "constFlags:0x3 runtimeFlags:0x1 hash:{:#x} occupiedSlots:2 freeSlots:4 "
                         "mostSlots:10 hashSeed:11259375 numSlots:10",
                         referenceChecksum(b.bytes())));
}

TEST(SlotTable, ChecksumCoversTheConstantFieldsOnly) {
   Buffer b(kSlots);
   formatDefault(b);
   const uint32_t sum = SlotTable::checksum(*b.header());
   EXPECT_EQ(sum, referenceChecksum(b.bytes()));
   // Mutable fields (and relume, magic, version, platform) are outside it.
   for (size_t offset :
        {0, 8, 12, 16, 546, 548, 552, 556, 560, 568, 572, 576, 580, 584, 588, 592, 596}) {
      Buffer c = b;
      c.bytes()[offset] ^= 0x5a;
      EXPECT_EQ(SlotTable::checksum(*c.header()), sum) << "offset " << offset;
   }
   // Every byte of valueType, valueSize, slotSize, maxSlots, constFlags and hashSeed is inside.
   std::vector<std::pair<size_t, size_t>> covered = {{20, 512}, {532, 4}, {536, 4},
                                                     {540, 4},  {544, 2}, {564, 4}};
   for (auto [from, len] : covered) {
      for (size_t offset = from; offset < from + len; ++offset) {
         Buffer c = b;
         c.bytes()[offset] ^= 0x01;
         ASSERT_NE(SlotTable::checksum(*c.header()), sum) << "offset " << offset;
      }
   }
}

TEST(SlotTable, TypeNameOf511IsAcceptedAnd512Refused) {
   Buffer b(kSlots);
   const std::string n511(511, 'x');
   SlotTable::format(b.header(), n511, 8, 10, 0, 1, 0, kSlots);
   EXPECT_EQ(std::string(b.header()->valueType), n511);
   EXPECT_EQ(b.header()->valueType[511], '\0');
   std::string reason;
   EXPECT_TRUE(SlotTable::validateHeader(*b.header(), SlotTable::fileSizeFor(kSlots), 0, reason));
   EXPECT_NE(SlotTable::headerString(*b.header()).find("valueType:\"" + n511 + "\""),
             std::string::npos);

   const std::string n512(512, 'y');
   EXPECT_EQ(Testing::errorText<Vela::Exception>(
                 [&] { SlotTable::format(b.header(), n512, 8, 10, 0, 1, 0, kSlots); }),
             "value typename " + n512 + " exceeds 512 characters");
   // The refused format left the earlier header alone.
   EXPECT_EQ(std::string(b.header()->valueType), n511);
}

struct Fault {
   const char* name;
   std::function<void(SlotTableHeader*, size_t& fileSize, uint32_t& wanted)> apply;
   std::string message;
};

std::vector<Fault> faults() {
   return {
       {"magic", [](SlotTableHeader* h, size_t&, uint32_t&) { h->magic = 0x1234; },
        "bad magic: 1234"},
       {"version", [](SlotTableHeader* h, size_t&, uint32_t&) { h->version = 22; },
        "bad version: 22"},
       {"relume", [](SlotTableHeader*, size_t&, uint32_t& w) { w = 6; }, "bad relume:5 wanted:6"},
       {"platform", [](SlotTableHeader* h, size_t&, uint32_t&) { h->platform = 2; },
        "bad platform specification: unknown-platform-2 expecting: linux-little-endian-64"},
       {"checksum", [](SlotTableHeader* h, size_t&, uint32_t&) { h->valueSize = 49; }, ""},
       {"occupied", [](SlotTableHeader* h, size_t&, uint32_t&) { h->occupiedSlots = 11; },
        "bad occupiedSlots: 11 num slots: 10"},
       {"freeSlots", [](SlotTableHeader* h, size_t&, uint32_t&) { h->freeSlots = 10; },
        "bad freeSlots: 10 slots: 10"},
       {"mostSlots", [](SlotTableHeader* h, size_t&, uint32_t&) { h->mostSlots = 9; },
        "bad mostSlots:9 numSlots:10"},
       {"headerSize", [](SlotTableHeader*, size_t& s, uint32_t&) { s = 599; },
        "bad header file size: 599 wanted:600"},
       {"fileSize", [](SlotTableHeader*, size_t& s, uint32_t&) { s = size_t(1) << 36; },
        "bad file size:68719476736"},
       {"numSlots",
        [](SlotTableHeader* h, size_t&, uint32_t&) {
           h->sizeWord = Dock::makeSizeWord(3, 0xFFFFFFFFu);
           h->mostSlots = 0xFFFFFFFFu;
        },
        "bad numSlots: 4294967295 message: 600 + 4294967295 * 24 reaches the largest mapping size "
        "68719476736"},
       {"shmemSize", [](SlotTableHeader*, size_t& s, uint32_t&) { s = 839; },
        "bad shmem size:839 wanted:840 for 10 slots"},
   };
}

TEST(SlotTable, EveryValidationFailureIsReachedInOrder) {
   auto all = faults();
   for (size_t k = 0; k < all.size(); ++k) {
      Buffer b(kSlots);
      formatDefault(b);
      size_t fileSize = SlotTable::fileSizeFor(kSlots);
      uint32_t wanted = 5;
      all[k].apply(b.header(), fileSize, wanted);
      std::string want = all[k].message;
      if (want.empty()) {
         want = fmt::format("checksum fail: {:x} != {:x}", referenceChecksum(b.bytes()),
                            b.header()->hash);
      }
      std::string reason;
      EXPECT_FALSE(SlotTable::validateHeader(*b.header(), fileSize, wanted, reason)) << all[k].name;
      EXPECT_EQ(reason, want) << all[k].name;
      // Any later fault as well does not change the report: the checks stop at the first.
      for (size_t j = k + 1; j < all.size(); ++j) {
         Buffer c(kSlots);
         formatDefault(c);
         size_t size2 = SlotTable::fileSizeFor(kSlots);
         uint32_t wanted2 = 5;
         all[k].apply(c.header(), size2, wanted2);
         all[j].apply(c.header(), size2, wanted2);
         std::string r2;
         EXPECT_FALSE(SlotTable::validateHeader(*c.header(), size2, wanted2, r2));
         // Faults that set the same input overwrite each other: the file size, and numSlots
         // (which the slot-count checks compare against).
         const std::string kn = all[k].name, jn = all[j].name;
         if (kn == "headerSize" || kn == "fileSize" || (kn == "numSlots" && jn == "shmemSize") ||
             (jn == "numSlots" && (kn == "occupied" || kn == "freeSlots" || kn == "mostSlots"))) {
            continue;
         }
         EXPECT_EQ(r2, want) << all[k].name << " + " << all[j].name;
      }
   }
}

TEST(SlotTable, BoundaryHeadersThatAreValid) {
   Buffer b(kSlots);
   formatDefault(b, 77);
   std::string reason;
   // Any relume is accepted when none is wanted.
   EXPECT_TRUE(SlotTable::validateHeader(*b.header(), SlotTable::fileSizeFor(kSlots), 0, reason));
   // A full table: no free slot, every slot occupied.
   b.header()->occupiedSlots = kSlots;
   b.header()->freeSlots = Dock::kNone;
   EXPECT_TRUE(SlotTable::validateHeader(*b.header(), SlotTable::fileSizeFor(kSlots), 77, reason))
       << reason;
   // The last slot as free-list head, and a larger file than needed.
   b.header()->freeSlots = kSlots - 1;
   EXPECT_TRUE(
       SlotTable::validateHeader(*b.header(), SlotTable::fileSizeFor(kSlots) + 4096, 77, reason));
   // Mutable fields do not disturb the checksum check.
   b.header()->sizeWord = Dock::makeSizeWord(9, 4);
   b.header()->runtimeFlags = 1;
   b.header()->occupiedSlots = 3;
   b.header()->freeSlots = 3;
   EXPECT_TRUE(SlotTable::validateHeader(*b.header(), SlotTable::fileSizeFor(kSlots), 77, reason))
       << reason;
}

TEST(SlotTable, LinkFreeSlotsYieldsAscendingOrderAndKeepsCounters) {
   Buffer b(kSlots);
   formatDefault(b);
   Dock::Slot* s = SlotTable::slots(b.header());
   for (uint32_t i = 0; i < kSlots; ++i) s[i].flags.store(8 | Dock::kOccupied | Dock::kLookaside);
   SlotTable::linkFreeSlots(b.header(), 4, kSlots);
   SlotTable::linkFreeSlots(b.header(), 0, 2);
   std::vector<uint32_t> order;
   for (uint32_t i = b.header()->freeSlots.load(); i != Dock::kNone; i = s[i].next.load()) {
      order.push_back(i);
      EXPECT_EQ(s[i].flags.load(), 8u);
   }
   EXPECT_EQ(order, (std::vector<uint32_t>{0, 1, 4, 5, 6, 7, 8, 9}));
   EXPECT_EQ(s[2].flags.load(), 8u | Dock::kOccupied | Dock::kLookaside);
}

TEST(SlotTable, FileNames) {
   EXPECT_EQ(Dock::slabFileName(0), "slab.00");
   EXPECT_EQ(Dock::slabFileName(31), "slab.31");
}

}  // namespace
