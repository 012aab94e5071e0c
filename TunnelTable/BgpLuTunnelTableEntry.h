// Entries of BGP labelled-unicast tunnels. The push entry holds up to 600 plain vias (next hop and
// interface) and the label operation of the route, of any depth: after the base record, the via
// count, 28 bytes per via, then the operation's own byte form. The BGP-LU entry adds the route's
// contribution to the tunnel RIB and its BGP attributes, 28 bytes more.
#pragma once

#include "TunnelTable/EntryValueTypes.h"
#include "TunnelTable/TunnelTableEntry.h"
#include "TunnelTable/Via.h"
#include "Wirekit/MetricType.h"
#include "Wirekit/UnboundedMplsLabelOperation.h"

namespace Tunnel::TunnelTable {

class BgpLuPushTunnelTableEntry : public TunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(BgpLuPushTunnelTableEntry, bgpLuPushTunnelTableEntry)

   BgpLuPushTunnelTableEntry() = default;
   explicit BgpLuPushTunnelTableEntry(const TunnelId& tunnelId) : TunnelTableEntry(tunnelId) {}
   // The base fields of `base`, no vias, no labels.
   explicit BgpLuPushTunnelTableEntry(const TunnelTableEntry& base) : TunnelTableEntry(base) {}
   // Not available: the entry holds a collection (asserts).
   BgpLuPushTunnelTableEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_VIA_COLLECTION(ViaArray, via)
   TUNNEL_ENTRY_FIELD(Wirekit::UnboundedMplsLabelOperation, labels)

   // Appends the via into `tunnelId` (next hop 0.0.0.0, the tunnel's dynamic interface) at the
   // index equal to the via count. With 600 vias already it adds nothing and writes the trace
   // record "BgpLuPushTunnelTableEntry already has the maximum number of vias (600), so cannot add
   // tunnelId <id>" (module TunnelTable, level 0): a soft failure, not an error.
   void tunnelIdViaIs(const TunnelId& tunnelId);

   TUNNEL_ENTRY_OPERATIONS(BgpLuPushTunnelTableEntry)

   static constexpr auto fields() {
      using Self = BgpLuPushTunnelTableEntry;
      return std::tuple_cat(
          TunnelTableEntry::fields(),
          std::tuple{Codec::field<&Self::via_>("via"), Codec::field<&Self::labels_>("labels")});
   }

  private:
   LiveCopyArray<ViaArray> via_;
   Wirekit::UnboundedMplsLabelOperation labels_;
};

class BgpLuTunnelTableEntry : public BgpLuPushTunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(BgpLuTunnelTableEntry, bgpLuTunnelTableEntry)

   BgpLuTunnelTableEntry() = default;
   explicit BgpLuTunnelTableEntry(const TunnelId& tunnelId) : BgpLuPushTunnelTableEntry(tunnelId) {}
   // Not available: the entry holds a collection (asserts).
   BgpLuTunnelTableEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_FIELD(ContributionToTunnelRIB, contribution)
   TUNNEL_ENTRY_FIELD(uint32_t, bgpMetric)
   TUNNEL_ENTRY_FIELD(Wirekit::MetricType, bgpMetricType)
   TUNNEL_ENTRY_FIELD(uint32_t, bgpMetric2)
   TUNNEL_ENTRY_FIELD(uint32_t, bgpPref)
   TUNNEL_ENTRY_FIELD(uint32_t, bgpPref2)
   TUNNEL_ENTRY_FIELD(TunnelBandwidth, bgpLinkBw)

   TUNNEL_ENTRY_OPERATIONS(BgpLuTunnelTableEntry)

   static constexpr auto fields() {
      using Self = BgpLuTunnelTableEntry;
      return std::tuple_cat(BgpLuPushTunnelTableEntry::fields(),
                            std::tuple{Codec::field<&Self::contribution_>("contribution"),
                                       Codec::field<&Self::bgpMetric_>("bgpMetric"),
                                       Codec::field<&Self::bgpMetricType_>("bgpMetricType"),
                                       Codec::field<&Self::bgpMetric2_>("bgpMetric2"),
                                       Codec::field<&Self::bgpPref_>("bgpPref"),
                                       Codec::field<&Self::bgpPref2_>("bgpPref2"),
                                       Codec::field<&Self::bgpLinkBw_>("bgpLinkBw")});
   }

  private:
   ContributionToTunnelRIB contribution_ = ContributionToTunnelRIB::notContributing;
   uint32_t bgpMetric_ = 0;
   Wirekit::MetricType bgpMetricType_ = Wirekit::kDefaultMetricType;
   uint32_t bgpMetric2_ = 0;
   uint32_t bgpPref_ = 0;
   uint32_t bgpPref2_ = 0;
   TunnelBandwidth bgpLinkBw_;
};

}  // namespace Tunnel::TunnelTable
