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

TEST(TunnelValueTypesTest, EntryPrefReadsAttributeValueAndIgpPrefIsItsDecimalNumber) {
   expectText(TunnelEntryPref(55),
              "Value('Tunnel::TunnelTable::TunnelEntryPref', ** {'value': 55})");
   EXPECT_EQ(fromText<TunnelEntryPref>(valueToStrep(TunnelEntryPref(255))).value(), 255);
   EXPECT_EQ(errorText<Vela::ParseException>([] {
                fromText<TunnelEntryPref>(
                    "Value('Tunnel::TunnelTable::TunnelEntryPref', ** {'value': 256})");
             }).rfind("cannot read attribute 'value' of Tunnel::TunnelTable::TunnelEntryPref: ", 0),
             0u);

   // The IGP preference is its decimal number alone.
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

TEST(TunnelValueTypesTest, EncapIdIsTypeAndValueInOneWordWithFixedTextsBytesAndHash) {
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

   id = EncapId(EncapType::ipsecGre, 0x123456);
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

// The last valid value of `Index` is accepted; one beyond, and -1, are refused with the range text
// that names it. (The generic index is tested in the platform; these pin each bound and name.)
template <typename Index>
void expectBound(uint64_t last, const std::string& name) {
   const std::string q = "Tunnel::TunnelTable::" + name;
   const std::string text = q + "::value < " + q + "::min or > " + q + "::max not allowed";
   EXPECT_EQ(Index(last).value(), last);
   EXPECT_EQ(Index::capacity, last + 1);
   EXPECT_EQ(errorText<Vela::RangeException>([&] { Index i(last + 1); }), text);
   EXPECT_EQ(errorText<Vela::RangeException>([] { Index i(-1); }), text);
}

TEST(TunnelIndicesTest, EachAcceptsItsRangeAndRefusesOneBeyondWithItsText) {
   expectBound<ViaIndex>(599, "ViaIndex");
   expectBound<TunnelIdCollIndex>(599, "TunnelIdCollIndex");
   expectBound<TepIndex>(15, "TepIndex");
   expectBound<NameIndex>(127, "NameIndex");
   expectBound<CosIndex>(7, "CosIndex");
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

TEST(ColoredTunnelEndpointTest, ByteFormIsPrefixColorFlagAndZeroPaddingAndHashed) {
   const ColoredTunnelEndpoint cte(kTen, 0x01020304);
   EXPECT_EQ(Testing::bytesOf(cte), kGolden);
   EXPECT_EQ(ColoredTunnelEndpoint::deserialize(kGolden.data()), cte);
   // The hash is one-at-a-time over the byte form, from the seed.
   for (uint32_t seed : {0u, 1u, 0xDEADBEEFu}) {
      EXPECT_EQ(cte.hash(seed), Vela::oneAtATime(kGolden.data(), kGolden.size(), seed));
   }

   CteBytes bad = kGolden;
   for (const int at : {28, 29, 30, 31}) {  // the flag byte 2, a padding byte 1
      bad = kGolden;
      bad[at] = at == 28 ? 2 : 1;
      EXPECT_THROW(ColoredTunnelEndpoint::deserialize(bad.data()), ByteFormatError) << at;
   }
   bad = kGolden;
   bad[20] = 33;  // an IPv4 prefix length of 33
   EXPECT_THROW(ColoredTunnelEndpoint::deserialize(bad.data()), Wirekit::FormatError);
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
