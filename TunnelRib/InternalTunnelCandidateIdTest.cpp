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

// Every pair compared both ways: entryPref decides first, whatever the rest; then the type's
// default preference (LDP 55, IS-IS SR and flex-algo 65, BGP-LU 85), not the type number (LDP 3 >
// BGP-LU 2), and before the metric; then the metric; then the type number (IS-IS SR 7 before
// flex-algo 21, which share 65). Equal only to itself.
TEST(InternalTunnelCandidateId, OrderIsPrefThenTypeDefaultPrefThenMetricThenTypeNumber) {
   Testing::expectStrictOrder(std::vector<Id>{
       {T::ldpTunnel, 0, 5},
       {T::ldpTunnel, 0, 6},
       {T::ldpTunnel, 0, 9},
       {T::isisSrTunnel, 0, 1},
       {T::isisSrTunnel, 0, 5},
       {T::isisFlexAlgoTunnel, 0, 5},
       {T::bgpLuTunnel, 0, 5},
       {T::bgpLuTunnel, 1, 9},
       {T::staticTunnel, 2, 0},
   });
   EXPECT_EQ(Id(T::ldpTunnel, 3, 4), Id(T::ldpTunnel, 3, 4));
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
}

}  // namespace
}  // namespace Tunnel::TunnelTable
