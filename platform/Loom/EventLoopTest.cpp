#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Loom/EventLoop.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"
#include "testing/RunUntil.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

using Testing::runUntil;

// Critical tasks run first; each priority keeps posting order. A long task polling as the store
// does while it rehashes runs the critical tasks then pending only, and one that polls in turn
// gets 0, not a recursion. The polling finds the loop running on this thread (the innermost: a
// round of another loop inside does not change it; other threads have none).
TEST(EventLoopTasks, CriticalTasksRunFirstAlsoInsideALongTaskButNeverRecursively) {
   Loom::EventLoop loop;
   Strings order;
   auto note = [&](std::string s) { return [&order, s] { order.push_back(s); }; };
   loop.post(note("n1"));
   loop.postCritical(note("c1"));
   loop.post([&] {
      order.push_back("n2");
      // Critical work posted by a normal task overtakes the normal tasks still waiting.
      loop.postCritical(note("c3"));
      // Normal work posted by a task waits for the next round.
      loop.post(note("n4"));
   });
   loop.postCritical(note("c2"));
   loop.post(note("n3"));
   EXPECT_EQ(loop.pendingTasks(), 5u);

   auto start = Clock::now();
   EXPECT_TRUE(loop.runOnce(20s));  // pending work: no wait at all
   EXPECT_LT(Clock::now() - start, 10s);
   EXPECT_EQ(order, (Strings{"c1", "c2", "n1", "n2", "c3", "n3"}));
   EXPECT_EQ(loop.pendingTasks(), 1u);
   EXPECT_TRUE(loop.runOnce(0ns));
   EXPECT_EQ(order.back(), "n4");
   // Nothing to do: waits its timeout, rounded up to whole milliseconds, never down.
   start = Clock::now();
   EXPECT_FALSE(loop.runOnce(20500us));
   EXPECT_GE(Clock::now() - start, 20500us);

   order.clear();
   Loom::EventLoop inner;
   size_t ranInside = 99, nested = 99;
   EXPECT_EQ(Loom::EventLoop::current(), nullptr);  // not current outside its rounds
   EXPECT_EQ(Loom::runPendingCriticalTasks(), 0u);
   loop.post([&] {
      order.push_back("long:start");
      loop.post(note("normal"));
      loop.postCritical([&] {
         order.push_back("critical");
         loop.postCritical(note("posted meanwhile"));
         nested = Loom::runPendingCriticalTasks();
      });
      inner.post([&] { EXPECT_EQ(Loom::EventLoop::current(), &inner); });
      EXPECT_TRUE(inner.runOnce(0ns));
      std::thread([] { EXPECT_EQ(Loom::EventLoop::current(), nullptr); }).join();
      ranInside = Loom::runPendingCriticalTasks();
      order.push_back("long:end");
   });
   EXPECT_TRUE(loop.runOnce(0ns));
   EXPECT_EQ(Loom::EventLoop::current(), nullptr);
   EXPECT_EQ(ranInside, 1u);
   EXPECT_EQ(nested, 0u);
   EXPECT_EQ(order, (Strings{"long:start", "critical", "long:end"}));
   EXPECT_TRUE(loop.runOnce(0ns));
   EXPECT_EQ(order, (Strings{"long:start", "critical", "long:end", "posted meanwhile", "normal"}));
   // Called directly while no thread runs the loop: only the critical tasks.
   loop.post(note("n"));
   loop.postCritical(note("c"));
   EXPECT_EQ(loop.runCriticalTasks(), 1u);
   EXPECT_EQ(order.back(), "c");
   EXPECT_EQ(loop.pendingTasks(), 1u);
}

