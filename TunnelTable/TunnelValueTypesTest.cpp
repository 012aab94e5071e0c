// The small value types of the tunnel table (preferences, bandwidth, encapsulation and RIB ids, the
// bounded indices, the colored tunnel endpoint): texts, bytes, hash, order and range errors.
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <set>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/ColoredTunnelEndpoint.h"
#include "TunnelTable/TunnelIndices.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/Errors.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

template <typename T>
T fromText(const Vela::String& text) {
   return T(text.begin(), text.end());
}

using Testing::errorText;

// The exact text form of `v`, as valueToStrep and streamed, and that it reads back.
template <typename T>
void expectText(const T& v, const Vela::String& text) {
   EXPECT_EQ(valueToStrep(v), text);
   EXPECT_EQ(Testing::streamed(v), text);
   EXPECT_EQ(fromText<T>(text), v);
}

TEST(TunnelValueTypesTest, EntryPrefTextFormReadsAttributeValue) {
   expectText(TunnelEntryPref(55),
              "Value('Tunnel::TunnelTable::TunnelEntryPref', ** {'value': 55})");
   EXPECT_EQ(fromText<TunnelEntryPref>(valueToStrep(TunnelEntryPref(255))).value(), 255);
   EXPECT_EQ(errorText<Vela::ParseException>([] {
                fromText<TunnelEntryPref>(
                    "Value('Tunnel::TunnelTable::TunnelEntryPref', ** {'value': 256})");
             }).rfind("cannot read attribute 'value' of Tunnel::TunnelTable::TunnelEntryPref: ", 0),
             0u);
   EXPECT_LT(TunnelEntryPref(15), TunnelEntryPref(85));
}

TEST(TunnelValueTypesTest, IgpPrefIsItsDecimalNumber) {
   expectText(TunnelIgpPref(4294967295u), "4294967295");
   expectText(TunnelIgpPref(115), "115");
   EXPECT_EQ(
       fromText<TunnelIgpPref>("Value('Tunnel::TunnelTable::TunnelIgpPref', ** {'value': 7})"),
       TunnelIgpPref(7));
   EXPECT_THROW(fromText<TunnelIgpPref>("4294967296"), Vela::ParseException);
   EXPECT_THROW(fromText<TunnelIgpPref>("-1"), Vela::ParseException);
   EXPECT_THROW(fromText<TunnelIgpPref>(""), Vela::ParseException);
}

TEST(TunnelValueTypesTest, BandwidthOrdersSmallerFirstAndEqualsByBits) {
   EXPECT_LT(TunnelBandwidth(1.0f), TunnelBandwidth(2.5f));
   EXPECT_LT(TunnelBandwidth(-0.0f), TunnelBandwidth(0.0f));
   EXPECT_NE(TunnelBandwidth(-0.0f), TunnelBandwidth(0.0f));
   const TunnelBandwidth nan(std::numeric_limits<float>::quiet_NaN());
   const TunnelBandwidth copy = nan;
   EXPECT_EQ(copy, nan);
   EXPECT_LT(TunnelBandwidth(std::numeric_limits<float>::infinity()), nan);
   expectText(TunnelBandwidth(1.5f),
              "Value('Tunnel::TunnelTable::TunnelBandwidth', ** {'value': 1.5})");
   for (float f : {0.1f, 1e-30f, 3.4e38f, 100.0f, -2.0f}) {
      EXPECT_EQ(fromText<TunnelBandwidth>(valueToStrep(TunnelBandwidth(f))), TunnelBandwidth(f));
   }
}

