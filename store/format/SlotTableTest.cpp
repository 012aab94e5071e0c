// The slot table header: format-time bytes, the checksum, the human-readable form and every
// validation failure reached by a crafted header, in order.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "Vela/Exception.h"
#include "store/format/SlotTable.h"
#include "testing/Expect.h"

namespace {

using Dock::SlotTableHeader;
namespace SlotTable = Dock::SlotTable;

constexpr uint32_t kSlots = 10;
constexpr size_t kFileSize = SlotTable::fileSizeFor(kSlots);

// An 8-byte aligned buffer of 0xEE bytes holding a header and 10 slots, formatted unless asked.
struct Buffer {
   explicit Buffer(bool formatted = true) : words((kFileSize + 7) / 8, 0xEEEEEEEEEEEEEEEEull) {
      if (formatted) SlotTable::format(header(), "Test::Value", 48, 1000, 0x3, 5, 0xabcdef, kSlots);
   }
   SlotTableHeader* header() { return reinterpret_cast<SlotTableHeader*>(words.data()); }
   uint8_t* bytes() { return reinterpret_cast<uint8_t*>(words.data()); }
   uint32_t word(size_t offset) {
      uint32_t v;
      std::memcpy(&v, bytes() + offset, sizeof v);
      return v;
   }
   bool valid(size_t fileSize = kFileSize, uint32_t wanted = 5) {
      return SlotTable::validateHeader(*header(), fileSize, wanted, reason);
   }
   std::vector<uint64_t> words;
   std::string reason;
};

// The bytes under the checksum, as (offset, length): valueType, valueSize, slotSize, maxSlots,
// constFlags and hashSeed.
constexpr std::pair<size_t, size_t> kCovered[] = {{20, 512}, {532, 4}, {536, 4},
                                                  {540, 4},  {544, 2}, {564, 4}};

// Reference FNV-1a 32 over the raw file bytes, written independently of the implementation.
uint32_t referenceChecksum(const uint8_t* file) {
   uint32_t h = 2166136261u;
   for (auto [from, len] : kCovered) {
      for (size_t i = from; i < from + len; ++i) h = (h ^ file[i]) * 16777619u;
   }
   return h;
}

TEST(SlotTable, FormatLaysDownTheFormatTimeBytesAndPrintsThem) {
   Buffer b;
   EXPECT_EQ(std::memcmp(b.bytes(), "DOCKSLOT", 8), 0);
   EXPECT_STREQ(reinterpret_cast<const char*>(b.bytes() + 20), "Test::Value");
   for (size_t i = 20 + 11; i < 532; ++i) ASSERT_EQ(b.bytes()[i], 0) << i;
   EXPECT_EQ(b.word(8), 23u);  // version
   EXPECT_EQ(b.word(12), 5u);  // relume
   EXPECT_EQ(b.word(16), 1u);  // platform
   // The words from offset 532 on: valueSize, slotSize, maxSlots, constFlags with runtimeFlags
   // 0, hash, occupiedSlots, freeSlots, mostSlots, hashSeed, the size word (counter, numSlots),
   // the lookaside area (5 words), then the reserved word and the first slot, neither written.
   const uint32_t words[] = {
       48,          24,          1000,        0x3,      referenceChecksum(b.bytes()),
       0,           Dock::kNone, 10,          0xabcdef, 0,
       10,          0,           Dock::kNone, 0,        0,
       Dock::kNone, 0xEEEEEEEEu, 0xEEEEEEEEu};
   for (size_t i = 0; i < std::size(words); ++i) EXPECT_EQ(b.word(532 + 4 * i), words[i]) << i;
   EXPECT_TRUE(b.valid()) << b.reason;
   b.header()->occupiedSlots.store(2);
   b.header()->freeSlots.store(4);
   b.header()->runtimeFlags.store(1);
   EXPECT_EQ(SlotTable::headerString(*b.header()),
             fmt::format("magic:0x544f4c534b434f44 version:23 relume:5 platform:1 "
                         "valueType:\"Test::Value\" valueSize:48 slotSize:24 maxSlots:1000 "
                         "constFlags:0x3 runtimeFlags:0x1 hash:{:#x} occupiedSlots:2 freeSlots:4 "
                         "mostSlots:10 hashSeed:11259375 numSlots:10",
                         referenceChecksum(b.bytes())));
   EXPECT_EQ(Dock::slabFileName(0), "slab.00");
   EXPECT_EQ(Dock::slabFileName(31), "slab.31");
}

TEST(SlotTable, ChecksumCoversTheConstantFieldsOnly) {
   Buffer b;
   const uint32_t sum = SlotTable::checksum(*b.header());
   EXPECT_EQ(sum, referenceChecksum(b.bytes()));
   // Mutable fields (and relume, magic, version, platform) are outside it.
   for (size_t offset :
        {0, 8, 12, 16, 546, 548, 552, 556, 560, 568, 572, 576, 580, 584, 588, 592, 596}) {
      Buffer c = b;
      c.bytes()[offset] ^= 0x5a;
      EXPECT_EQ(SlotTable::checksum(*c.header()), sum) << "offset " << offset;
   }
   // Every byte of the covered fields is inside.
   for (auto [from, len] : kCovered) {
      for (size_t offset = from; offset < from + len; ++offset) {
         Buffer c = b;
         c.bytes()[offset] ^= 0x01;
         ASSERT_NE(SlotTable::checksum(*c.header()), sum) << "offset " << offset;
      }
   }
}

TEST(SlotTable, TypeNameOf511IsAcceptedAnd512Refused) {
   Buffer b(false);
   const std::string n511(511, 'x');
   SlotTable::format(b.header(), n511, 8, 10, 0, 1, 0, kSlots);
   EXPECT_EQ(std::string(b.header()->valueType), n511);
   EXPECT_EQ(b.header()->valueType[511], '\0');
   EXPECT_TRUE(b.valid(kFileSize, 0)) << b.reason;
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

TEST(SlotTable, EveryValidationFailureIsReachedInOrderAndBoundariesPass) {
   const std::vector<Fault> all = {
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
   for (size_t k = 0; k < all.size(); ++k) {
      Buffer b;
      size_t fileSize = kFileSize;
      uint32_t wanted = 5;
      all[k].apply(b.header(), fileSize, wanted);
      std::string want = all[k].message;
      if (want.empty()) {
         want = fmt::format("checksum fail: {:x} != {:x}", referenceChecksum(b.bytes()),
                            b.header()->hash);
      }
      EXPECT_FALSE(b.valid(fileSize, wanted)) << all[k].name;
      EXPECT_EQ(b.reason, want) << all[k].name;
      // Any later fault as well does not change the report: the checks stop at the first.
      for (size_t j = k + 1; j < all.size(); ++j) {
         Buffer c;
         size_t size2 = kFileSize;
         uint32_t wanted2 = 5;
         all[k].apply(c.header(), size2, wanted2);
         all[j].apply(c.header(), size2, wanted2);
         EXPECT_FALSE(c.valid(size2, wanted2));
         // Faults that set the same input overwrite each other: the file size, and numSlots
         // (which the slot-count checks compare against).
         const std::string kn = all[k].name, jn = all[j].name;
         if (kn == "headerSize" || kn == "fileSize" || (kn == "numSlots" && jn == "shmemSize") ||
             (jn == "numSlots" && (kn == "occupied" || kn == "freeSlots" || kn == "mostSlots"))) {
            continue;
         }
         EXPECT_EQ(c.reason, want) << all[k].name << " + " << all[j].name;
      }
   }
   // Boundary headers that are valid.
   Buffer b;
   EXPECT_TRUE(b.valid(kFileSize, 0));  // any relume is accepted when none is wanted
   // A full table: no free slot, every slot occupied.
   b.header()->occupiedSlots = kSlots;
   b.header()->freeSlots = Dock::kNone;
   EXPECT_TRUE(b.valid()) << b.reason;
   // The last slot as free-list head, and a larger file than needed.
   b.header()->freeSlots = kSlots - 1;
   EXPECT_TRUE(b.valid(kFileSize + 4096)) << b.reason;
   // Mutable fields do not disturb the checksum check.
   b.header()->sizeWord = Dock::makeSizeWord(9, 4);
   b.header()->runtimeFlags = 1;
   b.header()->occupiedSlots = 3;
   b.header()->freeSlots = 3;
   EXPECT_TRUE(b.valid()) << b.reason;
}

TEST(SlotTable, LinkFreeSlotsYieldsAscendingOrderAndKeepsCounters) {
   Buffer b;
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

}  // namespace
