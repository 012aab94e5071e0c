// The small value types of the tunnel table: texts, bytes, order and their range errors.
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <set>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

template <typename T>
T fromText(const Vela::String& text) {
   return T(text.begin(), text.end());
}

using Testing::errorText;
using Testing::streamed;

TEST(TunnelValueTypesTest, EntryPrefTextFormReadsAttributeValue) {
   const Vela::String text = "Value('Tunnel::TunnelTable::TunnelEntryPref', ** {'value': 55})";
   EXPECT_EQ(valueToStrep(TunnelEntryPref(55)), text);
   EXPECT_EQ(streamed(TunnelEntryPref(55)), text);
   EXPECT_EQ(fromText<TunnelEntryPref>(text), TunnelEntryPref(55));
   EXPECT_EQ(fromText<TunnelEntryPref>(valueToStrep(TunnelEntryPref(255))).value(), 255);
   EXPECT_EQ(errorText<Vela::ParseException>([] {
                fromText<TunnelEntryPref>(
                    "Value('Tunnel::TunnelTable::TunnelEntryPref', ** {'value': 256})");
             }).rfind("cannot read attribute 'value' of Tunnel::TunnelTable::TunnelEntryPref: ", 0),
             0u);
   EXPECT_LT(TunnelEntryPref(15), TunnelEntryPref(85));
}

TEST(TunnelValueTypesTest, IgpPrefIsItsDecimalNumber) {
   EXPECT_EQ(valueToStrep(TunnelIgpPref(4294967295u)), "4294967295");
   EXPECT_EQ(streamed(TunnelIgpPref(115)), "115");
   EXPECT_EQ(fromText<TunnelIgpPref>("115"), TunnelIgpPref(115));
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
   const Vela::String text = "Value('Tunnel::TunnelTable::TunnelBandwidth', ** {'value': 1.5})";
   EXPECT_EQ(valueToStrep(TunnelBandwidth(1.5f)), text);
   EXPECT_EQ(fromText<TunnelBandwidth>(text), TunnelBandwidth(1.5f));
   for (float f : {0.1f, 1e-30f, 3.4e38f, 100.0f, -2.0f}) {
      EXPECT_EQ(fromText<TunnelBandwidth>(valueToStrep(TunnelBandwidth(f))), TunnelBandwidth(f));
   }
   EXPECT_EQ(TunnelBandwidth().value(), 0.0f);
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
   // Order follows the word: by type, then value.
   EXPECT_LT(EncapId(EncapType::gre, 0x0FFFFFFF), EncapId(EncapType::ipsecGre, 0));
   EXPECT_EQ(EncapId(EncapType::gre, 3), EncapId(EncapType::gre, 3));
   EXPECT_NE(EncapId(EncapType::gre, 3), EncapId(EncapType::ipsecVti, 3));
}

TEST(TunnelValueTypesTest, EncapIdTextsBytesAndHash) {
   const EncapId id(EncapType::ipsecGre, 0x123456);
   std::array<uint8_t, EncapId::kSerializedSize> bytes{};
   id.serialize(bytes.data());
   EXPECT_EQ(bytes, (std::array<uint8_t, 4>{0x56, 0x34, 0x12, 0x20}));
   EXPECT_EQ(EncapId::deserialize(bytes.data()), id);
   bytes[3] = 0x60;  // type code 6
   EXPECT_THROW(EncapId::deserialize(bytes.data()), ByteFormatError);
   bytes[3] = 0xF0;
   EXPECT_THROW(EncapId::deserialize(bytes.data()), ByteFormatError);
   // One-at-a-time over 56 34 12 20.
   EXPECT_EQ(id.hash(), 0xFD64BE8Bu);

   const Vela::String text =
       "Value('Tunnel::TunnelTable::EncapId', ** {'encapType': ipsecGre, "
       "'value': 1193046})";
   EXPECT_EQ(valueToStrep(id), text);
   EXPECT_EQ(fromText<EncapId>(text), id);
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
   const Vela::String text = "Value('Tunnel::TunnelTable::TunnelRibId', ** {'value': 3})";
   EXPECT_EQ(valueToStrep(TunnelRibId(3)), text);
   EXPECT_EQ(fromText<TunnelRibId>(text), TunnelRibId(3));
   std::array<uint8_t, 4> bytes{};
   TunnelRibId(0x01020304).serialize(bytes.data());
   EXPECT_EQ(bytes, (std::array<uint8_t, 4>{4, 3, 2, 1}));
   EXPECT_EQ(TunnelRibId::deserialize(bytes.data()), TunnelRibId(0x01020304));
}

}  // namespace
}  // namespace Tunnel::TunnelTable
