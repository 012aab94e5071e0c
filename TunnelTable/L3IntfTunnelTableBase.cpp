#include "TunnelTable/L3IntfTunnelTableBase.h"

#include "Vela/Assert.h"
#include "Vela/BoundedIndex.h"

namespace Tunnel::TunnelTable {

TunnelId L3IntfTunnelTableBase::newTunnelId(const Wirekit::IntfId& intf) const {
   return TunnelId(
       TunnelId::convertToTunnelValue(staticInterfaceTunnel_, intf.tunnelPort() & 0xFFFFu));
}

Wirekit::IntfId L3IntfTunnelTableBase::tunnelIntfId(const TunnelId& tunnelId) {
   VELA_ASSERT(tunnelId.tunnelType() == staticInterfaceTunnel_);
   VELA_ASSERT(tunnelId.tunnelIndex() <= Vela::maxU16());
   return Wirekit::IntfId::tunnelIntf(static_cast<uint32_t>(tunnelId.tunnelIndex()));
}

}  // namespace Tunnel::TunnelTable
