// The plain reader: lookups through the writer's shared chains, iteration with hints, values by
// slot, attach steps and their texts, and the chain anomalies it refuses to loop on.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "Loom/CorruptionException.h"
#include "Region/MappedFile.h"
#include "Spoor/Trace.h"
#include "store/reader/BucketReader.h"
#include "store/reader/DockReader.h"
#include "store/writer/DockWriter.h"
#include "store/StoreTestSupport.h"
#include "testing/Expect.h"
#include "testing/TempRoot.h"

namespace Dock {
namespace {

using DockTest::KeyOf;
using DockTest::Value;
using Writer = DockWriter<uint64_t, Value, KeyOf>;
using Reader = DockReader<uint64_t, Value, KeyOf>;

using DockTest::tableConfig;

TEST(DockReader, LooksUpEveryKeyAndFollowsGrowth) {
   Testing::TempRoot root;
   Writer w(tableConfig());
   w.initialize("t/plain");
   for (uint64_t k = 1; k <= 20; ++k) w.write(Value(k, 1, uint32_t(k % 5 + 1)));
   Reader r("plain", w.directory());
   ASSERT_TRUE(r.attach()) << r.lastStatus();
   EXPECT_EQ(r.lastStatus().rfind(fmt::format("success {} capacity:{} relumeId:{} mtime:",
                                              w.directory(), w.capacity(), w.relumeId()),
                                  0),
             0u)
       << r.lastStatus();
   EXPECT_NE(r.lastStatus().find(" event:1"), std::string::npos);
   for (uint64_t k = 1; k <= 20; ++k) EXPECT_EQ(r.lookup(k), Value(k, 1, uint32_t(k % 5 + 1)));
   EXPECT_FALSE(r.lookup(21).has_value());
   // The writer grows slots and buckets; the attached reader follows both.
   const uint32_t attachedBuckets = r.buckets();
   Spoor::Capture cap;
   for (uint64_t k = 21; k <= 2000; ++k) w.write(Value(k, 2, 1));
   ASSERT_GT(w.buckets(), 16u);
   for (uint64_t k = 21; k <= 2000; k += 37) EXPECT_EQ(r.lookup(k), Value(k, 2, 1));
   EXPECT_EQ(r.buckets(), w.buckets());
   EXPECT_EQ(cap.count("DockReader", fmt::format("found mismatch, local numBuckets:{} header "
                                                 "numBuckets:{}",
                                                 attachedBuckets, w.buckets())),
             1u);
   EXPECT_EQ(r.capacity(), w.capacity());
   EXPECT_EQ(r.members(), 2000u);
   const uint32_t slot = w.slotOf(77);
   EXPECT_EQ(r.getValue(slot), Value(77, 2, 1));
   w.remove(77);
   EXPECT_FALSE(r.getValue(slot).has_value());
   EXPECT_FALSE(r.lookup(77).has_value());
}

TEST(DockReader, IterationWithHintsVisitsEveryKeyOnceAndSurvivesChanges) {
   Testing::TempRoot root;
   Writer w(tableConfig());
   w.initialize("t/iter");
   for (uint64_t k = 1; k <= 300; ++k) w.write(Value(k, 1, 1));
   Reader r("iter", w.directory());
   ASSERT_TRUE(r.attach());
   std::set<uint64_t> keys;
   IterHint hint;
   Value v;
   for (bool ok = r.first(hint, v); ok; ok = r.next(hint, v)) {
      EXPECT_TRUE(keys.insert(v.key).second) << v.key;
   }
   EXPECT_EQ(keys.size(), 300u);
   EXPECT_FALSE(hint.valid());

   // Change the hinted slot between steps: the step restarts from the hinted bucket.
   ASSERT_TRUE(r.first(hint, v));
   const IterHint saved = hint;
   w.write(Value(v.key, 2, 2));  // the slot's flags word moves on
   Spoor::Capture cap;
   keys.clear();
   keys.insert(v.key);
   for (bool ok = r.next(hint, v); ok; ok = r.next(hint, v)) keys.insert(v.key);
   EXPECT_EQ(keys.size(), 300u);
   EXPECT_EQ(cap.count("DockReader", fmt::format("iter next bucket {} using ", saved.bucket)), 1u);
   EXPECT_EQ(cap.count("DockReader", "saving new slot hint"), 1u);
}

TEST(DockReader, AttachReportsEachMissingPiece) {
   Testing::TempRoot root;
   Reader none("none", root.path() + "/absent");
   EXPECT_FALSE(none.attach());
   EXPECT_EQ(none.lastStatus(), "no shared memory region");
   ::mkdir((root.path() + "/empty").c_str(), 0755);
   Reader empty("empty", root.path() + "/empty");
   EXPECT_FALSE(empty.attach());
   EXPECT_EQ(empty.lastStatus(), "cannot attach to shmem size:0");

   Writer w(tableConfig());
   w.initialize("t/steps");
   const std::string dir = w.directory();
   {
      Region::MappedFile b = Region::MappedFile::openReadWrite(dir + "/buckets");
      b.data()[28] ^= 1;  // the check word
   }
   Reader bad("bad", dir);
   EXPECT_FALSE(bad.attach());
   EXPECT_EQ(bad.lastStatus(), "failed to validate buckets");
   {
      Region::MappedFile b = Region::MappedFile::openReadWrite(dir + "/buckets");
      b.data()[28] ^= 1;
      Region::MappedFile s = Region::MappedFile::openReadWrite(dir + "/slots");
      s.data()[8] = 99;  // version
   }
   EXPECT_FALSE(bad.attach());
   EXPECT_EQ(bad.lastStatus(), "failed to validate slots");
   ::unlink((dir + "/relume").c_str());
   EXPECT_FALSE(bad.attach());
   EXPECT_EQ(bad.lastStatus(), "failed to read relume file");
   ::unlink((dir + "/buckets").c_str());
   EXPECT_FALSE(bad.attach());
   EXPECT_EQ(bad.lastStatus(), "failed to attach to buckets");
}

TEST(DockReader, ChainAnomaliesAreReportedNotLoopedOn) {
   Testing::TempRoot root;
   Writer w(tableConfig());
   w.initialize("t/chains");
   Region::MappedFile f = Region::MappedFile::openReadWrite(w.directory() + "/slots");
   const uint32_t seed = reinterpret_cast<const SlotTableHeader*>(f.data())->hashSeed;
   const uint32_t mask = w.buckets() - 1;
   // Two keys in one chain (the later one links to the earlier one), whatever the table's seed:
   // key 1 and the first key hashing to its bucket.
   uint64_t partner = 2;
   while ((KeyTraits<uint64_t>::hash(partner, seed) & mask) !=
          (KeyTraits<uint64_t>::hash(1, seed) & mask)) {
      ++partner;
   }
   w.write(Value(1, 1, 1));
   w.write(Value(partner, 1, 1));
   Slot* slots = SlotTable::slots(reinterpret_cast<SlotTableHeader*>(f.data()));
   uint32_t head = kNone, second = kNone;
   for (uint64_t k : {uint64_t(1), partner}) {
      if (second != kNone) break;
      const uint32_t s = w.slotOf(k);
      if (slots[s].next.load() != kNone) {
         head = s;
         second = slots[s].next.load();
      }
   }
   ASSERT_NE(second, kNone) << "keys 1 and " << partner << " share a bucket but no chain";
   // An absent key of the chain's bucket.
   uint64_t probe = partner + 1;
   while ((KeyTraits<uint64_t>::hash(probe, seed) & mask) != (slots[head].keyHash.load() & mask)) {
      ++probe;
   }
   Reader r("chains", w.directory());
   ASSERT_TRUE(r.attach());
   EXPECT_FALSE(r.lookup(probe).has_value());

   // Each damage to the chain's second slot, undone after its lookup.
   auto lookupWith = [&](std::atomic<uint32_t>& word, uint32_t value) {
      const uint32_t saved = word.exchange(value);
      const std::string text =
          Testing::errorText<Loom::CorruptionException>([&] { r.lookup(probe); });
      word.store(saved);
      return text;
   };
   EXPECT_EQ(lookupWith(slots[second].next, head),  // a cycle
             fmt::format("hash chain cycle detected, slotCount:{} capacity:{}", w.capacity() + 1,
                         w.capacity()));
   EXPECT_EQ(lookupWith(slots[second].flags, slots[second].flags.load() & ~kOccupied),
             fmt::format("slot:{} not marked as occupied key:{}", second, probe));
   const uint32_t hash = slots[second].keyHash.load();
   EXPECT_EQ(lookupWith(slots[second].keyHash, hash + 1),
             fmt::format("corrupt key detected. key:{} bucketIndex {}", probe, hash & mask));
   EXPECT_FALSE(r.lookup(probe).has_value());
}

}  // namespace
}  // namespace Dock
