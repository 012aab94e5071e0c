// The deep check of a table's files: every finding reached by damaging a real, consistent table.
// (Arbitrary bytes, to be reported or passed but never a crash: fuzz/StoreAttachFuzz.cpp.)
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <tuple>

#include "Region/Error.h"
#include "Region/MappedFile.h"
#include "Region/StoreRoot.h"
#include "store/DeepValidate.h"
#include "store/format/SlotTable.h"
#include "testing/Expect.h"
#include "testing/StoreTestSupport.h"
#include "testing/TempRoot.h"

namespace {

using Dock::kNone;
using DockTest::Value;
using Tessel::Offset;
namespace SlotTable = Dock::SlotTable;

constexpr uint32_t kM = 704;
constexpr uint32_t kSlots = 10;

// A consistent table: slots 0..4 occupied (values in slabs 1 and 11), 5..9 on the free list.
struct Table {
   explicit Table(const std::string& root) : dir(root + "/tunnel/table/t/entry") {
      Region::makeDirectories(dir);
      slotsFile = Region::MappedFile::create(dir + "/slots", SlotTable::fileSizeFor(kSlots));
      SlotTable::format(header(), "DockTest::Value", 32, 64, 0, 7, 99, kSlots);
      for (uint32_t i = kSlots; i-- > 0;) {  // the free list yields 0, 1, 2, ...
         slot(i).next.store(header()->freeSlots.load());
         header()->freeSlots.store(i);
      }
      slabs = std::make_unique<Tessel::WriterAllocator>(dir, Tessel::LinearSizeConfig(kM), 7);
      slabs->create();
      for (uint32_t i = 0; i < 5; ++i) insert(Value(i, 1, i % 2 == 0 ? 0 : 3));
   }
   Dock::SlotTableHeader* header() {
      return reinterpret_cast<Dock::SlotTableHeader*>(slotsFile.data());
   }
   Dock::Slot& slot(uint32_t i) { return SlotTable::slots(header())[i]; }
   // Takes the free list's head slot and puts `v` in a new entry that names it, as a writer does.
   uint32_t insert(const Value& v) {
      const uint32_t i = header()->freeSlots.load();
      header()->freeSlots.store(slot(i).next.load());
      const Tessel::SlabValue stored = DockTest::storeValue(*slabs, i, v);
      slot(i).offset.store(stored.offset.value);
      slot(i).length.store(stored.length);
      slot(i).next.store(kNone);
      slot(i).flags.store((slot(i).flags.load() + Dock::kWriteStep) | Dock::kOccupied);
      header()->occupiedSlots.fetch_add(1);
      return i;
   }
   Offset offsetOf(uint32_t i) { return Offset::fromWord(slot(i).offset.load()); }
   // The finding of the deep check through the writer's open allocator, and of a fresh read-only
   // inspection of the files, as a tool makes it; "(no exception)" when the table passes.
   std::string deep() {
      return Testing::errorText([&] { Dock::deepValidate(*header(), *slabs); });
   }
   std::string files() {
      return Testing::errorText([&] { Dock::validateTableFiles(dir, kM); });
   }

