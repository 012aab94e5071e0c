// The members of the tunnel table family: per table class its TableType row (type name, entry
// type, mount name and path, TunnelType, TunnelTableIdentifier, largest entry) and the class
// itself, with its zero-references notifiee, static creator and factory. The EVPN VXLAN table,
// which also hands out its own indexes, is in EvpnVxlanTunnelTable.h; the mLDP table in Mldp/.
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
                  bgpLuTunnelTable, "bgpLu", EntryLen::kBgpLu)
TUNNEL_TABLE_TYPE(bgpLuPushTunnelTableType, BgpLuPushTunnelTable, BgpLuPushTunnelTableEntry,
                  bgpLuPushTunnel, bgpLuPushTunnelTable, "bgpLuPush", EntryLen::kBgpLu)
TUNNEL_TABLE_TYPE(ldpTunnelTableType, LdpTunnelTable, LdpTunnelTableEntry, ldpTunnel,
                  ldpTunnelTable, "ldp", EntryLen::kIgp)
TUNNEL_TABLE_TYPE(rsvpFrrTunnelTableType, RsvpFrrTunnelTable, RsvpFrrTunnelTableEntry,
                  rsvpFrrTunnel, rsvpFrrTunnelTable, "rsvpFrr", EntryLen::kSmallKind)
TUNNEL_TABLE_TYPE(rsvpLerSubTunnelTableType, RsvpLerSubTunnelTable, RsvpLerSubTunnelTableEntry,
                  rsvpLerSubTunnel, rsvpLerSubTunnelTable, "rsvpLerSub", EntryLen::kSmallKind)
TUNNEL_TABLE_TYPE(rsvpLerTunnelTableType, RsvpLerTunnelTable, RsvpLerTunnelTableEntry,
                  rsvpLerTunnel, rsvpLerTunnelTable, "rsvpLer", EntryLen::kRsvpLer)
// The SR base's own factory makes an IS-IS-typed SR table; the OSPF table passes its own type.
TUNNEL_TABLE_TYPE(srTunnelTableBaseType, SrTunnelTableBase, SrTunnelTableEntry, isisSrTunnel,
                  isisSrTunnelTable, "", EntryLen::kIgp)
TUNNEL_TABLE_TYPE(isisSrTunnelTableType, IsisSrTunnelTable, SrTunnelTableEntry, isisSrTunnel,
                  isisSrTunnelTable, "sr", EntryLen::kIgp)
TUNNEL_TABLE_TYPE(ospfSrTunnelTableType, OspfSrTunnelTable, SrTunnelTableEntry, ospfSrTunnel,
                  ospfSrTunnelTable, "ospfSr", EntryLen::kIgp)
TUNNEL_TABLE_TYPE(staticTunnelTableType, StaticTunnelTable, StaticTunnelTableEntry, staticTunnel,
                  staticTunnelTable, "static", EntryLen::kStatic)
TUNNEL_TABLE_TYPE(nexthopGroupTunnelTableType, NexthopGroupTunnelTable,
                  NexthopGroupTunnelTableEntry, nexthopGroupTunnel, nexthopGroupTunnelTable,
                  "nexthopGroup", EntryLen::kSmallKind)
TUNNEL_TABLE_TYPE(srTeSegmentListTunnelTableType, SrTeSegmentListTunnelTable,
                  SrTeSegmentListTunnelTableEntry, srTeSegmentListTunnel,
                  srTeSegmentListTunnelTable, "srTeSegmentList", EntryLen::kSegmentList)
TUNNEL_TABLE_TYPE(greIntfTunnelTableType, GreIntfTunnelTable, GreIntfTunnelTableEntry,
                  staticInterfaceTunnel, greIntfTunnelTable, "greTunnelInterface", EntryLen::kIntf)
TUNNEL_TABLE_TYPE(ipsecVtiIntfTunnelTableType, IpsecVtiIntfTunnelTable,
                  IpsecVtiIntfTunnelTableEntry, staticInterfaceTunnel, ipsecVtiIntfTunnelTable,
                  "ipsecVtiTunnelInterface", EntryLen::kIntf)
TUNNEL_TABLE_TYPE(ipsecGreIntfTunnelTableType, IpsecGreIntfTunnelTable,
                  IpsecGreIntfTunnelTableEntry, staticInterfaceTunnel, ipsecGreIntfTunnelTable,
                  "ipsecGreTunnelInterface", EntryLen::kIntf)
TUNNEL_TABLE_TYPE(tiLfaTunnelTableType, TiLfaTunnelTable, TiLfaTunnelTableEntry, tiLfaTunnel,
                  tiLfaTunnelTable, "tiLfa", EntryLen::kSmallKind)
