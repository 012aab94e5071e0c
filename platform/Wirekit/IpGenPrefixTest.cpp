#include <gtest/gtest.h>

#include <array>
#include <sstream>
#include <string>
#include <vector>

#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/Errors.h"
#include "Wirekit/IpGenPrefix.h"

using Wirekit::FormatError;
using Wirekit::IpGenAddr;
using Wirekit::IpGenPrefix;

namespace {

std::array<uint8_t, 24> bytesOf(const IpGenPrefix& p) {
   std::array<uint8_t, 24> b;
   b.fill(0xEE);
   p.serialize(b.data());
   return b;
}

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
      std::ostringstream os;
      os << p;
      EXPECT_EQ(os.str(), canonical);
      EXPECT_EQ(IpGenPrefix(p.stringValue()), p);
      EXPECT_EQ(IpGenPrefix::deserialize(bytesOf(p).data()), p);
   }
   EXPECT_EQ(IpGenPrefix(IpGenAddr("10.1.2.3"), 16), IpGenPrefix("10.1.0.0/16"));
   EXPECT_EQ(IpGenPrefix::host(IpGenAddr("10.1.2.3")), IpGenPrefix("10.1.2.3/32"));
   EXPECT_EQ(IpGenPrefix::host(IpGenAddr("::1")).length(), 128u);
}

TEST(IpGenPrefix, ByteFormIsAddressLengthAndZeroPadding) {
   const std::array<uint8_t, 24> v4 = {4, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0,
                                       0, 0, 0, 0, 0,  0, 0, 0, 8, 0, 0, 0};
   EXPECT_EQ(bytesOf(IpGenPrefix("10.9.9.9/8")), v4);
   const auto v6 = bytesOf(IpGenPrefix("2001:db8::/32"));
   EXPECT_EQ(v6[0], 6);
   EXPECT_EQ(v6[4], 0x20);
   EXPECT_EQ(v6[7], 0xb8);
   EXPECT_EQ(v6[20], 32);
   EXPECT_EQ(v6[21] | v6[22] | v6[23], 0);
   const std::array<uint8_t, 24> none{};
   EXPECT_EQ(bytesOf(IpGenPrefix()), none);
}

TEST(IpGenPrefix, RejectsInvalidText) {
   const std::vector<std::string> bad = {
       "10.0.0.0",
       "10.0.0.0/",
       "10.0.0.0/33",
       "::/129",
       "10.0.0.0/08",
       "10.0.0.0/-1",
       "10.0.0.0/+8",
       "10.0.0.0/8/8",
       "/8",
       "10.0.0.0/ 8",
       "none/0",
       "10.0.0/8",
       "10.0.0.0/1000",
       "10.0.0.0/4294967304",
       "",
       "2001:db8::/0x20",
   };
   for (const std::string& t : bad) {
      SCOPED_TRACE(t);
      EXPECT_THROW(IpGenPrefix{t}, Vela::ParseException);
   }
   try {
      IpGenPrefix p("10.0.0.0/33");
      ADD_FAILURE();
   } catch (const Vela::ParseException& e) {
      EXPECT_STREQ(e.what(), "invalid IP prefix '10.0.0.0/33': bad length");
   }
   try {
      IpGenPrefix p("10.0.0.0");
      ADD_FAILURE();
   } catch (const Vela::ParseException& e) {
      EXPECT_STREQ(e.what(), "invalid IP prefix '10.0.0.0': no length");
   }
}

TEST(IpGenPrefix, LengthBeyondTheFamilyIsARangeError) {
   const std::string text =
       "Wirekit::IpGenPrefix::length < Wirekit::IpGenPrefix::minLength or > "
       "Wirekit::IpGenPrefix::maxLength not allowed";
   auto expectRange = [&](const IpGenAddr& a, unsigned len) {
      try {
         IpGenPrefix p(a, len);
         ADD_FAILURE() << "accepted " << p;
      } catch (const Vela::RangeException& e) {
         EXPECT_EQ(e.what(), text);
      }
   };
   expectRange(IpGenAddr("10.0.0.0"), 33);
   expectRange(IpGenAddr("::"), 129);
   expectRange(IpGenAddr(), 1);
   EXPECT_NO_THROW(IpGenPrefix(IpGenAddr("10.0.0.0"), 32));
   EXPECT_NO_THROW(IpGenPrefix(IpGenAddr("::"), 128));
   EXPECT_NO_THROW(IpGenPrefix(IpGenAddr(), 0));
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
   EXPECT_NE(IpGenPrefix("10.0.0.0/8").hash(), IpGenPrefix("10.0.0.0/16").hash());
   // Masking makes prefixes written differently hash alike.
   EXPECT_EQ(IpGenPrefix("10.1.2.3/8").hash(), v4.hash());
   EXPECT_EQ(std::hash<IpGenPrefix>()(v6), v6.hash());
}

TEST(IpGenPrefix, OrdersByAddressThenLength) {
   const std::vector<IpGenPrefix> sorted = {
       IpGenPrefix(),
       IpGenPrefix("0.0.0.0/0"),
       IpGenPrefix("10.0.0.0/8"),
       IpGenPrefix("10.0.0.0/16"),
       IpGenPrefix("10.0.0.1/32"),
       IpGenPrefix("11.0.0.0/8"),
       IpGenPrefix("::/0"),
       IpGenPrefix("2001:db8::/32"),
   };
   for (size_t i = 0; i < sorted.size(); ++i) {
      for (size_t j = 0; j < sorted.size(); ++j) {
         EXPECT_EQ(sorted[i] < sorted[j], i < j) << sorted[i] << " vs " << sorted[j];
         EXPECT_EQ(sorted[i] == sorted[j], i == j) << sorted[i] << " vs " << sorted[j];
      }
   }
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
   try {
      IpGenPrefix::deserialize(b.data());
      ADD_FAILURE();
   } catch (const FormatError& e) {
      EXPECT_STREQ(e.what(), "Wirekit::IpGenPrefix: length 33 too long for the family");
   }
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
   try {
      IpGenPrefix::deserialize(b.data());
      ADD_FAILURE();
   } catch (const FormatError& e) {
      EXPECT_STREQ(e.what(), "Wirekit::IpGenPrefix: address bits set beyond the length");
   }
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
