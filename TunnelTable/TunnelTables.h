// The members of the tunnel table family: per table class its TableType row (type name, entry
// type, mount name and path, TunnelType, TunnelTableIdentifier, largest entry) and the class
// itself, with its zero-references notifiee, static creator and factory. The EVPN VXLAN table,
// which also hands out its own indexes, is in EvpnVxlanTunnelTable.h; the mLDP table in Mldp/.
//
// maxEntryLen is the codec's own bound for the entry kind (Codec::maxEntryLen: every collection
// full, 1024 labels for an unbounded label operation); it sets the store's largest slab
// allocation (slab classes are 1/32 of it), so it is exact rather than one large figure for all.
#pragma once

#include "TunnelTable/L3IntfTunnelTableBase.h"
#include "TunnelTable/TunnelTableEntries.h"
#include "TunnelTable/TunnelTableFamily.h"

namespace Tunnel::TunnelTable {

// One row per table class: its TableType. The mount name is what `tunnelctl` and the mounter use
// ("" for the bases that are never mounted by name); the path is "tunnel/table/" and the mount
// name.
#define TUNNEL_TABLE_TYPE(var, Table, Entry, tunnelTypeCode, tableIdCode, mountName, maxLen) \
   inline constexpr TableType var{"Tunnel::TunnelTable::" #Table,                            \
                                  "Tunnel::TunnelTable::" #Entry,                            \
                                  mountName,                                                 \
                                  mountName[0] ? "tunnel/table/" mountName : "",             \
                                  TunnelType::tunnelTypeCode,                                \
                                  TunnelTableIdentifier::tableIdCode,                        \
                                  maxLen};

TUNNEL_TABLE_TYPE(bgpLuTunnelTableType, BgpLuTunnelTable, BgpLuTunnelTableEntry, bgpLuTunnel,
                  bgpLuTunnelTable, "bgpLu", Codec::maxEntryLen<BgpLuTunnelTableEntry>())
TUNNEL_TABLE_TYPE(bgpLuPushTunnelTableType, BgpLuPushTunnelTable, BgpLuPushTunnelTableEntry,
                  bgpLuPushTunnel, bgpLuPushTunnelTable, "bgpLuPush",
                  Codec::maxEntryLen<BgpLuPushTunnelTableEntry>())
TUNNEL_TABLE_TYPE(ldpTunnelTableType, LdpTunnelTable, LdpTunnelTableEntry, ldpTunnel,
                  ldpTunnelTable, "ldp", Codec::maxEntryLen<LdpTunnelTableEntry>())
TUNNEL_TABLE_TYPE(rsvpFrrTunnelTableType, RsvpFrrTunnelTable, RsvpFrrTunnelTableEntry,
                  rsvpFrrTunnel, rsvpFrrTunnelTable, "rsvpFrr",
                  Codec::maxEntryLen<RsvpFrrTunnelTableEntry>())
TUNNEL_TABLE_TYPE(rsvpLerSubTunnelTableType, RsvpLerSubTunnelTable, RsvpLerSubTunnelTableEntry,
                  rsvpLerSubTunnel, rsvpLerSubTunnelTable, "rsvpLerSub",
                  Codec::maxEntryLen<RsvpLerSubTunnelTableEntry>())
TUNNEL_TABLE_TYPE(rsvpLerTunnelTableType, RsvpLerTunnelTable, RsvpLerTunnelTableEntry,
                  rsvpLerTunnel, rsvpLerTunnelTable, "rsvpLer",
                  Codec::maxEntryLen<RsvpLerTunnelTableEntry>())
// The SR base's own factory makes an IS-IS-typed SR table; the OSPF table passes its own type.
TUNNEL_TABLE_TYPE(srTunnelTableBaseType, SrTunnelTableBase, SrTunnelTableEntry, isisSrTunnel,
                  isisSrTunnelTable, "", Codec::maxEntryLen<SrTunnelTableEntry>())
TUNNEL_TABLE_TYPE(isisSrTunnelTableType, IsisSrTunnelTable, SrTunnelTableEntry, isisSrTunnel,
                  isisSrTunnelTable, "sr", Codec::maxEntryLen<SrTunnelTableEntry>())
TUNNEL_TABLE_TYPE(ospfSrTunnelTableType, OspfSrTunnelTable, SrTunnelTableEntry, ospfSrTunnel,
                  ospfSrTunnelTable, "ospfSr", Codec::maxEntryLen<SrTunnelTableEntry>())
TUNNEL_TABLE_TYPE(staticTunnelTableType, StaticTunnelTable, StaticTunnelTableEntry, staticTunnel,
                  staticTunnelTable, "static", Codec::maxEntryLen<StaticTunnelTableEntry>())
TUNNEL_TABLE_TYPE(nexthopGroupTunnelTableType, NexthopGroupTunnelTable,
                  NexthopGroupTunnelTableEntry, nexthopGroupTunnel, nexthopGroupTunnelTable,
                  "nexthopGroup", Codec::maxEntryLen<NexthopGroupTunnelTableEntry>())
TUNNEL_TABLE_TYPE(srTeSegmentListTunnelTableType, SrTeSegmentListTunnelTable,
                  SrTeSegmentListTunnelTableEntry, srTeSegmentListTunnel,
                  srTeSegmentListTunnelTable, "srTeSegmentList",
                  Codec::maxEntryLen<SrTeSegmentListTunnelTableEntry>())
TUNNEL_TABLE_TYPE(greIntfTunnelTableType, GreIntfTunnelTable, GreIntfTunnelTableEntry,
                  staticInterfaceTunnel, greIntfTunnelTable, "greTunnelInterface",
                  Codec::maxEntryLen<GreIntfTunnelTableEntry>())
TUNNEL_TABLE_TYPE(ipsecVtiIntfTunnelTableType, IpsecVtiIntfTunnelTable,
                  IpsecVtiIntfTunnelTableEntry, staticInterfaceTunnel, ipsecVtiIntfTunnelTable,
                  "ipsecVtiTunnelInterface", Codec::maxEntryLen<IpsecVtiIntfTunnelTableEntry>())
TUNNEL_TABLE_TYPE(ipsecGreIntfTunnelTableType, IpsecGreIntfTunnelTable,
                  IpsecGreIntfTunnelTableEntry, staticInterfaceTunnel, ipsecGreIntfTunnelTable,
                  "ipsecGreTunnelInterface", Codec::maxEntryLen<IpsecGreIntfTunnelTableEntry>())
TUNNEL_TABLE_TYPE(tiLfaTunnelTableType, TiLfaTunnelTable, TiLfaTunnelTableEntry, tiLfaTunnel,
                  tiLfaTunnelTable, "tiLfa", Codec::maxEntryLen<TiLfaTunnelTableEntry>())
TUNNEL_TABLE_TYPE(srTePolicyTunnelTableType, SrTePolicyTunnelTable, SrTePolicyTunnelTableEntry,
                  srTePolicyTunnel, srTePolicyTunnelTable, "srTePolicy",
                  Codec::maxEntryLen<SrTePolicyTunnelTableEntry>())
TUNNEL_TABLE_TYPE(nimboSdkSbfdSessionTunnelTableType, NimboSdkSbfdSessionTunnelTable,
                  NimboSdkSbfdSessionTunnelTableEntry, nimboSdkSbfdTunnel,
                  nimboSdkSbfdSessionTunnelTable, "nimboSdkSbfd",
                  Codec::maxEntryLen<NimboSdkSbfdSessionTunnelTableEntry>())
// The flex-algo base is only ever made as the IS-IS flex-algo table.
TUNNEL_TABLE_TYPE(flexAlgoTunnelTableType, FlexAlgoTunnelTable, FlexAlgoTunnelTableEntry,
                  isisFlexAlgoTunnel, isisFlexAlgoTunnelTable, "",
                  Codec::maxEntryLen<FlexAlgoTunnelTableEntry>())
TUNNEL_TABLE_TYPE(isisFlexAlgoTunnelTableType, IsisFlexAlgoTunnelTable, FlexAlgoTunnelTableEntry,
                  isisFlexAlgoTunnel, isisFlexAlgoTunnelTable, "isisFlexAlgoTunnel",
                  Codec::maxEntryLen<FlexAlgoTunnelTableEntry>())

#undef TUNNEL_TABLE_TYPE

}  // namespace Tunnel::TunnelTable

