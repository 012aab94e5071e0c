// Entries of tunnel interfaces (GRE, IPsec GRE, IPsec VTI): up to 600 plain vias - the via count
// and 28 bytes per via after the base record - and, per kind, the tunnel's parameters as a fixed
// block (64 bytes for GRE; see TunnelInfo.h).
#pragma once

#include "TunnelTable/TunnelInfo.h"
#include "TunnelTable/TunnelTableEntry.h"
#include "TunnelTable/Via.h"

namespace Tunnel::TunnelTable {

class L3IntfTunnelTableEntry : public TunnelTableEntry {
  public:
   TUNNEL_ENTRY_KIND(L3IntfTunnelTableEntry, l3IntfTunnelTableEntry)

   L3IntfTunnelTableEntry() = default;
   explicit L3IntfTunnelTableEntry(const TunnelId& tunnelId) : TunnelTableEntry(tunnelId) {}
   // Not available: the entry holds a collection (asserts).
   L3IntfTunnelTableEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_VIA_COLLECTION(ViaArray, via)

   TUNNEL_ENTRY_OPERATIONS(L3IntfTunnelTableEntry)

   static constexpr auto fields() {
      using Self = L3IntfTunnelTableEntry;
      return std::tuple_cat(TunnelTableEntry::fields(),
                            std::tuple{Codec::field<&Self::via_>("via")});
   }

  private:
   LiveCopyArray<ViaArray> via_;
};

// An interface tunnel entry of one kind: the L3 part and that kind's tunnel parameters.
#define TUNNEL_INTF_ENTRY(Class, Info, kindCode)                                             \
   class Class : public L3IntfTunnelTableEntry {                                             \
     public:                                                                                 \
      TUNNEL_ENTRY_KIND(Class, kindCode)                                                     \
      Class() = default;                                                                     \
      explicit Class(const TunnelId& tunnelId) : L3IntfTunnelTableEntry(tunnelId) {}         \
      /* Not available: the entry holds a collection (asserts). */                           \
      Class(Vela::String::const_iterator begin, Vela::String::const_iterator end);           \
      TUNNEL_ENTRY_FIELD(Info, tunnelInfo)                                                   \
      TUNNEL_ENTRY_OPERATIONS(Class)                                                         \
      static constexpr auto fields() {                                                       \
         return std::tuple_cat(L3IntfTunnelTableEntry::fields(),                             \
                               std::tuple{Codec::field<&Class::tunnelInfo_>("tunnelInfo")}); \
      }                                                                                      \
                                                                                             \
     private:                                                                                \
      Info tunnelInfo_;                                                                      \
   };

TUNNEL_INTF_ENTRY(GreIntfTunnelTableEntry, GreTunnelInfo, greIntfTunnelTableEntry)
TUNNEL_INTF_ENTRY(IpsecGreIntfTunnelTableEntry, IpsecGreTunnelInfo, ipsecGreIntfTunnelTableEntry)
TUNNEL_INTF_ENTRY(IpsecVtiIntfTunnelTableEntry, IpsecVtiTunnelInfo, ipsecVtiIntfTunnelTableEntry)

#undef TUNNEL_INTF_ENTRY

}  // namespace Tunnel::TunnelTable
