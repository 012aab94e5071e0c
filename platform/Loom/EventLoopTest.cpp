#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Loom/EventLoop.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Runs rounds until `done` holds or a generous deadline passes; returns `done()`. Keeps every
// test bounded in time without asserting on how long anything took.
bool runUntil(Loom::EventLoop& loop, const std::function<bool()>& done,
              std::chrono::seconds limit = 20s, std::chrono::nanoseconds round = 50ms) {
   auto deadline = Clock::now() + limit;
   while (!done() && Clock::now() < deadline) loop.runOnce(round);
   return done();
}

struct Pipe {
   int r = -1, w = -1;
   Pipe() {
      int fds[2];
      if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
      r = fds[0];
      w = fds[1];
   }
   ~Pipe() {
      if (r >= 0) ::close(r);
      if (w >= 0) ::close(w);
   }
   void put(const std::string& s) const {
      ASSERT_EQ(::write(w, s.data(), s.size()), ssize_t(s.size()));
   }
   std::string take(size_t max = 256) const {
      char buf[256];
      ssize_t n = ::read(r, buf, std::min(max, sizeof buf));
      return n > 0 ? std::string(buf, size_t(n)) : std::string();
   }
};

TEST(EventLoopTasks, CriticalTasksRunBeforeNormalOnesAndEachPriorityKeepsPostingOrder) {
   Loom::EventLoop loop;
   std::vector<std::string> order;
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

   EXPECT_TRUE(loop.runOnce(0ns));
   EXPECT_EQ(order, (std::vector<std::string>{"c1", "c2", "n1", "n2", "c3", "n3"}));
   EXPECT_EQ(loop.pendingTasks(), 1u);
   EXPECT_TRUE(loop.runOnce(0ns));
   EXPECT_EQ(order.back(), "n4");
   EXPECT_FALSE(loop.runOnce(0ns));
}

TEST(EventLoopTasks, RunOnceReportsWhetherAnythingRanAndWaitsAtLeastItsTimeout) {
   Loom::EventLoop loop;
   auto start = Clock::now();
   EXPECT_FALSE(loop.runOnce(30ms));
   EXPECT_GE(Clock::now() - start, 30ms);  // the timeout is rounded up, never down

   loop.post([] {});
   start = Clock::now();
   EXPECT_TRUE(loop.runOnce(20s));  // pending work: no wait at all
   EXPECT_LT(Clock::now() - start, 10s);
}

