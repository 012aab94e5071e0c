// L3IntfTunnelTableBase: the common base of the tunnel-interface tables (GRE, IPsec GRE, IPsec
// VTI). Their tunnels are type 9 (staticInterfaceTunnel) and their index is not chosen by a
// protocol: it is the tunnel interface's number, so the interface and the tunnel name each other.
//
// Interface numbering is Wirekit's: a tunnel interface is IntfId::tunnelIntf(port) and tunnelPort()
// gives the number back. A tunnel index is 16 bits wide, so ports above 0xFFFF fold into it (the
// mask is deliberate: interface numbers in use stay far below it).
#pragma once

#include "TunnelTable/TunnelTableBase.h"
#include "Wirekit/IntfId.h"

namespace Tunnel::TunnelTable {

class L3IntfTunnelTableBase : public TunnelTableBase {
  public:
   // The type-9 tunnel whose index is the interface's tunnel port number masked to 16 bits.
   TunnelId newTunnelId(const Wirekit::IntfId& intf) const;
   // The tunnel interface of a type-9 tunnel. Asserts that the tunnel is of type 9 and that its
   // index fits in 16 bits.
   static Wirekit::IntfId tunnelIntfId(const TunnelId& tunnelId);

  protected:
   L3IntfTunnelTableBase(const Vela::String& name, const TunnelTableType& type)
       : TunnelTableBase(name, type) {}
};

}  // namespace Tunnel::TunnelTable
