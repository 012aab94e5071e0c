#include <gtest/gtest.h>

#include "TunnelTable/TunnelIndices.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

// Each index with its last valid value and its range text spelled out in full.
#define INDEX_CASE(Name, Index, Last, Qualified)                                        \
   struct Name {                                                                        \
      using Type = Index;                                                               \
      static constexpr uint64_t last = Last;                                            \
      static constexpr const char* text =                                               \
          Qualified "::value < " Qualified "::min or > " Qualified "::max not allowed"; \
   }
INDEX_CASE(ViaCase, ViaIndex, 599, "Tunnel::TunnelTable::ViaIndex");
INDEX_CASE(CollCase, TunnelIdCollIndex, 599, "Tunnel::TunnelTable::TunnelIdCollIndex");
INDEX_CASE(TepCase, TepIndex, 15, "Tunnel::TunnelTable::TepIndex");
INDEX_CASE(NameCase, NameIndex, 127, "Tunnel::TunnelTable::NameIndex");
INDEX_CASE(CosCase, CosIndex, 7, "Tunnel::TunnelTable::CosIndex");
#undef INDEX_CASE

template <typename C>
class TunnelIndicesTest : public ::testing::Test {};
using Cases = ::testing::Types<ViaCase, CollCase, TepCase, NameCase, CosCase>;
TYPED_TEST_SUITE(TunnelIndicesTest, Cases);

template <typename F>
void expectRangeText(F&& f, const char* text) {
   EXPECT_EQ(Testing::errorText<Vela::RangeException>(f), text);
}

TYPED_TEST(TunnelIndicesTest, AcceptsItsRangeAndRefusesOneBeyondWithItsText) {
   using Index = typename TypeParam::Type;
   constexpr uint64_t last = TypeParam::last;
   EXPECT_EQ(Index(0).value(), 0u);
   EXPECT_EQ(Index(last).value(), last);
   EXPECT_EQ(Index::capacity, last + 1);
   expectRangeText([] { Index i(last + 1); }, TypeParam::text);
   expectRangeText([] { Index i(-1); }, TypeParam::text);
   Index at(last);
   expectRangeText([&] { ++at; }, TypeParam::text);
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
