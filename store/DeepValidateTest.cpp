// The deep check of a table's files: every finding reached by damaging a real, consistent table,
// and a byte-by-byte damage sweep that must be reported or pass, never crash.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "Loom/CorruptionException.h"
#include "Region/Error.h"
#include "Region/MappedFile.h"
#include "Region/StoreRoot.h"
#include "store/DeepValidate.h"
#include "store/DynamicSlotAllocator.h"
#include "store/SlabTestValue.h"
#include "store/SlotTable.h"
#include "testing/TempRoot.h"

namespace {

using Dock::kNone;
using Tessel::Offset;
using Tessel::Testing::ViaValue;
namespace SlotTable = Dock::SlotTable;

constexpr uint32_t kM = 704;
constexpr uint32_t kSlots = 10;

// A consistent table: slots 0..4 occupied (values in slab 0 and slab 1), 5..9 on the free list.
struct Table {
   explicit Table(const std::string& root) : dir(root + "/tunnel/table/t/entry") {
      Region::makeDirectories(dir);
      slotsFile = Region::MappedFile::create(dir + "/slots", SlotTable::fileSizeFor(kSlots));
      SlotTable::format(header(), "Tessel::Testing::ViaValue", 32, 64, 0, 7, 99, kSlots);
      SlotTable::linkFreeSlots(header(), 0, kSlots);
      slabs = std::make_unique<Tessel::WriterAllocator>(dir, Tessel::LinearSizeConfig(kM), 7);
      slabs->create();
      values = std::make_unique<Tessel::DynamicSlotAllocator<ViaValue>>(*slabs);
      for (uint32_t i = 0; i < 5; ++i) insert(ViaValue(i, i % 2 == 0 ? 0 : 3));
   }
   Dock::SlotTableHeader* header() {
      return reinterpret_cast<Dock::SlotTableHeader*>(slotsFile.data());
   }
   Dock::Slot& slot(uint32_t i) { return SlotTable::slots(header())[i]; }
   uint32_t insert(const ViaValue& v) {
      const uint32_t i = header()->freeSlots.load();
      header()->freeSlots.store(slot(i).next.load());
      auto sv = values->setValue(i, v);
      slot(i).offset.store(sv.offset.value);
      slot(i).length.store(sv.length);
      slot(i).next.store(kNone);
      slot(i).flags.store((slot(i).flags.load() + Dock::kWriteStep) | Dock::kOccupied);
      header()->occupiedSlots.fetch_add(1);
      return i;
   }
   Offset offsetOf(uint32_t i) { return Offset::fromWord(slot(i).offset.load()); }
   std::string deep() {
      try {
         Dock::deepValidate(*header(), *slabs);
      } catch (const std::exception& e) {
         return e.what();
      }
      return "";
   }
   std::string files() {
      try {
         Dock::validateTableFiles(dir, kM);
      } catch (const std::exception& e) {
         return e.what();
      }
      return "";
   }

