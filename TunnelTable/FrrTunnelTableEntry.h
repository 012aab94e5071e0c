// Entries of tunnels with fast reroute: one primary and one backup MPLS via, whether the primary
// is usable, and a sequence number - a fixed 155 bytes after the base record. RSVP FRR, RSVP LER
// sub-tunnel and TI-LFA entries add nothing; the RSVP LER entry adds its metric, IGP preference,
// eligibility flags, optional color (22 bytes with the split via count) and up to 600 split vias.
#pragma once

#include "TunnelTable/EntryValueTypes.h"
#include "TunnelTable/TunnelTableEntry.h"
#include "TunnelTable/Via.h"

namespace Tunnel::TunnelTable {

class FrrTunnelTableEntry : public TunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(FrrTunnelTableEntry, frrTunnelTableEntry)

   FrrTunnelTableEntry() = default;
   explicit FrrTunnelTableEntry(const TunnelId& tunnelId) : TunnelTableEntry(tunnelId) {}
   FrrTunnelTableEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_FIELD(MplsVia, via)
   TUNNEL_ENTRY_FIELD(MplsVia, backupVia)
   TUNNEL_ENTRY_FIELD(bool, isPrimaryViaUsable)
   TUNNEL_ENTRY_FIELD(TunnelEntrySequenceNumber, seqNo)

   TUNNEL_ENTRY_OPERATIONS(FrrTunnelTableEntry)

   static constexpr auto fields() {
      using Self = FrrTunnelTableEntry;
      return std::tuple_cat(
          TunnelTableEntry::fields(),
          std::tuple{Codec::field<&Self::via_>("via"), Codec::field<&Self::backupVia_>("backupVia"),
                     Codec::field<&Self::isPrimaryViaUsable_>("isPrimaryViaUsable"),
                     Codec::field<&Self::seqNo_>("seqNo")});
   }

  private:
   MplsVia via_;
   MplsVia backupVia_;
   bool isPrimaryViaUsable_ = false;
   TunnelEntrySequenceNumber seqNo_;
};

TUNNEL_ENTRY_SUBKIND(RsvpFrrTunnelTableEntry, FrrTunnelTableEntry, rsvpFrrTunnelTableEntry)
TUNNEL_ENTRY_SUBKIND(RsvpLerSubTunnelTableEntry, FrrTunnelTableEntry, rsvpLerSubTunnelTableEntry)
TUNNEL_ENTRY_SUBKIND(TiLfaTunnelTableEntry, FrrTunnelTableEntry, tiLfaTunnelTableEntry)

// An RSVP LER tunnel built from a TunnelId of type 16 has entryPref 45 (its type's default), both
// vias default, isPrimaryViaUsable false, metric 0 and the RSVP LER IGP preference.
class RsvpLerTunnelTableEntry : public FrrTunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(RsvpLerTunnelTableEntry, rsvpLerTunnelTableEntry)

   RsvpLerTunnelTableEntry() = default;
   explicit RsvpLerTunnelTableEntry(const TunnelId& tunnelId) : FrrTunnelTableEntry(tunnelId) {}
   // Not available: the entry holds a collection (asserts).
   RsvpLerTunnelTableEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_FIELD(uint32_t, metric)
   TUNNEL_ENTRY_FIELD(TunnelIgpPref, igpPref)
   TUNNEL_ENTRY_FIELD(bool, isTunnelIgpShortcutEligible)
   TUNNEL_ENTRY_FIELD(bool, isTunnelLdpTunnelingEligible)
   TUNNEL_ENTRY_FIELD(OptionalColor, color)
   TUNNEL_ENTRY_VIA_COLLECTION(MplsViaArray, splitVia)

   TUNNEL_ENTRY_OPERATIONS(RsvpLerTunnelTableEntry)

   static constexpr auto fields() {
      using Self = RsvpLerTunnelTableEntry;
      return std::tuple_cat(
          FrrTunnelTableEntry::fields(),
          std::tuple{
              Codec::field<&Self::metric_>("metric"), Codec::field<&Self::igpPref_>("igpPref"),
              Codec::field<&Self::isTunnelIgpShortcutEligible_>("isTunnelIgpShortcutEligible"),
              Codec::field<&Self::isTunnelLdpTunnelingEligible_>("isTunnelLdpTunnelingEligible"),
              Codec::field<&Self::color_>("color"), Codec::field<&Self::splitVia_>("splitVia")});
   }

  private:
   uint32_t metric_ = 0;
   TunnelIgpPref igpPref_ = TunnelIgpPref::defaultRsvpLerIgpPref;
   bool isTunnelIgpShortcutEligible_ = false;
   bool isTunnelLdpTunnelingEligible_ = false;
   OptionalColor color_;
   LiveCopyArray<MplsViaArray> splitVia_;
};

}  // namespace Tunnel::TunnelTable
