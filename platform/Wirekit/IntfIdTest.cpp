#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/Errors.h"
#include "Wirekit/IntfId.h"
#include "testing/Expect.h"

using Testing::errorText;
using Wirekit::DynamicTunnelIntfId;
using Wirekit::FormatError;
using Wirekit::IntfId;
using Wirekit::IntfKind;

namespace {

IntfId viaBytes(const IntfId& i) {
   std::array<uint8_t, 8> b;
   i.serialize(b.data());
   return IntfId::deserialize(b.data());
}

TEST(IntfId, NamesRoundTripThroughCodeAndBytes) {
   const auto roundTrip = [](const std::string& n) {
      SCOPED_TRACE(n);
      const IntfId i(n);
      EXPECT_EQ(i.name(), n);
      EXPECT_EQ(Wirekit::valueToStrep(i), n);
      EXPECT_EQ(Testing::streamed(i), n);
      EXPECT_EQ(IntfId::fromCode(i.code()), i);
      EXPECT_EQ(viaBytes(i), i);
      EXPECT_EQ(i.hash(), Vela::oneAtATimeOf(i.code()));
      EXPECT_EQ(std::hash<IntfId>()(i), i.hash());
      // A tunnel interface carries its port number; no other kind is a tunnel interface.
      EXPECT_EQ(i.isTunnelIntf(), n.starts_with("Tunnel"));
      if (i.isTunnelIntf()) {
         EXPECT_EQ(IntfId::tunnelIntf(i.tunnelPort()), i);
      }
   };
   for (const char* n : {"", "Ethernet0", "Ethernet1", "Ethernet2/1", "Ethernet3/1/4",
                         "Ethernet65535/65535/65535", "Management1", "Management1/1", "Loopback0",
                         "Loopback65535", "Vlan1", "Vlan4094", "Port-Channel10", "Vxlan1"}) {
      roundTrip(n);
   }
   for (const char* n :
        {"Tunnel0", "Tunnel1", "Tunnel65535", "Tunnel70000", "Tunnel4294967295", "DynamicTunnel0x0",
         "DynamicTunnel0x900000000005", "DynamicTunnel0xffffffffffffff"}) {
      roundTrip(n);
   }
   EXPECT_TRUE(IntfId().isEmpty());
   EXPECT_EQ(IntfId(""), IntfId());
}

TEST(IntfId, CodesFollowTheDocumentedLayout) {
   EXPECT_EQ(IntfId().code(), 0u);
   EXPECT_EQ(IntfId("Ethernet2/1").code(),
             (uint64_t{1} << 56) | (uint64_t{2} << 40) | (uint64_t{1} << 24) | 2);
   EXPECT_EQ(IntfId("Ethernet3/1/4").code(),
             (uint64_t{1} << 56) | (uint64_t{3} << 40) | (uint64_t{1} << 24) | (4 << 8) | 3);
   EXPECT_EQ(IntfId("Vlan100").code(), (uint64_t{4} << 56) | (uint64_t{100} << 40) | 1);
   EXPECT_EQ(IntfId("Tunnel5").code(), (uint64_t{7} << 56) | 5);
   EXPECT_EQ(IntfId::tunnelIntf(5), IntfId("Tunnel5"));
   EXPECT_EQ(DynamicTunnelIntfId::tunnelIdToIntfId(0x900000000005).code(),
             (uint64_t{8} << 56) | 0x900000000005);
   std::array<uint8_t, 8> b;
   IntfId("Ethernet2/1").serialize(b.data());
   EXPECT_EQ(b, (std::array<uint8_t, 8>{0x02, 0x00, 0x00, 0x01, 0x00, 0x02, 0x00, 0x01}));
   EXPECT_EQ(IntfId::ordinary(IntfKind::ethernet, 2, 1), IntfId("Ethernet2/1"));
   EXPECT_EQ(IntfId::ordinary(IntfKind::management, 1), IntfId("Management1"));
   EXPECT_EQ(IntfId::ordinary(IntfKind::ethernet, 3, 1, 4), IntfId("Ethernet3/1/4"));
}

TEST(IntfId, RejectsUnknownAndNonCanonicalNamesAndNumbersTheKindCannotTake) {
   const auto rejected = [](const std::string& n) {
      SCOPED_TRACE(n);
      EXPECT_EQ(errorText<Vela::ParseException>([&] { IntfId{n}; }),
                "invalid interface name '" + Wirekit::printableText(n) + "'");
   };
   for (const char* n : {"ethernet1", "Ethernet", "Ethernet01", "Ethernet1/", "Ethernet/1",
                         "Ethernet1//2", "Ethernet1/2/3/4", "Ethernet65536", "Ethernet1/65536",
                         "Ethernet+1", "Ethernet-1", " Ethernet1", "Ethernet1 ", "Ethernet1.100",
                         "Management1/2/3", "Loopback1/1", "Vlan0", "Vlan4095"}) {
      rejected(n);
   }
   for (const char* n :
        {"Tunnel", "Tunnel01", "Tunnel4294967296", "Tunnel-1", "Tunnel1/1", "DynamicTunnel5",
         "DynamicTunnel0x", "DynamicTunnel0X5", "DynamicTunnel0x05", "DynamicTunnel0xABC",
         "DynamicTunnel0x100000000000000", "DynamicTunnel", "Foo1", "Port-Channel", "Vxlan1/1"}) {
      rejected(n);
   }
   rejected(std::string("Ethernet1\0", 10));
   const std::string range =
       "Wirekit::IntfId::value < Wirekit::IntfId::min or > Wirekit::IntfId::max not allowed";
   const auto err = [](auto make) { return errorText<Vela::RangeException>(make); };
   EXPECT_EQ(err([] { IntfId::ordinary(IntfKind::vlan, 0); }), range);
   EXPECT_EQ(err([] { IntfId::ordinary(IntfKind::vlan, 4095); }), range);
   EXPECT_EQ(err([] { IntfId::ordinary(IntfKind::ethernet, 65536); }), range);
   EXPECT_EQ(err([] { IntfId::ordinary(IntfKind::ethernet, 1, 65536); }), range);
   EXPECT_EQ(err([] { IntfId::ordinary(IntfKind::management, 1, 1, 1); }), range);
   EXPECT_EQ(err([] { IntfId::ordinary(IntfKind::loopback, 1, 1); }), range);
   for (auto kind :
        {IntfKind::tunnel, IntfKind::dynamicTunnel, IntfKind::empty, static_cast<IntfKind>(200)}) {
      EXPECT_EQ(err([&] { IntfId::ordinary(kind, 1); }), range);
   }
}

TEST(IntfId, OrderFollowsKindThenNumbers) {
   std::vector<IntfId> sorted;
   for (const char* n :
        {"", "Ethernet1", "Ethernet1/1", "Ethernet1/1/1", "Ethernet1/2", "Ethernet2", "Ethernet10",
         "Management1", "Loopback0", "Vlan1", "Port-Channel1", "Vxlan1", "Tunnel0",
         "Tunnel4294967295", "DynamicTunnel0x0", "DynamicTunnel0x1"}) {
      sorted.emplace_back(n);
   }
   Testing::expectStrictOrder(sorted);
}

TEST(IntfId, DynamicTunnelInterfacesRoundTripTunnelIdentifiers) {
   std::vector<uint64_t> values{0,
                                1,
                                0x900000000005,
                                (uint64_t{1} << 49) - 1,
                                uint64_t{1} << 49,
                                DynamicTunnelIntfId::kMaxTunnelIdValue};
   for (int bit = 0; bit < 56; ++bit) values.push_back(uint64_t{1} << bit);
   std::mt19937_64 rng(7);
   for (int i = 0; i < 20000; ++i) values.push_back(rng() & ((uint64_t{1} << 49) - 1));
   for (uint64_t v : values) {
      const IntfId i = DynamicTunnelIntfId::tunnelIdToIntfId(v);
      ASSERT_TRUE(DynamicTunnelIntfId::isDynamicTunnelIntfId(i)) << v;
      ASSERT_EQ(DynamicTunnelIntfId::tunnelId(i), v);
      ASSERT_EQ(viaBytes(i), i);
      ASSERT_EQ(IntfId(i.name()), i);
   }
   // Distinct tunnels, distinct interfaces, ordered like the identifiers.
   EXPECT_LT(DynamicTunnelIntfId::tunnelIdToIntfId(0x300000000007),
             DynamicTunnelIntfId::tunnelIdToIntfId(0x300000000008));
   EXPECT_EQ(errorText<Vela::RangeException>([] {
                DynamicTunnelIntfId::tunnelIdToIntfId(DynamicTunnelIntfId::kMaxTunnelIdValue + 1);
             }),
             "Wirekit::DynamicTunnelIntfId::tunnelId < Wirekit::DynamicTunnelIntfId::minTunnelId "
             "or > Wirekit::DynamicTunnelIntfId::maxTunnelId not allowed");
   for (const char* n : {"", "Ethernet1", "Tunnel5", "Vlan10"}) {
      EXPECT_FALSE(DynamicTunnelIntfId::isDynamicTunnelIntfId(IntfId(n))) << n;
   }
   EXPECT_DEATH(DynamicTunnelIntfId::tunnelId(IntfId::tunnelIntf(5)),
                "DynamicTunnelIntfId::tunnelId of an interface that is not a dynamic tunnel");
   EXPECT_DEATH(DynamicTunnelIntfId::tunnelIdToIntfId(5).tunnelPort(),
                "IntfId::tunnelPort of an interface that is not a tunnel");
}

TEST(IntfId, CodesNoInterfaceHasAreRejected) {
   auto expectBad = [](uint64_t code) {
      EXPECT_THROW(IntfId::fromCode(code), FormatError) << std::hex << code;
      std::array<uint8_t, 8> b;
      for (int i = 0; i < 8; ++i) b[i] = static_cast<uint8_t>(code >> (8 * i));
      EXPECT_THROW(IntfId::deserialize(b.data()), FormatError) << std::hex << code;
   };
   // Unknown kinds, with and without payload.
   for (uint64_t kind = 9; kind < 256; ++kind) {
      expectBad(kind << 56);
      expectBad((kind << 56) | 1);
   }
   // The empty kind with any payload bit.
   for (int bit = 0; bit < 56; ++bit) expectBad(uint64_t{1} << bit);
   const uint64_t eth = uint64_t{1} << 56;
   expectBad(eth);                                                  // no numbers
   expectBad(eth | (uint64_t{1} << 40) | 4);                        // reserved bit
   expectBad(eth | (uint64_t{1} << 40) | 0x80 | 1);                 // reserved bit
   expectBad(eth | (uint64_t{1} << 40) | (uint64_t{1} << 24) | 1);  // number beyond count
   expectBad(eth | (uint64_t{1} << 40) | (uint64_t{1} << 8) | 2);   // number beyond count
   expectBad((uint64_t{2} << 56) | (uint64_t{1} << 40) | 3);        // Management takes 2
   expectBad((uint64_t{3} << 56) | (uint64_t{1} << 40) | 2);        // Loopback takes 1
   expectBad((uint64_t{4} << 56) | 1);                              // Vlan0
   expectBad((uint64_t{4} << 56) | (uint64_t{4095} << 40) | 1);     // Vlan4095
   for (int bit = 32; bit < 56; ++bit) expectBad((uint64_t{7} << 56) | (uint64_t{1} << bit));
   EXPECT_EQ(errorText<FormatError>([] { IntfId::fromCode(uint64_t{9} << 56); }),
             "Wirekit::IntfId: unknown interface kind 9");
   // Every code the parser makes is accepted.
   EXPECT_NO_THROW(IntfId::fromCode(eth | (uint64_t{1} << 40) | 1));
   EXPECT_NO_THROW(IntfId::fromCode((uint64_t{8} << 56) | ((uint64_t{1} << 56) - 1)));
}

}  // namespace
