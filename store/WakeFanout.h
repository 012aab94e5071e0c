// WakeFanout: the writer's side of the wake directory: one datagram to every attached reader.
//
// The writer keeps one non-blocking datagram socket and the set of reader names in the table's
// wake directory. It learns of readers joining and leaving from the process's shared inotify
// instance (WakeWatcher), drained without blocking at each wake, and lists the directory once
// when it opens, so a restarted writer finds the readers that were already there.
//
// Per wake, the known readers are sent to first; then the watcher is drained and readers that
// joined meanwhile are sent to as well. For each reader, one sendto():
//   - success, or EAGAIN: the reader's socket is full, so a wake is already pending: done;
//   - ENOENT: the reader left and removed its name: forget it;
//   - ECONNREFUSED: the reader died without removing its name: remove it (unlink) and forget it,
//     so a dead reader costs nothing lasting;
//   - anything else (e.g. EACCES while a reader has not yet set its socket's mode): keep it.
// A datagram stays charged to the sending socket until its reader reads it, so the sending buffer
// is raised as far as the system allows: a reader alive but not reading holds at most the
// system's datagram queue length (net.unix.max_dgram_qlen, 10 by default) of them. Only when
// tens of readers of one table stall at once is the buffer full, and then sends to the others
// fail with EAGAIN too until a stalled reader reads or dies (its datagrams are freed with it).
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

#include "store/WakeWatcher.h"

namespace Dock {

class WakeFanout {
  public:
   struct Counters {
      uint64_t sent = 0;     // datagrams queued to a reader
      uint64_t pending = 0;  // sends refused because the reader already had a wake pending
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
   bool isOpen() const { return sock_ >= 0; }

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
      uint64_t round;  // the wake that last sent to it
   };
   void watchAndList();
   void relist();
   void add(const std::string& name);
   void forget(const std::string& name);
   bool send(const Peer& peer);
   void sendToAll();

   std::string dir_;
   int dirFd_ = -1;
   int sock_ = -1;
   std::shared_ptr<WakeWatcher::Subscription> sub_;
   std::vector<Peer> peers_;
   std::vector<WakeEvent> events_;  // scratch, kept to avoid an allocation per wake
   Counters counters_;
   uint64_t round_ = 0;  // wakes so far
};

}  // namespace Dock
