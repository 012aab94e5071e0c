// The epoll loop. Every epoll registration carries, in its 64-bit data word, the fd in the low half
// and the handler's generation in the high half (0 for the loop's own eventfd and timerfd). A
// dispatch looks the fd up again and drops the event when the generation differs, so an event
// collected for a handler that was removed (or replaced) in the same round never reaches a stale
// or new callback.
#include "Loom/EventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "Vela/Assert.h"
#include "Vela/Exception.h"

namespace Loom {

namespace {

thread_local EventLoop* tlsCurrent = nullptr;

constexpr int kMaxEventsPerWait = 64;

[[noreturn]] void throwSystemError(const char* what, int fd = -1) {
   int err = errno;
   if (fd >= 0) {
      throw Vela::Exception(
          fmt::format("event loop: {} for fd {} failed: {}", what, fd, std::strerror(err)));
   }
   throw Vela::Exception(fmt::format("event loop: {} failed: {}", what, std::strerror(err)));
}

uint64_t packData(int fd, uint32_t generation) {
   return (uint64_t(generation) << 32) | uint32_t(fd);
}

// Milliseconds for epoll_wait, rounded up so that a wait never ends before the timeout.
int timeoutMillis(std::chrono::nanoseconds timeout) {
   if (timeout == EventLoop::kForever) return -1;
   if (timeout.count() <= 0) return 0;
   int64_t ms = (timeout.count() + 999'999) / 1'000'000;
   return int(std::min<int64_t>(ms, INT_MAX));
}

}  // namespace

// Shared by the loop (heap entry) and the handles. `cancelled` and `done` are the only fields
// another thread touches; `callback` and `period` belong to the loop's thread.
struct Timer::State {
   std::atomic<bool> cancelled{false};
   std::atomic<bool> done{false};
   std::chrono::nanoseconds period{0};  // 0: one-shot
   EventLoop::Task callback;
};

void Timer::cancel() {
   // Release pairs with the acquire in fireDueTimers: a cancel that happens before the loop
   // looks at the timer is seen, and the timer does not fire.
   if (state_) state_->cancelled.store(true, std::memory_order_release);
}

bool Timer::pending() const {
   return state_ && !state_->cancelled.load(std::memory_order_acquire) &&
          !state_->done.load(std::memory_order_acquire);
}

struct EventLoop::FdHandler {
   uint32_t generation;
   FdCallback callback;
};

bool EventLoop::TimerLater::operator()(const TimerEntry& a, const TimerEntry& b) const {
   if (a.deadline != b.deadline) return a.deadline > b.deadline;
   return a.sequence > b.sequence;
}

EventLoop::EventLoop() {
   epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
   if (epollFd_ < 0) throwSystemError("epoll_create1");
   wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
   timerFd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
   const char* failed = wakeFd_ < 0 ? "eventfd" : timerFd_ < 0 ? "timerfd_create" : nullptr;
   for (int fd : {wakeFd_, timerFd_}) {
      if (failed) break;
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.u64 = packData(fd, 0);
      if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) < 0) failed = "epoll_ctl";
   }
   if (failed) {
      int err = errno;
      for (int fd : {epollFd_, wakeFd_, timerFd_}) {
         if (fd >= 0) ::close(fd);
      }
      errno = err;
      throwSystemError(failed);
   }
}

EventLoop::~EventLoop() {
   // Acquire pairs with the release in leaveRun: a loop last run on another thread is handed
   // over before its fds are closed here.
   if (runningThread_.load(std::memory_order_acquire) != std::thread::id()) {
      VELA_FAIL("event loop destroyed while running");
   }
   ::close(timerFd_);
   ::close(wakeFd_);
   ::close(epollFd_);
}

EventLoop* EventLoop::current() {
   return tlsCurrent;
}

