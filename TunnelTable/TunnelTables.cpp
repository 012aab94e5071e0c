#include "TunnelTable/TunnelTables.h"

#include "TunnelTable/EvpnVxlanTunnelTable.h"
#include "Vela/TypeRegistry.h"

namespace Tunnel::TunnelTable {

// The family's code for every member, compiled once here.
template class TunnelTableFamily<BgpLuTunnelTableEntry>;
template class TunnelTableFamily<BgpLuPushTunnelTableEntry>;
template class TunnelTableFamily<LdpTunnelTableEntry>;
template class TunnelTableFamily<RsvpFrrTunnelTableEntry>;
template class TunnelTableFamily<RsvpLerSubTunnelTableEntry>;
template class TunnelTableFamily<RsvpLerTunnelTableEntry>;
template class TunnelTableFamily<SrTunnelTableEntry>;
template class TunnelTableFamily<StaticTunnelTableEntry>;
template class TunnelTableFamily<NexthopGroupTunnelTableEntry>;
template class TunnelTableFamily<SrTeSegmentListTunnelTableEntry>;
template class TunnelTableFamily<TiLfaTunnelTableEntry>;
template class TunnelTableFamily<SrTePolicyTunnelTableEntry>;
template class TunnelTableFamily<NimboSdkSbfdSessionTunnelTableEntry>;
template class TunnelTableFamily<FlexAlgoTunnelTableEntry>;
template class TunnelTableFamily<EvpnVxlanTunnelEntry>;
template class TunnelTableFamily<GreIntfTunnelTableEntry, L3IntfTunnelTableBase>;
template class TunnelTableFamily<IpsecVtiIntfTunnelTableEntry, L3IntfTunnelTableBase>;
template class TunnelTableFamily<IpsecGreIntfTunnelTableEntry, L3IntfTunnelTableBase>;

namespace {

template <class Table>
void registerType(const TunnelTableType& type) {
   Vela::TypeRegistry::instance().typeIs(type.typeName, [](const Vela::String& name) {
      return Vela::Ptr<Vela::Entity>(makeTunnelTable<Table>(name));
   });
}

// Registration when the library loads, so a process that mounts by type name finds the types.
const bool registeredAtLoad = (registerTunnelTableTypes(), true);

}  // namespace

void registerTunnelTableTypes() {
   registerType<BgpLuTunnelTable>(bgpLuTunnelTableType);
   registerType<BgpLuPushTunnelTable>(bgpLuPushTunnelTableType);
   registerType<LdpTunnelTable>(ldpTunnelTableType);
   registerType<RsvpFrrTunnelTable>(rsvpFrrTunnelTableType);
   registerType<RsvpLerSubTunnelTable>(rsvpLerSubTunnelTableType);
   registerType<RsvpLerTunnelTable>(rsvpLerTunnelTableType);
   registerType<SrTunnelTableBase>(srTunnelTableBaseType);
   registerType<IsisSrTunnelTable>(isisSrTunnelTableType);
   registerType<OspfSrTunnelTable>(ospfSrTunnelTableType);
   registerType<StaticTunnelTable>(staticTunnelTableType);
   registerType<NexthopGroupTunnelTable>(nexthopGroupTunnelTableType);
   registerType<SrTeSegmentListTunnelTable>(srTeSegmentListTunnelTableType);
   registerType<GreIntfTunnelTable>(greIntfTunnelTableType);
   registerType<IpsecVtiIntfTunnelTable>(ipsecVtiIntfTunnelTableType);
   registerType<IpsecGreIntfTunnelTable>(ipsecGreIntfTunnelTableType);
   registerType<EvpnVxlanTunnelTable>(evpnVxlanTunnelTableType);
   registerType<TiLfaTunnelTable>(tiLfaTunnelTableType);
   registerType<SrTePolicyTunnelTable>(srTePolicyTunnelTableType);
   registerType<NimboSdkSbfdSessionTunnelTable>(nimboSdkSbfdSessionTunnelTableType);
   registerType<FlexAlgoTunnelTable>(flexAlgoTunnelTableType);
   registerType<IsisFlexAlgoTunnelTable>(isisFlexAlgoTunnelTableType);
}

}  // namespace Tunnel::TunnelTable
