#include <gtest/gtest.h>

#include <array>

#include "TunnelTable/TunnelId.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

constexpr const char* kRangeText =
    "Tunnel::TunnelTable::TunnelId::value < Tunnel::TunnelTable::TunnelId::minValue or > "
    "Tunnel::TunnelTable::TunnelId::maxValue not allowed";

TunnelId fromText(const Vela::String& text) {
   return TunnelId(text.begin(), text.end());
}

// Type in bits 44-48, index in bits 0-42; bit 43 is carried but belongs to neither field. A
// flex-algo index is only the low 35 bits.
TEST(TunnelIdTest, TypeAndIndexReadBackFromTheBitLayout) {
   const TunnelId id(TunnelId::convertToTunnelValue(TunnelType::staticInterfaceTunnel, 5));
   EXPECT_EQ(id.value(), 0x900000000005u);
   EXPECT_EQ(id.tunnelType(), TunnelType::staticInterfaceTunnel);
   EXPECT_EQ(id.tunnelIndex(), 5u);
   const TunnelId bit43((uint64_t{3} << 44) | (uint64_t{1} << 43) | 7);
   EXPECT_EQ(bit43.tunnelType(), TunnelType::ldpTunnel);
   EXPECT_EQ(bit43.tunnelIndex(), 7u);
   EXPECT_EQ(TunnelId(0x7FFFFFFFFFFu).tunnelIndex(), 0x7FFFFFFFFFFu);

   const TunnelId flex((uint64_t{21} << 44) | 0x800000001u);
   EXPECT_EQ(flex.tunnelType(), TunnelType::isisFlexAlgoTunnel);
   EXPECT_EQ(flex.tunnelIndex(), 1u);
   EXPECT_EQ(TunnelId((uint64_t{21} << 44) | 0x7FFFFFFFFu).tunnelIndex(), 0x7FFFFFFFFu);
   // The dropped bits still belong to the value: the ids differ, their indices do not.
   EXPECT_NE(flex, TunnelId((uint64_t{21} << 44) | 1));
   EXPECT_EQ(flex.dumpLine(0), "TunnelId: (Type: IS-IS Flex Algo, Index: 1)\n");
   EXPECT_EQ(TunnelId((uint64_t{22} << 44) | 0x800000001u).tunnelIndex(), 0x800000001u);
}

TEST(TunnelIdTest, ValueRangeIsCheckedWithItsTextAndHashBytesAndTextAreFixedForms) {
   const TunnelId max(0x1FFFFFFFFFFFFu);
   EXPECT_EQ(max.tunnelType(), TunnelType::reservedTunnel31);
   EXPECT_EQ(max.tunnelIndex(), 0x7FFFFFFFFFFu);
   EXPECT_EQ(Testing::errorText<Vela::RangeException>([] { TunnelId id(0x2000000000000u); }),
             kRangeText);
   // From text the same failure names the attribute being read.
   EXPECT_EQ(Testing::errorText<Vela::RangeException>([] {
                fromText("Value('Tunnel::TunnelTable::TunnelId', ** {'value': 562949953421312})");
             }),
             Vela::String(kRangeText) + " (reading attribute 'value')");
   // And from bytes.
   std::array<uint8_t, 8> bytes{0, 0, 0, 0, 0, 0, 2, 0};
   EXPECT_THROW(TunnelId::deserialize(bytes.data()), Vela::RangeException);

   // Fixed hash values: a change of byte order, width or of the final steps shows.
   EXPECT_EQ(TunnelId(0).hash(), 0u);
   EXPECT_EQ(TunnelId(0x1FFFFFFFFFFFFu).hash(), 0x586867ebu);
   EXPECT_EQ(std::hash<TunnelId>()(TunnelId(0x900000000005u)), 0x53AF0CEDu);

   const TunnelId id(0x900000000005u);
   id.serialize(bytes.data());
   EXPECT_EQ(bytes, (std::array<uint8_t, 8>{0x05, 0, 0, 0, 0, 0x90, 0, 0}));
   EXPECT_EQ(TunnelId::deserialize(bytes.data()), id);

   const Vela::String text =
       "Value('Tunnel::TunnelTable::TunnelId', ** {'value': 158329674399749})";
   EXPECT_EQ(valueToStrep(id), text);
   EXPECT_EQ(Testing::streamed(id), text);
   EXPECT_EQ(fromText(text), id);
   EXPECT_EQ(fromText(valueToStrep(TunnelId(0x1FFFFFFFFFFFFu))), TunnelId(0x1FFFFFFFFFFFFu));
}

}  // namespace
}  // namespace Tunnel::TunnelTable
