// WakeFanout: the writer's side of the wake directory: one datagram to every attached reader.
//
// The writer keeps one non-blocking datagram socket per reader, connected to the reader's name,
// and the set of reader names in the table's wake directory. It learns of readers joining and
// leaving from the process's shared inotify instance (WakeWatcher), drained without blocking at
// each wake, and lists the directory once when it opens, so a restarted writer finds the readers
// that were already there.
//
// A few undelivered datagrams per reader at most. A unix datagram stays charged to the socket
// that sent it until its reader reads it, so a reader that is alive but not reading (stopped, or
// stuck) piles up datagrams; through one shared sending socket it would exhaust that socket's
// buffer and delay the wakes of every other reader. With a socket per reader at the smallest send
// buffer the system allows, the pile is bounded by that buffer (a handful of one-byte datagrams):
// once it is full, send() refuses with EAGAIN and nothing more is sent (a wake is still pending,
// so nothing is lost). A stalled reader thus fills only its own socket's buffer and touches no
// other reader's. The cost: one descriptor per reader in the writer. The send is the only system
// call per reader per wake: asking the socket first whether its last datagram was read would put
// a second one ahead of every wake-up.
//
// Per wake, the known readers are sent to first; then the watcher is drained and readers that
// joined meanwhile are sent to as well. For each reader:
//   - not yet connected: connect; ENOENT: the reader left and removed its name: forget it;
//     ECONNREFUSED: the reader died without removing its name: remove it (unlink) and forget it,
//     so a dead reader costs nothing lasting (names are never reused, see WakeDirectory.h, so
//     this never removes a live reader's name); anything else (e.g. EACCES while a reader has not
//     yet set its socket's mode): keep it and connect again at the next wake;
//   - send(): success, or EAGAIN (the socket's buffer or the reader's queue is full of unread
//     wakes: a wake is pending, counted as pending): done;
//     ECONNREFUSED: the reader's socket is closed: as for connect.
//
// Ordering with a joining reader: the reader binds its name (which queues the inotify event) and
// only then reads the writer's queue position, with a sequentially consistent fence between the
// two; wakeAll() fences the same way between the caller's position store and draining the
// watcher. So either the reader sees the new position when it attaches, or this wake sees it.
//
// Threads: a fanout belongs to its writer's thread.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "store/herald/WakeWatcher.h"

namespace Dock {

class WakeFanout {
  public:
   struct Counters {
      uint64_t sent = 0;     // datagrams queued to a reader
      uint64_t pending = 0;  // sends refused because the reader had wakes pending
      uint64_t removed = 0;  // names of dead readers removed
   };

   WakeFanout() = default;
   ~WakeFanout();
   WakeFanout(const WakeFanout&) = delete;
   WakeFanout& operator=(const WakeFanout&) = delete;

   // Makes <tableDir>/wake when missing, watches it and lists the readers already there.
   // Throws Region::Error when the directory, the watch or the socket cannot be made.
   void open(const std::string& tableDir);
   void close();
   bool isOpen() const { return dirFd_ >= 0; }

   // Learns of readers that joined or left, then sends each reader one datagram.
   // REQUIRES: isOpen().
   void wakeAll();

   size_t readers() const { return peers_.size(); }
   bool hasReader(const std::string& name) const;
   const Counters& counters() const { return counters_; }

  private:
   struct Peer {
      std::string name;
      sockaddr_un addr;
      socklen_t len;
      int fd;          // connected to the reader's socket, -1 until connected
      uint64_t round;  // the wake that last sent to it
   };
   void watchAndList();
   void relist();
   void add(const std::string& name);
   void forget(const std::string& name);
   bool send(Peer& peer);
   bool refused(Peer& peer, int err, const char* what);
   static void closePeer(Peer& peer);
   void sendToAll();

   std::string dir_;
   int dirFd_ = -1;
   std::shared_ptr<WakeWatcher::Subscription> sub_;
   std::vector<Peer> peers_;
   std::vector<WakeEvent> events_;  // scratch, kept to avoid an allocation per wake
   Counters counters_;
   uint64_t round_ = 0;  // wakes so far
};

}  // namespace Dock
