#include <gtest/gtest.h>

#include "TunnelTable/TunnelIndices.h"
#include "Vela/Exception.h"

namespace Tunnel::TunnelTable {
namespace {

// Each index with its last valid value and its range text spelled out in full.
template <typename Index, uint64_t Last>
struct Case {
   using Type = Index;
   static constexpr uint64_t last = Last;
   static const char* text();
};

using ViaCase = Case<ViaIndex, 599>;
using CollCase = Case<TunnelIdCollIndex, 599>;
using TepCase = Case<TepIndex, 15>;
using NameCase = Case<NameIndex, 127>;
using CosCase = Case<CosIndex, 7>;

template <>
const char* ViaCase::text() {
   return "Tunnel::TunnelTable::ViaIndex::value < Tunnel::TunnelTable::ViaIndex::min or > "
          "Tunnel::TunnelTable::ViaIndex::max not allowed";
}
template <>
const char* CollCase::text() {
   return "Tunnel::TunnelTable::TunnelIdCollIndex::value < "
          "Tunnel::TunnelTable::TunnelIdCollIndex::min or > "
          "Tunnel::TunnelTable::TunnelIdCollIndex::max not allowed";
}
template <>
const char* TepCase::text() {
   return "Tunnel::TunnelTable::TepIndex::value < Tunnel::TunnelTable::TepIndex::min or > "
          "Tunnel::TunnelTable::TepIndex::max not allowed";
}
template <>
const char* NameCase::text() {
   return "Tunnel::TunnelTable::NameIndex::value < Tunnel::TunnelTable::NameIndex::min or > "
          "Tunnel::TunnelTable::NameIndex::max not allowed";
}
template <>
const char* CosCase::text() {
   return "Tunnel::TunnelTable::CosIndex::value < Tunnel::TunnelTable::CosIndex::min or > "
          "Tunnel::TunnelTable::CosIndex::max not allowed";
}

template <typename C>
class TunnelIndicesTest : public ::testing::Test {};
using Cases = ::testing::Types<ViaCase, CollCase, TepCase, NameCase, CosCase>;
TYPED_TEST_SUITE(TunnelIndicesTest, Cases);

template <typename F>
void expectRangeText(F&& f, const char* text) {
   try {
      f();
      ADD_FAILURE() << "no range exception";
   } catch (const Vela::RangeException& e) {
      EXPECT_STREQ(e.what(), text);
   }
}

TYPED_TEST(TunnelIndicesTest, AcceptsItsRangeAndRefusesOneBeyondWithItsText) {
   using Index = typename TypeParam::Type;
   constexpr uint64_t last = TypeParam::last;
   EXPECT_EQ(Index(0).value(), 0u);
   EXPECT_EQ(Index(last).value(), last);
   EXPECT_EQ(Index::capacity, last + 1);
   expectRangeText([] { Index i(last + 1); }, TypeParam::text());
   expectRangeText([] { Index i(-1); }, TypeParam::text());
   Index at(last);
   expectRangeText([&] { ++at; }, TypeParam::text());
   EXPECT_EQ(at.value(), last);
   Index step(last - 1);
   ++step;
   EXPECT_EQ(step.value(), last);
}

TEST(TunnelIndicesWidthTest, RepresentationsHaveTheirWidths) {
   EXPECT_EQ(sizeof(ViaIndex::RepType), 2u);
   EXPECT_EQ(sizeof(TunnelIdCollIndex::RepType), 2u);
   EXPECT_EQ(sizeof(TepIndex::RepType), 4u);
   EXPECT_EQ(sizeof(NameIndex::RepType), 1u);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
