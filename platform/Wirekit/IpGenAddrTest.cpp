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

TEST(IpGenAddr, TextValueAndBytesRoundTripInCanonicalForms) {
   struct Row {
      const char* in;
      const char* canonical;
      AddressFamily family;
   };
   const std::vector<Row> rows = {
       {"10.0.0.1", "10.0.0.1", AddressFamily::ipv4},
       {"0.0.0.0", "0.0.0.0", AddressFamily::ipv4},
       {"255.255.255.255", "255.255.255.255", AddressFamily::ipv4},
       {"2001:db8::1", "2001:db8::1", AddressFamily::ipv6},
       {"2001:0DB8:0000:0000:0000:0000:0000:0001", "2001:db8::1", AddressFamily::ipv6},
       {"::", "::", AddressFamily::ipv6},
       {"::1", "::1", AddressFamily::ipv6},
       {"1:0:0:1:0:0:0:1", "1:0:0:1::1", AddressFamily::ipv6},
       {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8", AddressFamily::ipv6},
       {"::ffff:1.2.3.4", "::ffff:1.2.3.4", AddressFamily::ipv6},
       {"none", "none", AddressFamily::none},
   };
   for (const Row& r : rows) {
      SCOPED_TRACE(r.in);
      const IpGenAddr a(r.in);
      EXPECT_EQ(a.family(), r.family);
      EXPECT_EQ(Wirekit::valueToStrep(a), r.canonical);
      EXPECT_EQ(Testing::streamed(a), r.canonical);
      EXPECT_EQ(IpGenAddr(a.stringValue()), a);
      EXPECT_EQ(IpGenAddr::deserialize(bytesOf(a).data()), a);
   }
}

TEST(IpGenAddr, ByteFormIsFamilyThenNetworkOrderBytes) {
   const std::array<uint8_t, 20> v4 = {4, 0, 0, 0, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
   EXPECT_EQ(bytesOf(IpGenAddr("10.0.0.1")), v4);
   const std::array<uint8_t, 20> v6 = {6, 0, 0, 0, 0x20, 0x01, 0x0d, 0xb8, 0, 0,
                                       0, 0, 0, 0, 0,    0,    0,    0,    0, 0x01};
   EXPECT_EQ(bytesOf(IpGenAddr("2001:db8::1")), v6);
   EXPECT_EQ(bytesOf(IpGenAddr()), (std::array<uint8_t, 20>{}));
}

TEST(IpGenAddr, RejectsInvalidTextWithParseError) {
   EXPECT_EQ(Wirekit::printableText(std::string("a\0b\n\x80", 5)), "a?b??");
   const auto rejected = [](const std::string& t) {
      SCOPED_TRACE(t);
      EXPECT_EQ(Testing::errorText<Vela::ParseException>([&] { IpGenAddr{t}; }),
                "invalid IP address '" + Wirekit::printableText(t) + "'");
   };
   for (const char* t : {"", " 10.0.0.1", "10.0.0.1 ", "10.0.0", "10.0.0.256", "010.0.0.1",
                         "1.2.3.4.5", "10.0.0.-1", "2001:db8:::1", "2001:db8::1%eth0", "g::1",
                         "1:2:3:4:5:6:7:8:9", "None", "none ", "10.0.0.1/32"}) {
      rejected(t);
   }
   rejected(std::string("10.0.0.1\0", 9));
   rejected(std::string(80, '1'));
}

TEST(IpGenAddr, DefaultIsFamilyNoneAndHashIsOneAtATimeOverTheFamilysBytes) {
   const IpGenAddr none;
   EXPECT_TRUE(none.isNone());
   EXPECT_FALSE(none.isUnspecified());
   EXPECT_EQ(none.hash(), 0u);
   EXPECT_EQ(none.byteLength(), 0u);
   EXPECT_TRUE(IpGenAddr("0.0.0.0").isUnspecified());
   EXPECT_TRUE(IpGenAddr("::").isUnspecified());
   EXPECT_NE(IpGenAddr("0.0.0.0"), none);
   EXPECT_NE(IpGenAddr("::"), IpGenAddr("0.0.0.0"));

   const uint8_t v4[4] = {10, 0, 0, 1};
   EXPECT_EQ(IpGenAddr("10.0.0.1").hash(), Vela::oneAtATime(v4, 4));
   const auto v6 = IpGenAddr("2001:db8::1");
   EXPECT_EQ(v6.hash(), Vela::oneAtATime(v6.bytes().data(), 16));
   EXPECT_EQ(std::hash<IpGenAddr>()(v6), v6.hash());
}

TEST(IpGenAddr, OrdersByFamilyThenBytes) {
   std::vector<IpGenAddr> sorted{IpGenAddr()};
   for (const char* a : {"0.0.0.0", "9.255.255.255", "10.0.0.0", "10.0.0.1", "255.255.255.255",
                         "::", "::1", "2001:db8::1", "ffff::"}) {
      sorted.emplace_back(a);
   }
   Testing::expectStrictOrder(sorted);
}

TEST(IpGenAddr, V4AccessorAndFactoryAgree) {
   const IpGenAddr a = IpGenAddr::ipv4(0x0A000001);
   EXPECT_EQ(a, IpGenAddr("10.0.0.1"));
   EXPECT_EQ(a.v4(), 0x0A000001u);
   EXPECT_EQ(IpGenAddr::ipv4(0xC0A80102).stringValue(), "192.168.1.2");
   std::array<uint8_t, 16> b{};
   b[15] = 1;
   EXPECT_EQ(IpGenAddr::ipv6(b), IpGenAddr("::1"));
   EXPECT_DEATH(IpGenAddr("::1").v4(), "IpGenAddr::v4 of an address that is not IPv4");
   EXPECT_DEATH(IpGenAddr().v4(), "IpGenAddr::v4 of an address that is not IPv4");
}

TEST(IpGenAddr, DeserializeRejectsUnknownFamiliesAndStrayBytes) {
   std::array<uint8_t, 20> b{};
   // Every family code but 0, 4 and 6, in each byte of the family word.
   for (int pos = 0; pos < 4; ++pos) {
      for (int v = 1; v < 256; ++v) {
         b.fill(0);
         b[pos] = static_cast<uint8_t>(v);
         if (pos == 0 && (v == 4 || v == 6)) {
            EXPECT_NO_THROW(IpGenAddr::deserialize(b.data()));
         } else {
            EXPECT_THROW(IpGenAddr::deserialize(b.data()), FormatError) << pos << " " << v;
         }
      }
   }
   b.fill(0);
   b[0] = 9;
   EXPECT_EQ(Testing::errorText<FormatError>([&] { IpGenAddr::deserialize(b.data()); }),
             "Wirekit::IpGenAddr: unknown address family 9");
   // Family none carries no address; IPv4 none beyond its 4 bytes.
   for (int pos = 4; pos < 20; ++pos) {
      b.fill(0);
      b[pos] = 1;
      EXPECT_THROW(IpGenAddr::deserialize(b.data()), FormatError) << pos;
      b[0] = 4;
      if (pos < 8) {
         EXPECT_NO_THROW(IpGenAddr::deserialize(b.data())) << pos;
      } else {
         EXPECT_THROW(IpGenAddr::deserialize(b.data()), FormatError) << pos;
      }
      b[0] = 6;
      EXPECT_NO_THROW(IpGenAddr::deserialize(b.data())) << pos;
   }
}

}  // namespace