TEST(EventLoopTasks, TasksPostedFromOtherThreadsAllRunInPerThreadOrder) {
   Loom::EventLoop loop;
   constexpr int kThreads = 4, kPerThread = 2000;
   std::vector<std::vector<int>> seen(kThreads);
   std::atomic<int> total{0};
   std::vector<std::thread> posters;
   for (int t = 0; t < kThreads; ++t) {
      posters.emplace_back([&, t] {
         for (int i = 0; i < kPerThread; ++i) {
            auto task = [&, t, i] {
               seen[t].push_back(i);
               total.fetch_add(1, std::memory_order_relaxed);
            };
            if (i % 3 == 0) {
               loop.postCritical(task);
            } else {
               loop.post(task);
            }
         }
      });
   }
   EXPECT_TRUE(runUntil(loop, [&] { return total.load() == kThreads * kPerThread; }));
   for (auto& p : posters) p.join();
   for (int t = 0; t < kThreads; ++t) {
      ASSERT_EQ(seen[t].size(), size_t(kPerThread));
      // Within one priority, one thread's tasks keep their order.
      std::vector<int> critical, normal;
      for (int i : seen[t]) (i % 3 == 0 ? critical : normal).push_back(i);
      EXPECT_TRUE(std::is_sorted(critical.begin(), critical.end()));
      EXPECT_TRUE(std::is_sorted(normal.begin(), normal.end()));
   }
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

TEST(EventLoopTasks, AnExceptionFromATaskLeavesTheRestQueued) {
   Loom::EventLoop loop;
   int ran = 0;
   loop.post([] { throw Vela::Exception("boom"); });
   loop.post([&] { ++ran; });
   EXPECT_THROW(loop.runOnce(0ns), Vela::Exception);
   EXPECT_EQ(ran, 0);
   EXPECT_TRUE(loop.runOnce(0ns));
   EXPECT_EQ(ran, 1);
   EXPECT_EQ(Loom::EventLoop::current(), nullptr);  // the throw did not leave the loop "running"
}

TEST(EventLoopRun, StopEndsRunFromATaskOrFromAnotherThread) {
   Loom::EventLoop loop;
   int rounds = 0;
   loop.post([&] {
      ++rounds;
      loop.stop();
   });
   loop.run();
   EXPECT_EQ(rounds, 1);

   // A stop that comes before run() is not lost; it is consumed, so the loop runs again later.
   loop.stop();
   loop.run();

   std::atomic<bool> started{false};
   loop.post([&] { started = true; });
   std::thread stopper([&] {
      while (!started) std::this_thread::sleep_for(1ms);
      std::this_thread::sleep_for(10ms);
      loop.stop();
   });
   loop.run();  // blocked in epoll_wait until the other thread's stop wakes it
   stopper.join();
   EXPECT_TRUE(started);
}

TEST(EventLoopRun, CurrentIsTheLoopRunningOnThisThread) {
   Loom::EventLoop outer, inner;
   EXPECT_EQ(Loom::EventLoop::current(), nullptr);  // creating a loop does not make it current
   std::vector<Loom::EventLoop*> seen;
   outer.post([&] {
      seen.push_back(Loom::EventLoop::current());
      inner.post([&] { seen.push_back(Loom::EventLoop::current()); });
      inner.runOnce(0ns);
      seen.push_back(Loom::EventLoop::current());
      // Nested round of the same loop on the same thread.
      outer.post([&] { seen.push_back(Loom::EventLoop::current()); });
      outer.runOnce(0ns);
   });
   outer.runOnce(0ns);
   EXPECT_EQ(seen, (std::vector<Loom::EventLoop*>{&outer, &inner, &outer, &outer}));
   EXPECT_EQ(Loom::EventLoop::current(), nullptr);

   Loom::EventLoop* other = &outer;
   std::thread t([&] { other = Loom::EventLoop::current(); });
   t.join();
   EXPECT_EQ(other, nullptr);
}

TEST(EventLoopTimers, TimersFireInDeadlineOrderAndNotEarly) {
   Loom::EventLoop loop;
   std::vector<int> order;
   std::vector<Clock::duration> late;
   auto start = Clock::now();
   auto at = [&](int ms) {
      return loop.timerIs(std::chrono::milliseconds(ms), [&, ms] {
         order.push_back(ms);
         late.push_back(Clock::now() - start - std::chrono::milliseconds(ms));
      });
   };
   Loom::Timer t30 = at(30), t10 = at(10), t0 = at(0), t20 = at(20);
   EXPECT_TRUE(t30.pending());
   // Rounds that would wait 20 s each: only the timerfd ends them sooner.
   EXPECT_TRUE(runUntil(
       loop, [&] { return order.size() == 4; }, 60s, 20s));
   EXPECT_LT(Clock::now() - start, 10s);
   EXPECT_EQ(order, (std::vector<int>{0, 10, 20, 30}));
   for (auto d : late) EXPECT_GE(d, 0ns);
   EXPECT_FALSE(t30.pending());
   EXPECT_FALSE(t0.pending());
}

TEST(EventLoopTimers, CancelledTimersDoNotFireWhoeverCancelsThem) {
   Loom::EventLoop loop;
   std::vector<int> fired;
   int repeats = 0;
   Loom::Timer a = loop.timerIs(5ms, [&] { fired.push_back(1); });
   Loom::Timer b = loop.timerIs(5ms, [&] { fired.push_back(2); });
   Loom::Timer c = loop.timerIs(1ms, [&] {
      fired.push_back(3);
      b.cancel();  // cancelled by an earlier timer's callback
   });
   Loom::Timer repeating;
   repeating = loop.repeatingTimerIs(2ms, [&] {
      if (++repeats == 5) repeating.cancel();  // from its own callback
   });
   a.cancel();
   EXPECT_FALSE(a.pending());
   EXPECT_TRUE(runUntil(loop, [&] { return repeats >= 5; }));
   EXPECT_FALSE(repeating.pending());
   // Give every cancelled timer more than enough time to misfire.
   Loom::Timer marker = loop.timerIs(30ms, [&] { fired.push_back(4); });
   EXPECT_TRUE(runUntil(loop, [&] { return !marker.pending(); }));
   EXPECT_EQ(fired, (std::vector<int>{3, 4}));
   EXPECT_EQ(repeats, 5);
   a.cancel();  // harmless afterwards
   c.cancel();
   EXPECT_FALSE(Loom::Timer().pending());
   Loom::Timer().cancel();
}

TEST(EventLoopTimers, AThrowingTimerLeavesTheNextOneArmed) {
   Loom::EventLoop loop;
   bool later = false;
   loop.timerIs(1ms, [] { throw Vela::Exception("timer failed"); });
   loop.timerIs(30ms, [&] { later = true; });
   auto start = Clock::now();
   bool threw = false;
   while (!threw && Clock::now() - start < 20s) {
      try {
         loop.runOnce(20s);
      } catch (const Vela::Exception& e) {
         EXPECT_STREQ(e.what(), "timer failed");
         threw = true;
      }
   }
   ASSERT_TRUE(threw);
   // Only the timerfd can end this wait early.
   while (!later && Clock::now() - start < 20s) loop.runOnce(20s);
   EXPECT_TRUE(later);
   EXPECT_LT(Clock::now() - start, 10s);
}

TEST(EventLoopFdHandlers, HandlerSeesReadableDataUntilItRemovesItself) {
   Loom::EventLoop loop;
   Pipe p;
   std::string got;
   int calls = 0;
   loop.fdHandlerIs(p.r, EPOLLIN, [&](uint32_t events) {
      ++calls;
      EXPECT_TRUE(events & EPOLLIN);
      got += p.take(1);  // one byte at a time: level-triggered re-reports the rest
      if (got.size() == 3) loop.fdHandlerDel(p.r);
   });
   EXPECT_TRUE(loop.fdHandlerHas(p.r));
   EXPECT_FALSE(loop.runOnce(0ns));
   p.put("a");
   EXPECT_TRUE(loop.runOnce(5s));
   EXPECT_EQ(got, "a");
   p.put("b");
   p.put("c");
   p.put("d");
   EXPECT_TRUE(runUntil(loop, [&] { return got.size() == 3; }));
   EXPECT_FALSE(loop.fdHandlerHas(p.r));
   // "d" is still unread, yet the removed handler is never called again.
   EXPECT_FALSE(loop.runOnce(20ms));
   EXPECT_EQ(calls, 3);
   loop.fdHandlerDel(p.r);  // removing twice is a no-op
}

// Both fds are ready in the same epoll batch; whichever handler runs first removes the other, or
// replaces it by one that watches only for output, which a pipe's read end never reports: any
// call to the replacement is an event meant for the old handler.
TEST(EventLoopFdHandlers, HandlerRemovedOrReplacedByAnotherInTheSameRoundGetsNoStaleEvent) {
   for (bool replace : {false, true}) {
      SCOPED_TRACE(replace ? "replaced" : "removed");
      Loom::EventLoop loop;
      Pipe p1, p2;
      int calls = 0;
      std::vector<uint32_t> misdelivered;
      auto alterOther = [&](int self, int other) {
         return [&, self, other](uint32_t) {
            ++calls;
            if (replace) {
               loop.fdHandlerIs(other, EPOLLOUT, [&](uint32_t e) { misdelivered.push_back(e); });
            } else {
               loop.fdHandlerDel(other);
               loop.fdHandlerDel(self);
            }
         };
      };
      loop.fdHandlerIs(p1.r, EPOLLIN, alterOther(p1.r, p2.r));
      loop.fdHandlerIs(p2.r, EPOLLIN, alterOther(p2.r, p1.r));
      p1.put("x");
      p2.put("y");
      EXPECT_TRUE(loop.runOnce(5s));
      EXPECT_EQ(calls, 1);
      EXPECT_TRUE(misdelivered.empty());
      if (!replace) {
         EXPECT_FALSE(loop.runOnce(10ms));
         EXPECT_EQ(calls, 1);
      }
   }
}

TEST(EventLoopFdHandlers, SecondHandlerForAnFdReplacesTheFirst) {
   Loom::EventLoop loop;
   Pipe p;
   std::vector<std::string> calls;
   loop.fdHandlerIs(p.r, EPOLLIN, [&](uint32_t) { calls.push_back("first"); });
   loop.fdHandlerIs(p.r, EPOLLIN, [&](uint32_t) { calls.push_back("second:" + p.take()); });
   p.put("z");
   EXPECT_TRUE(runUntil(loop, [&] { return !calls.empty(); }));
   EXPECT_EQ(calls, (std::vector<std::string>{"second:z"}));

   // Watching for output and hang-up on the other end.
   uint32_t seen = 0;
   loop.fdHandlerIs(p.w, EPOLLOUT, [&](uint32_t events) {
      seen = events;
      loop.fdHandlerDel(p.w);
   });
   EXPECT_TRUE(runUntil(loop, [&] { return seen != 0; }));
   EXPECT_TRUE(seen & EPOLLOUT);
   loop.fdHandlerDel(p.r);
   uint32_t hangup = 0;
   loop.fdHandlerIs(p.r, EPOLLIN, [&](uint32_t events) {
      hangup = events;
      loop.fdHandlerDel(p.r);
   });
   ::close(p.w);
   p.w = -1;
   EXPECT_TRUE(runUntil(loop, [&] { return hangup != 0; }));
   EXPECT_TRUE(hangup & EPOLLHUP);
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

TEST(EventLoopCriticalTasks, LongTaskRunsCriticalTasksButNotNormalOnes) {
   Loom::EventLoop loop;
   std::vector<std::string> order;
   std::atomic<bool> criticalRan{false};
   size_t ranInside = 0;
   loop.post([&] {
      order.push_back("long:start");
      // Posted from elsewhere while this task is busy.
      std::thread other([&] {
         loop.post([&] { order.push_back("normal"); });
         loop.postCritical([&] {
            order.push_back("critical");
            criticalRan = true;
         });
      });
      other.join();
      // The long operation polls as the store does while it rehashes.
      auto deadline = Clock::now() + 20s;
      while (!criticalRan && Clock::now() < deadline) ranInside += Loom::runPendingCriticalTasks();
      order.push_back("long:end");
   });
   EXPECT_TRUE(loop.runOnce(0ns));
   EXPECT_EQ(ranInside, 1u);
   EXPECT_EQ(order, (std::vector<std::string>{"long:start", "critical", "long:end"}));
   EXPECT_TRUE(loop.runOnce(0ns));
   EXPECT_EQ(order.back(), "normal");
}

TEST(EventLoopCriticalTasks, RunCriticalTasksRunsOnlyWhatWasPendingAndDoesNotRecurse) {
   Loom::EventLoop loop;
   int depth = 0, maxDepth = 0, runs = 0;
   size_t nestedResult = 99;
   std::function<void()> critical = [&] {
      ++runs;
      maxDepth = std::max(maxDepth, ++depth);
      if (runs < 50) loop.postCritical(critical);  // each one posts the next
      nestedResult = Loom::runPendingCriticalTasks();
      --depth;
   };
   loop.postCritical(critical);
   loop.postCritical([&] { ++runs; });
   // Outside any round: no current loop, the free function does nothing.
   EXPECT_EQ(Loom::runPendingCriticalTasks(), 0u);
   EXPECT_EQ(runs, 0);
   // Called directly: the two pending tasks run; the one posted meanwhile waits.
   EXPECT_EQ(loop.runCriticalTasks(), 2u);
   EXPECT_EQ(runs, 2);
   EXPECT_EQ(loop.pendingTasks(), 1u);
   // Inside a round, the nested call from a critical task returns at once.
   EXPECT_TRUE(loop.runOnce(0ns));
   EXPECT_EQ(nestedResult, 0u);
   EXPECT_EQ(maxDepth, 1);
   EXPECT_TRUE(runUntil(loop, [&] { return runs == 50; }));
   EXPECT_EQ(maxDepth, 1);
   EXPECT_EQ(loop.runCriticalTasks(), 0u);
}

TEST(EventLoopDeathTest, MisuseIsAnAssertion) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   const auto withLoop = [](const std::function<void(Loom::EventLoop&)>& misuse) {
      Loom::EventLoop loop;
      misuse(loop);
   };
   EXPECT_DEATH(withLoop([](auto& loop) { loop.post(Loom::EventLoop::Task()); }),
                "assertion failed: task && \"EventLoop::post needs a task\"");
   EXPECT_DEATH(
       withLoop([](auto& loop) { loop.repeatingTimerIs(0ns, [] {}); }),
       "assertion failed: period.count\\(\\) > 0 && \"repeating timer needs a positive period\"");
   // Running the loop's work from a thread other than the one inside its round.
   const auto fromOtherThread = [&](void (*call)(Loom::EventLoop&)) {
      withLoop([call](Loom::EventLoop& loop) {
         loop.post([&] { std::thread([&] { call(loop); }).join(); });
         loop.runOnce(0ns);
      });
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
