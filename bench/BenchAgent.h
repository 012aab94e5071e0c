// An agent's pieces for a benchmark process: an event loop, a mount service and the tunnel table
// mounter over them.
#pragma once

#include "Loom/EventLoop.h"
#include "TunnelTable/TunnelMount.h"
#include "Vault/MountService.h"

namespace Bench {

struct Mounted {
   Loom::EventLoop loop;
   Vela::Ptr<Vault::MountService> service = Vela::makePtr<Vault::MountService>();
   Tunnel::TunnelTable::TunnelTableMounter mounter{service, loop};
};

}  // namespace Bench
