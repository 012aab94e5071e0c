#include "Agent.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Mldp/MldpTunnelTable.h"
#include "TunnelTable/TunnelTables.h"
#include "Vela/Exception.h"
#include "store/reader/DockShadow.h"

namespace TunnelCtl {

Agent::Agent() : service_(Vela::makePtr<Vault::MountService>()), mounter_(service_, loop_) {
   // The mount service makes tables by type name; the mLDP table lives in its own component.
   Tunnel::TunnelTable::registerTunnelTableTypes();
   Tunnel::TunnelTable::registerMldpTunnelTableType();
}

Agent::~Agent() {
   if (signalFd_ >= 0) {
      loop_.fdHandlerDel(signalFd_);
      ::close(signalFd_);
   }
}

bool Agent::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
   const auto deadline = std::chrono::steady_clock::now() + timeout;
   while (!done()) {
      const auto now = std::chrono::steady_clock::now();
      if (now >= deadline) return done();
      // Short rounds: the condition may turn on state the loop does not announce (a reader's
      // state after an attach retry).
      loop_.runOnce(
          std::min<std::chrono::nanoseconds>(deadline - now, std::chrono::milliseconds(5)));
   }
   return true;
}

void Agent::signalsIs(std::initializer_list<int> signals, std::function<void(int)> handler) {
   sigset_t set;
   sigemptyset(&set);
   for (int s : signals) sigaddset(&set, s);
   if (::pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
      throw Vela::Exception("cannot block signals");
   }
   signalFd_ = ::signalfd(signalFd_, &set, SFD_NONBLOCK | SFD_CLOEXEC);
   if (signalFd_ < 0) throw Vela::Exception(std::string("signalfd: ") + std::strerror(errno));
   signalHandler_ = std::move(handler);
   loop_.fdHandlerIs(signalFd_, EPOLLIN, [this](uint32_t) {
      signalfd_siginfo info;
      while (::read(signalFd_, &info, sizeof info) == ssize_t(sizeof info)) {
         signalHandler_(int(info.ssi_signo));
      }
   });
}

bool readerSynchronized(const Tunnel::TunnelTable::TunnelTableBase& table) {
   const auto state = Dock::ReaderState(table.storeMountStatus());
   return state == Dock::ReaderState::kSynchronized || state == Dock::ReaderState::kQuiesced;
}

}  // namespace TunnelCtl
