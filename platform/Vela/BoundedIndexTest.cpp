#include <gtest/gtest.h>

#include <string>

#include "Vela/BoundedIndex.h"
#include "testing/Expect.h"

namespace {

struct ViaTag {
   static constexpr const char* typeName = "Tunnel::TunnelTable::ViaIndex";
};
struct TepTag {
   static constexpr const char* typeName = "Tunnel::TunnelTable::TepIndex";
};
struct NameTag {
   static constexpr const char* typeName = "Tunnel::TunnelTable::NameIndex";
};
struct OffsetTag {
   static constexpr const char* typeName = "Test::OffsetIndex";
};

using ViaIndex = Vela::BoundedIndex<ViaTag, uint16_t, 0, 599>;
using TepIndex = Vela::BoundedIndex<TepTag, uint32_t, 0, 15>;
using NameIndex = Vela::BoundedIndex<NameTag, uint8_t, 0, 127>;
using OffsetIndex = Vela::BoundedIndex<OffsetTag, uint8_t, 5, 9>;

// `f` throws the range error that names I's type.
template <typename I, typename F>
void expectRangeError(F&& f) {
   const std::string t = I::TagType::typeName;
   EXPECT_EQ(Testing::errorText<Vela::RangeException>(f),
             t + "::value < " + t + "::min or > " + t + "::max not allowed");
}

template <typename I>
class BoundedIndexTest : public ::testing::Test {};
using IndexTypes = ::testing::Types<ViaIndex, TepIndex, NameIndex, OffsetIndex>;
TYPED_TEST_SUITE(BoundedIndexTest, IndexTypes);

TYPED_TEST(BoundedIndexTest, AcceptsExactlyItsRangeAndNamesTypeWhenRefusing) {
   using I = TypeParam;
   constexpr uint64_t lo = I::min().value();
   constexpr uint64_t hi = I::max().value();
   EXPECT_EQ(I::capacity, hi - lo + 1);
   EXPECT_EQ(I(lo).value(), lo);
   EXPECT_EQ(I(hi).value(), hi);
   EXPECT_EQ(I().value(), lo);
   expectRangeError<I>([] { I{hi + 1}; });
   expectRangeError<I>([] { I{-1}; });
   // A wide value whose low bits would fit must not be truncated into the range.
   expectRangeError<I>([] { I{(uint64_t{1} << 40) + lo}; });
   if constexpr (lo > 0) expectRangeError<I>([] { I{lo - 1}; });
}

TYPED_TEST(BoundedIndexTest, IncrementStopsAtMaxWithoutChangingValue) {
   using I = TypeParam;
   I i = I::max();
   expectRangeError<I>([&] { ++i; });
   expectRangeError<I>([&] { i++; });
   EXPECT_EQ(i, I::max());

   I j = I::min();
   EXPECT_EQ((j++).value(), I::min().value());
   EXPECT_EQ(j.value(), I::min().value() + 1);
   j += I::capacity - 2;
   EXPECT_EQ(j, I::max());
   expectRangeError<I>([&] { j += 1u; });
   expectRangeError<I>([&] { j += uint64_t{1} << 63; });
   EXPECT_EQ(j, I::max());
   j += -1;
   EXPECT_EQ(j.value(), I::max().value() - 1);
   I k = I::min();
   expectRangeError<I>([&] { k += -1; });
}

TYPED_TEST(BoundedIndexTest, OrdersByValueAndPrintsDecimal) {
   using I = TypeParam;
   EXPECT_LT(I::min(), I::max());
   EXPECT_NE(I::min(), I::max());
   EXPECT_EQ(I::min(), I(I::min().value()));
   EXPECT_EQ(Testing::streamed(I::max()), std::to_string(I::max().value()));
}

static_assert(Vela::BoundedIndexType<ViaIndex> && !Vela::BoundedIndexType<uint16_t>);

}  // namespace
