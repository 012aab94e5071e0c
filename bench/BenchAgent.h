// An agent's pieces for a benchmark process: an event loop, a mount service and the tunnel table
// mounter over them.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "Loom/EventLoop.h"
#include "TunnelTable/TunnelMount.h"
#include "Vault/MountService.h"
#include "store/reader/DockShadow.h"

namespace Bench {

struct Mounted {
   Loom::EventLoop loop;
   Vela::Ptr<Vault::MountService> service = Vela::makePtr<Vault::MountService>();
   Tunnel::TunnelTable::TunnelTableMounter mounter{service, loop};
};

// Whether a reader has worked through its table (synchronized or quiesced).
inline bool synchronized(const Tunnel::TunnelTable::StoreTableBase& t) {
   const auto s = Dock::ReaderState(t.storeMountStatus());
   return s == Dock::ReaderState::kSynchronized || s == Dock::ReaderState::kQuiesced;
}

// Runs `writer` in a child process and waits for it; a failed writer aborts the benchmark.
inline void runWriterProcess(const std::function<int()>& writer) {
   const pid_t pid = ::fork();
   if (pid == 0) ::_exit(writer());
   int status = 0;
   ::waitpid(pid, &status, 0);
   if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::abort();
}

}  // namespace Bench
