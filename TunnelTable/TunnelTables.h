// The members of the tunnel table family: per table class its TunnelTableType (type name, entry
// type, TunnelType, TunnelTableIdentifier, largest entry) and the class itself, with its
// zero-references notifiee, static creator and factory. The EVPN VXLAN table, which also hands out
// its own indexes, is in EvpnVxlanTunnelTable.h; the mLDP table in Mldp/.
//
// maxEntryLen bounds each entry kind's byte form with every collection full (600 vias, 16
// endpoints, a 128-character name); it sets the store's largest slab allocation, so it is kept
// close to the real bound rather than one large figure for all (slab classes are 1/32 of it).
// Kinds with an unbounded label operation (BGP-LU) get room for 1024 labels.
#pragma once

#include "TunnelTable/L3IntfTunnelTableBase.h"
#include "TunnelTable/TunnelTableEntries.h"
#include "TunnelTable/TunnelTableFamily.h"

namespace Tunnel::TunnelTable {

// Byte-form bounds of the entry kinds (see EntryRecord.h for the layout).
namespace EntryLen {
inline constexpr uint32_t kBase = 551;                            // header and base fields
inline constexpr uint32_t kMplsVias = 4 + 600 * 76;               // count and 600 MplsVia
inline constexpr uint32_t kVias = 4 + 600 * 28;                   // count and 600 Via
inline constexpr uint32_t kLabels = 4 + 1024 * 4 + 8;             // generous unbounded labels
inline constexpr uint32_t kSmallKind = kBase + 1024;              // kinds with fixed fields only
inline constexpr uint32_t kIgp = kBase + 16 + kMplsVias;          // LDP, SR
inline constexpr uint32_t kFlexAlgo = 46168;                      // always all 600 places
inline constexpr uint32_t kRsvpLer = kBase + 1024 + kMplsVias;    // FRR part, LER fields, splits
inline constexpr uint32_t kStatic = kBase + 2 * kMplsVias;        // vias and backup vias
inline constexpr uint32_t kSegmentList = kBase + kMplsVias;       // segment list vias
inline constexpr uint32_t kBgpLu = kBase + kVias + kLabels + 64;  // push part and BGP fields
inline constexpr uint32_t kIntf = kBase + kVias + 128;            // vias and the tunnel info
}  // namespace EntryLen

#define TUNNEL_TABLE_TYPE(var, Table, Entry, tunnelTypeCode, tableIdCode, maxLen)                  \
   inline constexpr TunnelTableType var{                                                           \
       "Tunnel::TunnelTable::" #Table, "Tunnel::TunnelTable::" #Entry, TunnelType::tunnelTypeCode, \
       TunnelTableIdentifier::tableIdCode, maxLen};

TUNNEL_TABLE_TYPE(bgpLuTunnelTableType, BgpLuTunnelTable, BgpLuTunnelTableEntry, bgpLuTunnel,
                  bgpLuTunnelTable, EntryLen::kBgpLu)
TUNNEL_TABLE_TYPE(bgpLuPushTunnelTableType, BgpLuPushTunnelTable, BgpLuPushTunnelTableEntry,
                  bgpLuPushTunnel, bgpLuPushTunnelTable, EntryLen::kBgpLu)
TUNNEL_TABLE_TYPE(ldpTunnelTableType, LdpTunnelTable, LdpTunnelTableEntry, ldpTunnel,
                  ldpTunnelTable, EntryLen::kIgp)
TUNNEL_TABLE_TYPE(rsvpFrrTunnelTableType, RsvpFrrTunnelTable, RsvpFrrTunnelTableEntry,
                  rsvpFrrTunnel, rsvpFrrTunnelTable, EntryLen::kSmallKind)
TUNNEL_TABLE_TYPE(rsvpLerSubTunnelTableType, RsvpLerSubTunnelTable, RsvpLerSubTunnelTableEntry,
                  rsvpLerSubTunnel, rsvpLerSubTunnelTable, EntryLen::kSmallKind)
TUNNEL_TABLE_TYPE(rsvpLerTunnelTableType, RsvpLerTunnelTable, RsvpLerTunnelTableEntry,
                  rsvpLerTunnel, rsvpLerTunnelTable, EntryLen::kRsvpLer)
// The SR base's own factory makes an IS-IS-typed SR table; the OSPF table passes its own type.
TUNNEL_TABLE_TYPE(srTunnelTableBaseType, SrTunnelTableBase, SrTunnelTableEntry, isisSrTunnel,
                  isisSrTunnelTable, EntryLen::kIgp)
TUNNEL_TABLE_TYPE(isisSrTunnelTableType, IsisSrTunnelTable, SrTunnelTableEntry, isisSrTunnel,
                  isisSrTunnelTable, EntryLen::kIgp)
TUNNEL_TABLE_TYPE(ospfSrTunnelTableType, OspfSrTunnelTable, SrTunnelTableEntry, ospfSrTunnel,
                  ospfSrTunnelTable, EntryLen::kIgp)
TUNNEL_TABLE_TYPE(staticTunnelTableType, StaticTunnelTable, StaticTunnelTableEntry, staticTunnel,
                  staticTunnelTable, EntryLen::kStatic)
TUNNEL_TABLE_TYPE(nexthopGroupTunnelTableType, NexthopGroupTunnelTable,
                  NexthopGroupTunnelTableEntry, nexthopGroupTunnel, nexthopGroupTunnelTable,
                  EntryLen::kSmallKind)
TUNNEL_TABLE_TYPE(srTeSegmentListTunnelTableType, SrTeSegmentListTunnelTable,
                  SrTeSegmentListTunnelTableEntry, srTeSegmentListTunnel,
                  srTeSegmentListTunnelTable, EntryLen::kSegmentList)
TUNNEL_TABLE_TYPE(greIntfTunnelTableType, GreIntfTunnelTable, GreIntfTunnelTableEntry,
                  staticInterfaceTunnel, greIntfTunnelTable, EntryLen::kIntf)
TUNNEL_TABLE_TYPE(ipsecVtiIntfTunnelTableType, IpsecVtiIntfTunnelTable,
                  IpsecVtiIntfTunnelTableEntry, staticInterfaceTunnel, ipsecVtiIntfTunnelTable,
                  EntryLen::kIntf)
TUNNEL_TABLE_TYPE(ipsecGreIntfTunnelTableType, IpsecGreIntfTunnelTable,
                  IpsecGreIntfTunnelTableEntry, staticInterfaceTunnel, ipsecGreIntfTunnelTable,
                  EntryLen::kIntf)
TUNNEL_TABLE_TYPE(tiLfaTunnelTableType, TiLfaTunnelTable, TiLfaTunnelTableEntry, tiLfaTunnel,
                  tiLfaTunnelTable, EntryLen::kSmallKind)
TUNNEL_TABLE_TYPE(srTePolicyTunnelTableType, SrTePolicyTunnelTable, SrTePolicyTunnelTableEntry,
                  srTePolicyTunnel, srTePolicyTunnelTable, EntryLen::kSmallKind)
TUNNEL_TABLE_TYPE(nimboSdkSbfdSessionTunnelTableType, NimboSdkSbfdSessionTunnelTable,
                  NimboSdkSbfdSessionTunnelTableEntry, nimboSdkSbfdTunnel,
                  nimboSdkSbfdSessionTunnelTable, EntryLen::kSmallKind)
// The flex-algo base is only ever made as the IS-IS flex-algo table.
TUNNEL_TABLE_TYPE(flexAlgoTunnelTableType, FlexAlgoTunnelTable, FlexAlgoTunnelTableEntry,
                  isisFlexAlgoTunnel, isisFlexAlgoTunnelTable, EntryLen::kFlexAlgo)
TUNNEL_TABLE_TYPE(isisFlexAlgoTunnelTableType, IsisFlexAlgoTunnelTable, FlexAlgoTunnelTableEntry,
                  isisFlexAlgoTunnel, isisFlexAlgoTunnelTable, EntryLen::kFlexAlgo)

#undef TUNNEL_TABLE_TYPE

// Compiled once, in TunnelTables.cpp.
extern template class TunnelTableFamily<BgpLuTunnelTableEntry>;
extern template class TunnelTableFamily<BgpLuPushTunnelTableEntry>;
extern template class TunnelTableFamily<LdpTunnelTableEntry>;
extern template class TunnelTableFamily<RsvpFrrTunnelTableEntry>;
extern template class TunnelTableFamily<RsvpLerSubTunnelTableEntry>;
extern template class TunnelTableFamily<RsvpLerTunnelTableEntry>;
extern template class TunnelTableFamily<SrTunnelTableEntry>;
extern template class TunnelTableFamily<StaticTunnelTableEntry>;
extern template class TunnelTableFamily<NexthopGroupTunnelTableEntry>;
extern template class TunnelTableFamily<SrTeSegmentListTunnelTableEntry>;
extern template class TunnelTableFamily<TiLfaTunnelTableEntry>;
extern template class TunnelTableFamily<SrTePolicyTunnelTableEntry>;
extern template class TunnelTableFamily<NimboSdkSbfdSessionTunnelTableEntry>;
extern template class TunnelTableFamily<FlexAlgoTunnelTableEntry>;
extern template class TunnelTableFamily<GreIntfTunnelTableEntry, L3IntfTunnelTableBase>;
extern template class TunnelTableFamily<IpsecVtiIntfTunnelTableEntry, L3IntfTunnelTableBase>;
extern template class TunnelTableFamily<IpsecGreIntfTunnelTableEntry, L3IntfTunnelTableBase>;

using GreIntfTunnelTableFamily = TunnelTableFamily<GreIntfTunnelTableEntry, L3IntfTunnelTableBase>;
using IpsecVtiIntfTunnelTableFamily =
    TunnelTableFamily<IpsecVtiIntfTunnelTableEntry, L3IntfTunnelTableBase>;
using IpsecGreIntfTunnelTableFamily =
    TunnelTableFamily<IpsecGreIntfTunnelTableEntry, L3IntfTunnelTableBase>;

TUNNEL_TABLE_MEMBER(BgpLuTunnelTable, TunnelTableFamily<BgpLuTunnelTableEntry>,
                    bgpLuTunnelTableType, bgpLuTunnelTableFactory)
TUNNEL_TABLE_MEMBER(BgpLuPushTunnelTable, TunnelTableFamily<BgpLuPushTunnelTableEntry>,
                    bgpLuPushTunnelTableType, bgpLuPushTunnelTableFactory)
TUNNEL_TABLE_MEMBER(LdpTunnelTable, TunnelTableFamily<LdpTunnelTableEntry>, ldpTunnelTableType,
                    ldpTunnelTableFactory)
TUNNEL_TABLE_MEMBER(RsvpFrrTunnelTable, TunnelTableFamily<RsvpFrrTunnelTableEntry>,
                    rsvpFrrTunnelTableType, rsvpFrrTunnelTableFactory)
TUNNEL_TABLE_MEMBER(RsvpLerSubTunnelTable, TunnelTableFamily<RsvpLerSubTunnelTableEntry>,
                    rsvpLerSubTunnelTableType, rsvpLerSubTunnelTableFactory)
TUNNEL_TABLE_MEMBER(RsvpLerTunnelTable, TunnelTableFamily<RsvpLerTunnelTableEntry>,
                    rsvpLerTunnelTableType, rsvpLerTunnelTableFactory)
TUNNEL_TABLE_MEMBER(SrTunnelTableBase, TunnelTableFamily<SrTunnelTableEntry>, srTunnelTableBaseType,
                    srTunnelTableBaseFactory)
TUNNEL_TABLE_MEMBER(IsisSrTunnelTable, SrTunnelTableBase, isisSrTunnelTableType,
                    isisSrTunnelTableFactory)
TUNNEL_TABLE_MEMBER(OspfSrTunnelTable, SrTunnelTableBase, ospfSrTunnelTableType,
                    ospfSrTunnelTableFactory)
TUNNEL_TABLE_MEMBER(StaticTunnelTable, TunnelTableFamily<StaticTunnelTableEntry>,
                    staticTunnelTableType, staticTunnelTableFactory)
TUNNEL_TABLE_MEMBER(NexthopGroupTunnelTable, TunnelTableFamily<NexthopGroupTunnelTableEntry>,
                    nexthopGroupTunnelTableType, nexthopGroupTunnelTableFactory)
TUNNEL_TABLE_MEMBER(SrTeSegmentListTunnelTable, TunnelTableFamily<SrTeSegmentListTunnelTableEntry>,
                    srTeSegmentListTunnelTableType, srTeSegmentListTunnelTableFactory)
TUNNEL_TABLE_MEMBER(GreIntfTunnelTable, GreIntfTunnelTableFamily, greIntfTunnelTableType,
                    greIntfTunnelTableFactory)
TUNNEL_TABLE_MEMBER(IpsecVtiIntfTunnelTable, IpsecVtiIntfTunnelTableFamily,
                    ipsecVtiIntfTunnelTableType, ipsecVtiIntfTunnelTableFactory)
TUNNEL_TABLE_MEMBER(IpsecGreIntfTunnelTable, IpsecGreIntfTunnelTableFamily,
                    ipsecGreIntfTunnelTableType, ipsecGreIntfTunnelTableFactory)
TUNNEL_TABLE_MEMBER(TiLfaTunnelTable, TunnelTableFamily<TiLfaTunnelTableEntry>,
                    tiLfaTunnelTableType, tiLfaTunnelTableFactory)
TUNNEL_TABLE_MEMBER(SrTePolicyTunnelTable, TunnelTableFamily<SrTePolicyTunnelTableEntry>,
                    srTePolicyTunnelTableType, srTePolicyTunnelTableFactory)
TUNNEL_TABLE_MEMBER(NimboSdkSbfdSessionTunnelTable,
                    TunnelTableFamily<NimboSdkSbfdSessionTunnelTableEntry>,
                    nimboSdkSbfdSessionTunnelTableType, nimboSdkSbfdSessionTunnelTableFactory)
TUNNEL_TABLE_MEMBER(FlexAlgoTunnelTable, TunnelTableFamily<FlexAlgoTunnelTableEntry>,
                    flexAlgoTunnelTableType, flexAlgoTunnelTableFactory)
TUNNEL_TABLE_MEMBER(IsisFlexAlgoTunnelTable, FlexAlgoTunnelTable, isisFlexAlgoTunnelTableType,
                    isisFlexAlgoTunnelTableFactory)

// Registers every member's type name with a factory in Vela's type registry, so the mount service
// can build tables by type name. Idempotent; also run once when the library loads.
void registerTunnelTableTypes();

}  // namespace Tunnel::TunnelTable