// A task or a timer from another thread wakes a loop blocked for 20 s; without the wake-up each
// round would take its full timeout. Repeated, because the eventfd writes are coalesced and the
// timerfd is re-armed: a wake-up that works only the first time would show in a later round.
TEST(EventLoopTasks, WorkFromAnotherThreadWakesABlockedLoopEveryTime) {
   for (bool viaTimer : {false, true}) {
      SCOPED_TRACE(viaTimer ? "timer" : "task");
      Loom::EventLoop loop;
      std::atomic<int> ran{0};
      for (int round = 1; round <= 5; ++round) {
         std::thread other([&] {
            std::this_thread::sleep_for(10ms);  // most likely the loop is blocked by now
            if (viaTimer) {
               loop.timerIs(1ms, [&] { ++ran; });
            } else {
               loop.post([&] { ++ran; });
            }
         });
         auto start = Clock::now();
         while (ran < round && Clock::now() - start < 20s) loop.runOnce(20s);
         other.join();
         ASSERT_EQ(ran, round);
         ASSERT_LT(Clock::now() - start, 10s) << "round " << round;
      }
   }
}

// An agent catches what a task throws at its loop and goes on: the throw leaves the rest of the
// round queued and the loop not marked as running.
TEST(EventLoopTasks, AnExceptionFromATaskLeavesTheRestQueued) {
   Loom::EventLoop loop;
   int ran = 0;
   loop.post([] { throw Vela::Exception("boom"); });
   loop.post([&] { ++ran; });
   EXPECT_THROW(loop.runOnce(0ns), Vela::Exception);
   EXPECT_EQ(ran, 0);
   EXPECT_TRUE(loop.runOnce(0ns));
   EXPECT_EQ(ran, 1);
   EXPECT_EQ(Loom::EventLoop::current(), nullptr);
}

TEST(EventLoopRun, StopEndsRunFromATaskOrFromAnotherThread) {
   Loom::EventLoop loop;
   // A stop that comes before run() is not lost: run() returns after one round.
   loop.stop();
   loop.run();
   // It is consumed: the next run() goes on until a task stops it, three rounds later.
   int rounds = 0;
   std::function<void()> again = [&] { ++rounds == 3 ? loop.stop() : loop.post(again); };
   loop.post(again);
   loop.run();
   EXPECT_EQ(rounds, 3);
   std::thread stopper([&] {
      std::this_thread::sleep_for(10ms);
      loop.stop();
   });
   loop.run();  // most likely blocked in epoll_wait until the other thread's stop wakes it
   stopper.join();
}

// Cancelled timers do not fire, whoever cancels them: the owner beforehand, an earlier timer's
// callback, a repeating timer's own callback. Rounds would wait 20 s each: only the timerfd ends
// them sooner.
TEST(EventLoopTimers, TimersFireInDeadlineOrderNotEarlyAndNotWhenCancelled) {
   Loom::EventLoop loop;
   std::vector<int> order;
   std::vector<Clock::duration> late;
   int repeats = 0;
   auto start = Clock::now();
   auto at = [&](int ms) {
      return loop.timerIs(std::chrono::milliseconds(ms), [&, ms] {
         order.push_back(ms);
         late.push_back(Clock::now() - start - std::chrono::milliseconds(ms));
      });
   };
   Loom::Timer t30 = at(30), t10 = at(10), t0 = at(0), t20 = at(20), a = at(5), b = at(15);
   Loom::Timer c = loop.timerIs(1ms, [&] { b.cancel(); });
   Loom::Timer repeating;
   repeating = loop.repeatingTimerIs(2ms, [&] {
      if (++repeats == 5) repeating.cancel();
   });
   a.cancel();
   EXPECT_FALSE(a.pending());
   EXPECT_TRUE(t30.pending());
   EXPECT_TRUE(runUntil(
       loop, [&] { return order.size() >= 4 && repeats >= 5; }, 20s, 20s));
   EXPECT_LT(Clock::now() - start, 10s);
   Loom::Timer marker = loop.timerIs(30ms, [] {});  // time for any cancelled timer to misfire
   EXPECT_TRUE(runUntil(loop, [&] { return !marker.pending(); }));
   EXPECT_EQ(order, (std::vector<int>{0, 10, 20, 30}));
   EXPECT_EQ(repeats, 5);
   for (auto d : late) EXPECT_GE(d, 0ns);
   EXPECT_FALSE(t30.pending());
   EXPECT_FALSE(repeating.pending());
   c.cancel();  // harmless afterwards
   EXPECT_FALSE(Loom::Timer().pending());
   Loom::Timer().cancel();
}