   std::string dir;
   Region::MappedFile slotsFile;
   std::unique_ptr<Tessel::WriterAllocator> slabs;
   std::unique_ptr<Tessel::DynamicSlotAllocator<ViaValue>> values;
};

TEST(DeepValidate, ConsistentTablePassesAndCounts) {
   Testing::TempRoot root;
   Table t(root.path());
   EXPECT_EQ(t.offsetOf(0).slab(), 1u);   // 16 + 8 bytes: just above class 0 (W = 23)
   EXPECT_EQ(t.offsetOf(1).slab(), 10u);  // 16 + 228 + 8 bytes
   auto counts = Dock::deepValidate(*t.header(), *t.slabs);
   EXPECT_EQ(counts.freeSlots, 5u);
   EXPECT_EQ(counts.occupiedSlots, 5u);
   EXPECT_EQ(counts.slabEntries, 5u);
   auto again = Dock::validateTableFiles(t.dir, kM);  // read-only, as a tool would
   EXPECT_EQ(again.occupiedSlots, 5u);
   // A full table is consistent too.
   for (int i = 0; i < 5; ++i) t.insert(ViaValue(50 + i, 1));
   EXPECT_EQ(t.deep(), "");
   EXPECT_EQ(t.files(), "");
}

TEST(DeepValidate, FreeListFindings) {
   Testing::TempRoot root;
   {
      Table t(root.path());
      t.slot(9).next.store(15);
      EXPECT_EQ(t.deep(), "corrupted free slot detected with out of bound index: 15");
      EXPECT_EQ(t.files(), "corrupted free slot detected with out of bound index: 15");
   }
   {
      Table t(root.path());
      t.slot(9).next.store(6);
      EXPECT_EQ(t.deep(), "duplicate freeSlot detected: 6");
   }
   {
      Table t(root.path());
      t.slot(7).flags.store(t.slot(7).flags.load() | Dock::kOccupied);
      EXPECT_EQ(t.deep(), "duplicate slot: 7");
   }
}

TEST(DeepValidate, OccupiedSlotFindings) {
   Testing::TempRoot root;
   {
      Table t(root.path());
      // Slot 5 drops off the free list without becoming occupied.
      t.header()->freeSlots.store(6);
      EXPECT_EQ(t.deep(), "missing OCCUPIED bit: 0x0");
   }
   {
      Table t(root.path());
      t.slot(3).flags.fetch_add(2);  // a publication that never finished
      EXPECT_EQ(t.deep(), "stuck LOOKASIDE bit: 0x7");
   }
   {
      Table t(root.path());
      const uint32_t a = t.slot(0).offset.load(), b = t.slot(2).offset.load();
      t.slot(0).offset.store(b);
      t.slot(2).offset.store(a);
      EXPECT_EQ(t.deep(), fmt::format("Clientdata mismatch, slot 0 contains offset: {} but "
                                      "slabEntry references slot: 2",
                                      Offset::fromWord(b).toString()));
   }
   {
      Table t(root.path());
      t.slabs->free(t.offsetOf(1));
      EXPECT_EQ(t.deep(), fmt::format("slab.10::lookup() entry at index: {} is marked unoccupied",
                                      t.offsetOf(1).index()));
   }
   {
      Table t(root.path());
      t.slabs->lookup(t.offsetOf(4))
          ->payloadSize.store(int32_t(t.slabs->maxPayload(t.offsetOf(4))) + 1);
      EXPECT_EQ(t.deep(), fmt::format("slab.01::lookup() encountered payloadSize: {}, but max "
                                      "payloadSize:{} at index: {}",
                                      t.slabs->maxPayload(t.offsetOf(4)) + 1,
                                      t.slabs->maxPayload(t.offsetOf(4)), t.offsetOf(4).index()));
      // A fresh inspection attaches the slab lazily and refuses it as a whole.
      EXPECT_EQ(t.files(), fmt::format("corrupted slab: {}/slab.01 was detected when lazily "
                                       "attaching",
                                       t.dir));
   }
   {
      Table t(root.path());
      t.header()->occupiedSlots.store(6);
      EXPECT_EQ(t.deep(),
                "numSlots mismatch, length of freeList: 5, occupiedSlots: 6 do not add up to "
                "numSlots: 10");
   }
}

TEST(DeepValidate, SlabFindings) {
   Testing::TempRoot root;
   {
      Table t(root.path());
      t.slabs->alloc(10);  // allocated, named by no slot
      EXPECT_EQ(t.deep(), "validation failed, expected: 6 allocated SlabEntries but only saw: 5");
   }
   {
      Table t(root.path());
      Tessel::SlabWriter* s = t.slabs->attachedSlab(1);
      const uint32_t head = s->header()->freeList.load();
      s->getEntry(head)->payloadSize.store(0);
      EXPECT_EQ(t.deep(),
                fmt::format("slab.01::validate() found occupied entry with index: {} on free-list",
                            head));
   }
   {
      Table t(root.path());
      Tessel::SlabWriter* s = t.slabs->attachedSlab(10);
      s->header()->numOccupied.fetch_add(1);
      EXPECT_EQ(t.deep(),
                "slab.10::validate() found 2 occupied entries, but header's "
                "numOccupied: 3");
   }
   {
      Table t(root.path());
      Tessel::SlabWriter* s = t.slabs->attachedSlab(1);
      const uint32_t head = s->header()->freeList.load();
      s->header()->freeList.store(s->getEntry(head)->clientData.load());
      EXPECT_EQ(t.deep(),
                fmt::format("slab.01::validate() found {} entries on free-list and 3 occupied "
                            "entries, but header's numEntries: {}",
                            s->numEntries() - 4, s->numEntries()));
   }
   {
      Table t(root.path());
      // An unused, empty slab file that is damaged.
      Tessel::SlabWriter extra(t.slabs->slabPath(20), t.slabs->config().entrySize(20), 7);
      extra.create();
      extra.header()->version = 3;
      EXPECT_EQ(t.deep(),
                "slab.20::validateUnattached, validation failed on an empty slab, "
                "reason: bad version: 3 wanted: 1");
   }
}

TEST(DeepValidate, HeaderFailureOfTheFilesIsItsReason) {
   Testing::TempRoot root;
   Table t(root.path());
   t.header()->version = 1;
   EXPECT_EQ(t.files(), "bad version: 1");
   EXPECT_THROW(Dock::validateTableFiles(root.path() + "/none", kM), Region::Error);
}

// Flip every byte of the slot table file and of a slab file in turn, each time checking the files
// as a tool would: the check reports something or passes, and never crashes.
TEST(DeepValidate, DamageByteByByteIsReportedOrHarmless) {
   Testing::TempRoot root;
   Table t(root.path());
   ASSERT_EQ(t.files(), "");
   auto sweep = [&](uint8_t* bytes, size_t len, const char* what) {
      size_t reported = 0;
      for (size_t i = 0; i < len; ++i) {
         for (uint8_t mask : {uint8_t(0x01), uint8_t(0x80), uint8_t(0xff)}) {
            bytes[i] ^= mask;
            if (!t.files().empty()) ++reported;
            bytes[i] ^= mask;
         }
      }
      EXPECT_EQ(t.files(), "") << what;
      return reported;
   };
   // Every header byte the check relies on is guarded; most slot bytes are too.
   const size_t slotReports = sweep(t.slotsFile.data(), t.slotsFile.size(), "slots");
   EXPECT_GT(slotReports, 3u * 560);
   Tessel::SlabWriter* s = t.slabs->attachedSlab(10);
   const size_t slabLen = 40 + size_t(s->entrySize()) * 4;
   auto slab = Region::MappedFile::openReadWrite(s->path());
   const size_t slabReports = sweep(slab.data(), slabLen, "slab.10");
   EXPECT_GT(slabReports, 3u * 40);
}

}  // namespace
