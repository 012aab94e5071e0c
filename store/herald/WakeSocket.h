// WakeSocket: a reader's wake-up socket, bound in its table's wake directory (see WakeDirectory.h).
//
// The reader's event loop watches fd(); the writer sends a datagram after each batch. The
// datagrams carry nothing: being readable is the whole message, and the reader reads the queue
// after each drain(), so a datagram that arrives after the drain wakes it again.
// The writer's socket per reader holds only a few unread datagrams (WakeFanout), so a reader holds
// at most those few, all taken by one drain().
//
// close() (and the destructor) closes the socket and removes its name, so a reader that detaches
// costs the writer nothing; a reader that dies without closing leaves a name that the writer
// removes the first time a send to it is refused. Names are unique across pid reuse
// (WakeDirectory.h), so that removal never hits a live reader. Only the process that bound a name
// removes it (a forked child's copy of the object leaves its parent's socket alone).
#pragma once

#include <sys/types.h>

#include <string>

namespace Dock {

class WakeSocket {
  public:
   WakeSocket() = default;
   ~WakeSocket();
   WakeSocket(const WakeSocket&) = delete;
   WakeSocket& operator=(const WakeSocket&) = delete;

   // Binds a fresh non-blocking datagram socket at <tableDir>/wake/<pid>-<start>-<n>, making the
   // wake directory if it is missing. False with the reason when that fails.
   bool open(const std::string& tableDir, std::string& reason);
   void close();
   bool isOpen() const { return fd_ >= 0; }

   int fd() const { return fd_; }
   const std::string& name() const { return name_; }
   // Reads the pending datagrams without blocking. Followed by a full fence: the caller's reads
   // of the queue come after the writer sees the datagram consumed.
   void drain();

  private:
   int fd_ = -1;
   int dirFd_ = -1;
   pid_t owner_ = 0;
   std::string name_;
};

}  // namespace Dock
