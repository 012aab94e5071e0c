// The deep check of a table's files: every finding reached by damaging a real, consistent table.
// (Arbitrary bytes, to be reported or passed but never a crash: fuzz/StoreAttachFuzz.cpp.)
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <tuple>
#include <vector>

#include "Region/Error.h"
#include "Region/MappedFile.h"
#include "Region/RelumeFile.h"
#include "Region/StoreRoot.h"
#include "store/DeepValidate.h"
#include "store/format/SlotTable.h"
#include "store/herald/HeraldWriter.h"
#include "store/reader/DockReader.h"
#include "store/writer/BucketWriter.h"
#include "store/writer/DockWriter.h"
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
      // The files beside them, as a writer makes them; every key hash is 0 (bucket 0).
      buckets.create(dir + "/buckets", 7, 99, 16);
      herald.create(dir, 7, 64);
      Region::RelumeFile::write(dir, 7);
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
      slot(i).next.store(buckets.head(0));
      buckets.headIs(0, {i});
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
   Dock::BucketWriter buckets;
   Dock::HeraldWriter herald;
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
           extra.header()->version = 4;
        },
        "slab.20::validateUnattached, validation failed on an empty slab, reason: bad version: 4 "
        "wanted: 3",
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

// A word of a table file, read-write, for damaging it.
template <class T>
std::atomic<T>& word(Region::MappedFile& file, size_t offset) {
   return *reinterpret_cast<std::atomic<T>*>(file.data() + offset);
}

// A finding on a table whose herald's wake count is bumped without pause is no verdict: after the
// walks allowed it is busy; held still, the same table is corrupt.
TEST(DeepValidate, AFindingOnATableThatNeverHoldsStillIsBusyNotCorruption) {
   Testing::TempRoot root;
   Table t(root.path());
   t.header()->occupiedSlots.store(6);
   auto herald = Region::MappedFile::openReadWrite(t.dir + "/herald");
   std::atomic<bool> stop{false};
   std::thread bump([&] {
      while (!stop.load()) word<uint32_t>(herald, 20).fetch_add(1, std::memory_order_relaxed);
   });
   Dock::ValidatePatience patience;
   patience.walks = 3;
   EXPECT_EQ(
       Testing::errorText<Dock::TableBusy>([&] { Dock::validateTableFiles(t.dir, kM, patience); }),
       fmt::format("busy, try again: {} changed during each of 3 walks", t.dir));
   stop.store(true);
   bump.join();
   EXPECT_EQ(t.files(),
             "numSlots mismatch, length of freeList: 5, occupiedSlots: 6 do not add "
             "up to numSlots: 10");
}

using Writer = Dock::DockWriter<uint64_t, Value, DockTest::KeyOf>;

std::string validation(const std::string& dir) {
   return Testing::errorText([&] { Dock::validateTableFiles(dir, DockTest::kMaxValueSize); });
}

