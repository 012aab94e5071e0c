// BgpLuTunnelRedistConfigSm: keeps a TunnelRedistConfig in step with the BGP labelled-unicast
// tunnel table. BGP-LU tunnels are filed with IGP metric 0, and a tunnel seen again under the end
// point it is filed under writes nothing (" no-op for tunnelId:"). So a second full pass leaves the
// tunnels that did not change out of the configuration it cleared; that is how the machine is
// meant to behave, unlike the LDP machine, which files them again.
#pragma once

#include "TunnelRedist/TunnelTableFollower.h"
#include "TunnelTable/TunnelTables.h"

namespace Tunnel::TunnelRedist {

class BgpLuTunnelRedistConfigSm final : public TunnelTableFollower<TunnelTable::BgpLuTunnelTable> {
  public:
   using VelaLuTunnelTable = Reactor;

   // Builds the machine and runs handleInitialized.
   static Vela::Ptr<BgpLuTunnelRedistConfigSm> BgpLuTunnelRedistConfigSmIs(
       const Vela::Ptr<TunnelRedistConfig>& config,
       const Vela::Ptr<TunnelTable::BgpLuTunnelTable>& table);

   const Vela::Ptr<TunnelTable::BgpLuTunnelTable>& luTunnelTable() const noexcept {
      return table();
   }
   // Traces, asserts that the table is not mounted as a plain reader, then runs the full pass.
   void handleInitialized();
   // Traces " tunnelId:<T> tep:<P>" and files {T, metric 0} under `tep`.
   void addTunnelRedistConfig(const Wirekit::IpGenPrefix& tep, const TunnelId& tunnelId);

  private:
   BgpLuTunnelRedistConfigSm(Vela::Ptr<TunnelRedistConfig> config,
                             Vela::Ptr<TunnelTable::BgpLuTunnelTable> table);

   void add(const Wirekit::IpGenPrefix& tep, const TunnelId& tunnelId, uint32_t) override;
   void sameEndPoint(const Wirekit::IpGenPrefix& tep, const TunnelId& tunnelId, uint32_t) override;
   uint32_t metricOf(const TunnelTable::BgpLuTunnelTableEntry&) const override { return 0; }
};

Vela::Ptr<BgpLuTunnelRedistConfigSm> bgpLuTunnelRedistConfigSmFactory(
    const Vela::Ptr<TunnelRedistConfig>& config,
    const Vela::Ptr<TunnelTable::BgpLuTunnelTable>& table);

}  // namespace Tunnel::TunnelRedist