bool EventLoop::onLoopThread() const {
   // Relaxed: only the calling thread can make the comparison true, and it wrote the value itself.
   return runningThread_.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

void EventLoop::wake() {
   // One eventfd write per round however many posters: the loop clears the flag after draining
   // the eventfd and, after that, looks at the queues under the mutex before it blocks again, so a
   // poster that finds the flag already set has its work seen without a write of its own.
   if (!wakePending_.exchange(true, std::memory_order_acq_rel)) {
      uint64_t one = 1;
      ssize_t n = ::write(wakeFd_, &one, sizeof one);
      (void)n;  // EAGAIN only when the counter is near overflow, which still leaves it readable
   }
}

void EventLoop::post(Task task) {
   VELA_ASSERT(task && "EventLoop::post needs a task");
   {
      std::lock_guard lock(mutex_);
      normal_.push_back(std::move(task));
   }
   if (!onLoopThread()) wake();
}

void EventLoop::postCritical(Task task) {
   VELA_ASSERT(task && "EventLoop::postCritical needs a task");
   {
      std::lock_guard lock(mutex_);
      critical_.push_back(std::move(task));
   }
   if (!onLoopThread()) wake();
}

size_t EventLoop::pendingTasks() const {
   std::lock_guard lock(mutex_);
   return critical_.size() + normal_.size();
}

Timer EventLoop::timerIs(std::chrono::nanoseconds delay, Task callback) {
   return scheduleTimer(delay, std::chrono::nanoseconds(0), std::move(callback));
}

Timer EventLoop::repeatingTimerIs(std::chrono::nanoseconds period, Task callback) {
   VELA_ASSERT(period.count() > 0 && "repeating timer needs a positive period");
   return scheduleTimer(period, period, std::move(callback));
}

Timer EventLoop::scheduleTimer(std::chrono::nanoseconds delay, std::chrono::nanoseconds period,
                               Task callback) {
   VELA_ASSERT(callback && "EventLoop timer needs a callback");
   auto state = std::make_shared<Timer::State>();
   state->period = period;
   state->callback = std::move(callback);
   auto deadline = std::chrono::steady_clock::now() + std::max(delay, std::chrono::nanoseconds(0));
   std::lock_guard lock(mutex_);
   timers_.push_back(TimerEntry{deadline, timerSequence_++, state});
   std::push_heap(timers_.begin(), timers_.end(), TimerLater());
   // An earlier deadline re-arms the timerfd at once; a loop blocked in epoll_wait on another
   // thread then wakes by the timerfd itself, so no eventfd write is needed.
   if (deadline < armedDeadline_) armTimerFdLocked();
   return Timer(std::move(state));
}

void EventLoop::armTimerFdLocked() {
   auto earliest =
       timers_.empty() ? std::chrono::steady_clock::time_point::max() : timers_.front().deadline;
   if (earliest == armedDeadline_) return;
   itimerspec spec{};
   if (!timers_.empty()) {
      // steady_clock is CLOCK_MONOTONIC, so its epoch is the timerfd's. A zero it_value would
      // disarm, so the earliest possible expiry is 1 ns (long past, fires at once).
      int64_t ns =
          std::chrono::duration_cast<std::chrono::nanoseconds>(earliest.time_since_epoch()).count();
      ns = std::max<int64_t>(ns, 1);
      spec.it_value.tv_sec = ns / 1'000'000'000;
      spec.it_value.tv_nsec = ns % 1'000'000'000;
   }
   // Fails only on arguments that are wrong by construction.
   if (::timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &spec, nullptr) < 0) {
      VELA_FAIL("timerfd_settime failed: {}", std::strerror(errno));
   }
   armedDeadline_ = earliest;
}

void EventLoop::fdHandlerIs(int fd, uint32_t events, FdCallback callback) {
   VELA_ASSERT(callback && "EventLoop::fdHandlerIs needs a callback");
   if (fd < 0) throw Vela::Exception(fmt::format("event loop: invalid fd {}", fd));
   std::lock_guard lock(mutex_);
   if (++fdHandlerGeneration_ == 0) ++fdHandlerGeneration_;  // 0 marks the loop's own fds
   auto it = fdHandlers_.find(fd);
   epoll_event ev{};
   ev.events = events;
   ev.data.u64 = packData(fd, fdHandlerGeneration_);
   if (::epoll_ctl(epollFd_, it == fdHandlers_.end() ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &ev) <
       0) {
      throwSystemError("epoll_ctl", fd);
   }
   auto handler = std::make_shared<FdHandler>(FdHandler{fdHandlerGeneration_, std::move(callback)});
   if (it == fdHandlers_.end()) {
      fdHandlers_.emplace(fd, std::move(handler));
   } else {
      it->second = std::move(handler);  // the old callback lives on while a dispatch holds it
   }
}

