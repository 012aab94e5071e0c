// Agent: what one tunnelctl process needs to take part in the system - its event loop, a mount
// service of its own and the tunnel table mounter over both - plus the two waits every command
// needs: run the loop until something holds (or a deadline), and stop on a signal.
//
// Signals are taken through a signalfd watched by the loop, so handlers run as ordinary loop
// callbacks (they may mount, write and print) instead of in signal context.
#pragma once

#include <chrono>
#include <functional>
#include <initializer_list>

#include "Loom/EventLoop.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTableBase.h"
#include "Vault/MountService.h"
#include "Vela/Ptr.h"

namespace TunnelCtl {

class Agent {
  public:
   Agent();
   ~Agent();
   Agent(const Agent&) = delete;
   Agent& operator=(const Agent&) = delete;

   Loom::EventLoop& loop() { return loop_; }
   const Tunnel::TunnelTable::TunnelTableMounter& mounter() const { return mounter_; }
   Vault::MountService& service() { return *service_; }

   // Runs the loop until `done()` holds or `timeout` has passed; returns done().
   bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

   // Delivers `signals` to `handler` on the loop from now on (they are blocked for the thread).
   void signalsIs(std::initializer_list<int> signals, std::function<void(int)> handler);

  private:
   Loom::EventLoop loop_;  // first: the mounted tables run on it until the service is gone
   Vela::Ptr<Vault::MountService> service_;
   Tunnel::TunnelTable::TunnelTableMounter mounter_;
   int signalFd_ = -1;
   std::function<void(int)> signalHandler_;
};

// True once a key-shadowing reader has worked through what the writer had published at attach.
bool readerSynchronized(const Tunnel::TunnelTable::TunnelTableBase& table);

}  // namespace TunnelCtl