TEST(TunnelValueTypesTest, EncapIdSetsTypeAndValueTogetherInOneWord) {
   EncapId id;
   id.encapValueIs(EncapType::gre, 7);
   EXPECT_EQ(id.rawValue(), 0x10000007u);
   EXPECT_EQ(id.encapType(), EncapType::gre);
   EXPECT_EQ(id.value(), 7u);
   id.encapValueIs(EncapType::vxlan, EncapId::kMaxValue);
   EXPECT_EQ(id.rawValue(), 0x5FFFFFFFu);
   EXPECT_EQ(errorText<Vela::RangeException>(
                 [&] { id.encapValueIs(EncapType::labelStack, EncapId::kMaxValue + 1); }),
             "Tunnel::TunnelTable::EncapId::value < Tunnel::TunnelTable::EncapId::min or > "
             "Tunnel::TunnelTable::EncapId::max not allowed");
   EXPECT_EQ(id.rawValue(), 0x5FFFFFFFu);  // unchanged
   EXPECT_THROW(id.encapValueIs(EncapType(6), 1), Vela::RangeException);
}

TEST(TunnelValueTypesTest, EncapIdTextsBytesAndHash) {
   const EncapId id(EncapType::ipsecGre, 0x123456);
   std::array<uint8_t, EncapId::kSerializedSize> bytes{};
   id.serialize(bytes.data());
   EXPECT_EQ(bytes, (std::array<uint8_t, 4>{0x56, 0x34, 0x12, 0x20}));
   EXPECT_EQ(EncapId::deserialize(bytes.data()), id);
   bytes[3] = 0x60;  // type code 6, the first one past the types
   EXPECT_THROW(EncapId::deserialize(bytes.data()), ByteFormatError);
   // One-at-a-time over 56 34 12 20.
   EXPECT_EQ(id.hash(), 0xFD64BE8Bu);

   expectText(
       id, "Value('Tunnel::TunnelTable::EncapId', ** {'encapType': ipsecGre, 'value': 1193046})");
   EXPECT_EQ(fromText<EncapId>(valueToStrep(EncapId())), EncapId());
   EXPECT_EQ(errorText<Vela::RangeException>([] {
                fromText<EncapId>(
                    "Value('Tunnel::TunnelTable::EncapId', ** {'encapType': gre, "
                    "'value': 268435456})");
             }),
             "Tunnel::TunnelTable::EncapId::value < Tunnel::TunnelTable::EncapId::min or > "
             "Tunnel::TunnelTable::EncapId::max not allowed (reading attribute 'value')");
   EXPECT_THROW(fromText<EncapId>("Value('Tunnel::TunnelTable::EncapId', ** {'encapType': mpls, "
                                  "'value': 1})"),
                Vela::ParseException);

   std::set<Vela::String> texts;
   for (uint8_t code = 0; code <= kMaxEncapTypeCode; ++code) {
      const EncapId e(EncapType(code), 1);
      texts.insert(e.typeCliStr(false));
      texts.insert(e.typeCliStr(true));
      EXPECT_EQ(encapTypeFromString(valueToStrep(EncapType(code))), EncapType(code));
   }
   EXPECT_EQ(texts.size(), 2u * (kMaxEncapTypeCode + 1));
   EXPECT_EQ(id.typeCliStr(false), "IPsec GRE");
   EXPECT_EQ(id.typeCliStr(true), "IPsec over GRE tunnel");
   EXPECT_EQ(EncapId(EncapType::gre, 7).stringValue(), "GRE 7");
}

TEST(TunnelValueTypesTest, RibIdDefaultsToAllBitsSet) {
   EXPECT_EQ(TunnelRibId().value(), 0xFFFFFFFFu);
   EXPECT_FALSE(TunnelRibId().isSet());
   EXPECT_TRUE(TunnelRibId(0).isSet());
   expectText(TunnelRibId(3), "Value('Tunnel::TunnelTable::TunnelRibId', ** {'value': 3})");
   std::array<uint8_t, 4> bytes{};
   TunnelRibId(0x01020304).serialize(bytes.data());
   EXPECT_EQ(bytes, (std::array<uint8_t, 4>{4, 3, 2, 1}));
   EXPECT_EQ(TunnelRibId::deserialize(bytes.data()), TunnelRibId(0x01020304));
}

// ---- the bounded indices ----

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

// ---- the colored tunnel endpoint ----

using CteBytes = std::array<uint8_t, ColoredTunnelEndpoint::kSerializedSize>;