   std::string dir;
   Region::MappedFile slotsFile;
   std::unique_ptr<Tessel::WriterAllocator> slabs;
};

// Each case damages a fresh consistent table and returns the finding the deep check must report.
// (The slab walk's own findings: SlabTest and SlabRepair in WriterAllocatorTest; one here shows
// the deep check passes them on.)
TEST(DeepValidate, ConsistentTablePassesAndEveryFindingIsReachedOnADamagedTable) {
   struct Case {
      const char* name;
      std::function<void(Table&)> damage;
      std::string want;
      bool filesToo;  // a fresh inspection of the files reports the same
   };
   // Slots 0, 2 and 4 name entries 0, 1 and 2 of slab 1; slots 1 and 3 entries 0 and 1 of slab 11.
   const Case cases[] = {
       {"free index out of bounds", [](Table& t) { t.slot(9).next.store(15); },
        "corrupted free slot detected with out of bound index: 15", true},
       {"free list loops", [](Table& t) { t.slot(9).next.store(6); },
        "duplicate freeSlot detected: 6", true},
       {"free slot occupied", [](Table& t) { t.slot(7).flags.fetch_or(Dock::kOccupied); },
        "duplicate slot: 7", true},
       // Slot 5 drops off the free list.
       {"slot neither free nor occupied", [](Table& t) { t.header()->freeSlots.store(6); },
        "missing OCCUPIED bit: 0x0", true},
       {"publication never finished", [](Table& t) { t.slot(3).flags.fetch_add(2); },
        "stuck LOOKASIDE bit: 0x7", true},
       {"offsets swapped",
        [](Table& t) {
           const uint32_t a = t.slot(0).offset.load();
           t.slot(0).offset.store(t.slot(2).offset.load());
           t.slot(2).offset.store(a);
        },
        "Clientdata mismatch, slot 0 contains offset: Offset{ slab: 1 index: 1 } but slabEntry "
        "references slot: 2",
        true},
       {"entry freed under its slot", [](Table& t) { t.slabs->free(t.offsetOf(1)); },
        "slab.11::lookup() entry at index: 0 is marked unoccupied", false},
       {"occupied count", [](Table& t) { t.header()->occupiedSlots.store(6); },
        "numSlots mismatch, length of freeList: 5, occupiedSlots: 6 do not add up to numSlots: 10",
        true},
       {"entry named by no slot", [](Table& t) { t.slabs->alloc(10); },
        "validation failed, expected: 6 allocated SlabEntries but only saw: 5", false},
       {"slab walk",
        [](Table& t) { t.slabs->attachedSlab(11)->header()->numOccupied.fetch_add(1); },
        "slab.11::validate() found 2 occupied entries, but header's numOccupied: 3", false},
       {"unused empty slab damaged",
        [](Table& t) {
           Tessel::SlabWriter extra(t.slabs->slabPath(20), t.slabs->config().entrySize(20), 7);
           extra.create();
           extra.header()->version = 3;
        },
        "slab.20::validateUnattached, validation failed on an empty slab, reason: bad version: 3 "
        "wanted: 1",
        true},
   };
   Testing::TempRoot root;
   {
      // Undamaged, the table passes with its counts; full, too, to a fresh inspection as well.
      Table t(root.path());
      const auto counts = Dock::deepValidate(*t.header(), *t.slabs);
      EXPECT_EQ(std::tuple(counts.freeSlots, counts.occupiedSlots, counts.slabEntries),
                std::tuple(5u, 5u, uint64_t(5)));  // free, occupied, slab entries
      for (int i = 0; i < 5; ++i) t.insert(Value(50 + i, 1, 1));
      EXPECT_EQ(t.deep(), "(no exception)");
      EXPECT_EQ(t.files(), "(no exception)");
   }
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      Table t(root.path());
      c.damage(t);
      EXPECT_EQ(t.deep(), c.want);
      if (c.filesToo) {
         EXPECT_EQ(t.files(), c.want);
      }
   }
   // An entry outgrowing its class: the deep check names the entry; a fresh inspection attaches
   // the slab lazily and refuses it as a whole.
   Table t(root.path());
   const Offset o = t.offsetOf(4);
   t.slabs->lookup(o)->payloadSize.store(int32_t(t.slabs->maxPayload(o)) + 1);
   EXPECT_EQ(t.deep(), fmt::format("slab.01::lookup() encountered payloadSize: {}, but max "
                                   "payloadSize:{} at index: {}",
                                   t.slabs->maxPayload(o) + 1, t.slabs->maxPayload(o), o.index()));
   EXPECT_EQ(t.files(),
             fmt::format("corrupted slab: {}/slab.01 was detected when lazily attaching", t.dir));
   // A header failure of the files comes first and is their reason; no files at all is the
   // mapping's error.
   t.header()->version = 1;
   EXPECT_EQ(t.files(), "bad version: 1");
   EXPECT_THROW(Dock::validateTableFiles(root.path() + "/none", kM), Region::Error);
}

}  // namespace