void EventLoop::fdHandlerDel(int fd) {
   std::lock_guard lock(mutex_);
   auto it = fdHandlers_.find(fd);
   if (it == fdHandlers_.end()) return;
   // Fails only when the fd was closed first, which removed it from the epoll set already.
   ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
   fdHandlers_.erase(it);
}

bool EventLoop::fdHandlerHas(int fd) const {
   std::lock_guard lock(mutex_);
   return fdHandlers_.count(fd) != 0;
}

EventLoop* EventLoop::enterRun() {
   auto me = std::this_thread::get_id();
   std::thread::id expected{};
   // Acquire pairs with the release in leaveRun of the thread that ran the loop before: the
   // loop-thread-only state (runDepth_, inCriticalRun_, timer callbacks) is handed over with it.
   if (!runningThread_.compare_exchange_strong(expected, me, std::memory_order_acquire,
                                               std::memory_order_relaxed) &&
       expected != me) {
      VELA_FAIL("event loop is already running on another thread");
   }
   ++runDepth_;
   EventLoop* previous = tlsCurrent;
   tlsCurrent = this;
   return previous;
}

void EventLoop::leaveRun(EventLoop* previous) {
   tlsCurrent = previous;
   if (--runDepth_ == 0) runningThread_.store(std::thread::id(), std::memory_order_release);
}

void EventLoop::run() {
   while (true) {
      runOnce(kForever);
      // Acquire pairs with the release in stop(): whatever the stopping thread did before is
      // visible to the code after run().
      if (stopRequested_.exchange(false, std::memory_order_acquire)) return;
   }
}

void EventLoop::stop() {
   stopRequested_.store(true, std::memory_order_release);
   if (!onLoopThread()) wake();
}

bool EventLoop::runOnce(std::chrono::nanoseconds timeout) {
   EventLoop* previous = enterRun();
   struct Leave {
      EventLoop* loop;
      EventLoop* previous;
      ~Leave() { loop->leaveRun(previous); }
   } leave{this, previous};

   int timeoutMs = timeoutMillis(timeout);
   // Relaxed: only decides whether to block; run() consumes the request with acquire.
   if (stopRequested_.load(std::memory_order_relaxed)) {
      timeoutMs = 0;
   } else {
      std::lock_guard lock(mutex_);
      if (!critical_.empty() || !normal_.empty()) timeoutMs = 0;
   }
   bool ran = dispatchFdEvents(timeoutMs);
   ran |= fireDueTimers();
   ran |= runTasks();
   return ran;
}

bool EventLoop::dispatchFdEvents(int timeoutMs) {
   epoll_event events[kMaxEventsPerWait];
   int n = ::epoll_wait(epollFd_, events, kMaxEventsPerWait, timeoutMs);
   if (n < 0) {
      if (errno == EINTR) return false;
      throwSystemError("epoll_wait");
   }
   bool ran = false;
   // Events of one batch are handled in order; handlers for the same round may remove or replace
   // one another, which the generation check below accounts for.
   for (int i = 0; i < n; ++i) {
      int fd = int(uint32_t(events[i].data.u64));
      uint32_t generation = uint32_t(events[i].data.u64 >> 32);
      if (generation == 0) {
         uint64_t count;
         if (fd == wakeFd_) {
            while (::read(wakeFd_, &count, sizeof count) > 0) {
            }
            // Release, and the queue check under the mutex that follows before the next wait,
            // pair with the exchange in wake(); see there.
            wakePending_.store(false, std::memory_order_release);
         } else if (fd == timerFd_) {
            while (::read(timerFd_, &count, sizeof count) > 0) {
            }
            // The expiry is consumed: whatever is earliest now must be armed again, even if it
            // is the deadline that just expired (its timer may not have fired yet).
            std::lock_guard lock(mutex_);
            armedDeadline_ = std::chrono::steady_clock::time_point::max();
         }
         continue;
      }
      std::shared_ptr<FdHandler> handler;
      {
         std::lock_guard lock(mutex_);
         auto it = fdHandlers_.find(fd);
         if (it == fdHandlers_.end() || it->second->generation != generation) continue;
         handler = it->second;
      }
      handler->callback(events[i].events);
      ran = true;
   }
   return ran;
}

