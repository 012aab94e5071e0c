#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/ByteForm.h"
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
      EXPECT_EQ(DynamicTunnelIntfId::isDynamicTunnelIntfId(i), n.starts_with("Dynamic"));
      if (DynamicTunnelIntfId::isDynamicTunnelIntfId(i)) {
         EXPECT_EQ(DynamicTunnelIntfId::tunnelIdToIntfId(DynamicTunnelIntfId::tunnelId(i)), i);
      }
   };
   for (const char* n :
        {"", "Ethernet0", "Ethernet3/1/4", "Ethernet65535/65535/65535", "Management1/1",
         "Loopback65535", "Vlan4094", "Port-Channel10", "Vxlan1", "Tunnel0", "Tunnel4294967295",
         "DynamicTunnel0x0", "DynamicTunnel0xabcdef", "DynamicTunnel0xffffffffffffff"}) {
      roundTrip(n);
   }
}

// The order is the defaulted one over the code, so these codes also fix the order of kinds and
// numbers. (The byte form, the code little-endian, is pinned by the via byte tests.)
TEST(IntfId, CodesFollowTheDocumentedLayout) {
   EXPECT_EQ(IntfId().code(), 0u);
   EXPECT_EQ(IntfId("Ethernet2/1").code(),
             (uint64_t{1} << 56) | (uint64_t{2} << 40) | (uint64_t{1} << 24) | 2);
   EXPECT_EQ(IntfId("Ethernet3/1/4").code(),
             (uint64_t{1} << 56) | (uint64_t{3} << 40) | (uint64_t{1} << 24) | (4 << 8) | 3);
   EXPECT_EQ(IntfId("Vlan100").code(), (uint64_t{4} << 56) | (uint64_t{100} << 40) | 1);
   EXPECT_EQ(IntfId("Tunnel5").code(), (uint64_t{7} << 56) | 5);
   EXPECT_EQ(DynamicTunnelIntfId::tunnelIdToIntfId(0x900000000005).code(),
             (uint64_t{8} << 56) | 0x900000000005);
   const char* kinds[] = {"Ethernet1",     "Management1", "Loopback1", "Vlan1",
                          "Port-Channel1", "Vxlan1",      "Tunnel1"};
   for (uint64_t k = 1; k <= 7; ++k) EXPECT_EQ(IntfId(kinds[k - 1]).code() >> 56, k) << k;
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
   for (const char* n :
        {"ethernet1", "Ethernet", "Ethernet01", "Ethernet1/", "Ethernet1//2", "Ethernet1/2/3/4",
         "Ethernet65536", "Ethernet1/65536", "Ethernet+1", " Ethernet1", "Ethernet1.100",
         "Management1/2/3", "Loopback1/1", "Vlan0"}) {
      rejected(n);
   }
   for (const char* n : {"Vlan4095", "Tunnel01", "Tunnel4294967296", "Tunnel1/1", "DynamicTunnel5",
                         "DynamicTunnel0x", "DynamicTunnel0X5", "DynamicTunnel0x05",
                         "DynamicTunnel0xABC", "DynamicTunnel0x100000000000000", "Foo1"}) {
      rejected(n);
   }
   rejected(std::string("Ethernet1\0", 10));
   const std::string range =
       "Wirekit::IntfId::value < Wirekit::IntfId::min or > Wirekit::IntfId::max not allowed";
   const auto err = [](auto make) { return errorText<Vela::RangeException>(make); };
   EXPECT_EQ(err([] { IntfId::ordinary(IntfKind::vlan, 4095); }), range);
   EXPECT_EQ(err([] { IntfId::ordinary(IntfKind::ethernet, 1, 65536); }), range);
   EXPECT_EQ(err([] { IntfId::ordinary(IntfKind::management, 1, 1, 1); }), range);
   EXPECT_EQ(err([] { IntfId::ordinary(IntfKind::loopback, 1, 1); }), range);
   for (auto kind : {IntfKind::tunnel, IntfKind::dynamicTunnel, static_cast<IntfKind>(200)}) {
      EXPECT_EQ(err([&] { IntfId::ordinary(kind, 1); }), range);
   }
}

