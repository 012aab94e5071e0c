// Writer-to-reader notification latency across processes, and a reader's catch-up rate.
//
// NotifyLatency: a writer process publishes one value per round (write + flush: one datagram to
// the reader's wake socket) and a reader process running DockShadow on its Loom loop records, in
// its per-key callback, the time since the write call began (CLOCK_MONOTONIC is shared by all
// processes). In the same run, the same two processes measure two bare wake-ups, the floors any
// cross-process wake-up has: a futex wake (the writer stores a timestamp, bumps a futex word and
// wakes; the woken process reads the clock) and a datagram over a socket pair to a process
// sleeping in poll(). Reported: median and p99 of each, in microseconds, and the store/futex
// ratios.
//
// CatchUp: a burst of writes while the reader does not run, then the time the reader takes to
// apply every notification of the burst (items_per_second = notifications applied per second).
#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "Loom/EventLoop.h"
#include "store/reader/DockShadow.h"
#include "store/writer/DockWriter.h"

namespace {

// A key, the time its write began, and a payload of vias (fixed size here).
struct Stamp {
   uint64_t key = 0;
   uint64_t sentNs = 0;
   uint32_t vias = 2;
   uint32_t serializeLen() const { return 20 + vias * 76; }
   void serialize(void* buffer) const {
      auto* b = static_cast<uint8_t*>(buffer);
      std::memcpy(b, &key, 8);
      std::memcpy(b + 8, &sentNs, 8);
      std::memcpy(b + 16, &vias, 4);
      std::memset(b + 20, 0x5a, vias * 76);
   }
   static uint32_t deserializeLen(const void*, uint32_t available) noexcept {
      return available >= 20 ? available : 0;
   }
   void deserialize(const void* buffer, uint32_t length) {
      const auto* b = static_cast<const uint8_t*>(buffer);
      if (length < 20) throw Vela::Exception("short stamp");
      std::memcpy(&key, b, 8);
      std::memcpy(&sentNs, b + 8, 8);
      std::memcpy(&vias, b + 16, 4);
      if (length != 20 + vias * 76) throw Vela::Exception("bad stamp length");
   }
   bool operator==(const Stamp&) const = default;
};
struct StampKey {
   uint64_t operator()(const Stamp& s) const { return s.key; }
};

using Writer = Dock::DockWriter<uint64_t, Stamp, StampKey>;
using Shadow = Dock::DockShadow<uint64_t, Stamp, StampKey>;

constexpr int kRounds = 2000;

// Shared between the two processes (anonymous MAP_SHARED mapping).
struct Shared {
   std::atomic<uint32_t> futexWord;
   std::atomic<uint32_t> ack;
   std::atomic<uint32_t> ready;
   std::atomic<uint64_t> sentNs;
   uint64_t futexLatency[kRounds];
   uint64_t dgramLatency[kRounds];
   uint64_t storeLatency[kRounds];
};

void futexWait(std::atomic<uint32_t>& w, uint32_t v) {
   ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&w), FUTEX_WAIT, v, nullptr, nullptr, 0);
}
void futexWake(std::atomic<uint32_t>& w) {
   ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&w), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}
// Waits until `w` differs from `v`.
void awaitChange(std::atomic<uint32_t>& w, uint32_t v) {
   while (w.load(std::memory_order_acquire) == v) futexWait(w, v);
}
void bump(std::atomic<uint32_t>& w) {
   w.fetch_add(1, std::memory_order_release);
   futexWake(w);
}

Dock::DockConfig config() {
   Dock::DockConfig c;
   c.typeName = "Stamp";
   c.valueSize = sizeof(Stamp);
   c.minSlots = 1024;
   c.maxSlots = 1u << 20;
   c.maxValueSize = 4096;
   c.heraldCapacity = 1u << 16;
   return c;
}

