#include "TunnelTable/TunnelTables.h"

#include "TunnelTable/EvpnVxlanTunnelTable.h"

// The family's code for every member, compiled once here.
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::BgpLuTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::BgpLuPushTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::LdpTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::RsvpFrrTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::RsvpLerSubTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::RsvpLerTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::SrTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::StaticTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::NexthopGroupTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::TiLfaTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::SrTePolicyTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::NimboSdkSbfdSessionTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::FlexAlgoTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::EvpnVxlanTunnelEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::GreIntfTunnelTableEntry,
                             Tunnel::TunnelTable::L3IntfTunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::IpsecVtiIntfTunnelTableEntry,
                             Tunnel::TunnelTable::L3IntfTunnelTableBase);
TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::IpsecGreIntfTunnelTableEntry,
                             Tunnel::TunnelTable::L3IntfTunnelTableBase);

namespace Tunnel::TunnelTable {

namespace {

// Registration when the library loads, so a process that mounts by type name finds the types.
const bool registeredAtLoad = registerTables(TunnelTables{});

}  // namespace

void registerTunnelTableTypes() {
   registerTables(TunnelTables{});
}

}  // namespace Tunnel::TunnelTable