// Tunnel identifiers up to 56 bits; asking one kind for the other's number is a programming error.
TEST(IntfId, DynamicTunnelIdentifierRangeAndMisuse) {
   EXPECT_EQ(errorText<Vela::RangeException>([] {
                DynamicTunnelIntfId::tunnelIdToIntfId(DynamicTunnelIntfId::kMaxTunnelIdValue + 1);
             }),
             "Wirekit::DynamicTunnelIntfId::tunnelId < Wirekit::DynamicTunnelIntfId::minTunnelId "
             "or > Wirekit::DynamicTunnelIntfId::maxTunnelId not allowed");
   EXPECT_DEATH(DynamicTunnelIntfId::tunnelId(IntfId::tunnelIntf(5)),
                "DynamicTunnelIntfId::tunnelId of an interface that is not a dynamic tunnel");
   EXPECT_DEATH(DynamicTunnelIntfId::tunnelIdToIntfId(5).tunnelPort(),
                "IntfId::tunnelPort of an interface that is not a tunnel");
}

// Codes no name gives, through bytes, with the error each check of the code gives.
TEST(IntfId, CodesNoInterfaceHasAreRejected) {
   const uint64_t eth = uint64_t{1} << 56, v1 = uint64_t{1} << 40;
   const struct {
      uint64_t code;
      const char* error;
   } cases[] = {
       {uint64_t{9} << 56, "unknown interface kind 9"},
       {uint64_t{1} << 55, "invalid code 0x80000000000000"},       // empty kind with payload
       {eth | v1 | 4, "invalid code 0x100010000000004"},           // reserved bit
       {eth | v1 | 1 << 8 | 2, "invalid code 0x100010000000102"},  // number beyond the count
       {uint64_t{4} << 56 | uint64_t{4095} << 40 | 1, "invalid code 0x40fff0000000001"},
       {uint64_t{7} << 56 | uint64_t{1} << 32, "invalid tunnel code 0x700000100000000"},
   };
   for (const auto& c : cases) {
      std::array<uint8_t, 8> b;
      for (int i = 0; i < 8; ++i) b[i] = static_cast<uint8_t>(c.code >> (8 * i));
      EXPECT_EQ(errorText<FormatError>([&] { IntfId::deserialize(b.data()); }),
                std::string("Wirekit::IntfId: ") + c.error);
   }
   EXPECT_NO_THROW(IntfId::fromCode((uint64_t{8} << 56) | ((uint64_t{1} << 56) - 1)));
}

// The byte reader's inline check accepts exactly the codes fromCode accepts (and reads them
// back), with fromCode's text for the others: kinds, counts, reserved bits, numbers at bounds.
TEST(IntfId, BytesAcceptExactlyTheCodesFromCodeAccepts) {
   for (uint64_t kind : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 255})
      for (uint64_t first : {0, 1, 4094, 4095, 0xFFFF})
         for (uint64_t second : {0, 1, 0x100, 0xFFFF})
            for (uint64_t third : {0, 1, 0xFFFF})
               for (uint64_t low : {0, 1, 2, 3, 4 | 1, 0x80 | 2}) {
                  const uint64_t code = kind << 56 | first << 40 | second << 24 | third << 8 | low;
                  std::array<uint8_t, 8> b;
                  Wirekit::ByteForm::storeLe(b.data(), code);
                  EXPECT_EQ(errorText<FormatError>(
                                [&] { EXPECT_EQ(IntfId::deserialize(b.data()).code(), code); }),
                            errorText<FormatError>([&] { IntfId::fromCode(code); }))
                      << std::hex << code;
               }
}

}  // namespace
