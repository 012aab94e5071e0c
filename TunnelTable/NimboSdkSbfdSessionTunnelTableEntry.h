// Entry of an SBFD session tunnel created through the SDK: one class-of-service MPLS via, in its
// own variable byte form after the base record.
#pragma once

#include "TunnelTable/TunnelTableEntry.h"
#include "TunnelTable/Via.h"

namespace Tunnel::TunnelTable {

class NimboSdkSbfdSessionTunnelTableEntry : public TunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(NimboSdkSbfdSessionTunnelTableEntry, nimboSdkSbfdSessionTunnelTableEntry)

   NimboSdkSbfdSessionTunnelTableEntry() = default;
   explicit NimboSdkSbfdSessionTunnelTableEntry(const TunnelId& tunnelId)
       : TunnelTableEntry(tunnelId) {}
   NimboSdkSbfdSessionTunnelTableEntry(Vela::String::const_iterator begin,
                                       Vela::String::const_iterator end);

   TUNNEL_ENTRY_FIELD(MplsCosVia, via)

   TUNNEL_ENTRY_OPERATIONS(NimboSdkSbfdSessionTunnelTableEntry)

   static constexpr auto fields() {
      using Self = NimboSdkSbfdSessionTunnelTableEntry;
      return std::tuple_cat(TunnelTableEntry::fields(),
                            std::tuple{Codec::field<&Self::via_>("via")});
   }

  private:
   MplsCosVia via_;
};

}  // namespace Tunnel::TunnelTable