TUNNEL_TABLE_TYPE(srTePolicyTunnelTableType, SrTePolicyTunnelTable, SrTePolicyTunnelTableEntry,
                  srTePolicyTunnel, srTePolicyTunnelTable, "srTePolicy", EntryLen::kSmallKind)
TUNNEL_TABLE_TYPE(nimboSdkSbfdSessionTunnelTableType, NimboSdkSbfdSessionTunnelTable,
                  NimboSdkSbfdSessionTunnelTableEntry, nimboSdkSbfdTunnel,
                  nimboSdkSbfdSessionTunnelTable, "nimboSdkSbfd", EntryLen::kSmallKind)
// The flex-algo base is only ever made as the IS-IS flex-algo table.
TUNNEL_TABLE_TYPE(flexAlgoTunnelTableType, FlexAlgoTunnelTable, FlexAlgoTunnelTableEntry,
                  isisFlexAlgoTunnel, isisFlexAlgoTunnelTable, "", EntryLen::kFlexAlgo)
TUNNEL_TABLE_TYPE(isisFlexAlgoTunnelTableType, IsisFlexAlgoTunnelTable, FlexAlgoTunnelTableEntry,
                  isisFlexAlgoTunnel, isisFlexAlgoTunnelTable, "isisFlexAlgoTunnel",
                  EntryLen::kFlexAlgo)

#undef TUNNEL_TABLE_TYPE

}  // namespace Tunnel::TunnelTable

// Compiled once, in TunnelTables.cpp.
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::BgpLuTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(
    Tunnel::TunnelTable::BgpLuPushTunnelTableEntry,
    Tunnel::
        TunnelTable::
            TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::
                                                                     LdpTunnelTableEntry,
                                                                 Tunnel::
                                                                     TunnelTable::
                                                                         TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::RsvpFrrTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::RsvpLerSubTunnelTableEntry, Tunnel::TunnelTable::TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                     RsvpLerTunnelTableEntry,
                                                                                                                                                                                                                                                                                                                                                                                 Tunnel::TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                     TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::SrTunnelTableEntry, Tunnel::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                       TunnelTable::TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                             TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                 StaticTunnelTableEntry,
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                         Tunnel::TunnelTable::TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                       NexthopGroupTunnelTableEntry,
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                   Tunnel::TunnelTable::TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                 SrTeSegmentListTunnelTableEntry,
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                             Tunnel::TunnelTable::TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::TiLfaTunnelTableEntry, Tunnel::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                       TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                           TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::SrTePolicyTunnelTableEntry, Tunnel::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                     TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                         TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                  NimboSdkSbfdSessionTunnelTableEntry,
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                              Tunnel::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                  TunnelTable::TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::FlexAlgoTunnelTableEntry, Tunnel::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                       TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                           TunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                    TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                        GreIntfTunnelTableEntry,
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                Tunnel::TunnelTable::L3IntfTunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::IpsecVtiIntfTunnelTableEntry, Tunnel::TunnelTable::L3IntfTunnelTableBase) extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::IpsecGreIntfTunnelTableEntry, Tunnel::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                          TunnelTable::
                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                                              L3IntfTunnelTableBase)

    namespace Tunnel::TunnelTable {
   using GreIntfTunnelTableFamily =
       TunnelTableFamily<GreIntfTunnelTableEntry, L3IntfTunnelTableBase>;
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
   TUNNEL_TABLE_MEMBER(SrTunnelTableBase, TunnelTableFamily<SrTunnelTableEntry>,
                       srTunnelTableBaseType, srTunnelTableBaseFactory)
   TUNNEL_TABLE_MEMBER(IsisSrTunnelTable, SrTunnelTableBase, isisSrTunnelTableType,
                       isisSrTunnelTableFactory)
   TUNNEL_TABLE_MEMBER(OspfSrTunnelTable, SrTunnelTableBase, ospfSrTunnelTableType,
                       ospfSrTunnelTableFactory)
   TUNNEL_TABLE_MEMBER(StaticTunnelTable, TunnelTableFamily<StaticTunnelTableEntry>,
                       staticTunnelTableType, staticTunnelTableFactory)
   TUNNEL_TABLE_MEMBER(NexthopGroupTunnelTable, TunnelTableFamily<NexthopGroupTunnelTableEntry>,
                       nexthopGroupTunnelTableType, nexthopGroupTunnelTableFactory)
   TUNNEL_TABLE_MEMBER(SrTeSegmentListTunnelTable,
                       TunnelTableFamily<SrTeSegmentListTunnelTableEntry>,
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
