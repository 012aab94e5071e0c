#include "TunnelRib/InternalCliTunnelRib.h"

namespace Tunnel::TunnelTable {

Vela::Ptr<InternalCliTunnelRibEntry> InternalCliTunnelRib::entryIs(
    const ColoredTunnelEndpoint& coloredTep) {
   if (auto existing = entry_.find(coloredTep)) return existing;
   return entry_.create(coloredTep, valueToStrep(coloredTep));
}

void InternalCliTunnelRib::entryDel(const ColoredTunnelEndpoint& coloredTep) {
   entry_.del(coloredTep);
}

void InternalCliTunnelRib::entryDelAll() {
   entry_.delAll();
}

}  // namespace Tunnel::TunnelTable
