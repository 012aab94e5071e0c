// The slot table header: format-time bytes, the checksum (against an independent reference over
// exactly the constant fields), the human-readable form and every validation failure reached by a
// crafted header.
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

// An 8-byte aligned buffer of 0xEE bytes holding a formatted header and 10 slots.
struct Buffer {
   Buffer() : words((kFileSize + 7) / 8, 0xEEEEEEEEEEEEEEEEull) {
      SlotTable::format(header(), "Test::Value", 48, 1000, 0x3, 5, 0xabcdef, kSlots);
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

TEST(SlotTable, FormatLaysDownTheFormatTimeBytesPrintsThemAndBoundsTheTypeName) {
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
   // The longest type name, 511 characters, fits with its terminator; 512 are refused.
   const std::string n511(511, 'x');
   SlotTable::format(b.header(), n511, 8, 10, 0, 1, 0, kSlots);
   EXPECT_EQ(std::string(b.header()->valueType), n511);
   EXPECT_TRUE(b.valid(kFileSize, 0)) << b.reason;
   const std::string n512(512, 'y');
   EXPECT_EQ(Testing::errorText<Vela::Exception>(
                 [&] { SlotTable::format(b.header(), n512, 8, 10, 0, 1, 0, kSlots); }),
             "value typename " + n512 + " exceeds 512 characters");
   // The refused format left the earlier header alone.
   EXPECT_EQ(std::string(b.header()->valueType), n511);
}

TEST(SlotTable, EveryValidationFailureIsReachedAndBoundariesPass) {
   struct Fault {
      const char* name;
      std::function<void(SlotTableHeader*, size_t& fileSize, uint32_t& wanted)> apply;
      std::string message;
   };
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
   }
   // Boundary headers that are valid. (Any relume when none is wanted: the type name check.)
   Buffer b;
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

}  // namespace
