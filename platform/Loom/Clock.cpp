// Invariant-TSC detection and the one-time calibration of the tick rate.
#include "Loom/Clock.h"

#include <cstdlib>
#include <cstring>
#include <thread>

#if LOOM_CLOCK_HAS_TSC
#include <cpuid.h>
#endif

namespace Loom {

bool Clock::detectInvariantTsc() {
   // LOOM_CLOCK=steady forces the steady_clock fallback (for machines whose counter misbehaves
   // despite the flag, and to exercise the fallback).
   if (const char* forced = std::getenv("LOOM_CLOCK");
       forced && std::strcmp(forced, "steady") == 0) {
      return false;
   }
#if LOOM_CLOCK_HAS_TSC
   unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
   if (!__get_cpuid(0x80000000u, &eax, &ebx, &ecx, &edx) || eax < 0x80000007u) return false;
   if (!__get_cpuid(0x80000007u, &eax, &ebx, &ecx, &edx)) return false;
   return (edx & (1u << 8)) != 0;  // "invariant TSC"
#else
   return false;
#endif
}

namespace {

// Ticks against steady_clock over ~20 ms. Each end reads the counter between two clock reads
// and keeps the tightest of a few tries, so a preemption in the middle of a pair only costs a
// retry, not accuracy.
double calibrate() {
   auto sample = [](uint64_t& ticks, uint64_t& ns) {
      uint64_t best = UINT64_MAX;
      for (int i = 0; i < 5; ++i) {
         uint64_t before = Clock::steadyNanoseconds();
         uint64_t t = Clock::ticks();
         uint64_t after = Clock::steadyNanoseconds();
         if (after - before < best) {
            best = after - before;
            ticks = t;
            ns = before + (after - before) / 2;
         }
      }
   };
   uint64_t t0 = 0, n0 = 0, t1 = 0, n1 = 0;
   sample(t0, n0);
   std::this_thread::sleep_for(std::chrono::milliseconds(20));
   sample(t1, n1);
   if (n1 <= n0 || t1 <= t0) return 1e9;  // cannot happen with a working counter; stay sane
   return double(t1 - t0) * 1e9 / double(n1 - n0);
}

}  // namespace

double Clock::ticksPerSecond() {
   static const double rate = usesTsc() ? calibrate() : 1e9;
   return rate;
}

}  // namespace Loom
