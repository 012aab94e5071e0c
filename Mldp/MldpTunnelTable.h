// Tunnel::TunnelTable::MldpTunnelTable: the member of the tunnel table family that holds the mLDP
// tunnels (type 22, identifier 20), keyed by tunnel id. Everything but the entry is the family's.
#pragma once

#include "Mldp/MldpTunnelTableEntry.h"
#include "TunnelTable/TunnelTableFamily.h"

namespace Tunnel::TunnelTable {

// The longest tree id text the table's store is sized for; writers must not exceed it.
inline constexpr uint32_t kMldpTreeIdMaxLen = 4096;

// The largest entry: a tree id text of up to kMldpTreeIdMaxLen bytes and 600 vias.
inline constexpr TunnelTableType mldpTunnelTableType{
    "Tunnel::TunnelTable::MldpTunnelTable", MldpTunnelTableEntry::kTypeName, TunnelType::mldpTunnel,
    TunnelTableIdentifier::mldpTunnelTable,
    MulticastTunnelTableEntry::kFixedLen + kMldpTreeIdMaxLen + 4 +
        MldpTunnelTableEntry::kViaCapacity* MplsVia::kSerializedSize};

extern template class TunnelTableFamily<MldpTunnelTableEntry>;  // in MldpTunnel.cpp

TUNNEL_TABLE_MEMBER(MldpTunnelTable, TunnelTableFamily<MldpTunnelTableEntry>, mldpTunnelTableType,
                    mldpTunnelTableFactory)

// Registers "Tunnel::TunnelTable::MldpTunnelTable" in Vela's type registry. Idempotent; also run
// once when the library loads.
void registerMldpTunnelTableType();

}  // namespace Tunnel::TunnelTable
