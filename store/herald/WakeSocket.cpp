// WakeSocket: binding, draining and removing a reader's wake-up socket.
#include "store/herald/WakeSocket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "Region/Error.h"
#include "store/herald/WakeDirectory.h"

namespace Dock {

namespace {
std::atomic<uint64_t> attaches{0};
}

WakeSocket::~WakeSocket() {
   close();
}

bool WakeSocket::open(const std::string& tableDir, std::string& reason) {
   close();
   const std::string dir = Wake::directory(tableDir);
   try {
      Wake::ensureDirectory(dir);
      dirFd_ = Wake::openDirectory(dir);
   } catch (const Region::Error& e) {
      reason = e.what();
      close();
      return false;
   }
   fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd_ < 0) {
      reason = Region::Error::fromErrno("cannot create wake socket in", dir, errno).what();
      close();
      return false;
   }
   owner_ = ::getpid();
   try {
      name_ = fmt::format("{}-{}", Wake::processTag(),
                          attaches.fetch_add(1, std::memory_order_relaxed) + 1);
   } catch (const Region::Error& e) {
      reason = e.what();
      close();
      return false;
   }
   sockaddr_un addr;
   const socklen_t len = Wake::address(dir, dirFd_, name_, addr);
   int rc = ::bind(fd_, reinterpret_cast<const sockaddr*>(&addr), len);
   if (rc != 0 && errno == EADDRINUSE) {
      // Only this process can have made this name (pid and start time are its own): it was bound
      // before an exec, which keeps both but restarts the count, and is dead. Take it over.
      ::unlinkat(dirFd_, name_.c_str(), 0);
      rc = ::bind(fd_, reinterpret_cast<const sockaddr*>(&addr), len);
   }
   if (rc != 0) {
      reason = Region::Error::fromErrno("cannot bind wake socket", dir + "/" + name_, errno).what();
      name_.clear();
      close();
      return false;
   }
   // A writer running as another user must be able to send (a send needs write permission).
   ::fchmodat(dirFd_, name_.c_str(), 0666, 0);
   return true;
}

void WakeSocket::close() {
   if (fd_ >= 0) {
      ::close(fd_);
      if (!name_.empty() && owner_ == ::getpid()) ::unlinkat(dirFd_, name_.c_str(), 0);
   }
   if (dirFd_ >= 0) ::close(dirFd_);
   fd_ = dirFd_ = -1;
   name_.clear();
}

void WakeSocket::drain() {
   // One system call takes what is queued (at most the system's datagram queue length, 10 by
   // default; a longer queue leaves the socket readable and the loop comes back).
   constexpr unsigned kBatch = 16;
   char bytes[kBatch];
   iovec iov[kBatch];
   mmsghdr msgs[kBatch];
   std::memset(msgs, 0, sizeof(msgs));
   for (unsigned i = 0; i < kBatch; ++i) {
      iov[i] = {&bytes[i], 1};
      msgs[i].msg_hdr.msg_iov = &iov[i];
      msgs[i].msg_hdr.msg_iovlen = 1;
   }
   ::recvmmsg(fd_, msgs, kBatch, MSG_DONTWAIT, nullptr);
   // Consuming the datagram frees it from the writer's per-reader socket, which lets the writer
   // send again (WakeFanout). Pairs with the fence at the start of WakeFanout::wakeAll: either the
   // writer sees the datagram consumed and sends a new one, or the reads of the queue that follow
   // this fence see the position the writer stored before its check.
   std::atomic_thread_fence(std::memory_order_seq_cst);
}

}  // namespace Dock
