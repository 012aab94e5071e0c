// Entries of the IGP-derived tunnels (LDP, and segment routing over IS-IS and OSPF): IGP metrics
// and preferences and up to 600 MPLS vias. Their byte form after the base record is 20 bytes
// (four u32 and the via count) and 76 bytes per via.
#pragma once

#include "TunnelTable/TunnelTableEntry.h"
#include "TunnelTable/Via.h"

namespace Tunnel::TunnelTable {

class IgpTunnelTableEntryBase : public TunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(IgpTunnelTableEntryBase, igpTunnelTableEntryBase)

   IgpTunnelTableEntryBase() = default;
   explicit IgpTunnelTableEntryBase(const TunnelId& tunnelId) : TunnelTableEntry(tunnelId) {}
   IgpTunnelTableEntryBase(const TunnelId& tunnelId, TunnelEntryPref entryPref)
       : TunnelTableEntry(tunnelId, entryPref) {}
   // Not available: the entry holds a collection (asserts).
   IgpTunnelTableEntryBase(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_FIELD(uint32_t, igpMetric)
   TUNNEL_ENTRY_FIELD(uint32_t, igpMetric2)
   TUNNEL_ENTRY_FIELD(TunnelIgpPref, igpPref)
   TUNNEL_ENTRY_FIELD(uint32_t, igpPref2)
   TUNNEL_ENTRY_VIA_COLLECTION(MplsViaArray, via)

   TUNNEL_ENTRY_OPERATIONS(IgpTunnelTableEntryBase)

   static constexpr auto fields() {
      using Self = IgpTunnelTableEntryBase;
      return std::tuple_cat(
          TunnelTableEntry::fields(),
          std::tuple{Codec::field<&Self::igpMetric_>("igpMetric"),
                     Codec::field<&Self::igpMetric2_>("igpMetric2"),
                     Codec::field<&Self::igpPref_>("igpPref"),
                     Codec::field<&Self::igpPref2_>("igpPref2"), Codec::field<&Self::via_>("via")});
   }

  private:
   uint32_t igpMetric_ = 0;
   uint32_t igpMetric2_ = 0;
   TunnelIgpPref igpPref_ = TunnelIgpPref::defaultIgpPref;
   uint32_t igpPref2_ = 0;
   LiveCopyArray<MplsViaArray> via_;
};

TUNNEL_ENTRY_SUBKIND(LdpTunnelTableEntry, IgpTunnelTableEntryBase, ldpTunnelTableEntry)
TUNNEL_ENTRY_SUBKIND(SrTunnelTableEntry, IgpTunnelTableEntryBase, srTunnelTableEntry)

}  // namespace Tunnel::TunnelTable
