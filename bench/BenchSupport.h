// Helpers every benchmark program shares: the monotonic clock in nanoseconds, a fresh store root
// in /dev/shm for one run, and percentiles of latency samples.
#pragma once

#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace Bench {

inline uint64_t nowNs() {
   timespec ts;
   ::clock_gettime(CLOCK_MONOTONIC, &ts);
   return uint64_t(ts.tv_sec) * 1000000000ull + uint64_t(ts.tv_nsec);
}

// Creates /dev/shm/<prefix>-XXXXXX and makes it the store root (TUNNEL_SHMEM_ROOT).
inline std::string freshRoot(const std::string& prefix) {
   std::string tmpl = "/dev/shm/" + prefix + "-XXXXXX";
   const char* dir = ::mkdtemp(tmpl.data());
   if (!dir) std::abort();
   ::setenv("TUNNEL_SHMEM_ROOT", dir, 1);
   return dir;
}

// The p-th percentile (0..1) of nanosecond samples, in microseconds.
inline double percentileUs(std::vector<uint64_t> v, double p) {
   std::sort(v.begin(), v.end());
   return double(v[std::min(v.size() - 1, size_t(p * double(v.size())))]) / 1000.0;
}

}  // namespace Bench