const Wirekit::IpGenPrefix kTen("10.0.0.0/8");

// 10.0.0.0/8, color 0x01020304, colored.
constexpr CteBytes kGolden = {
    0x04, 0x00, 0x00, 0x00, 0x0a, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x00,  //
    0x00, 0x00, 0x04, 0x03, 0x02, 0x01, 0x01, 0x00, 0x00, 0x00,
};

TEST(ColoredTunnelEndpointTest, ByteFormIsPrefixColorFlagAndZeroPadding) {
   const ColoredTunnelEndpoint cte(kTen, 0x01020304);
   EXPECT_EQ(Testing::bytesOf(cte), kGolden);
   EXPECT_EQ(ColoredTunnelEndpoint::deserialize(kGolden.data()), cte);

   CteBytes bad = kGolden;
   bad[28] = 2;
   EXPECT_THROW(ColoredTunnelEndpoint::deserialize(bad.data()), ByteFormatError);
   for (int pad : {29, 30, 31}) {
      bad = kGolden;
      bad[pad] = 1;
      EXPECT_THROW(ColoredTunnelEndpoint::deserialize(bad.data()), ByteFormatError) << pad;
   }
   bad = kGolden;
   bad[20] = 33;  // an IPv4 prefix length of 33
   EXPECT_THROW(ColoredTunnelEndpoint::deserialize(bad.data()), Wirekit::FormatError);
}

TEST(ColoredTunnelEndpointTest, HashIsOneAtATimeOverTheByteFormFromTheSeed) {
   const ColoredTunnelEndpoint cte(kTen, 0x01020304);
   for (uint32_t seed : {0u, 1u, 0xDEADBEEFu}) {
      EXPECT_EQ(cte.hash(seed), Vela::oneAtATime(kGolden.data(), kGolden.size(), seed));
   }
   EXPECT_NE(cte.hash(0), ColoredTunnelEndpoint(kTen, 0x01020305).hash(0));
   EXPECT_NE(cte.hash(0), ColoredTunnelEndpoint(kTen, 0x01020304, false).hash(0));
}

TEST(ColoredTunnelEndpointTest, OrdersByPrefixThenColorThenFlag) {
   const Wirekit::IpGenPrefix eleven("11.0.0.0/8");
   EXPECT_LT(ColoredTunnelEndpoint(kTen, 99), ColoredTunnelEndpoint(eleven, 0));
   EXPECT_LT(ColoredTunnelEndpoint(kTen, 1), ColoredTunnelEndpoint(kTen, 2));
   EXPECT_LT(ColoredTunnelEndpoint(kTen, 5, false), ColoredTunnelEndpoint(kTen, 5, true));
   EXPECT_NE(ColoredTunnelEndpoint(kTen), ColoredTunnelEndpoint(kTen, 0));
}

TEST(ColoredTunnelEndpointTest, TextFormsRoundTrip) {
   EXPECT_EQ(ColoredTunnelEndpoint(kTen).stringValue(), "10.0.0.0/8");
   EXPECT_EQ(ColoredTunnelEndpoint(kTen, 5).stringValue(), "10.0.0.0/8 color 5");
   EXPECT_EQ(ColoredTunnelEndpoint(kTen, 5, false).stringValue(), "10.0.0.0/8 uncolored 5");
   expectText(ColoredTunnelEndpoint(Wirekit::IpGenPrefix("2001:db8::/32"), 7),
              "Value('Tunnel::TunnelTable::ColoredTunnelEndpoint', ** {'tep': '2001:db8::/32', "
              "'color': 7, 'isColored': True})");
   EXPECT_EQ(fromText<ColoredTunnelEndpoint>(valueToStrep(ColoredTunnelEndpoint())),
             ColoredTunnelEndpoint());
   EXPECT_THROW(fromText<ColoredTunnelEndpoint>(
                    "Value('Tunnel::TunnelTable::ColoredTunnelEndpoint', ** {'tep': '10.0.0.0/33', "
                    "'color': 7, 'isColored': True})"),
                Vela::ParseException);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
