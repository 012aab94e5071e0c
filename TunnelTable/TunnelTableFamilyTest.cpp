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

using Members = MembersOf<TunnelTables>::type;

INSTANTIATE_TYPED_TEST_SUITE_P(Protocol, TunnelTableFamilyTest, Members);

}  // namespace Tunnel::TunnelTable::FamilyTest
