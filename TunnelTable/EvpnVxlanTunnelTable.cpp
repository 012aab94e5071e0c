#include "TunnelTable/EvpnVxlanTunnelTable.h"

namespace Tunnel::TunnelTable {

EvpnVxlanTunnelTable::EvpnVxlanTunnelTable(const Vela::String& name)
    : TunnelTableFamily<EvpnVxlanTunnelEntry>(name, evpnVxlanTunnelTableType) {
   zeroReferencesNotifieeSet(new EvpnVxlanTunnelTableZeroReferencesNotifiee(this));
}

Vela::Ptr<EvpnVxlanTunnelTable> EvpnVxlanTunnelTable::EvpnVxlanTunnelTableIs(
    const Vela::String& name) {
   return makeTunnelTable<EvpnVxlanTunnelTable>(name);
}

Vela::Ptr<EvpnVxlanTunnelTable> evpnVxlanTunnelTableFactory(const Vela::String& name) {
   return makeTunnelTable<EvpnVxlanTunnelTable>(name);
}

void EvpnVxlanTunnelTable::lastAllocatedIdIs(Id64 id) {
   if (id == lastAllocatedId_) return;
   lastAllocatedId_ = id;
   notify(attrLastAllocatedId);
}

void EvpnVxlanTunnelTable::lastAllocatedIdInc(Id64 amount) {
   lastAllocatedIdIs(lastAllocatedId_ + amount);
}

TunnelId EvpnVxlanTunnelTable::newTunnelId() {
   // The position names the allocator's contract, which tools match on.
   VELA_ASSERT_AT(lastAllocatedId() < maxId() && "Reached maximum number of IDs.",
                  "Tunnel/TunnelTable", 289);
   lastAllocatedIdInc(1);
   return TunnelId(TunnelId::convertToTunnelValue(TunnelType::evpnVxlanTunnel, lastAllocatedId_));
}

}  // namespace Tunnel::TunnelTable