// Compiled once, in TunnelTables.cpp.
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::BgpLuTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::BgpLuPushTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::LdpTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::RsvpFrrTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::RsvpLerSubTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::RsvpLerTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::SrTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::StaticTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::NexthopGroupTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::TiLfaTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::SrTePolicyTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::NimboSdkSbfdSessionTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::FlexAlgoTunnelTableEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::GreIntfTunnelTableEntry,
                                    Tunnel::TunnelTable::L3IntfTunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::IpsecVtiIntfTunnelTableEntry,
                                    Tunnel::TunnelTable::L3IntfTunnelTableBase);
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::IpsecGreIntfTunnelTableEntry,
                                    Tunnel::TunnelTable::L3IntfTunnelTableBase);

namespace Tunnel::TunnelTable {
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

class EvpnVxlanTunnelTable;

// The members of this folder, the protocol tables and the two bases: registered in the table
// registry when the library loads, and the list the family's typed tests run over.
using TunnelTables =
    TableList<BgpLuTunnelTable, BgpLuPushTunnelTable, LdpTunnelTable, RsvpFrrTunnelTable,
              RsvpLerSubTunnelTable, RsvpLerTunnelTable, SrTunnelTableBase, IsisSrTunnelTable,
              OspfSrTunnelTable, StaticTunnelTable, NexthopGroupTunnelTable,
              SrTeSegmentListTunnelTable, GreIntfTunnelTable, IpsecVtiIntfTunnelTable,
              IpsecGreIntfTunnelTable, EvpnVxlanTunnelTable, TiLfaTunnelTable,
              SrTePolicyTunnelTable, NimboSdkSbfdSessionTunnelTable, FlexAlgoTunnelTable,
              IsisFlexAlgoTunnelTable>;

// Registers every member (idempotent); also run once when the library loads.
void registerTunnelTableTypes();

}  // namespace Tunnel::TunnelTable
