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
using Wirekit::FormatError;
using Wirekit::IpGenAddr;
using Wirekit::IpGenPrefix;

namespace {

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

// Hash: one-at-a-time over the family's address bytes then the length; 0 for none.
TEST(IpGenPrefix, HashOrderAndContainment) {
   const uint8_t v4Bytes[5] = {10, 0, 0, 0, 8};
   EXPECT_EQ(IpGenPrefix("10.1.2.3/8").hash(), Vela::oneAtATime(v4Bytes, 5));
   uint8_t v6Bytes[17] = {0x20, 0x01, 0x0d, 0xb8};
   v6Bytes[16] = 32;
   EXPECT_EQ(std::hash<IpGenPrefix>()(IpGenPrefix("2001:db8::/32")), Vela::oneAtATime(v6Bytes, 17));
   EXPECT_EQ(IpGenPrefix().hash(), 0u);

   std::vector<IpGenPrefix> sorted{IpGenPrefix()};
   for (const char* p : {"0.0.0.0/0", "10.0.0.0/8", "10.0.0.0/16", "11.0.0.0/8", "::/0"}) {
      sorted.emplace_back(p);
   }
   Testing::expectStrictOrder(sorted);

   // Containment: under the mask, in the same family only.
   EXPECT_TRUE(IpGenPrefix("10.128.0.0/9").contains(IpGenAddr("10.255.255.255")));
   EXPECT_FALSE(IpGenPrefix("10.128.0.0/9").contains(IpGenAddr("10.127.255.255")));
   EXPECT_FALSE(IpGenPrefix("::/0").contains(IpGenAddr("10.0.0.1")));
   EXPECT_FALSE(IpGenPrefix().contains(IpGenAddr()));
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
       {"10.0.0.0/8", 0, 5, "Wirekit::IpGenAddr: unknown address family 5"},
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

}  // namespace
