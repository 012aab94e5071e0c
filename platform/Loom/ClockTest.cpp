#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "Loom/Clock.h"

namespace {

using namespace std::chrono_literals;

TEST(ProcessorClock, TicksNeverGoBackAndAdvanceAcrossASleep) {
   uint64_t previous = Loom::Clock::ticks();
   for (int i = 0; i < 100000; ++i) {
      uint64_t now = Loom::Clock::ticks();
      ASSERT_GE(now, previous);
      previous = now;
   }
   std::this_thread::sleep_for(2ms);
   EXPECT_GT(Loom::Clock::ticks(), previous);
}

// The rate is checked against steady_clock over the same interval, within a loose factor: the
// point is a unit error (ticks taken for nanoseconds, a rate off by 1000), not precision.
TEST(ProcessorClock, CalibratedRateMatchesWallTimeAndTenMillisecondBudgetsAreAboutThat) {
   double rate = Loom::Clock::ticksPerSecond();
   EXPECT_EQ(rate, Loom::Clock::ticksPerSecond());  // calibrated once
   EXPECT_GT(rate, 1e6);
   if (!Loom::Clock::usesTsc()) {
      EXPECT_EQ(rate, 1e9);
   }

   auto wall0 = std::chrono::steady_clock::now();
   uint64_t t0 = Loom::Clock::ticks();
   std::this_thread::sleep_for(50ms);
   uint64_t t1 = Loom::Clock::ticks();
   double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
   double measured = double(t1 - t0) / rate;
   EXPECT_GT(measured, wall / 2);
   EXPECT_LT(measured, wall * 2);

   // The store's budget: spin until 10 ms of ticks have passed, as a rehash does.
   const uint64_t budget = uint64_t(0.01 * rate);
   wall0 = std::chrono::steady_clock::now();
   uint64_t start = Loom::Clock::ticks();
   while (Loom::Clock::ticks() - start < budget) {
   }
   auto spent = std::chrono::steady_clock::now() - wall0;
   EXPECT_GE(spent, 5ms);
   EXPECT_LT(spent, 2s);
}

TEST(ProcessorClock, CounterChoiceFollowsTheProcessorAndCanBeForcedToSteady) {
   ::unsetenv("LOOM_CLOCK");
   bool invariant = Loom::Clock::detectInvariantTsc();
   // The kernel reports the same CPUID bit as "nonstop_tsc" (beside "constant_tsc").
   std::ifstream cpuinfo("/proc/cpuinfo");
   std::string text((std::istreambuf_iterator<char>(cpuinfo)), std::istreambuf_iterator<char>());
   if (invariant) {
      EXPECT_NE(text.find(" nonstop_tsc"), std::string::npos);
   }
   EXPECT_EQ(Loom::Clock::usesTsc(), invariant);

   ::setenv("LOOM_CLOCK", "steady", 1);
   EXPECT_FALSE(Loom::Clock::detectInvariantTsc());
   ::unsetenv("LOOM_CLOCK");

   uint64_t a = Loom::Clock::steadyNanoseconds();
   std::this_thread::sleep_for(1ms);
   EXPECT_GE(Loom::Clock::steadyNanoseconds() - a, 1'000'000u);
}

}  // namespace
