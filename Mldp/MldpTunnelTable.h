// Tunnel::TunnelTable::MldpTunnelTable: the member of the tunnel table family that holds the mLDP
// tunnels (type 22, identifier 20), keyed by tunnel id. Everything but the entry is the family's.
#pragma once

#include "Mldp/MldpTunnelTableEntry.h"
#include "TunnelTable/TunnelTableFamily.h"

namespace Tunnel::TunnelTable {

// The longest tree id text the table's store is sized for; writers must not exceed it.
inline constexpr uint32_t kMldpTreeIdMaxLen = 4096;

// The largest entry: a tree id text of up to kMldpTreeIdMaxLen bytes and 600 vias.
inline constexpr TableType mldpTunnelTableType{
    "Tunnel::TunnelTable::MldpTunnelTable",
    MldpTunnelTableEntry::kTypeName,
    "mldpTunnel",
    "tunnel/table/mldpTunnel",
    TunnelType::mldpTunnel,
    TunnelTableIdentifier::mldpTunnelTable,
    MldpTunnelTableEntry::maxSerializedLen(kMldpTreeIdMaxLen)};

}  // namespace Tunnel::TunnelTable

// In MldpTunnel.cpp.
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::MldpTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);

namespace Tunnel::TunnelTable {
TUNNEL_TABLE_MEMBER(MldpTunnelTable, TunnelTableFamily<MldpTunnelTableEntry>, mldpTunnelTableType,
                    mldpTunnelTableFactory)

// This folder's tables: registered when the library loads; the typed tests run over it.
using MldpTables = TableList<MldpTunnelTable>;

// Registers the mLDP table (idempotent); also run once when the library loads.
void registerMldpTunnelTableType();

}  // namespace Tunnel::TunnelTable
