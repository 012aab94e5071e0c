// Loom::EventLoop: the event loop an agent thread runs. One epoll instance per loop carries three
// kinds of work:
//   - tasks, posted from any thread, in two priorities: critical tasks always run before normal
//     ones, and can also be run from inside a long operation (runCriticalTasks) so that a large
//     rehash does not starve time-critical work;
//   - timers, one-shot or repeating, kept in a deadline heap and woken by a single timerfd armed
//     (absolute, CLOCK_MONOTONIC) at the earliest deadline, which gives nanosecond resolution
//     where an epoll timeout would round to milliseconds;
//   - file-descriptor handlers, level-triggered.
// Other threads wake the loop through an eventfd.
//
// A round (runOnce) is: wait (not at all when tasks are pending) -> fd handlers -> due timers ->
// tasks. The task step runs the normal tasks that were pending when it began and, before the
// first and before each next one, the critical tasks pending at that moment; so a critical task
// posted by a normal one overtakes the normal tasks still waiting. Anything else posted meanwhile
// runs next round, which keeps a task that re-posts itself from trapping the loop in one round.
//
// Threads: post, postCritical, stop, timerIs, fdHandlerIs and fdHandlerDel may be called from any
// thread. Callbacks run only on the thread running the loop, one at a time. A loop is run by one
// thread at a time (nested runOnce from inside a callback on that thread is allowed).
// EventLoop::current() is the loop whose run()/runOnce() is executing on this thread (innermost),
// or nullptr: a loop belongs to the thread running it, which is what lets the store find "the
// process's critical work" from deep inside a write without a loop being passed down.
//
// Exceptions thrown by a callback leave run()/runOnce() and reach their caller; the loop stays
// usable (work not yet done stays queued).
//
// After fork() a child must not use a loop of its parent: the epoll instance is shared between the
// processes. A child creates its own loop.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace Loom {

class EventLoop;

// A handle on a scheduled timer. Copies refer to the same timer; dropping every handle does NOT
// cancel it (fire-and-forget is allowed). Safe to use after the loop is gone.
class Timer {
  public:
   Timer() = default;
   // Stops the timer from firing again; harmless when it already fired or was cancelled, and
   // allowed from inside its own callback and from any thread.
   void cancel();
   // True until a one-shot timer has fired or any timer has been cancelled.
   bool pending() const;

  private:
   friend class EventLoop;
   struct State;
   explicit Timer(std::shared_ptr<State> state) : state_(std::move(state)) {}
   std::shared_ptr<State> state_;
};

class EventLoop {
  public:
   using Task = std::function<void()>;
   using FdCallback = std::function<void(uint32_t events)>;
   static constexpr std::chrono::nanoseconds kForever = std::chrono::nanoseconds::max();

   // Creates the epoll instance, the wake eventfd and the timerfd; throws Vela::Exception with
   // the system error when the kernel refuses one.
   EventLoop();
   // REQUIRES: the loop is not running. Pending tasks and timers are dropped unrun.
   ~EventLoop();
   EventLoop(const EventLoop&) = delete;
   EventLoop& operator=(const EventLoop&) = delete;

   // The loop running on this thread, or nullptr.
   static EventLoop* current();

   // Queues a task at normal or critical priority. Within a priority, tasks run in posting order.
   void post(Task task);
   void postCritical(Task task);

   // Runs `callback` once, `delay` from now (a zero or negative delay: in the next round).
   // Timers with the same deadline fire in the order they were set.
   Timer timerIs(std::chrono::nanoseconds delay, Task callback);
   // Runs `callback` every `period`, the first time one period from now. Deadlines advance by
   // the period from the previous deadline, so there is no drift; when the loop falls more than
   // a period behind, missed firings are skipped rather than run in a burst.
   // REQUIRES: period > 0.
   Timer repeatingTimerIs(std::chrono::nanoseconds period, Task callback);

   // Watches `fd` for `events` (EPOLLIN, EPOLLOUT, ...); `callback` gets the events that
   // occurred. Level-triggered. A second call for the same fd replaces handler and events.
   // Throws Vela::Exception when the kernel refuses the fd. The loop does not own the fd.
   void fdHandlerIs(int fd, uint32_t events, FdCallback callback);
   // Stops watching `fd`; no-op when it is not watched. Safe from inside any handler, including
   // the fd's own: a removed handler is not called again, not even for events already collected.
   // REQUIRES: `fd` is still open (remove the handler before closing the fd).
   void fdHandlerDel(int fd);
   bool fdHandlerHas(int fd) const;

   // Runs rounds until stop(). A stop() that came before run() makes run() return after one
   // round; either way the stop request is consumed, so the loop can be run again.
   void run();
   // Runs one round, waiting at most `timeout` for something to do. Returns whether any task,
   // timer or fd handler ran.
   bool runOnce(std::chrono::nanoseconds timeout = kForever);
   // Makes run() return after the current round. Any thread.
   void stop();

   // Runs the critical tasks pending now (not those they post) and returns how many ran; normal
   // tasks are never run here. Meant for long operations on the loop's thread. Not re-entrant by
   // design: a call made while critical tasks are already running on this loop (a critical task
   // that reaches a long operation) returns 0 at once instead of recursing.
   // REQUIRES: called on the thread running the loop, or while no thread runs it.
   size_t runCriticalTasks();

   // Tasks queued and not yet run (both priorities).
   size_t pendingTasks() const;

  private:
   struct FdHandler;
   struct TimerEntry {
      std::chrono::steady_clock::time_point deadline;
      uint64_t sequence;
      std::shared_ptr<Timer::State> state;
   };
   struct TimerLater {
      bool operator()(const TimerEntry& a, const TimerEntry& b) const;
   };

   Timer scheduleTimer(std::chrono::nanoseconds delay, std::chrono::nanoseconds period,
                       Task callback);
   void wake();
   bool onLoopThread() const;
   bool dispatchFdEvents(int timeoutMs);
   bool fireDueTimers();
   bool runTasks();
   void armTimerFdLocked();
   EventLoop* enterRun();  // returns the thread's previous current loop
   void leaveRun(EventLoop* previous);

   int epollFd_ = -1;
   int wakeFd_ = -1;
   int timerFd_ = -1;

   mutable std::mutex mutex_;  // guards everything below up to the atomics
   std::deque<Task> critical_;
   std::deque<Task> normal_;
   std::vector<TimerEntry> timers_;  // min-heap on (deadline, sequence)
   uint64_t timerSequence_ = 0;
   std::chrono::steady_clock::time_point armedDeadline_ =
       std::chrono::steady_clock::time_point::max();  // max: timerfd disarmed
   std::map<int, std::shared_ptr<FdHandler>> fdHandlers_;
   uint32_t fdHandlerGeneration_ = 0;

   // Set by a poster that wrote the eventfd, cleared by the loop after draining it: posters
   // coalesce their wake-ups into one write per round.
   std::atomic<bool> wakePending_{false};
   std::atomic<bool> stopRequested_{false};
   // The thread running the loop and its nesting depth; written only by that thread.
   std::atomic<std::thread::id> runningThread_{};
   int runDepth_ = 0;
   // True while runCriticalTasks (or the task step's critical part) is running tasks.
   bool inCriticalRun_ = false;
};

// Runs the pending critical tasks of the loop running on this thread; nothing without one.
// Returns how many ran.
size_t runPendingCriticalTasks();

}  // namespace Loom
