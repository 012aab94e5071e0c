#include "TunnelRib/TunnelRib.h"

template class Tunnel::TunnelTable::StoreTable<
    Wirekit::IpGenPrefix, Tunnel::TunnelTable::TunnelRibEntry, Tunnel::TunnelTable::RibTepKey,
    Tunnel::TunnelTable::TunnelRibBase>;
template class Tunnel::TunnelTable::StoreTable<
    Tunnel::TunnelTable::ColoredTunnelEndpoint, Tunnel::TunnelTable::TunnelRibEntry,
    Tunnel::TunnelTable::RibColoredTepKey, Tunnel::TunnelTable::TunnelRibBase>;

namespace Tunnel::TunnelTable {

namespace {
const bool registeredAtLoad = registerTables(TunnelRibTables{});
}  // namespace

void registerTunnelRibTypes() {
   registerTables(TunnelRibTables{});
}

}  // namespace Tunnel::TunnelTable
