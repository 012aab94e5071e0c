#include "TunnelTable/BgpLuTunnelTableEntry.h"

#include "Spoor/Trace.h"

namespace Tunnel::TunnelTable {

BgpLuPushTunnelTableEntry::BgpLuPushTunnelTableEntry(Vela::String::const_iterator,
                                                     Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}
BgpLuTunnelTableEntry::BgpLuTunnelTableEntry(Vela::String::const_iterator,
                                             Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}

void BgpLuPushTunnelTableEntry::tunnelIdViaIs(const TunnelId& tunnelId) {
   const uint32_t count = via_.count();
   if (count >= kViaCapacity) {
      static Spoor::Handle& trace = Spoor::handle("TunnelTable");
      SPOOR_TRACE(trace, 0,
                  "BgpLuPushTunnelTableEntry already has the maximum number of vias ({}), so "
                  "cannot add tunnelId {}",
                  kViaCapacity, valueToStrep(tunnelId));
      return;
   }
   via_.is(ViaIndex(count), Via::tunnelIdVia(tunnelId));
}

TUNNEL_ENTRY_DEFINE_OPERATIONS(BgpLuPushTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(BgpLuTunnelTableEntry)

static_assert(Codec::fixedFieldsLen<BgpLuTunnelTableEntry>() == 0, "the labels vary in length");

}  // namespace Tunnel::TunnelTable
