// Entries of colored and nexthop-group tunnels. The colored entry (and the SR-TE policy entry,
// which adds nothing) carries a color, an IGP preference and an IGP metric: 12 bytes after the base
// record. The flex-algo entry adds a colored flag and 600 MPLS vias, and its byte form writes every
// via place so that it is always 46168 bytes long. The nexthop-group entry carries the group's id,
// its IGP metric and preference, again 12 bytes.
#pragma once

#include "TunnelTable/TunnelTableEntry.h"
#include "TunnelTable/Via.h"

namespace Tunnel::TunnelTable {

class ColoredTunnelTableEntry : public TunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(ColoredTunnelTableEntry, coloredTunnelTableEntry)

   ColoredTunnelTableEntry() = default;
   explicit ColoredTunnelTableEntry(const TunnelId& tunnelId) : TunnelTableEntry(tunnelId) {}
   ColoredTunnelTableEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_FIELD(uint32_t, color)
   TUNNEL_ENTRY_FIELD(TunnelIgpPref, igpPref)
   TUNNEL_ENTRY_FIELD(uint32_t, igpMetric)

   TUNNEL_ENTRY_OPERATIONS(ColoredTunnelTableEntry)

   static constexpr auto fields() {
      using Self = ColoredTunnelTableEntry;
      return std::tuple_cat(
          TunnelTableEntry::fields(),
          std::tuple{Codec::field<&Self::color_>("color"), Codec::field<&Self::igpPref_>("igpPref"),
                     Codec::field<&Self::igpMetric_>("igpMetric")});
   }

  private:
   uint32_t color_ = 0;
   TunnelIgpPref igpPref_ = TunnelIgpPref::defaultIgpPref;
   uint32_t igpMetric_ = 0;
};

TUNNEL_ENTRY_SUBKIND(SrTePolicyTunnelTableEntry, ColoredTunnelTableEntry,
                     srTePolicyTunnelTableEntry)

class FlexAlgoTunnelTableEntry : public TunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(FlexAlgoTunnelTableEntry, flexAlgoTunnelTableEntry)
   static constexpr uint32_t kSerializedLen = 46168;

   FlexAlgoTunnelTableEntry() = default;
   explicit FlexAlgoTunnelTableEntry(const TunnelId& tunnelId) : TunnelTableEntry(tunnelId) {}
   // Not available: the entry holds a collection (asserts).
   FlexAlgoTunnelTableEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_FIELD(uint32_t, color)
   TUNNEL_ENTRY_FIELD(TunnelIgpPref, igpPref)
   TUNNEL_ENTRY_FIELD(uint32_t, igpMetric)
   TUNNEL_ENTRY_FIELD(bool, isColored)
   TUNNEL_ENTRY_VIA_COLLECTION(MplsViaArray, via)

   TUNNEL_ENTRY_OPERATIONS(FlexAlgoTunnelTableEntry)

   static constexpr auto fields() {
      using Self = FlexAlgoTunnelTableEntry;
      return std::tuple_cat(
          TunnelTableEntry::fields(),
          std::tuple{
              Codec::field<&Self::color_>("color"), Codec::field<&Self::igpPref_>("igpPref"),
              Codec::field<&Self::igpMetric_>("igpMetric"),
              Codec::field<&Self::isColored_>("isColored"),
              Codec::fieldAs<&Self::via_, Codec::AllPlacesArrayTraits<MplsViaArray>>("via")});
   }

  private:
   uint32_t color_ = 0;
   TunnelIgpPref igpPref_ = TunnelIgpPref::defaultIgpPref;
   uint32_t igpMetric_ = 0;
   bool isColored_ = false;
   LiveCopyArray<MplsViaArray> via_;
};

class NexthopGroupTunnelTableEntry : public TunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(NexthopGroupTunnelTableEntry, nexthopGroupTunnelTableEntry)

   NexthopGroupTunnelTableEntry() = default;
   explicit NexthopGroupTunnelTableEntry(const TunnelId& tunnelId) : TunnelTableEntry(tunnelId) {}
   NexthopGroupTunnelTableEntry(Vela::String::const_iterator begin,
                                Vela::String::const_iterator end);

   TUNNEL_ENTRY_FIELD(uint32_t, nhgId)
   TUNNEL_ENTRY_FIELD(uint32_t, igpMetric)
   TUNNEL_ENTRY_FIELD(uint32_t, igpPref)

   TUNNEL_ENTRY_OPERATIONS(NexthopGroupTunnelTableEntry)

   static constexpr auto fields() {
      using Self = NexthopGroupTunnelTableEntry;
      return std::tuple_cat(TunnelTableEntry::fields(),
                            std::tuple{Codec::field<&Self::nhgId_>("nhgId"),
                                       Codec::field<&Self::igpMetric_>("igpMetric"),
                                       Codec::field<&Self::igpPref_>("igpPref")});
   }

  private:
   uint32_t nhgId_ = 0;
   uint32_t igpMetric_ = 0;
   uint32_t igpPref_ = 0;
};

}  // namespace Tunnel::TunnelTable
