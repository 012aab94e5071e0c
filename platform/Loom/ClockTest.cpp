#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "Loom/Clock.h"

namespace {

// The counter is the time-stamp counter exactly when the processor says it is invariant (the
// kernel reports the same bit as "nonstop_tsc"), unless forced to steady_clock. Ticks advance at
// the calibrated rate, checked against steady_clock within a loose factor: the point is a unit
// error (ticks taken for nanoseconds, a rate off by 1000).
TEST(ProcessorClock, CounterFollowsTheProcessorAndAdvancesAtTheCalibratedRate) {
   ::unsetenv("LOOM_CLOCK");
   const bool invariant = Loom::Clock::detectInvariantTsc();
   std::ifstream cpuinfo("/proc/cpuinfo");
   std::string text((std::istreambuf_iterator<char>(cpuinfo)), std::istreambuf_iterator<char>());
   EXPECT_TRUE(!invariant || text.find(" nonstop_tsc") != std::string::npos);
   EXPECT_EQ(Loom::Clock::usesTsc(), invariant);
   ::setenv("LOOM_CLOCK", "steady", 1);
   EXPECT_FALSE(Loom::Clock::detectInvariantTsc());
   ::unsetenv("LOOM_CLOCK");

   const double rate = Loom::Clock::ticksPerSecond();
   EXPECT_EQ(rate, Loom::Clock::ticksPerSecond());  // calibrated once
   EXPECT_TRUE(invariant ? rate > 1e6 : rate == 1e9) << rate;
   const auto wall0 = std::chrono::steady_clock::now();
   const uint64_t t0 = Loom::Clock::ticks();
   std::this_thread::sleep_for(std::chrono::milliseconds(50));
   const double measured = double(Loom::Clock::ticks() - t0) / rate;
   const double wall =
       std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
   EXPECT_GT(measured, wall / 2);
   EXPECT_LT(measured, wall * 2);
}

}  // namespace