// Each damage of a file readers depend on, as validation reports it; a restarted writer then
// leaves files that validation accepts and a plain reader reads (entries kept, or all lost when
// the writer re-formatted).
TEST(DeepValidate, EveryFileReadersDependOnIsCheckedAndARestartedWriterRepairsIt) {
   using Dock::MountStatus;
   using Damage = std::function<std::string(Region::MappedFile & file, const std::string& dir)>;
   const size_t slot3 = Dock::kSlotHeaderSize + 3 * Dock::kSlotSize;
   const auto store = [](size_t offset, uint64_t value, std::string want) -> Damage {
      return [=](Region::MappedFile& f, const std::string&) {
         word<uint64_t>(f, offset).store(value);
         return want;
      };
   };
   const auto cut = [](off_t size, std::string want) -> Damage {
      return [=](Region::MappedFile& f, const std::string&) {
         EXPECT_EQ(::ftruncate(f.fd(), size), 0);
         return want;
      };
   };
   const std::tuple<const char*, Damage, MountStatus> cases[] = {
       {Dock::kSlotsFile,
        [&](Region::MappedFile& f, const std::string&) {  // the recorded length
           const uint32_t was = word<uint32_t>(f, slot3 + 20).fetch_add(1);
           return fmt::format("slot:3 offset:{} payloadSize:{} but slot length:{}",
                              Offset::fromWord(word<uint32_t>(f, slot3 + 16)), was, was + 1);
        },
        MountStatus::kReformatted},
       {Dock::kSlotsFile, cut(off_t(1) << 36, "bad file size:68719476736"),
        MountStatus::kReformatted},
       {Dock::kSlotsFile, cut(8, "bad version: 0"), MountStatus::kReformatted},
       {Dock::kHeraldFile, store(0, 0, "herald: bad magic: 0"), MountStatus::kReattached},
       {Dock::kHeraldFile,
        [](Region::MappedFile& f, const std::string&) {
           const uint64_t pos = word<uint64_t>(f, 32).fetch_add(1) + 1;
           return fmt::format(
               "herald: bad writerPos: {} latest notification seq:{:#x} wanted:{:#x}", pos,
               Dock::kHeraldSeqBusy, word<uint64_t>(f, 24) + pos - 1);
        },
        MountStatus::kReattached},
       {Dock::kRelumeFile, store(0, 5, "relume: bad magic: 5"), MountStatus::kReattached},
       // 64 buckets and slots: a head past them, then every head cleared (slot 0 unreachable).
       {Dock::kBucketsFile,
        store(Dock::kBucketHeaderSize, 1000, "buckets: bad head: 1000 of bucket 0 numSlots: 64"),
        MountStatus::kReattached},
       {Dock::kBucketsFile,
        [](Region::MappedFile& f, const std::string& dir) {
           std::memset(f.data() + Dock::kBucketHeaderSize, 0xff, 64 * 4);
           auto slots = Region::MappedFile::openReadOnly(dir + "/slots");
           const uint32_t hash = word<uint32_t>(slots, Dock::kSlotHeaderSize + 4);
           return fmt::format(
               "buckets: occupied slot 0 with keyHash {:#x} is not reachable from bucket {}", hash,
               hash % 64);
        },
        MountStatus::kReattached},
       {Dock::kIntentFile,
        store(8, uint64_t(0x9ff) << 32 | Dock::kIntentVersion, "slabs.intent: bad op: 0x9ff"),
        MountStatus::kReattached},
   };
   for (const auto& [file, damage, restart] : cases) {
      Testing::TempRoot root;
      std::optional<Writer> w(std::in_place, DockTest::tableConfig(64));
      w->initialize("t/damaged");
      for (uint64_t k = 1; k <= 40; ++k) w->write(Value(k, 1, uint32_t(k % 7 + 1)));
      w->flush();
      const std::string dir = w->directory();
      w.reset();
      ASSERT_EQ(validation(dir), "(no exception)");
      auto mapped = Region::MappedFile::openReadWrite(dir + "/" + file);
      const std::string want = damage(mapped, dir);
      SCOPED_TRACE(want);
      EXPECT_EQ(validation(dir), want);
      w.emplace(DockTest::tableConfig(64));
      w->initialize("t/damaged");
      EXPECT_EQ(w->mountStatus(), restart) << w->reformatReason();
      EXPECT_EQ(validation(dir), "(no exception)");
      Dock::DockReader<uint64_t, Value, DockTest::KeyOf> r("damaged", dir);
      ASSERT_TRUE(r.attach()) << r.lastStatus();
      for (uint64_t k = 1; k <= 40; ++k) {
         EXPECT_EQ(r.lookup(k), restart == MountStatus::kReattached
                                    ? std::optional(Value(k, 1, uint32_t(k % 7 + 1)))
                                    : std::nullopt);
      }
   }
}

// A writer process churns (writes, removals, growing to about 3000 keys and shrinking back) in
// bursts while validation runs again and again: it never reports damage that is not there, and
// between bursts it gets a verdict.
TEST(DeepValidate, NeverReportsCorruptionAgainstAWriterUnderChurn) {
   Testing::TempRoot root;
   Testing::Pipe ready;
   const pid_t writer = Testing::forkChild([&] {
      Writer w(DockTest::tableConfig(16));
      w.initialize("t/churn");
      ready.send();
      for (uint64_t i = 0;; ++i) {
         // Rounds of 8000 operations: mostly writes in the first half, mostly removals after.
         const uint64_t h = DockTest::mix(i), key = 1 + h % 3000;
         if ((h >> 32) % 8 < (i % 8000 < 4000 ? 1u : 6u)) {
            w.remove(key);
         } else {
            w.write(Value(key, i, 1 + uint32_t((h >> 40) % 40)));
         }
         if (i % 64 == 63) {
            w.flush();
            std::this_thread::sleep_for(std::chrono::microseconds(500));
         }
      }
      return 0;
   });
   ASSERT_EQ(ready.receive(), 'x');
   const std::string dir = Region::tableDirectory(root.path(), "t/churn");
   uint32_t valid = 0, busy = 0;
   std::vector<std::string> falseReports;
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
   for (int run = 0; run < 200 && std::chrono::steady_clock::now() < deadline; ++run) {
      try {
         Dock::validateTableFiles(dir, DockTest::kMaxValueSize);
         ++valid;
      } catch (const Dock::TableBusy&) {
         ++busy;
      } catch (const std::exception& e) {
         falseReports.push_back(e.what());
      }
   }
   ::kill(writer, SIGKILL);
   EXPECT_EQ(Testing::waitChild(writer), 128 + SIGKILL);
   EXPECT_EQ(falseReports, std::vector<std::string>());
   EXPECT_GT(valid, 0u) << busy << " busy";
}

}  // namespace
