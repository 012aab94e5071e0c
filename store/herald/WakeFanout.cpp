// WakeFanout: keeping the set of readers of a wake directory and sending each one a datagram.
#include "store/herald/WakeFanout.h"

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "Region/Error.h"
#include "Spoor/Trace.h"
#include "Vela/Assert.h"
#include "store/herald/WakeDirectory.h"

namespace Dock {

namespace {
Spoor::Handle& trace() {
   return Spoor::handle("Wake");
}
}  // namespace

WakeFanout::~WakeFanout() {
   close();
}

void WakeFanout::open(const std::string& tableDir) {
   close();
   dir_ = Wake::directory(tableDir);
   try {
      Wake::ensureDirectory(dir_);
      dirFd_ = Wake::openDirectory(dir_);
      watchAndList();
   } catch (...) {
      close();
      throw;
   }
}

void WakeFanout::watchAndList() {
   // The watch first, then the listing: a reader that binds in between is seen twice, which
   // add() tolerates, rather than not at all.
   sub_.reset();
   sub_ = WakeWatcher::instance().subscribe(dir_);
   for (Peer& p : peers_) closePeer(p);
   peers_.clear();
   DIR* d = ::opendir(dir_.c_str());
   if (!d) throw Region::Error::fromErrno("cannot list", dir_, errno);
   while (const dirent* e = ::readdir(d)) add(e->d_name);
   ::closedir(d);
   SPOOR_TRACE(trace(), 7, "{} has {} readers", dir_, peers_.size());
}

void WakeFanout::relist() {
   // The directory may have been removed and made again: re-open it before listing.
   try {
      Wake::ensureDirectory(dir_);
      const int fd = Wake::openDirectory(dir_);
      ::close(dirFd_);
      dirFd_ = fd;
      watchAndList();
   } catch (const Region::Error& e) {
      // Readers that join meanwhile are missed until the next loss of events retries; those
      // already known are still woken.
      SPOOR_TRACE(trace(), 1, "cannot re-read {}: {}", dir_, e.what());
   }
}

void WakeFanout::close() {
   sub_.reset();
   for (Peer& p : peers_) closePeer(p);
   peers_.clear();
   if (dirFd_ >= 0) ::close(dirFd_);
   dirFd_ = -1;
}

bool WakeFanout::hasReader(const std::string& name) const {
   return std::any_of(peers_.begin(), peers_.end(), [&](const Peer& p) { return p.name == name; });
}

void WakeFanout::add(const std::string& name) {
   if (!Wake::isReaderName(name) || hasReader(name)) return;
   Peer p;
   p.name = name;
   p.len = Wake::address(dir_, dirFd_, name, p.addr);
   p.fd = -1;
   p.round = 0;
   peers_.push_back(p);
   SPOOR_TRACE(trace(), 7, "{} reader {} joined", dir_, name);
}

void WakeFanout::forget(const std::string& name) {
   auto gone = [&](const Peer& p) { return p.name == name; };
   for (Peer& p : peers_) {
      if (gone(p)) closePeer(p);
   }
   peers_.erase(std::remove_if(peers_.begin(), peers_.end(), gone), peers_.end());
}

bool WakeFanout::refused(Peer& peer, int err, const char* what) {
   if (err == ENOENT) return false;  // the reader left and removed its name itself
   if (err == ECONNREFUSED) {
      // The reader's socket is closed. A reader that detached removes its name itself (it may
      // be doing so right now); one that died leaves it, and nobody will remove it but us. The
      // name is that process's alone (WakeDirectory.h), so no live reader can be behind it.
      if (::unlinkat(dirFd_, peer.name.c_str(), 0) == 0) {
         ++counters_.removed;
         SPOOR_TRACE(trace(), 5, "{} reader {} is gone, name removed", dir_, peer.name);
      }
      return false;
   }
   SPOOR_TRACE(trace(), 3, "{} cannot {} reader {}: errno {}", dir_, what, peer.name, err);
   closePeer(peer);  // connect afresh at the next wake
   return true;
}

bool WakeFanout::send(Peer& peer) {
   if (peer.fd < 0) {
      const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      if (fd < 0) {
         SPOOR_TRACE(trace(), 1, "{} cannot create a wake socket: errno {}", dir_, errno);
         return true;
      }
      // The smallest buffer the system allows: a few datagrams are all this socket ever holds.
      const int bytes = 1;
      ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
      if (::connect(fd, reinterpret_cast<const sockaddr*>(&peer.addr), peer.len) != 0) {
         const int err = errno;
         ::close(fd);
         return refused(peer, err, "connect to");
      }
      peer.fd = fd;
   }
   const char byte = 0;
   if (::send(peer.fd, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL) == 1) {
      ++counters_.sent;
      return true;
   }
   const int err = errno;
   if (err == EAGAIN || err == EWOULDBLOCK) {
      // This socket's buffer is full of wakes the reader has not read: the reader will wake and
      // read everything posted so far.
      ++counters_.pending;
      return true;
   }
   return refused(peer, err, "wake");
}

void WakeFanout::closePeer(Peer& peer) {
   if (peer.fd >= 0) ::close(peer.fd);
   peer.fd = -1;
}

void WakeFanout::sendToAll() {
   for (size_t i = 0; i < peers_.size();) {
      Peer& p = peers_[i];
      if (p.round == round_ || send(p)) {
         p.round = round_;
         ++i;
      } else {
         closePeer(p);
         p = std::move(peers_.back());
         peers_.pop_back();
      }
   }
}

void WakeFanout::wakeAll() {
   VELA_ASSERT(isOpen());
   ++round_;
   // Pairs with the fence at the end of WakeSocket::drain: the caller's store of the queue
   // position is ordered before each send below, so a reader whose socket is found full reads
   // that position after consuming what fills it.
   std::atomic_thread_fence(std::memory_order_seq_cst);
   // The readers already known first: learning of joins and leaves stays off their path.
   sendToAll();
   // Pairs with the fence in HeraldReader::attach between binding and reading the position: the
   // caller's store of the queue position is ordered before the drain below.
   std::atomic_thread_fence(std::memory_order_seq_cst);
   events_.clear();
   if (sub_) {
      WakeWatcher::instance().drain(*sub_, events_);
   } else {
      relist();  // the last re-read failed: try again
   }
   if (events_.empty()) return;
   for (const WakeEvent& e : events_) {
      switch (e.kind) {
         case WakeEvent::Kind::kAdded:
            add(e.name);
            break;
         case WakeEvent::Kind::kRemoved:
            forget(e.name);
            break;
         case WakeEvent::Kind::kLost:
            relist();
            break;
      }
   }
   // Readers that joined since the last wake (a re-listing sends to everyone again: harmless).
   sendToAll();
}

}  // namespace Dock
