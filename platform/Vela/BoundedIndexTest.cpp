#include <gtest/gtest.h>

#include "Vela/BoundedIndex.h"
#include "testing/Expect.h"

// The range error's text for a type's upper bound is pinned by the tables' index tests; here the
// lower bound, wide and negative values, increments and the printing of an 8-bit index.
namespace {

struct OffsetTag {
   static constexpr const char* typeName = "Test::OffsetIndex";
};
using OffsetIndex = Vela::BoundedIndex<OffsetTag, uint8_t, 5, 9>;

TEST(BoundedIndex, AcceptsExactlyItsRangeAndStopsAtItsBoundsWithoutChangingValue) {
   const auto refused = [](auto&& f) {
      EXPECT_EQ(Testing::errorText<Vela::RangeException>(f),
                "Test::OffsetIndex::value < Test::OffsetIndex::min or > Test::OffsetIndex::max "
                "not allowed");
   };
   EXPECT_EQ(OffsetIndex::capacity, 5u);
   EXPECT_EQ(OffsetIndex().value(), 5u);
   EXPECT_EQ(OffsetIndex(9).value(), 9u);
   refused([] { OffsetIndex{10}; });
   refused([] { OffsetIndex{4}; });
   refused([] { OffsetIndex{-1}; });
   refused([] { OffsetIndex{(uint64_t{1} << 40) + 5}; });  // not truncated into the range
   EXPECT_LT(OffsetIndex::min(), OffsetIndex::max());
   EXPECT_EQ(Testing::streamed(OffsetIndex::max()), "9");  // a number, not a character

   OffsetIndex i = OffsetIndex::max();
   refused([&] { ++i; });
   refused([&] { i++; });
   EXPECT_EQ(i, OffsetIndex::max());
   OffsetIndex j;
   EXPECT_EQ((j++).value(), 5u);
   EXPECT_EQ(j.value(), 6u);
   j += 3u;
   EXPECT_EQ(j, OffsetIndex::max());
   refused([&] { j += 1u; });
   refused([&] { j += uint64_t{1} << 63; });  // 0 if narrowed to 8 bits
   EXPECT_EQ(j, OffsetIndex::max());
   j += -1;
   EXPECT_EQ(j.value(), 8u);
   OffsetIndex k;
   refused([&] { k += -1; });
   EXPECT_EQ(k, OffsetIndex::min());
}

}  // namespace
