#include <gtest/gtest.h>

#include <array>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/ColoredTunnelEndpoint.h"
#include "Vela/Hash.h"
#include "Wirekit/Errors.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

using Bytes = std::array<uint8_t, ColoredTunnelEndpoint::kSerializedSize>;

const Wirekit::IpGenPrefix kTen("10.0.0.0/8");

// 10.0.0.0/8, color 0x01020304, colored.
constexpr Bytes kGolden = {
    0x04, 0x00, 0x00, 0x00, 0x0a, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x00,  //
    0x00, 0x00, 0x04, 0x03, 0x02, 0x01, 0x01, 0x00, 0x00, 0x00,
};

TEST(ColoredTunnelEndpointTest, ByteFormIsPrefixColorFlagAndZeroPadding) {
   const ColoredTunnelEndpoint cte(kTen, 0x01020304);
   EXPECT_EQ(Testing::bytesOf(cte), kGolden);
   EXPECT_EQ(ColoredTunnelEndpoint::deserialize(kGolden.data()), cte);

   Bytes bad = kGolden;
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
   EXPECT_EQ(ColoredTunnelEndpoint(kTen), ColoredTunnelEndpoint(kTen, 0, false));
   EXPECT_NE(ColoredTunnelEndpoint(kTen), ColoredTunnelEndpoint(kTen, 0));
}

TEST(ColoredTunnelEndpointTest, TextFormsRoundTrip) {
   EXPECT_EQ(ColoredTunnelEndpoint(kTen).stringValue(), "10.0.0.0/8");
   EXPECT_EQ(ColoredTunnelEndpoint(kTen, 5).stringValue(), "10.0.0.0/8 color 5");
   EXPECT_EQ(ColoredTunnelEndpoint(kTen, 5, false).stringValue(), "10.0.0.0/8 uncolored 5");
   const ColoredTunnelEndpoint cte(Wirekit::IpGenPrefix("2001:db8::/32"), 7);
   const Vela::String text =
       "Value('Tunnel::TunnelTable::ColoredTunnelEndpoint', ** {'tep': '2001:db8::/32', "
       "'color': 7, 'isColored': True})";
   EXPECT_EQ(valueToStrep(cte), text);
   EXPECT_EQ(Testing::streamed(cte), text);
   EXPECT_EQ(ColoredTunnelEndpoint(text.begin(), text.end()), cte);
   const Vela::String plain = valueToStrep(ColoredTunnelEndpoint());
   EXPECT_EQ(ColoredTunnelEndpoint(plain.begin(), plain.end()), ColoredTunnelEndpoint());
   const Vela::String badPrefix =
       "Value('Tunnel::TunnelTable::ColoredTunnelEndpoint', ** {'tep': '10.0.0.0/33', "
       "'color': 7, 'isColored': True})";
   EXPECT_THROW(ColoredTunnelEndpoint(badPrefix.begin(), badPrefix.end()), Vela::ParseException);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
