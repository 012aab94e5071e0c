// The candidate class key: its order (the order candidates are ranked in), text form, parser
// errors and hash.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TunnelRib/InternalTunnelCandidateId.h"
#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

using Id = InternalTunnelCandidateId;
using T = TunnelType;

TEST(InternalTunnelCandidateId, OrderIsPrefThenTypeDefaultPrefThenMetricThenTypeNumber) {
   struct Case {
      Id a, b;
      bool aFirst;
   };
   const Case cases[] = {
       // entryPref decides first, whatever the rest.
       {{T::bgpLuTunnel, 1, 9}, {T::staticTunnel, 2, 0}, true},
       {{T::staticTunnel, 2, 0}, {T::bgpLuTunnel, 1, 9}, false},
       // Then the type's default preference (LDP 55, BGP-LU 85), not the type number (3 > 2)...
       {{T::ldpTunnel, 0, 5}, {T::bgpLuTunnel, 0, 5}, true},
       {{T::bgpLuTunnel, 0, 5}, {T::ldpTunnel, 0, 5}, false},
       // ...and before the metric.
       {{T::ldpTunnel, 0, 9}, {T::isisSrTunnel, 0, 1}, true},
       // Then the metric.
       {{T::ldpTunnel, 0, 5}, {T::ldpTunnel, 0, 6}, true},
       {{T::ldpTunnel, 0, 6}, {T::ldpTunnel, 0, 5}, false},
       // Types sharing a default preference (IS-IS SR and flex-algo, 65): the type number.
       {{T::isisSrTunnel, 0, 5}, {T::isisFlexAlgoTunnel, 0, 5}, true},
       {{T::isisFlexAlgoTunnel, 0, 5}, {T::isisSrTunnel, 0, 5}, false},
       // Equal: neither first.
       {{T::ldpTunnel, 3, 4}, {T::ldpTunnel, 3, 4}, false},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(valueToStrep(c.a) + " < " + valueToStrep(c.b));
      EXPECT_EQ(c.a < c.b, c.aFirst);
   }
   EXPECT_EQ(Id(T::ldpTunnel, 3, 4), Id(T::ldpTunnel, 3, 4));
   EXPECT_NE(Id(T::ldpTunnel, 3, 4), Id(T::ldpTunnel, 3, 5));
}

TEST(InternalTunnelCandidateId, TextFormRoundTripsAndNamesTheAttributeThatFails) {
   const Id id(T::rsvpLerTunnel, 7, 4000000000u);
   const Vela::String text =
       "Value('Tunnel::TunnelTable::InternalTunnelCandidateId', ** {'tunnelType': rsvpLerTunnel, "
       "'entryPref': 7, 'entryMetric': 4000000000})";
   EXPECT_EQ(valueToStrep(id), text);
   EXPECT_EQ(Id(text.cbegin(), text.cend()), id);

   const std::pair<const char*, const char*> bad[] = {
       {"{'tunnelType': noSuchTunnel, 'entryPref': 7, 'entryMetric': 1}",
        "cannot read attribute 'tunnelType' of "
        "Tunnel::TunnelTable::InternalTunnelCandidateId: unknown tunnel type 'noSuchTunnel'"},
       {"{'tunnelType': ldpTunnel, 'entryPref': x, 'entryMetric': 1}",
        "cannot read attribute 'entryPref'"},
       {"{'tunnelType': ldpTunnel, 'entryPref': 7, 'entryMetric': -1}",
        "cannot read attribute 'entryMetric'"},
   };
   for (const auto& [fields, attribute] : bad) {
      const Vela::String t =
          Vela::String("Value('Tunnel::TunnelTable::InternalTunnelCandidateId', ** ") + fields +
          ")";
      EXPECT_THAT(Testing::errorText<Vela::Exception>([&] { Id(t.cbegin(), t.cend()); }),
                  ::testing::HasSubstr(attribute));
   }
}

TEST(InternalTunnelCandidateId, HashFeedsTypePrefByteAndMetricFromTheSeed) {
   const Id id(T::ldpTunnel, 7, 1000);
   const uint32_t expected =
       Vela::HashMixer(42).add(uint32_t(T::ldpTunnel)).add(uint8_t(7)).add(uint32_t(1000)).finish();
   EXPECT_EQ(id.hash(42), expected);
   EXPECT_NE(id.hash(42), Id(T::ldpTunnel, 8, 1000).hash(42));
   EXPECT_NE(id.hash(42), Id(T::ldpTunnel, 7, 1001).hash(42));
   EXPECT_NE(id.hash(42), Id(T::isisSrTunnel, 7, 1000).hash(42));
   EXPECT_NE(id.hash(42), id.hash(43));
}

}  // namespace
}  // namespace Tunnel::TunnelTable