// Three fds are ready in the same epoll batch; whichever handler runs first removes the next one
// and replaces the one after by a handler that watches only for output, which a pipe's read end
// never reports: any call to the replacement is an event meant for the old handler. The first
// one's byte stays unread: level-triggered, it is reported again the next round.
TEST(EventLoopFdHandlers, HandlersRemovedOrReplacedInTheSameRoundGetNoStaleEvent) {
   Loom::EventLoop loop;
   int p[3][2];
   for (auto& fds : p) ASSERT_EQ(::pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
   std::vector<int> calls;
   std::vector<uint32_t> misdelivered;
   for (int i = 0; i < 3; ++i) {
      loop.fdHandlerIs(p[i][0], EPOLLIN, [&, i](uint32_t events) {
         EXPECT_EQ(events, uint32_t(EPOLLIN));
         if (calls.empty()) {
            loop.fdHandlerDel(p[(i + 1) % 3][0]);
            loop.fdHandlerIs(p[(i + 2) % 3][0], EPOLLOUT,
                             [&](uint32_t e) { misdelivered.push_back(e); });
         }
         calls.push_back(i);
      });
      ASSERT_EQ(::write(p[i][1], "x", 1), 1);
   }
   EXPECT_TRUE(loop.runOnce(5s));
   EXPECT_TRUE(loop.runOnce(5s));
   ASSERT_EQ(calls.size(), 2u);
   EXPECT_EQ(calls[0], calls[1]);
   EXPECT_TRUE(misdelivered.empty());
   const int removed = p[(calls[0] + 1) % 3][0];
   EXPECT_FALSE(loop.fdHandlerHas(removed));
   loop.fdHandlerDel(removed);  // removing twice is a no-op
   for (auto& fds : p) ::close(fds[0]), ::close(fds[1]);
}

TEST(EventLoopFdHandlers, RefusedFdsRaiseAClearError) {
   Loom::EventLoop loop;
   const auto refusal = [&](int fd) {
      return Testing::errorText<Vela::Exception>(
          [&] { loop.fdHandlerIs(fd, EPOLLIN, [](uint32_t) {}); });
   };
   EXPECT_EQ(refusal(-1), "event loop: invalid fd -1");
   int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
   ASSERT_GE(fd, 0);
   ::close(fd);
   EXPECT_EQ(refusal(fd),
             "event loop: epoll_ctl for fd " + std::to_string(fd) + " failed: Bad file descriptor");
   EXPECT_FALSE(loop.fdHandlerHas(fd));
}

TEST(EventLoopDeathTest, MisuseIsAnAssertion) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(Loom::EventLoop().post(Loom::EventLoop::Task()),
                "assertion failed: task && \"EventLoop::post needs a task\"");
   EXPECT_DEATH(
       Loom::EventLoop().repeatingTimerIs(0ns, [] {}),
       "assertion failed: period.count\\(\\) > 0 && \"repeating timer needs a positive period\"");
   // Running the loop's work from a thread other than the one inside its round.
   const auto fromOtherThread = [&](void (*call)(Loom::EventLoop&)) {
      Loom::EventLoop loop;
      loop.post([&] { std::thread([&] { call(loop); }).join(); });
      loop.runOnce(0ns);
   };
   EXPECT_DEATH(fromOtherThread([](Loom::EventLoop& l) { l.runCriticalTasks(); }),
                "assertion failed: runCriticalTasks called off the event loop's thread");
   EXPECT_DEATH(fromOtherThread([](Loom::EventLoop& l) { l.runOnce(0ns); }),
                "assertion failed: event loop is already running on another thread");
   EXPECT_DEATH(
       {
          auto* loop = new Loom::EventLoop;
          loop->post([loop] { delete loop; });
          loop->runOnce(0ns);
       },
       "assertion failed: event loop destroyed while running");
}

}  // namespace
