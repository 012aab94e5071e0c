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

TEST(TunnelIdTest, TypeAndIndexReadBackFromTheBitLayout) {
   const TunnelId id(TunnelId::convertToTunnelValue(TunnelType::staticInterfaceTunnel, 5));
   EXPECT_EQ(id.value(), 0x900000000005u);
   EXPECT_EQ(id.tunnelType(), TunnelType::staticInterfaceTunnel);
   EXPECT_EQ(id.tunnelIndex(), 5u);
   // Bit 43 is carried but belongs to neither field.
   const TunnelId bit43((uint64_t{3} << 44) | (uint64_t{1} << 43) | 7);
   EXPECT_EQ(bit43.tunnelType(), TunnelType::ldpTunnel);
   EXPECT_EQ(bit43.tunnelIndex(), 7u);
   EXPECT_EQ(TunnelId(0x7FFFFFFFFFFu).tunnelIndex(), 0x7FFFFFFFFFFu);
}

TEST(TunnelIdTest, FlexAlgoIndexIsOnlyTheLow35Bits) {
   const TunnelId id((uint64_t{21} << 44) | 0x800000001u);
   EXPECT_EQ(id.tunnelType(), TunnelType::isisFlexAlgoTunnel);
   EXPECT_EQ(id.tunnelIndex(), 1u);
   EXPECT_EQ(TunnelId((uint64_t{21} << 44) | 0x7FFFFFFFFu).tunnelIndex(), 0x7FFFFFFFFu);
   // The dropped bits still belong to the value: the ids differ, their indices do not.
   EXPECT_NE(id, TunnelId((uint64_t{21} << 44) | 1));
   EXPECT_EQ(id.dumpLine(0), "TunnelId: (Type: IS-IS Flex Algo, Index: 1)\n");
   // Any other type keeps all 43 bits.
   EXPECT_EQ(TunnelId((uint64_t{22} << 44) | 0x800000001u).tunnelIndex(), 0x800000001u);
}

TEST(TunnelIdTest, ValueRangeIsCheckedWithItsText) {
   const TunnelId max(0x1FFFFFFFFFFFFu);
   EXPECT_EQ(max.tunnelType(), TunnelType::reservedTunnel31);
   EXPECT_EQ(max.tunnelIndex(), 0x7FFFFFFFFFFu);
   for (uint64_t bad : {uint64_t{0x2000000000000}, ~uint64_t{0}, uint64_t{1} << 63}) {
      EXPECT_EQ(Testing::errorText<Vela::RangeException>([&] { TunnelId id(bad); }), kRangeText);
   }
   // From text the same failure names the attribute being read.
   EXPECT_EQ(Testing::errorText<Vela::RangeException>([] {
                fromText("Value('Tunnel::TunnelTable::TunnelId', ** {'value': 562949953421312})");
             }),
             Vela::String(kRangeText) + " (reading attribute 'value')");
   // And from bytes.
   std::array<uint8_t, 8> bytes{0, 0, 0, 0, 0, 0, 2, 0};
   EXPECT_THROW(TunnelId::deserialize(bytes.data()), Vela::RangeException);
}

// Fixed hash values: a change of byte order, width or of the final steps shows.
TEST(TunnelIdTest, HashBytesAndTextAreFixedForms) {
   EXPECT_EQ(TunnelId(0).hash(), 0u);
   EXPECT_EQ(TunnelId(0x1FFFFFFFFFFFFu).hash(), 0x586867ebu);
   EXPECT_EQ(std::hash<TunnelId>()(TunnelId(0x900000000005u)), 0x53AF0CEDu);

   const TunnelId id(0x900000000005u);
   std::array<uint8_t, TunnelId::kSerializedSize> bytes{};
   id.serialize(bytes.data());
   EXPECT_EQ(bytes, (std::array<uint8_t, 8>{0x05, 0, 0, 0, 0, 0x90, 0, 0}));
   EXPECT_EQ(TunnelId::deserialize(bytes.data()), id);

   const Vela::String text =
       "Value('Tunnel::TunnelTable::TunnelId', ** {'value': 158329674399749})";
   EXPECT_EQ(valueToStrep(id), text);
   EXPECT_EQ(Testing::streamed(id), text);
   EXPECT_EQ(fromText(text), id);
   EXPECT_EQ(fromText(valueToStrep(TunnelId(0x1FFFFFFFFFFFFu))), TunnelId(0x1FFFFFFFFFFFFu));
   EXPECT_THROW(fromText("Value('Tunnel::TunnelTable::TunnelId', ** {'value': x})"),
                Vela::ParseException);
   EXPECT_THROW(fromText("Value('Tunnel::TunnelTable::EncapId', ** {'value': 1})"),
                Vela::ParseException);
}

TEST(TunnelIdTest, DumpLinesHaveTheirIndentOnlyWhenNonZero) {
   const TunnelId id(0x300000000007u);
   EXPECT_EQ(id.dumpLine(0), "TunnelId: (Type: LDP, Index: 7)\n");
   EXPECT_EQ(id.dumpLine(3), "   TunnelId: (Type: LDP, Index: 7)\n");
   EXPECT_EQ(id.nextHopDumpLine(0), "nextHopTunnelId: (Type: LDP, Index: 7)\n");
   EXPECT_EQ(id.nextHopDumpLine(2), "  nextHopTunnelId: (Type: LDP, Index: 7)\n");
   EXPECT_EQ(TunnelId::tunnelTypeToCliStrep(TunnelType::ldpTunnel, true), "LDP tunnel");
}

}  // namespace
}  // namespace Tunnel::TunnelTable
