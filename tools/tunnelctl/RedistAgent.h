// RedistAgent: the redistribution agent of one tunnelctl process. It follows the LDP and BGP
// labelled-unicast tunnel tables as a key-shadowing reader and keeps the two redistribution
// configurations, "ldp" and "bgpLu" (at tunnel/redist/<name>), as their writer, through the
// library's state machines. Each key a machine has handled is reported to `handled` (the demo
// waits on it).
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Agent.h"
#include "TunnelRedist/BgpLuTunnelRedistConfigSm.h"
#include "TunnelRedist/LdpTunnelRedistConfigSm.h"

namespace TunnelCtl {

inline constexpr const char* kLdpRedistConfig = "ldp";
inline constexpr const char* kBgpLuRedistConfig = "bgpLu";

class RedistAgent {
  public:
   // (table mount name, tunnel index) of a key the machine has handled.
   using Handled = std::function<void(const std::string& table, uint64_t index)>;

   // Throws what the mounts throw (another process already writes a configuration).
   RedistAgent(Agent& agent, Handled handled = {});
   ~RedistAgent();

   // Both tables synchronized (or not yet published: their keys arrive as changes).
   bool synchronized() const;
   const Tunnel::TunnelRedist::TunnelRedistConfig& ldpConfig() const { return *ldpConfig_; }
   const Tunnel::TunnelRedist::TunnelRedistConfig& bgpLuConfig() const { return *bgpLuConfig_; }

  private:
   struct Reporter;

   Vela::Ptr<Tunnel::TunnelRedist::TunnelRedistConfig> ldpConfig_, bgpLuConfig_;
   Vela::Ptr<Tunnel::TunnelTable::LdpTunnelTable> ldp_;
   Vela::Ptr<Tunnel::TunnelTable::BgpLuTunnelTable> bgpLu_;
   Vela::Ptr<Tunnel::TunnelRedist::LdpTunnelRedistConfigSm> ldpSm_;
   Vela::Ptr<Tunnel::TunnelRedist::BgpLuTunnelRedistConfigSm> bgpLuSm_;
   std::unique_ptr<Reporter> ldpReporter_, bgpLuReporter_;
};

}  // namespace TunnelCtl
