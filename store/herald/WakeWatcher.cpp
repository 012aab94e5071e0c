// WakeWatcher: one non-blocking inotify instance per process, events filed by watch descriptor.
#include "store/herald/WakeWatcher.h"

#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Region/Error.h"
#include "Spoor/Trace.h"

namespace Dock {

namespace {
Spoor::Handle& trace() {
   return Spoor::handle("Wake");
}
// Created, deleted and moved names; IN_ONLYDIR refuses a path that is not a directory.
constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;
}  // namespace

WakeWatcher& WakeWatcher::instance() {
   static WakeWatcher* watcher = new WakeWatcher();
   return *watcher;
}

WakeWatcher::WakeWatcher() {
   // The mutex is held across fork() so the child finds it free and the map consistent.
   ::pthread_atfork([] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); },
                    [] {
                       instance().forgetAfterFork();
                       instance().mutex_.unlock();
                    });
}

void WakeWatcher::forgetAfterFork() {
   if (fd_ >= 0) ::close(fd_);
   fd_ = -1;
   byWd_.clear();
   ++generation_;
}

void WakeWatcher::openLocked() {
   if (fd_ >= 0) return;
   fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
   if (fd_ < 0) throw Region::Error::fromErrno("cannot create inotify instance for", "wake", errno);
}

std::shared_ptr<WakeWatcher::Subscription> WakeWatcher::subscribe(const std::string& dir) {
   std::lock_guard<std::mutex> lock(mutex_);
   openLocked();
   // Events of the directory already queued under an earlier watch are filed before it changes.
   readEventsLocked();
   const int wd = ::inotify_add_watch(fd_, dir.c_str(), kWatchMask);
   if (wd < 0) throw Region::Error::fromErrno("cannot watch", dir, errno);
   std::shared_ptr<Subscription> sub(new Subscription(wd, generation_));
   byWd_[wd].push_back(sub.get());
   SPOOR_TRACE(trace(), 7, "watching {} wd:{}", dir, wd);
   return sub;
}

WakeWatcher::Subscription::~Subscription() {
   WakeWatcher::instance().unsubscribe(*this);
}

void WakeWatcher::unsubscribe(Subscription& sub) {
   std::lock_guard<std::mutex> lock(mutex_);
   if (sub.generation_ != generation_ || sub.wd_ < 0) return;
   auto it = byWd_.find(sub.wd_);
   if (it == byWd_.end()) return;
   auto& subs = it->second;
   subs.erase(std::remove(subs.begin(), subs.end(), &sub), subs.end());
   if (subs.empty()) {
      byWd_.erase(it);
      ::inotify_rm_watch(fd_, sub.wd_);
   }
}

void WakeWatcher::readEventsLocked() {
   if (fd_ < 0) return;
   alignas(inotify_event) char buffer[4096];
   while (true) {
      const ssize_t n = ::read(fd_, buffer, sizeof(buffer));
      if (n <= 0) return;  // EAGAIN: nothing more queued (EINTR: the next drain continues)
      for (ssize_t at = 0; at < n;) {
         const auto* e = reinterpret_cast<const inotify_event*>(buffer + at);
         at += ssize_t(sizeof(inotify_event) + e->len);
         if (e->mask & IN_Q_OVERFLOW) {
            SPOOR_TRACE(trace(), 1, "inotify queue overflow: re-reading every wake directory");
            for (auto& [wd, subs] : byWd_) {
               for (Subscription* s : subs) s->queue_.push_back({WakeEvent::Kind::kLost, {}});
            }
            continue;
         }
         auto it = byWd_.find(e->wd);
         if (it == byWd_.end()) continue;
         if (e->mask & IN_IGNORED) {
            // The directory is gone (or unmounted): its watch no longer exists.
            for (Subscription* s : it->second) {
               s->wd_ = -1;
               s->queue_.push_back({WakeEvent::Kind::kLost, {}});
            }
            byWd_.erase(it);
            continue;
         }
         if (e->len == 0 || (e->mask & IN_ISDIR)) continue;
         const WakeEvent::Kind kind = (e->mask & (IN_CREATE | IN_MOVED_TO))
                                          ? WakeEvent::Kind::kAdded
                                          : WakeEvent::Kind::kRemoved;
         for (Subscription* s : it->second) s->queue_.push_back({kind, std::string(e->name)});
      }
   }
}

void WakeWatcher::drain(Subscription& sub, std::vector<WakeEvent>& out) {
   std::lock_guard<std::mutex> lock(mutex_);
   if (sub.generation_ != generation_) {
      // Inherited across fork(): the watch belongs to the parent's instance.
      sub.generation_ = generation_;
      sub.wd_ = -1;
      out.push_back({WakeEvent::Kind::kLost, {}});
      return;
   }
   readEventsLocked();
   for (auto& e : sub.queue_) out.push_back(std::move(e));
   sub.queue_.clear();
}

int WakeWatcher::fd() const {
   std::lock_guard<std::mutex> lock(mutex_);
   return fd_;
}

size_t WakeWatcher::watches() const {
   std::lock_guard<std::mutex> lock(mutex_);
   return byWd_.size();
}

}  // namespace Dock
