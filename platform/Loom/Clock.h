// The processor clock: a cheap monotonic tick counter for budgeting long operations, e.g. "run the
// critical tasks every 10 ms while rehashing" is
//
//    const uint64_t budget = uint64_t(0.01 * Loom::Clock::ticksPerSecond());
//    uint64_t start = Loom::Clock::ticks();
//    ... if (Loom::Clock::ticks() - start >= budget) { Loom::runPendingCriticalTasks(); ... }
//
// Ticks are the time-stamp counter when the processor says it is invariant (constant rate, runs in
// every power state, synchronised across cores), otherwise steady_clock nanoseconds. The choice is
// made once per process. ticksPerSecond() is calibrated once, on first use, against steady_clock
// over about 20 ms; with the steady_clock fallback it is exactly 1e9. Ticks only compare within one
// process (the counter's origin is not shared), and never go backwards on one thread.
#pragma once

#include <chrono>
#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#define LOOM_CLOCK_HAS_TSC 1
#else
#define LOOM_CLOCK_HAS_TSC 0
#endif

namespace Loom {

class Clock {
  public:
   // The current tick count.
   static uint64_t ticks() {
#if LOOM_CLOCK_HAS_TSC
      if (usesTsc()) return __rdtsc();
#endif
      return steadyNanoseconds();
   }

   // Ticks per second, calibrated on the first call (which takes about 20 ms with the TSC).
   static double ticksPerSecond();

   // Whether ticks() reads the time-stamp counter (decided once per process).
   static bool usesTsc() {
      static const bool invariant = detectInvariantTsc();
      return invariant;
   }

   // Asks the processor whether its time-stamp counter is invariant.
   static bool detectInvariantTsc();

   static uint64_t steadyNanoseconds() {
      return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                          std::chrono::steady_clock::now().time_since_epoch())
                          .count());
   }
};

}  // namespace Loom
