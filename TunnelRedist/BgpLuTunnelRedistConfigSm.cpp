#include "TunnelRedist/BgpLuTunnelRedistConfigSm.h"

#include "Vela/Assert.h"

namespace Tunnel::TunnelRedist {

namespace {

const TunnelRedistConfigSm::Signatures& bgpLuSignatures() {
#define TUNNEL_BGPLU_SM "void Tunnel::TunnelRedist::BgpLuTunnelRedistConfigSm::"
   static const TunnelRedistConfigSm::Signatures s{
       TUNNEL_BGPLU_SM "handleInitialized()",
       TUNNEL_BGPLU_SM "handleTunnelEntry()",
       TUNNEL_BGPLU_SM "handleTunnelEntry(const Tunnel::TunnelTable::TunnelId&)",
       TUNNEL_BGPLU_SM "handleDelete()",
       TUNNEL_BGPLU_SM
       "addTunnelRedistConfig(const Wirekit::IpGenPrefix&, const Tunnel::TunnelTable::TunnelId&)",
       TUNNEL_BGPLU_SM
       "delTunnelRedistConfig(const Wirekit::IpGenPrefix&, const Tunnel::TunnelTable::TunnelId&)",
   };
#undef TUNNEL_BGPLU_SM
   return s;
}

}  // namespace

BgpLuTunnelRedistConfigSm::BgpLuTunnelRedistConfigSm(Vela::Ptr<TunnelRedistConfig> config,
                                                     Vela::Ptr<TunnelTable::BgpLuTunnelTable> table)
    : TunnelTableFollower(std::move(config), std::move(table), bgpLuSignatures()) {}

Vela::Ptr<BgpLuTunnelRedistConfigSm> BgpLuTunnelRedistConfigSm::BgpLuTunnelRedistConfigSmIs(
    const Vela::Ptr<TunnelRedistConfig>& config,
    const Vela::Ptr<TunnelTable::BgpLuTunnelTable>& table) {
   Vela::Ptr<BgpLuTunnelRedistConfigSm> sm(new BgpLuTunnelRedistConfigSm(config, table));
   sm->handleInitialized();
   return sm;
}

void BgpLuTunnelRedistConfigSm::handleInitialized() {
   SPOOR_TRACE(tunnelRedistTrace(), 8, "{}", signatures_.handleInitialized);
   // A table that was never mounted has no control; it has no plain reader either.
   if (luTunnelTable()->entryControl()) {
      VELA_ASSERT(luTunnelTable()->entryControl()->mode() != VelaDock::reader());
   }
   initialize();
}

void BgpLuTunnelRedistConfigSm::addTunnelRedistConfig(const Wirekit::IpGenPrefix& tep,
                                                      const TunnelId& tunnelId) {
   fileMember(tep, TunnelInfo(tunnelId, 0));
}

void BgpLuTunnelRedistConfigSm::add(const Wirekit::IpGenPrefix& tep, const TunnelId& tunnelId,
                                    uint32_t) {
   addTunnelRedistConfig(tep, tunnelId);
}

void BgpLuTunnelRedistConfigSm::sameEndPoint(const Wirekit::IpGenPrefix& tep,
                                             const TunnelId& tunnelId, uint32_t) {
   SPOOR_TRACE(tunnelRedistTrace(), 8, "{} no-op for tunnelId:{} tep:{}",
               signatures_.handleTunnelEntry, TunnelTable::valueToStrep(tunnelId),
               tep.stringValue());
}

Vela::Ptr<BgpLuTunnelRedistConfigSm> bgpLuTunnelRedistConfigSmFactory(
    const Vela::Ptr<TunnelRedistConfig>& config,
    const Vela::Ptr<TunnelTable::BgpLuTunnelTable>& table) {
   return BgpLuTunnelRedistConfigSm::BgpLuTunnelRedistConfigSmIs(config, table);
}

}  // namespace Tunnel::TunnelRedist