void NotifyLatency(benchmark::State& state) {
   const std::string root = Bench::freshRoot("notify-bench");
   auto* sh = static_cast<Shared*>(
       ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   new (sh) Shared{};
   Writer w(config());
   w.initialize("bench/latency");
   const std::string dir = w.directory();
   int pair[2];
   if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) != 0) std::abort();
   const pid_t child = ::fork();
   if (child == 0) {
      // Bare futex rounds first.
      sh->ready.store(1);
      futexWake(sh->ready);
      for (int i = 0; i < kRounds; ++i) {
         awaitChange(sh->futexWord, uint32_t(i));
         sh->futexLatency[i] = Bench::nowNs() - sh->sentNs.load(std::memory_order_acquire);
         bump(sh->ack);
      }
      // Bare datagrams next.
      for (int i = 0; i < kRounds; ++i) {
         pollfd p{pair[1], POLLIN, 0};
         while (::poll(&p, 1, -1) != 1) {
         }
         sh->dgramLatency[i] = Bench::nowNs() - sh->sentNs.load(std::memory_order_acquire);
         char byte;
         if (::recv(pair[1], &byte, 1, 0) != 1) ::_exit(3);
         bump(sh->ack);
      }
      // Then the store.
      Loom::EventLoop loop;
      Shadow r("latency", dir, loop);
      int got = 0;
      Region::Notify<uint64_t, Stamp> n;
      n.onValue = [&](const Stamp& s) {
         if (s.key >= 1 && s.key <= uint64_t(kRounds)) {
            sh->storeLatency[s.key - 1] = Bench::nowNs() - s.sentNs;
            ++got;
            bump(sh->ack);
         }
      };
      r.notifyIs(n);
      if (!r.initialize()) ::_exit(2);
      bump(sh->ready);
      while (got < kRounds) loop.runOnce(std::chrono::seconds(10));
      ::_exit(0);
   }
   awaitChange(sh->ready, 0);
   for (auto _ : state) {
      (void)_;
      for (int i = 0; i < kRounds; ++i) {
         const uint32_t ack = sh->ack.load();
         sh->sentNs.store(Bench::nowNs(), std::memory_order_release);
         bump(sh->futexWord);
         awaitChange(sh->ack, ack);
      }
      for (int i = 0; i < kRounds; ++i) {
         const uint32_t ack = sh->ack.load();
         sh->sentNs.store(Bench::nowNs(), std::memory_order_release);
         const char byte = 0;
         if (::send(pair[0], &byte, 1, 0) != 1) std::abort();
         awaitChange(sh->ack, ack);
      }
      awaitChange(sh->ready, 1);
      for (int i = 0; i < kRounds; ++i) {
         const uint32_t ack = sh->ack.load();
         Stamp s;
         s.key = uint64_t(i + 1);
         s.sentNs = Bench::nowNs();
         w.write(s);
         w.flush();
         awaitChange(sh->ack, ack);
      }
   }
   ::waitpid(child, nullptr, 0);
   std::vector<uint64_t> f(sh->futexLatency, sh->futexLatency + kRounds);
   std::vector<uint64_t> d(sh->dgramLatency, sh->dgramLatency + kRounds);
   std::vector<uint64_t> s(sh->storeLatency, sh->storeLatency + kRounds);
   state.counters["futex_p50_us"] = Bench::percentileUs(f, 0.5);
   state.counters["futex_p99_us"] = Bench::percentileUs(f, 0.99);
   state.counters["dgram_p50_us"] = Bench::percentileUs(d, 0.5);
   state.counters["dgram_p99_us"] = Bench::percentileUs(d, 0.99);
   state.counters["store_p50_us"] = Bench::percentileUs(s, 0.5);
   state.counters["store_p99_us"] = Bench::percentileUs(s, 0.99);
   state.counters["store_over_futex_p50"] =
       Bench::percentileUs(s, 0.5) / Bench::percentileUs(f, 0.5);
   state.counters["store_over_futex_p99"] =
       Bench::percentileUs(s, 0.99) / Bench::percentileUs(f, 0.99);
   ::close(pair[0]);
   ::close(pair[1]);
   ::munmap(sh, sizeof(Shared));
   std::filesystem::remove_all(root);
}
// One iteration: kRounds rounds of each kind.
BENCHMARK(NotifyLatency)->Iterations(1)->Unit(benchmark::kMillisecond);

void CatchUp(benchmark::State& state) {
   const std::string root = Bench::freshRoot("notify-bench");
   const int burst = int(state.range(0));
   Writer w(config());
   w.initialize("bench/catchup");
   Loom::EventLoop loop;
   Shadow r("catchup", w.directory(), loop);
   uint64_t changedKeys = 0;
   Region::Notify<uint64_t, Stamp> n;
   n.onKey = [&](const uint64_t&) { ++changedKeys; };
   r.notifyIs(n);
   if (!r.initialize()) std::abort();
   const uint64_t before = r.readerCounters().notifications;
   uint64_t round = 0;
   for (auto _ : state) {
      (void)_;
      state.PauseTiming();
      ++round;
      for (int i = 0; i < burst; ++i) {
         Stamp s;
         s.key = uint64_t(i % 5000);
         s.sentNs = round;
         w.write(s);
      }
      w.flush();
      state.ResumeTiming();
      while (!r.quiesced()) loop.runOnce(std::chrono::milliseconds(100));
   }
   // Each key is written four times per burst; the queue entries are what the reader works
   // through (a rewritten slot is copied and compared once per entry).
   state.SetItemsProcessed(int64_t(r.readerCounters().notifications - before));
   state.counters["keys_changed"] = double(changedKeys);
   state.counters["lapped"] = double(r.readerCounters().lapped);
   std::filesystem::remove_all(root);
}
BENCHMARK(CatchUp)->Arg(20000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
