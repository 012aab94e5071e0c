#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/Errors.h"
#include "Wirekit/IpGenPrefix.h"
#include "testing/Expect.h"

using Testing::bytesOf;
using Testing::errorText;
using Wirekit::AddressFamily;
using Wirekit::FormatError;
using Wirekit::IpGenAddr;
using Wirekit::IpGenPrefix;

namespace {

// Canonical text (lower case, longest zero run folded, IPv4 tail kept) through text, stream and
// bytes. The exact byte form is pinned by the prefix test below, which embeds the address form.
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
   // Anything else is refused with the text made printable.
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

// Host bits are masked off on the way in, at every length boundary of both families.
TEST(IpGenPrefix, ParsesMasksPrintsAndRoundTrips) {
   const std::vector<std::pair<const char*, const char*>> rows = {
       {"10.255.255.255/9", "10.128.0.0/9"},
       {"255.255.255.255/0", "0.0.0.0/0"},
       {"1.2.3.4/32", "1.2.3.4/32"},
       {"1.2.3.5/31", "1.2.3.4/31"},
       {"2001:db8:ffff::/33", "2001:db8:8000::/33"},
       {"ffff::/0", "::/0"},
       {"2001:db8::3/127", "2001:db8::2/127"},
       {"none", "none"},
   };
   for (const auto& [in, canonical] : rows) {
      SCOPED_TRACE(in);
      const IpGenPrefix p(in);
      EXPECT_EQ(Wirekit::valueToStrep(p), canonical);
      EXPECT_EQ(Testing::streamed(p), canonical);
      EXPECT_EQ(IpGenPrefix(p.stringValue()), p);
      EXPECT_EQ(IpGenPrefix::deserialize(bytesOf(p).data()), p);
   }
   EXPECT_EQ(IpGenPrefix(IpGenAddr("10.1.2.3"), 16), IpGenPrefix("10.1.0.0/16"));
   EXPECT_EQ(IpGenPrefix::host(IpGenAddr("10.1.2.3")), IpGenPrefix("10.1.2.3/32"));
   EXPECT_EQ(IpGenPrefix::host(IpGenAddr("::1")).length(), 128u);
   // Order: family, then address, then length. Containment: under the mask, same family only.
   Testing::expectStrictOrder(std::vector<IpGenPrefix>{
       IpGenPrefix(), IpGenPrefix("0.0.0.0/0"), IpGenPrefix("10.0.0.0/8"),
       IpGenPrefix("10.0.0.0/16"), IpGenPrefix("11.0.0.0/8"), IpGenPrefix("::/0")});
   EXPECT_TRUE(IpGenPrefix("10.128.0.0/9").contains(IpGenAddr("10.255.255.255")));
   EXPECT_FALSE(IpGenPrefix("10.128.0.0/9").contains(IpGenAddr("10.127.255.255")));
   EXPECT_FALSE(IpGenPrefix("::/0").contains(IpGenAddr("10.0.0.1")));
   EXPECT_FALSE(IpGenPrefix().contains(IpGenAddr()));
   // The IPv6 byte form (the IPv4 one is pinned by the tunnel entry byte tests): family word,
   // address bytes in network order, length, zero padding.
   using Bytes = std::array<uint8_t, 24>;  // unlisted bytes are zero
   EXPECT_EQ(bytesOf(IpGenPrefix("2001:db8::/32")),
             (Bytes{6, 0, 0, 0, 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32}));
   EXPECT_EQ(bytesOf(IpGenPrefix()), Bytes{});
}

TEST(IpGenPrefix, RejectsInvalidTextAndLengthsBeyondTheFamily) {
   for (const char* t : {"10.0.0.0/", "::/129", "10.0.0.0/08", "10.0.0.0/+8", "10.0.0.0/8/8", "/8",
                         "10.0.0.0/1000"}) {
      EXPECT_THROW(IpGenPrefix{t}, Vela::ParseException) << t;
   }
   EXPECT_EQ(errorText<Vela::ParseException>([] { IpGenPrefix("10.0.0.0/33"); }),
             "invalid IP prefix '10.0.0.0/33': bad length");
   EXPECT_EQ(errorText<Vela::ParseException>([] { IpGenPrefix("10.0.0.0"); }),
             "invalid IP prefix '10.0.0.0': no length");
   EXPECT_EQ(errorText<Vela::ParseException>([] { IpGenPrefix("none/0"); }),
             "invalid IP prefix 'none/0'");

   const auto make = [](const char* a, unsigned len) {
      return errorText<Vela::RangeException>([&] { IpGenPrefix(IpGenAddr(a), len); });
   };
   const std::string range =
       "Wirekit::IpGenPrefix::length < Wirekit::IpGenPrefix::minLength or > "
       "Wirekit::IpGenPrefix::maxLength not allowed";
   EXPECT_EQ(make("10.0.0.0", 33), range);
   EXPECT_EQ(make("::", 129), range);
   EXPECT_EQ(make("none", 1), range);
   EXPECT_EQ(make("::", 128), "(no exception)");
}

// A length past the family (32, 128, 0 for none), padding, host bits, a bad address.
TEST(IpGenPrefix, DeserializeRejectsLongLengthsHostBitsAndPadding) {
   const struct {
      const char* prefix;
      size_t pos;
      uint8_t value;
      const char* error;
   } cases[] = {
       {"0.0.0.0/0", 20, 33, "Wirekit::IpGenPrefix: length 33 too long for the family"},
       {"::/0", 20, 129, "Wirekit::IpGenPrefix: length 129 too long for the family"},
       {"none", 20, 1, "Wirekit::IpGenPrefix: length 1 too long for the family"},
       {"10.0.0.0/8", 23, 1, "Wirekit::IpGenPrefix: padding bytes set"},
       {"10.0.0.0/8", 5, 0x80, "Wirekit::IpGenPrefix: address bits set beyond the length"},
       {"10.0.0.0/8", 7, 1, "Wirekit::IpGenPrefix: address bits set beyond the length"},
       // The address: a family word of 0, 4 or 6, and no bytes beyond the family's (IPv4: 4-7).
       {"10.0.0.0/8", 0, 9, "Wirekit::IpGenAddr: unknown address family 9"},
       {"10.0.0.0/8", 3, 1, "Wirekit::IpGenAddr: unknown address family 16777220"},
       {"none", 19, 1, "Wirekit::IpGenAddr: address bytes set for family none"},
       {"10.0.0.0/8", 8, 1, "Wirekit::IpGenAddr: bytes beyond an IPv4 address are set"},
       {"0.0.0.0/32", 7, 1, "(no exception)"},
       {"0.0.0.0/0", 20, 32, "(no exception)"},
       {"::/0", 20, 128, "(no exception)"},
   };
   for (const auto& c : cases) {
      auto b = bytesOf(IpGenPrefix(c.prefix));
      b[c.pos] = c.value;
      EXPECT_EQ(errorText<FormatError>([&] { IpGenPrefix::deserialize(b.data()); }), c.error)
          << c.prefix << " " << c.pos;
   }
}

// Every IPv6 length against every address bit: a bit at or past the length is refused.
TEST(IpGenPrefix, DeserializeRefusesExactlyTheBitsPastTheLength) {
   for (unsigned at = 0; at < 129 * 128; ++at) {
      auto b = bytesOf(IpGenPrefix("::/0"));
      b[4 + at % 128 / 8] = static_cast<uint8_t>(0x80 >> (at % 8));
      b[20] = static_cast<uint8_t>(at / 128);
      EXPECT_EQ(errorText<FormatError>([&] { IpGenPrefix::deserialize(b.data()); }),
                at % 128 < at / 128 ? "(no exception)"
                                    : "Wirekit::IpGenPrefix: address bits set beyond the length")
          << at;
   }
}

}  // namespace
