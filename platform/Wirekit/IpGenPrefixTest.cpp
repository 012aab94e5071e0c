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

TEST(IpGenPrefix, ParsesMasksPrintsAndRoundTrips) {
   const std::vector<std::pair<const char*, const char*>> rows = {
       {"10.0.0.0/8", "10.0.0.0/8"},
       {"10.1.2.3/8", "10.0.0.0/8"},
       {"10.255.255.255/9", "10.128.0.0/9"},
       {"0.0.0.0/0", "0.0.0.0/0"},
       {"255.255.255.255/0", "0.0.0.0/0"},
       {"1.2.3.4/32", "1.2.3.4/32"},
       {"1.2.3.4/31", "1.2.3.4/31"},
       {"1.2.3.5/31", "1.2.3.4/31"},
       {"2001:db8::1/32", "2001:db8::/32"},
       {"2001:db8:ffff::/33", "2001:db8:8000::/33"},
       {"::/0", "::/0"},
       {"ffff::/0", "::/0"},
       {"2001:db8::1/128", "2001:db8::1/128"},
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
}

TEST(IpGenPrefix, ByteFormIsAddressLengthAndZeroPadding) {
   using Bytes = std::array<uint8_t, 24>;  // unlisted bytes are zero
   EXPECT_EQ(bytesOf(IpGenPrefix("10.9.9.9/8")),
             (Bytes{4, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0, 0}));
   EXPECT_EQ(bytesOf(IpGenPrefix("2001:db8::/32")),
             (Bytes{6, 0, 0, 0, 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32}));
   EXPECT_EQ(bytesOf(IpGenPrefix()), Bytes{});
}

TEST(IpGenPrefix, RejectsInvalidTextAndLengthsBeyondTheFamily) {
   for (const char* t :
        {"10.0.0.0", "10.0.0.0/", "10.0.0.0/33", "::/129", "10.0.0.0/08", "10.0.0.0/-1",
         "10.0.0.0/+8", "10.0.0.0/8/8", "/8", "10.0.0.0/ 8", "none/0", "10.0.0/8", "10.0.0.0/1000",
         "10.0.0.0/4294967304", "", "2001:db8::/0x20"}) {
      SCOPED_TRACE(t);
      EXPECT_THROW(IpGenPrefix{t}, Vela::ParseException);
   }
   EXPECT_EQ(errorText<Vela::ParseException>([] { IpGenPrefix("10.0.0.0/33"); }),
             "invalid IP prefix '10.0.0.0/33': bad length");
   EXPECT_EQ(errorText<Vela::ParseException>([] { IpGenPrefix("10.0.0.0"); }),
             "invalid IP prefix '10.0.0.0': no length");

   const auto make = [](const char* a, unsigned len) {
      return errorText<Vela::RangeException>([&] { IpGenPrefix(IpGenAddr(a), len); });
   };
   const std::string range =
       "Wirekit::IpGenPrefix::length < Wirekit::IpGenPrefix::minLength or > "
       "Wirekit::IpGenPrefix::maxLength not allowed";
   EXPECT_EQ(make("10.0.0.0", 33), range);
   EXPECT_EQ(make("::", 129), range);
   EXPECT_EQ(make("none", 1), range);
   EXPECT_EQ(make("10.0.0.0", 32), "(no exception)");
   EXPECT_EQ(make("::", 128), "(no exception)");
   EXPECT_EQ(make("none", 0), "(no exception)");
}

TEST(IpGenPrefix, HashHasOneRulePerFamilyAndZeroForNone) {
   const IpGenPrefix v4("10.0.0.0/8");
   const uint8_t v4Bytes[5] = {10, 0, 0, 0, 8};
   EXPECT_EQ(v4.hash(), Vela::oneAtATime(v4Bytes, 5));
   const IpGenPrefix v6("2001:db8::/32");
   uint8_t v6Bytes[17] = {0x20, 0x01, 0x0d, 0xb8};
   v6Bytes[16] = 32;
   EXPECT_EQ(v6.hash(), Vela::oneAtATime(v6Bytes, 17));
   EXPECT_EQ(IpGenPrefix().hash(), 0u);
   // Masking makes prefixes written differently hash alike.
   EXPECT_EQ(IpGenPrefix("10.1.2.3/8").hash(), v4.hash());
   EXPECT_EQ(std::hash<IpGenPrefix>()(v6), v6.hash());
}

TEST(IpGenPrefix, OrdersByAddressThenLength) {
   std::vector<IpGenPrefix> sorted{IpGenPrefix()};
   for (const char* p : {"0.0.0.0/0", "10.0.0.0/8", "10.0.0.0/16", "10.0.0.1/32", "11.0.0.0/8",
                         "::/0", "2001:db8::/32"}) {
      sorted.emplace_back(p);
   }
   Testing::expectStrictOrder(sorted);
}

TEST(IpGenPrefix, ContainsAddressesOfItsFamilyUnderItsMask) {
   const IpGenPrefix p("10.128.0.0/9");
   EXPECT_TRUE(p.contains(IpGenAddr("10.128.0.0")));
   EXPECT_TRUE(p.contains(IpGenAddr("10.255.255.255")));
   EXPECT_FALSE(p.contains(IpGenAddr("10.127.255.255")));
   EXPECT_FALSE(p.contains(IpGenAddr("::ffff:10.128.0.1")));
   EXPECT_TRUE(IpGenPrefix("::/0").contains(IpGenAddr("2001:db8::1")));
   EXPECT_FALSE(IpGenPrefix("::/0").contains(IpGenAddr("10.0.0.1")));
   EXPECT_FALSE(IpGenPrefix().contains(IpGenAddr()));
}

TEST(IpGenPrefix, DeserializeRejectsLongLengthsHostBitsAndPadding) {
   auto base = bytesOf(IpGenPrefix("10.0.0.0/8"));
   auto b = base;
   for (int len = 0; len < 256; ++len) {
      b = base;
      b[4] = 0;  // address 0.0.0.0 so every length is free of host bits
      b[20] = static_cast<uint8_t>(len);
      if (len <= 32) {
         EXPECT_EQ(IpGenPrefix::deserialize(b.data()).length(), static_cast<unsigned>(len));
      } else {
         EXPECT_THROW(IpGenPrefix::deserialize(b.data()), FormatError) << len;
      }
   }
   b = base;
   b[20] = 33;
   EXPECT_EQ(errorText<FormatError>([&] { IpGenPrefix::deserialize(b.data()); }),
             "Wirekit::IpGenPrefix: length 33 too long for the family");
   // IPv6 stops at 128; none at 0.
   auto v6 = bytesOf(IpGenPrefix("::/0"));
   v6[20] = 128;
   EXPECT_NO_THROW(IpGenPrefix::deserialize(v6.data()));
   v6[20] = 129;
   EXPECT_THROW(IpGenPrefix::deserialize(v6.data()), FormatError);
   auto none = bytesOf(IpGenPrefix());
   none[20] = 1;
   EXPECT_THROW(IpGenPrefix::deserialize(none.data()), FormatError);
   // Each host bit of 10.0.0.0/8 set in turn.
   for (int bit = 8; bit < 32; ++bit) {
      b = base;
      b[4 + bit / 8] |= static_cast<uint8_t>(0x80 >> (bit % 8));
      EXPECT_THROW(IpGenPrefix::deserialize(b.data()), FormatError) << bit;
   }
   b = base;
   b[5] = 1;
   EXPECT_EQ(errorText<FormatError>([&] { IpGenPrefix::deserialize(b.data()); }),
             "Wirekit::IpGenPrefix: address bits set beyond the length");
   for (int pos = 21; pos < 24; ++pos) {
      b = base;
      b[pos] = 0x01;
      EXPECT_THROW(IpGenPrefix::deserialize(b.data()), FormatError) << pos;
   }
   // A bad address inside is the address's error.
   b = base;
   b[0] = 5;
   EXPECT_THROW(IpGenPrefix::deserialize(b.data()), FormatError);
}

}  // namespace
