// The candidate class key's text form and parser errors (its order: TunnelPikeStatusTest).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TunnelRib/InternalTunnelCandidateId.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

using Id = InternalTunnelCandidateId;
using T = TunnelType;

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

}  // namespace
}  // namespace Tunnel::TunnelTable
