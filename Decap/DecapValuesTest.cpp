// The decap value types: enumerator names, a group's bounds and text form, and the byte forms of
// the records the configuration publishes, read back and refused when damaged.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <vector>

#include "Decap/DecapGroupRecord.h"
#include "Decap/DestPortRecord.h"
#include "Decap/ReadyRecord.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"

namespace Tunnel::Decap {
namespace {

using Wirekit::IpGenPrefix;

TEST(DecapEnums, NamesReadBackAndUnknownTextIsRefused) {
   for (uint8_t code = 0; code <= kMaxPayloadTypeCode; ++code) {
      const auto type = PayloadType(code);
      EXPECT_EQ(payloadTypeFromString(valueToStrep(type)), type);
   }
   for (uint8_t code = 0; code <= kMaxDecapTunnelTypeCode; ++code) {
      const auto type = DecapTunnelType(code);
      EXPECT_EQ(decapTunnelTypeFromString(valueToStrep(type)), type);
   }
   EXPECT_EQ(Testing::streamed(PayloadType::mpls), "mpls");
   EXPECT_EQ(valueToStrep(DecapTunnelType::ipIp), "ipIp");
   EXPECT_EQ(valueToStrep(PayloadType(9)), "invalid(9)");
   EXPECT_EQ(Testing::errorText<Vela::ParseException>([] { payloadTypeFromString("IPv4"); }),
             "unknown payload type 'IPv4'");
   EXPECT_EQ(Testing::errorText<Vela::ParseException>([] { decapTunnelTypeFromString(""); }),
             "unknown decap tunnel type ''");
}

std::vector<IpGenPrefix> prefixes(size_t n) {
   std::vector<IpGenPrefix> out;
   for (size_t i = 0; i < n; ++i) {
      out.push_back(IpGenPrefix(Wirekit::IpGenAddr::ipv4(0x0A000000u + uint32_t(i)), 32));
   }
   return out;
}

TEST(DecapGroup, BoundsAreRefusedWithTheirRangeText) {
   struct Case {
      const char* what;
      size_t nameLength, ipCount, vrfLength;
      const char* field;  // empty: accepted
   };
   for (const Case& c :
        {Case{"smallest", 1, 0, 0, ""}, Case{"largest", 255, 64, 100, ""},
         Case{"empty name", 0, 1, 7, "nameLength"}, Case{"long name", 256, 1, 7, "nameLength"},
         Case{"65 addresses", 4, 65, 7, "decapIpCount"},
         Case{"long vrf", 4, 1, 101, "forwardingVrfLength"}}) {
      SCOPED_TRACE(c.what);
      const auto make = [&] {
         decapGroupFactory(Vela::String(c.nameLength, 'n'), DecapTunnelType::gre,
                           prefixes(c.ipCount), Vela::String(c.vrfLength, 'v'));
      };
      const std::string f = c.field;
      const std::string t = "Tunnel::Decap::DecapGroup::";
      EXPECT_EQ(Testing::errorText<Vela::RangeException>(make),
                f.empty() ? "(no exception)"
                          : t + f + " < " + t + "min" + char(std::toupper(f[0])) + f.substr(1) +
                                " or > " + t + "max" + char(std::toupper(f[0])) + f.substr(1) +
                                " not allowed");
   }
   EXPECT_THROW(decapGroupFactory("g", DecapTunnelType::udp, {IpGenPrefix()}), Vela::Exception);
}

TEST(DecapGroup, TextFormAndContentEquality) {
   const auto g = decapGroupFactory("g'1", DecapTunnelType::gre,
                                    {IpGenPrefix("10.0.0.1/32"), IpGenPrefix("2001:db8::/32")});
   EXPECT_EQ(Testing::streamed(*g),
             "Value('Tunnel::Decap::DecapGroup', ** {'name': 'g\\'1', 'tunnelType': gre, "
             "'decapIps': ['10.0.0.1/32', '2001:db8::/32'], 'forwardingVrf': 'default'})");
   EXPECT_EQ(*g, *decapGroupFactory("g'1", DecapTunnelType::gre, g->decapIps(), "default"));
   EXPECT_NE(*g, *decapGroupFactory("g'1", DecapTunnelType::ipIp, g->decapIps()));
   EXPECT_NE(*g, *decapGroupFactory("g'1", DecapTunnelType::gre, prefixes(2)));
   EXPECT_NE(*g, *decapGroupFactory("g'1", DecapTunnelType::gre, g->decapIps(), "red"));
   EXPECT_NE(*g, *decapGroupFactory("g1", DecapTunnelType::gre, g->decapIps()));
}

// Bytes of a good byte form overwritten, and its length changed.
struct Damage {
   const char* what;
   size_t offset;  // the first byte overwritten
   size_t count;   // how many
   uint8_t value;
   int lengthDelta;
};

template <typename Record>
void expectRefused(const Record& good, const std::vector<Damage>& damages) {
   const uint32_t len = good.serializeLen();
   for (const Damage& d : damages) {
      SCOPED_TRACE(d.what);
      std::vector<uint8_t> bytes(len + 2000, 0);
      good.serialize(bytes.data());
      std::fill_n(bytes.begin() + long(d.offset), d.count, d.value);
      Record out;
      EXPECT_THROW(out.deserialize(bytes.data(), uint32_t(int(len) + d.lengthDelta)),
                   Vela::Exception);
   }
}

// Each record's byte form read back into an equal record, and refused when damaged.
TEST(DecapRecords, ByteFormsReadBackAndDamagedBytesAreRefused) {
   // Header: type, name length, vrf length, count; name "g1", vrf "blue", two prefixes.
   const DecapGroupRecord group{decapGroupFactory("g1", DecapTunnelType::udp, prefixes(2), "blue")};
   const uint32_t len = group.serializeLen();
   ASSERT_EQ(len, 4u + 2 + 4 + 48);
   std::vector<uint8_t> bytes(len + 8, 0xEE);
   group.serialize(bytes.data());
   EXPECT_EQ(Testing::hexBytes("03 02 04 02 6731 626c7565"),
             std::vector<uint8_t>(bytes.begin(), bytes.begin() + 10));
   EXPECT_EQ(DecapGroupRecord::deserializeLen(bytes.data(), len - 1), 0u);
   EXPECT_EQ(DecapGroupRecord::deserializeLen(bytes.data(), len + 8), len);
   DecapGroupRecord back;
   back.deserialize(bytes.data(), len);
   EXPECT_EQ(back, group);
   EXPECT_NE(back.group, group.group);  // a new object
   EXPECT_EQ(back.key(), DecapGroupName("g1"));
   const DecapGroupRecord largest{decapGroupFactory(Vela::String(255, 'n'), DecapTunnelType::gre,
                                                    prefixes(64), Vela::String(100, 'v'))};
   EXPECT_EQ(largest.serializeLen(), DecapGroupRecord::kMaxSerializedLen);
   expectRefused(group, {{"short", 0, 0, 0, -1},
                         {"long", 0, 0, 0, 1},
                         {"tunnel type", 0, 1, 4, 0},
                         {"name length 0", 1, 1, 0, -2},
                         {"vrf above 100", 2, 1, 101, 97},
                         {"65 addresses", 3, 1, 65, 63 * 24},
                         {"prefix of no family", 10, 24, 0, 0}});
   expectRefused(DestPortRecord{4789, PayloadType::ethernet},
                 {{"short", 0, 0, 0, -1}, {"long", 0, 0, 0, 1}, {"payload type", 2, 1, 5, 0}});
   expectRefused(ReadyRecord{true},
                 {{"short", 0, 0, 0, -1}, {"long", 0, 0, 0, 1}, {"not a bool", 0, 1, 2, 0}});

   uint8_t portBytes[3];
   DestPortRecord{0x12B5, PayloadType::ethernet}.serialize(portBytes);
   EXPECT_EQ(std::vector<uint8_t>(portBytes, portBytes + 3), Testing::hexBytes("b512 04"));
   DestPortRecord port;
   port.deserialize(portBytes, 3);
   EXPECT_EQ(port, (DestPortRecord{4789, PayloadType::ethernet}));

   // The group name key: a length byte, the name, zero padding; a padded or empty name is refused.
   const auto name = Testing::bytesOf(DecapGroupName("ab"));
   EXPECT_EQ(std::vector<uint8_t>(name.begin(), name.begin() + 4), Testing::hexBytes("02616200"));
   EXPECT_EQ(DecapGroupName::deserialize(name.data()).name(), "ab");
   auto padded = name;
   padded[255] = 1;
   EXPECT_THROW(DecapGroupName::deserialize(padded.data()), Vela::Exception);
   auto empty = name;
   empty[0] = empty[1] = empty[2] = 0;
   EXPECT_THROW(DecapGroupName::deserialize(empty.data()), Vela::Exception);
   EXPECT_THROW(DecapGroupName(Vela::String(256, 'x')), Vela::RangeException);
}

}  // namespace
}  // namespace Tunnel::Decap
