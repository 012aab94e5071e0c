// CliTunnelRibExport: keeps the command-line tunnel RIB tree (TunnelPikeStatus) current from a
// TunnelRibBuilder, in a Pike store that the command line reads from another process.
//
// The tree holds, per RIB, every endpoint the builder has candidates for, with every candidate
// class and its tunnel ids - the losers too, which the RIB itself does not keep. It follows the
// builder incrementally: each endpoint the builder evaluates is compared with its mirror and only
// the differences are written (a new tunnel id is added once: tunnelIdIs notifies every time);
// the whole tree is flushed once per batch the builder applies. The builder's reconcile passes
// evaluate every endpoint, so they also rebuild the mirror after a restart.
//
// Decided here: the plain RIB is mirrored as "tunnelRib" and the colored one as
// "coloredTunnelRib"; their ids are the RIBs' own when set, else 0 and 1. The store is
// kCliTunnelRibStore under the store root, its root entity kCliTunnelRibRoot.
#pragma once

#include <memory>
#include <string>

#include "Pike/PikeWriter.h"
#include "TunnelRib/TunnelPikeStatus.h"
#include "TunnelRib/TunnelRibBuilder.h"

namespace Tunnel::TunnelTable {

inline constexpr const char* kCliTunnelRibStore = "tunnel/rib/cli/pike";
inline constexpr const char* kCliTunnelRibRoot = "tunnelPikeStatus";

class CliTunnelRibExport {
  public:
   // Takes the Pike store as its writer (Region::OwnerError when another process holds it) and
   // hooks into `builder`, which must outlive this export.
   explicit CliTunnelRibExport(TunnelRibBuilder& builder,
                               const std::string& store = kCliTunnelRibStore);
   ~CliTunnelRibExport();
   CliTunnelRibExport(const CliTunnelRibExport&) = delete;
   CliTunnelRibExport& operator=(const CliTunnelRibExport&) = delete;

   const Vela::Ptr<TunnelPikeStatus>& status() const noexcept { return status_; }
   Pike::PikeWriter& writer() noexcept { return *writer_; }

  private:
   void mirror(const ColoredTunnelEndpoint& endpoint);

   TunnelRibBuilder& builder_;
   std::unique_ptr<Pike::PikeWriter> writer_;
   Vela::Ptr<TunnelPikeStatus> status_;
   Vela::Ptr<InternalCliTunnelRib> plain_;
   Vela::Ptr<InternalCliTunnelRib> colored_;
};

}  // namespace Tunnel::TunnelTable