bool EventLoop::fireDueTimers() {
   // Re-arm for the new earliest deadline on the way out, also when a callback throws.
   struct Rearm {
      EventLoop* loop;
      ~Rearm() {
         std::lock_guard lock(loop->mutex_);
         loop->armTimerFdLocked();
      }
   } rearm{this};
   bool ran = false;
   const auto now = std::chrono::steady_clock::now();
   while (true) {
      std::shared_ptr<Timer::State> state;
      {
         std::lock_guard lock(mutex_);
         if (timers_.empty() || timers_.front().deadline > now) break;
         std::pop_heap(timers_.begin(), timers_.end(), TimerLater());
         TimerEntry entry = std::move(timers_.back());
         timers_.pop_back();
         state = std::move(entry.state);
         // Acquire pairs with the release in Timer::cancel.
         if (!state->cancelled.load(std::memory_order_acquire) && state->period.count() > 0) {
            // Re-queue before running, so a callback may cancel it; a deadline already past
            // (the loop fell a period behind) restarts from now instead of firing in a burst.
            auto next = entry.deadline + state->period;
            if (next <= now) next = now + state->period;
            timers_.push_back(TimerEntry{next, timerSequence_++, state});
            std::push_heap(timers_.begin(), timers_.end(), TimerLater());
         }
      }
      if (state->cancelled.load(std::memory_order_acquire)) {
         state->callback = nullptr;  // free the captures now, not when the last handle goes
         continue;
      }
      if (state->period.count() > 0) {
         state->callback();
      } else {
         Task callback = std::move(state->callback);
         state->callback = nullptr;
         state->done.store(true, std::memory_order_release);
         callback();
      }
      ran = true;
   }
   return ran;
}

bool EventLoop::runTasks() {
   size_t normalCount;
   {
      std::lock_guard lock(mutex_);
      normalCount = normal_.size();
   }
   bool ran = runCriticalTasks() > 0;
   for (size_t i = 0; i < normalCount; ++i) {
      if (i > 0) ran |= runCriticalTasks() > 0;  // critical work posted meanwhile goes first
      Task task;
      {
         std::lock_guard lock(mutex_);
         if (normal_.empty()) break;
         task = std::move(normal_.front());
         normal_.pop_front();
      }
      task();
      ran = true;
   }
   return ran;
}

size_t EventLoop::runCriticalTasks() {
   // Acquire pairs with the release in leaveRun, as in enterRun: inCriticalRun_ below is state
   // of whichever thread ran the loop last.
   auto running = runningThread_.load(std::memory_order_acquire);
   if (running != std::thread::id() && running != std::this_thread::get_id()) {
      VELA_FAIL("runCriticalTasks called off the event loop's thread");
   }
   if (inCriticalRun_) return 0;
   size_t count;
   {
      std::lock_guard lock(mutex_);
      count = critical_.size();
   }
   if (count == 0) return 0;
   inCriticalRun_ = true;
   struct Reset {
      bool& flag;
      ~Reset() { flag = false; }
   } reset{inCriticalRun_};
   size_t ran = 0;
   while (ran < count) {
      Task task;
      {
         std::lock_guard lock(mutex_);
         if (critical_.empty()) break;
         task = std::move(critical_.front());
         critical_.pop_front();
      }
      task();
      ++ran;
   }
   return ran;
}

size_t runPendingCriticalTasks() {
   EventLoop* loop = EventLoop::current();
   return loop ? loop->runCriticalTasks() : 0;
}

}  // namespace Loom
