// Shadow index: sorted split-ordered chains, growth by splitting, update-in-place, traces.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

#include "Spoor/Trace.h"
#include "Vela/Exception.h"
#include "store/reader/ShadowHashMap.h"
#include "testing/Expect.h"

namespace Dock {
namespace {

std::vector<const ShadowRecord*> chain(const ShadowHashMap& m, uint32_t bucket) {
   std::vector<const ShadowRecord*> out;
   for (const ShadowRecord* r = m.bucketHead(bucket); r; r = r->next) out.push_back(r);
   return out;
}

TEST(ShadowHashMap, ReverseBitsMirrorsTheWord) {
   EXPECT_EQ(reverseHash(1u), 0x80000000u);
   EXPECT_EQ(reverseHash(0x80000000u), 1u);
   EXPECT_EQ(reverseHash(0x0000000Fu), 0xF0000000u);
   EXPECT_EQ(reverseHash(0x12345678u), 0x1E6A2C48u);
}

TEST(ShadowHashMap, GrowingFromOneToTwoBucketsMovesExactlyTheTopBitEntriesInOrder) {
   // maxBits 0 first: the map cannot grow, so all records stay in bucket 0, sorted.
   ShadowHashMap m("grow", 0);
   std::deque<ShadowRecord> recs(6);
   const uint32_t hashes[] = {0xF0000000u, 0x10000000u, 0x80000001u,
                              0x7FFFFFFFu, 0x80000000u, 0x00000001u};
   for (uint32_t i = 0; i < 6; ++i) {
      recs[i].hash = hashes[i];
      recs[i].secondary = i;
      m.write(i, recs[i]);
   }
   const auto before = chain(m, 0);
   ASSERT_EQ(before.size(), 6u);
   for (size_t i = 1; i < before.size(); ++i) EXPECT_LT(before[i - 1]->hash, before[i]->hash);

   ShadowHashMap big("grow2", 1);
   std::deque<ShadowRecord> recs2(6);
   for (uint32_t i = 0; i < 6; ++i) recs2[i] = ShadowRecord{.hash = hashes[i], .secondary = i};
   // Three records fit one bucket (3 > 1 << 1 triggers growth at the third).
   Spoor::Capture cap;
   big.write(0, recs2[0]);
   big.write(1, recs2[1]);
   EXPECT_EQ(big.buckets(), 1u);
   big.write(2, recs2[2]);
   ASSERT_EQ(big.buckets(), 2u);
   EXPECT_EQ(cap.count("ShadowHashMap", "grow2 buckets growing from:1 to:2"), 1u);
   EXPECT_EQ(cap.count("ShadowHashMap", "grow2 splitting bucket 0 to buckets 0 and 1"), 1u);
   std::vector<uint32_t> low, high;
   for (auto* r : chain(big, 0)) low.push_back(r->hash);
   for (auto* r : chain(big, 1)) high.push_back(r->hash);
   EXPECT_EQ(low, (std::vector<uint32_t>{0x10000000u}));
   EXPECT_EQ(high, (std::vector<uint32_t>{0x80000001u, 0xF0000000u}));
   // Back links are consistent after the split.
   for (uint32_t b = 0; b < 2; ++b) {
      ShadowRecord* const* link = nullptr;
      for (const ShadowRecord* r = big.bucketHead(b); r; r = r->next) {
         if (!link) {
            EXPECT_EQ(*r->prevLink, r);
         } else {
            EXPECT_EQ(r->prevLink, link);
         }
         link = &r->next;
      }
   }
}

TEST(ShadowHashMap, SplitKeepsOrderAcrossManyGrowths) {
   ShadowHashMap m("many");
   std::deque<ShadowRecord> recs(5000);
   std::mt19937 rng(7);
   for (uint32_t i = 0; i < recs.size(); ++i) {
      recs[i].hash = rng();
      recs[i].secondary = rng();
      m.write(i, recs[i]);
   }
   EXPECT_EQ(m.size(), 5000u);
   EXPECT_GE(uint64_t(m.buckets()) << ShadowHashMap::kLoadShift, 5000u);
   uint64_t seen = 0;
   for (uint32_t b = 0; b < m.buckets(); ++b) {
      const ShadowRecord* prev = nullptr;
      for (const ShadowRecord* r = m.bucketHead(b); r; r = r->next) {
         EXPECT_EQ(m.bucketOf(r->hash), b);
         if (prev) {
            EXPECT_TRUE(prev->hash < r->hash ||
                        (prev->hash == r->hash && prev->secondary < r->secondary));
         }
         prev = r;
         ++seen;
      }
   }
   EXPECT_EQ(seen, 5000u);
   for (auto& r : recs) EXPECT_EQ(m.find(r.hash, r.secondary), &r);
   for (uint32_t i = 0; i < recs.size(); i += 2) m.remove(recs[i]);
   EXPECT_EQ(m.size(), 2500u);
   for (uint32_t i = 0; i < recs.size(); ++i) {
      EXPECT_EQ(m.find(recs[i].hash, recs[i].secondary), i % 2 ? &recs[i] : nullptr);
   }
}

TEST(ShadowHashMap, SameRecordTwiceNeedsNoUpdateAndSameKeyElsewhereReplaces) {
   ShadowHashMap m("upd");
   ShadowRecord a, b, c, other;
   a.hash = b.hash = 0x40000000u;
   a.secondary = b.secondary = 42;
   other.hash = 0x40000000u;
   other.secondary = 41;
   c.hash = 0x40000000u;
   c.secondary = 43;
   Spoor::Capture cap;
   EXPECT_EQ(m.write(3, other), ShadowHashMap::WriteResult::inserted);
   EXPECT_EQ(cap.count("ShadowHashMap", "upd slot:3 bucket:0 value inserted in fresh bucket"), 1u);
   EXPECT_EQ(m.write(7, a), ShadowHashMap::WriteResult::inserted);
   EXPECT_EQ(cap.count("ShadowHashMap", "upd slot:7 bucket:0 value inserted"), 1u);
   EXPECT_EQ(m.write(7, a), ShadowHashMap::WriteResult::unchanged);
   EXPECT_EQ(cap.count("ShadowHashMap", "upd slot:7 bucket:0 no index update needed"), 1u);
   m.write(8, c);
   ShadowRecord* replaced = nullptr;
   EXPECT_EQ(m.write(9, b, &replaced), ShadowHashMap::WriteResult::updated);
   EXPECT_EQ(cap.count("ShadowHashMap", "upd slot:9 bucket:0 replaces slot:7 value updated"), 1u);
   EXPECT_EQ(replaced, &a);
   EXPECT_FALSE(a.linked());
   EXPECT_EQ(m.size(), 3u);
   EXPECT_EQ(m.find(0x40000000u, 42), &b);
   std::vector<const ShadowRecord*> expected{&other, &b, &c};
   std::vector<const ShadowRecord*> got;
   for (const ShadowRecord* r = m.bucketHead(0); r; r = r->next) got.push_back(r);
   EXPECT_EQ(got, expected);
}

TEST(ShadowHashMap, FailedEnlargementNamesMapAndCounts) {
   ShadowHashMap m("tiny", 2);
   m.grow();
   m.grow();
   EXPECT_EQ(Testing::errorText<Vela::Exception>([&] { m.grow(); }),
             "failed to resize tiny from 4 to 8 buckets : more than 4 buckets");
   EXPECT_EQ(m.buckets(), 4u);
}

}  // namespace
}  // namespace Dock
