// WakeWatcher: the one inotify instance of a process, shared by every table writer in it.
//
// A writer learns which readers to wake by watching its table's wake directory (see
// WakeDirectory.h): a reader's socket name appearing there is a reader joining, its name
// disappearing is a reader leaving. The kernel allows only a few inotify instances per user (128
// by default) while an agent writes tens of tables, so the process keeps ONE instance and one
// watch per directory, and files each event under the subscriptions of its watch descriptor.
//
// Nothing blocks and nothing runs in the background: a writer drains the instance (non-blocking
// reads until EAGAIN) from its own wake step and takes the events queued for its subscription.
// Events for other subscriptions wait in their queues until their writer's next wake.
//
// Threads: tables of one process may have their writers on different threads. One mutex guards
// the instance, the descriptor map and every subscription's queue; it is held only across the
// non-blocking drain. fork(): the child gets a fresh, empty watcher on first use (an inherited
// instance would share its event queue with the parent); subscriptions it inherited report kLost.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace Dock {

struct WakeEvent {
   enum class Kind {
      kAdded,    // a name was created in or moved into the directory
      kRemoved,  // a name was deleted or moved out
      kLost,     // events may be missing (queue overflow, directory gone): re-read the directory
   };
   Kind kind;
   std::string name;
};

class WakeWatcher {
  public:
   class Subscription;

   // The process's watcher (never destroyed: writers in static objects may outlive main).
   static WakeWatcher& instance();

   // Watches `dir` for names created, deleted or moved; several subscriptions of one directory
   // share its watch. Throws Region::Error when the instance or the watch cannot be made.
   std::shared_ptr<Subscription> subscribe(const std::string& dir);

   // Reads every event the kernel has queued, without blocking, files them by watch descriptor
   // and appends those queued for `sub` to `out`, in the order they happened.
   void drain(Subscription& sub, std::vector<WakeEvent>& out);

   // The inotify descriptor (-1 before the first subscription) and the number of live watches.
   int fd() const;
   size_t watches() const;

  private:
   WakeWatcher();
   void unsubscribe(Subscription& sub);
   void readEventsLocked();
   void openLocked();
   void forgetAfterFork();

   mutable std::mutex mutex_;
   int fd_ = -1;
   uint64_t generation_ = 0;  // bumped in a forked child, which starts over
   // Watch descriptor -> the subscriptions sharing it.
   std::unordered_map<int, std::vector<Subscription*>> byWd_;
};

class WakeWatcher::Subscription {
  public:
   ~Subscription();
   Subscription(const Subscription&) = delete;
   Subscription& operator=(const Subscription&) = delete;

  private:
   friend class WakeWatcher;
   Subscription(int wd, uint64_t generation) : wd_(wd), generation_(generation) {}
   int wd_;                        // -1 once the watch is gone
   uint64_t generation_;           // the watcher generation (bumped by fork) it belongs to
   std::vector<WakeEvent> queue_;  // guarded by the watcher's mutex
};

}  // namespace Dock
