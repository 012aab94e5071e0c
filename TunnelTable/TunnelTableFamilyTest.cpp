// The family's shared behaviour over every protocol member (and the SR and flex-algo bases).
#include "TunnelTable/EvpnVxlanTunnelTable.h"
#include "TunnelTable/TunnelTableFamilyTests.h"
#include "TunnelTable/TunnelTables.h"

namespace Tunnel::TunnelTable::FamilyTest {

template <>
struct EntryMaker<EvpnVxlanTunnelEntry> {
   static EvpnVxlanTunnelEntry make(TunnelType type, uint64_t index, uint32_t variant) {
      EvpnVxlanTunnelEntry e(TunnelId(TunnelId::convertToTunnelValue(type, index)));
      VxlanTunnelInfo info;
      info.udpPortIs(static_cast<uint16_t>(variant));
      e.tunnelInfoIs(info);
      return e;
   }
};

using Members = ::testing::Types<
    Member<BgpLuTunnelTable, bgpLuTunnelTableFactory, bgpLuTunnelTableType>,
    Member<BgpLuPushTunnelTable, bgpLuPushTunnelTableFactory, bgpLuPushTunnelTableType>,
    Member<LdpTunnelTable, ldpTunnelTableFactory, ldpTunnelTableType>,
    Member<RsvpFrrTunnelTable, rsvpFrrTunnelTableFactory, rsvpFrrTunnelTableType>,
    Member<RsvpLerSubTunnelTable, rsvpLerSubTunnelTableFactory, rsvpLerSubTunnelTableType>,
    Member<RsvpLerTunnelTable, rsvpLerTunnelTableFactory, rsvpLerTunnelTableType>,
    Member<SrTunnelTableBase, srTunnelTableBaseFactory, srTunnelTableBaseType>,
    Member<IsisSrTunnelTable, isisSrTunnelTableFactory, isisSrTunnelTableType>,
    Member<OspfSrTunnelTable, ospfSrTunnelTableFactory, ospfSrTunnelTableType>,
    Member<StaticTunnelTable, staticTunnelTableFactory, staticTunnelTableType>,
    Member<NexthopGroupTunnelTable, nexthopGroupTunnelTableFactory, nexthopGroupTunnelTableType>,
    Member<SrTeSegmentListTunnelTable, srTeSegmentListTunnelTableFactory,
           srTeSegmentListTunnelTableType>,
    Member<GreIntfTunnelTable, greIntfTunnelTableFactory, greIntfTunnelTableType>,
    Member<IpsecVtiIntfTunnelTable, ipsecVtiIntfTunnelTableFactory, ipsecVtiIntfTunnelTableType>,
    Member<IpsecGreIntfTunnelTable, ipsecGreIntfTunnelTableFactory, ipsecGreIntfTunnelTableType>,
    Member<EvpnVxlanTunnelTable, evpnVxlanTunnelTableFactory, evpnVxlanTunnelTableType>,
    Member<TiLfaTunnelTable, tiLfaTunnelTableFactory, tiLfaTunnelTableType>,
    Member<SrTePolicyTunnelTable, srTePolicyTunnelTableFactory, srTePolicyTunnelTableType>,
    Member<NimboSdkSbfdSessionTunnelTable, nimboSdkSbfdSessionTunnelTableFactory,
           nimboSdkSbfdSessionTunnelTableType>,
    Member<FlexAlgoTunnelTable, flexAlgoTunnelTableFactory, flexAlgoTunnelTableType>,
    Member<IsisFlexAlgoTunnelTable, isisFlexAlgoTunnelTableFactory, isisFlexAlgoTunnelTableType>>;

INSTANTIATE_TYPED_TEST_SUITE_P(Protocol, TunnelTableFamilyTest, Members);

}  // namespace Tunnel::TunnelTable::FamilyTest
