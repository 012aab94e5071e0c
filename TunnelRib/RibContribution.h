// RibContribution: what one protocol tunnel offers the tunnel RIB - the endpoint it reaches (and
// whether that endpoint is colored), its candidate class (tunnel type, entryPref, entryMetric),
// its bandwidth, and the route metrics and preferences a RIB entry carries when the tunnel leads
// the winning class.
//
// What each entry kind offers:
//   - every kind derived from TunnelTableEntry offers its first endpoint (tep()); an entry with no
//     endpoint offers nothing;
//   - colored: an SR-TE policy (its color), a flex-algo tunnel whose isColored is set (its color),
//     an RSVP LER tunnel that carries a color. A colored tunnel goes to the colored RIB only;
//     every other tunnel goes to the plain RIB only;
//   - metric / metric2 / pref / pref2: the IGP kinds (LDP, SR) their igpMetric, igpMetric2,
//   igpPref,
//     igpPref2; BGP labelled unicast its bgp metrics and preferences and bgpMetricType; RSVP LER
//     its metric and igpPref; SR-TE policy, flex-algo and nexthop-group their igpMetric and
//     igpPref; every other kind 0 (metricType the default);
//   - a BGP labelled-unicast tunnel offers itself only when its contribution is `contributing`
//     (a backup-only tunnel is not a RIB candidate).
// The EVPN VXLAN and mLDP tables have no endpoint prefix and offer nothing.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "TunnelRib/InternalTunnelCandidateId.h"
#include "TunnelTable/ColoredTunnelEndpoint.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelTableBase.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "Wirekit/MetricType.h"

namespace Tunnel::TunnelTable {

struct RibContribution {
   TunnelId tunnelId;
   // The RIB key: isColored() says which RIB.
   ColoredTunnelEndpoint endpoint;
   InternalTunnelCandidateId candidate;
   TunnelBandwidth bandwidth;
   uint32_t metric = 0;
   Wirekit::MetricType metricType = Wirekit::kDefaultMetricType;
   uint32_t metric2 = 0;
   uint32_t pref = 0;
   uint32_t pref2 = 0;

   friend bool operator==(const RibContribution& a, const RibContribution& b);
};

// Reads what the entry of `key` offers from a table of a kind this folder knows; nothing when the
// entry is absent or offers nothing.
using RibContributionReader = std::function<std::optional<RibContribution>(
    const TunnelTableBase& table, const TunnelId& key)>;

// The reader for tables of type `typeName` (a registry type name); empty for tables that offer
// nothing (EVPN VXLAN, mLDP, unknown types).
RibContributionReader ribContributionReader(std::string_view typeName);

}  // namespace Tunnel::TunnelTable
