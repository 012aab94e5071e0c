#include "TunnelRedist/LdpTunnelRedistConfigSm.h"

#include "Vela/Assert.h"

namespace Tunnel::TunnelRedist {

namespace {

const TunnelRedistConfigSm::Signatures& ldpSignatures() {
#define TUNNEL_LDP_SM "void Tunnel::TunnelRedist::LdpTunnelRedistConfigSm::"
   static const TunnelRedistConfigSm::Signatures s{
       TUNNEL_LDP_SM "handleInitialized()",
       TUNNEL_LDP_SM "handleTunnelEntry()",
       TUNNEL_LDP_SM "handleTunnelEntry(const Tunnel::TunnelTable::TunnelId&)",
       TUNNEL_LDP_SM "handleDelete()",
       TUNNEL_LDP_SM
       "addOrUpdateTunnelRedistConfig(const Wirekit::IpGenPrefix&, "
       "const Tunnel::TunnelRedist::TunnelInfo&)",
       TUNNEL_LDP_SM
       "delTunnelRedistConfig(const Wirekit::IpGenPrefix&, const Tunnel::TunnelTable::TunnelId&)",
   };
#undef TUNNEL_LDP_SM
   return s;
}

}  // namespace

LdpTunnelRedistConfigSm::LdpTunnelRedistConfigSm(Vela::Ptr<TunnelRedistConfig> config,
                                                 Vela::Ptr<TunnelTable::LdpTunnelTable> table)
    : TunnelTableFollower(std::move(config), std::move(table), ldpSignatures()) {}

Vela::Ptr<LdpTunnelRedistConfigSm> LdpTunnelRedistConfigSm::LdpTunnelRedistConfigSmIs(
    const Vela::Ptr<TunnelRedistConfig>& config,
    const Vela::Ptr<TunnelTable::LdpTunnelTable>& table) {
   Vela::Ptr<LdpTunnelRedistConfigSm> sm(new LdpTunnelRedistConfigSm(config, table));
   sm->handleInitialized();
   return sm;
}

void LdpTunnelRedistConfigSm::handleInitialized() {
   SPOOR_TRACE(tunnelRedistTrace(), 8, "{}", signatures_.handleInitialized);
   // A table that was never mounted has no control; it has no plain reader either.
   if (ldpTunnelTable()->entryControl()) {
      VELA_ASSERT(ldpTunnelTable()->entryControl()->mode() != VelaDock::reader());
   }
   initialize();
}

void LdpTunnelRedistConfigSm::addOrUpdateTunnelRedistConfig(const Wirekit::IpGenPrefix& tep,
                                                            const TunnelInfo& info) {
   fileMember(tep, info);
}

void LdpTunnelRedistConfigSm::add(const Wirekit::IpGenPrefix& tep, const TunnelId& tunnelId,
                                  uint32_t igpMetric) {
   addOrUpdateTunnelRedistConfig(tep, TunnelInfo(tunnelId, igpMetric));
}

void LdpTunnelRedistConfigSm::sameEndPoint(const Wirekit::IpGenPrefix& tep,
                                           const TunnelId& tunnelId, uint32_t igpMetric) {
   SPOOR_TRACE(tunnelRedistTrace(), 8, "{} update for tunnelId:{} tep:{}",
               signatures_.handleTunnelEntry, TunnelTable::valueToStrep(tunnelId),
               tep.stringValue());
   addOrUpdateTunnelRedistConfig(tep, TunnelInfo(tunnelId, igpMetric));
}

Vela::Ptr<LdpTunnelRedistConfigSm> ldpTunnelRedistConfigSmFactory(
    const Vela::Ptr<TunnelRedistConfig>& config,
    const Vela::Ptr<TunnelTable::LdpTunnelTable>& table) {
   return LdpTunnelRedistConfigSm::LdpTunnelRedistConfigSmIs(config, table);
}

}  // namespace Tunnel::TunnelRedist
