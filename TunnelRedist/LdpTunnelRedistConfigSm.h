// LdpTunnelRedistConfigSm: keeps a TunnelRedistConfig in step with the LDP tunnel table. LDP
// tunnels are filed with the entry's igpMetric, and a tunnel seen again under the end point it is
// filed under is filed again (" update for tunnelId:"), so a changed metric reaches the
// configuration and a second full pass re-adds every tunnel.
#pragma once

#include "TunnelRedist/TunnelTableFollower.h"
#include "TunnelTable/TunnelTables.h"

namespace Tunnel::TunnelRedist {

class LdpTunnelRedistConfigSm final : public TunnelTableFollower<TunnelTable::LdpTunnelTable> {
  public:
   using VelaLdpTunnelTable = Reactor;

   // Builds the machine and runs handleInitialized.
   static Vela::Ptr<LdpTunnelRedistConfigSm> LdpTunnelRedistConfigSmIs(
       const Vela::Ptr<TunnelRedistConfig>& config,
       const Vela::Ptr<TunnelTable::LdpTunnelTable>& table);

   const Vela::Ptr<TunnelTable::LdpTunnelTable>& ldpTunnelTable() const noexcept { return table(); }
   // Traces, asserts that the table is not mounted as a plain reader, then runs the full pass.
   void handleInitialized();
   // Traces " tunnelId:<T> tep:<P>" and inserts or replaces the member `info` under `tep`.
   void addOrUpdateTunnelRedistConfig(const Wirekit::IpGenPrefix& tep, const TunnelInfo& info);

  private:
   LdpTunnelRedistConfigSm(Vela::Ptr<TunnelRedistConfig> config,
                           Vela::Ptr<TunnelTable::LdpTunnelTable> table);

   void add(const Wirekit::IpGenPrefix& tep, const TunnelId& tunnelId, uint32_t igpMetric) override;
   void sameEndPoint(const Wirekit::IpGenPrefix& tep, const TunnelId& tunnelId,
                     uint32_t igpMetric) override;
   uint32_t metricOf(const TunnelTable::LdpTunnelTableEntry& e) const override {
      return e.igpMetric();
   }
};

Vela::Ptr<LdpTunnelRedistConfigSm> ldpTunnelRedistConfigSmFactory(
    const Vela::Ptr<TunnelRedistConfig>& config,
    const Vela::Ptr<TunnelTable::LdpTunnelTable>& table);

}  // namespace Tunnel::TunnelRedist
