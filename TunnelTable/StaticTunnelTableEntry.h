// Entries whose only addition is MPLS via collections: static tunnels (primary and backup vias,
// two counts and 76 bytes per via after the base record) and SR-TE segment lists (one collection,
// the count and 76 bytes per via).
#pragma once

#include "TunnelTable/TunnelTableEntry.h"
#include "TunnelTable/Via.h"

namespace Tunnel::TunnelTable {

class StaticTunnelTableEntry : public TunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(StaticTunnelTableEntry, staticTunnelTableEntry)

   StaticTunnelTableEntry() = default;
   explicit StaticTunnelTableEntry(const TunnelId& tunnelId) : TunnelTableEntry(tunnelId) {}
   // Not available: the entry holds a collection (asserts).
   StaticTunnelTableEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_VIA_COLLECTION(MplsViaArray, via)
   TUNNEL_ENTRY_VIA_COLLECTION(MplsViaArray, backupVia)

   TUNNEL_ENTRY_OPERATIONS(StaticTunnelTableEntry)

   static constexpr auto fields() {
      using Self = StaticTunnelTableEntry;
      return std::tuple_cat(TunnelTableEntry::fields(),
                            std::tuple{Codec::field<&Self::via_>("via"),
                                       Codec::field<&Self::backupVia_>("backupVia")});
   }

  private:
   LiveCopyArray<MplsViaArray> via_;
   LiveCopyArray<MplsViaArray> backupVia_;
};

class SrTeSegmentListTunnelTableEntry : public TunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(SrTeSegmentListTunnelTableEntry, srTeSegmentListTunnelTableEntry)

   SrTeSegmentListTunnelTableEntry() = default;
   explicit SrTeSegmentListTunnelTableEntry(const TunnelId& tunnelId)
       : TunnelTableEntry(tunnelId) {}
   // Not available: the entry holds a collection (asserts).
   SrTeSegmentListTunnelTableEntry(Vela::String::const_iterator begin,
                                   Vela::String::const_iterator end);

   TUNNEL_ENTRY_VIA_COLLECTION(MplsViaArray, via)

   TUNNEL_ENTRY_OPERATIONS(SrTeSegmentListTunnelTableEntry)

   static constexpr auto fields() {
      using Self = SrTeSegmentListTunnelTableEntry;
      return std::tuple_cat(TunnelTableEntry::fields(),
                            std::tuple{Codec::field<&Self::via_>("via")});
   }

  private:
   LiveCopyArray<MplsViaArray> via_;
};

}  // namespace Tunnel::TunnelTable
