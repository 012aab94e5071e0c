#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/Errors.h"
#include "Wirekit/IpGenAddr.h"
#include "testing/Expect.h"

using Testing::bytesOf;
using Wirekit::AddressFamily;
using Wirekit::FormatError;
using Wirekit::IpGenAddr;

namespace {

// Canonical text (lower case, longest zero run folded, IPv4 tail kept) through text, stream and
// bytes. The exact byte form is pinned by the prefix test, which embeds the address form.
TEST(IpGenAddr, TextValueAndBytesRoundTripInCanonicalForms) {
   const struct {
      const char* in;
      const char* canonical;
      AddressFamily family;
   } rows[] = {
       {"255.255.255.255", "255.255.255.255", AddressFamily::ipv4},
       {"2001:0DB8:0000:0000:0000:0000:0000:0001", "2001:db8::1", AddressFamily::ipv6},
       {"::", "::", AddressFamily::ipv6},
       {"1:0:0:1:0:0:0:1", "1:0:0:1::1", AddressFamily::ipv6},
       {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8", AddressFamily::ipv6},
       {"::ffff:1.2.3.4", "::ffff:1.2.3.4", AddressFamily::ipv6},
       {"none", "none", AddressFamily::none},
   };
   for (const auto& r : rows) {
      SCOPED_TRACE(r.in);
      const IpGenAddr a(r.in);
      EXPECT_EQ(a.family(), r.family);
      EXPECT_EQ(Wirekit::valueToStrep(a), r.canonical);
      EXPECT_EQ(Testing::streamed(a), r.canonical);
      EXPECT_EQ(IpGenAddr(a.stringValue()), a);
      EXPECT_EQ(IpGenAddr::deserialize(bytesOf(a).data()), a);
   }
}

TEST(IpGenAddr, RejectsInvalidTextWithParseError) {
   EXPECT_EQ(Wirekit::printableText(std::string("a\0b\n\x80", 5)), "a?b??");
   for (const std::string& t : std::vector<std::string>{
            "", " 10.0.0.1", "10.0.0.256", "010.0.0.1", "1.2.3.4.5", "2001:db8:::1",
            "1:2:3:4:5:6:7:8:9", "None", std::string("10.0.0.1\0", 9)}) {
      EXPECT_EQ(Testing::errorText<Vela::ParseException>([&] { IpGenAddr{t}; }),
                "invalid IP address '" + Wirekit::printableText(t) + "'");
   }
}

// Unspecified is the all-zero address of a family, never none; the hash is one-at-a-time over the
// family's bytes only, and 0 for none; the order is by family (none first), then bytes.
TEST(IpGenAddr, AccessorsFactoriesHashAndOrder) {
   EXPECT_FALSE(IpGenAddr().isUnspecified());
   EXPECT_TRUE(IpGenAddr("0.0.0.0").isUnspecified());
   EXPECT_TRUE(IpGenAddr("::").isUnspecified());
   EXPECT_FALSE(IpGenAddr("::1").isUnspecified());
   EXPECT_EQ(IpGenAddr().hash(), 0u);
   const uint8_t v4[4] = {10, 0, 0, 1};
   EXPECT_EQ(IpGenAddr::ipv4(0x0A000001).hash(), Vela::oneAtATime(v4, 4));
   std::array<uint8_t, 16> b{};
   b[15] = 1;
   EXPECT_EQ(IpGenAddr::ipv6(b), IpGenAddr("::1"));
   EXPECT_EQ(std::hash<IpGenAddr>()(IpGenAddr::ipv6(b)), Vela::oneAtATime(b.data(), 16));
   EXPECT_EQ(IpGenAddr("192.168.1.2").v4(), 0xC0A80102u);
   EXPECT_DEATH(IpGenAddr("::1").v4(), "IpGenAddr::v4 of an address that is not IPv4");
   Testing::expectStrictOrder(std::vector<IpGenAddr>{IpGenAddr(), IpGenAddr("9.255.255.255"),
                                                     IpGenAddr("10.0.0.0"), IpGenAddr("::"),
                                                     IpGenAddr("::1"), IpGenAddr("ffff::")});
}

// The family is a 32-bit word of 0, 4 or 6; IPv4 leaves bytes 8-19 zero, none all address bytes.
TEST(IpGenAddr, DeserializeRejectsUnknownFamiliesAndStrayBytes) {
   const struct {
      std::array<uint8_t, 20> bytes;
      const char* error;
   } cases[] = {
       {{9}, "unknown address family 9"},
       {{4, 0, 0, 1}, "unknown address family 16777220"},
       {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
        "address bytes set for family none"},
       {{4, 0, 0, 0, 0, 0, 0, 0, 1}, "bytes beyond an IPv4 address are set"},
   };
   for (const auto& c : cases) {
      EXPECT_EQ(Testing::errorText<FormatError>([&] { IpGenAddr::deserialize(c.bytes.data()); }),
                std::string("Wirekit::IpGenAddr: ") + c.error);
   }
   const std::array<uint8_t, 20> lastV4Byte{4, 0, 0, 0, 0, 0, 0, 1};
   EXPECT_EQ(IpGenAddr::deserialize(lastV4Byte.data()), IpGenAddr("0.0.0.1"));
}

}  // namespace
