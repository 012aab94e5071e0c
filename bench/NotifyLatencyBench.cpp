// Writer-to-reader notification latency across processes, and a reader's catch-up rate.
//
// NotifyLatency: one writer process and one reader process. Each round, the writer stores the
// time (CLOCK_MONOTONIC, shared by all processes) in a shared page and then starts one of these,
// the reader records how long after that it got there, and acknowledges through a futex:
//   bare     the floor: one datagram sent on a connected unix datagram socket; the reader
//            records on entering the socket's handler (then reads the datagram);
//   stamp    DockWriter::write of a test value (two vias) and flush(); the reader is a DockShadow
//            and records in its per-key callback;
//   ldpN     LdpTunnelTable::entryIs of an LDP entry with N vias (1, 16, 600), which wakes readers
//            at once (no event loop runs on the writer's thread); the reader is a reader agent
//            (the table mounted as key-shadowing reader) and records in its table notification
//            after reading the entry with entry(key), as a consumer does.
// How the bare wake is made comparable: it is the wake-up the store itself uses - a datagram to a
// process blocked in epoll_wait - delivered to the SAME event loop of the SAME reader process
// that serves the store's readers, with no store work on either side. The kinds are interleaved
// round by round, and before every round the writer sleeps kGap, so that every round, whatever
// its kind, starts from the same idle state on both sides (the reader back in epoll_wait, its CPU
// idle). The kinds take turns in blocks of kBlock rounds, and the first round of each block is not
// counted: every counted round finds its kind's code and data as warm as the round before left
// them, the bare wake's as much as the store's. With BENCH_PIN=1 the writer runs on CPU 0 and the
// reader on CPU 1 for all kinds; by default neither is pinned. What is left between a kind and
// `bare` is the store's own work: the write, the wake step, and the reader's queue read, copy and
// deserialization before its callback. Reported: median and p99 of each kind in microseconds and
// each kind's ratio to `bare`; for reference, a bare futex wake (the woken process blocked in
// futex_wait) measured first.
//
// CatchUp: a burst of writes while the reader does not run, then the time the reader takes to
// apply every notification of the burst (items_per_second = notifications applied per second).
#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "BenchAgent.h"
#include "BenchSupport.h"
#include "Loom/EventLoop.h"
#include "TunnelTable/TunnelTables.h"
#include "store/reader/DockShadow.h"
#include "store/writer/DockWriter.h"

namespace {

namespace TT = Tunnel::TunnelTable;

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

enum Kind { kBare, kStamp, kLdp1, kLdp16, kLdp600, kKinds };
constexpr const char* kKindNames[kKinds] = {"bare", "stamp", "ldp1", "ldp16", "ldp600"};
constexpr uint32_t kLdpVias[kKinds] = {0, 0, 1, 16, 600};
constexpr int kBlock = 8;
constexpr int kRoundsPerKind = 2000 / (kBlock - 1) * kBlock;
constexpr int kRounds = kRoundsPerKind * kKinds;
constexpr int kFutexRounds = 2000;
constexpr auto kGap = std::chrono::microseconds(100);

// Shared between the two processes (anonymous MAP_SHARED mapping).
struct Shared {
   std::atomic<uint32_t> futexWord;
   std::atomic<uint32_t> ack;
   std::atomic<uint32_t> ready;
   std::atomic<int32_t> round;  // the round the writer started
   std::atomic<uint64_t> sentNs;
   uint64_t futexLatency[kFutexRounds];
   uint64_t latency[kRounds];
};

void futexWait(std::atomic<uint32_t>& w, uint32_t v) {
   const timespec second{1, 0};
   ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&w), FUTEX_WAIT, v, &second, nullptr, 0);
}
void futexWake(std::atomic<uint32_t>& w) {
   ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&w), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}
// Waits until `w` differs from `v`; a wait of over 10 s names `what` and ends the program, rather
// than hang: the other side never got what it waits for.
void awaitChange(std::atomic<uint32_t>& w, uint32_t v, const char* what = "ack", int round = -1) {
   const auto start = std::chrono::steady_clock::now();
   while (w.load(std::memory_order_acquire) == v) {
      futexWait(w, v);
      if (std::chrono::steady_clock::now() - start > std::chrono::seconds(10)) {
         std::fprintf(stderr, "NotifyLatency: no %s of round %d after 10 s\n", what, round);
         std::abort();
      }
   }
}
void bump(std::atomic<uint32_t>& w) {
   w.fetch_add(1, std::memory_order_release);
   futexWake(w);
}

void pinIfAsked(int cpu) {
   const char* pin = std::getenv("BENCH_PIN");
   if (!pin || std::string(pin) != "1") return;
   cpu_set_t set;
   CPU_ZERO(&set);
   CPU_SET(cpu, &set);
   ::sched_setaffinity(0, sizeof(set), &set);
}

Kind kindOf(int round) {
   return Kind(round / kBlock % kKinds);
}
bool counted(int round) {
   return round % kBlock != 0;
}

TT::TunnelId ldpId(uint64_t index) {
   return TT::TunnelId(TT::TunnelId::convertToTunnelValue(TT::TunnelType::ldpTunnel, index));
}
// The LDP entry of a kind's rounds; its metric names the round.
TT::LdpTunnelTableEntry ldpEntry(Kind kind, int round) {
   TT::LdpTunnelTableEntry e(ldpId(kind));
   e.endpointIs(0, Wirekit::IpGenPrefix("10.0.0.0/8"));
   e.nameIs("bench");
   e.entryMetricIs(uint32_t(round));
   for (uint32_t i = 0; i < kLdpVias[kind]; ++i) {
      e.viaIs(int(i),
              TT::MplsVia(Wirekit::IpGenAddr::ipv4(0x0A000001u + i),
                          Wirekit::IntfId::ordinary(Wirekit::IntfKind::ethernet, 1 + i % 48),
                          Wirekit::MplsLabelOperation::push({16u + i})));
   }
   return e;
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

// The reader's side of a round: latency of the round the writer started, then the ack.
void record(Shared* sh, Kind kind, int round) {
   const uint64_t now = Bench::nowNs();
   if (round < 0 || kindOf(round) != kind || sh->latency[round] != 0) return;
   sh->latency[round] = now - sh->sentNs.load(std::memory_order_acquire);
   bump(sh->ack);
}

struct LdpRecorder : Vela::Entity::Notifiee {
   Shared* sh = nullptr;
   TT::LdpTunnelTable* table = nullptr;
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr != Vela::attrEntry || !key) return;
      const auto& id = *static_cast<const TT::TunnelId*>(key);
      const TT::LdpTunnelTableEntry e = table->entry(id);
      record(sh, Kind(id.tunnelIndex()), int(e.entryMetric()));
   }
};

int readerProcess(Shared* sh, const std::string& stampDir, int bareFd) {
   pinIfAsked(1);
   for (int i = 0; i < kFutexRounds; ++i) {
      awaitChange(sh->futexWord, uint32_t(i));
      sh->futexLatency[i] = Bench::nowNs() - sh->sentNs.load(std::memory_order_acquire);
      bump(sh->ack);
   }
   Bench::Mounted agent;
   Loom::EventLoop& loop = agent.loop;
   agent.loop.fdHandlerIs(bareFd, EPOLLIN, [&](uint32_t) {
      const int round = sh->round.load(std::memory_order_acquire);
      record(sh, kBare, round);
      char byte;
      while (::recv(bareFd, &byte, 1, MSG_DONTWAIT) == 1) {
      }
      // The ack may have started the next round, and its datagram may be among those just
      // drained, which would leave no wake for it: record it now (as the store's readers look at
      // their queue again after draining their wake socket).
      if (const int next = sh->round.load(std::memory_order_acquire); next != round) {
         record(sh, kBare, next);
      }
   });
   Shadow stamps("latency", stampDir, loop);
   Region::Notify<uint64_t, Stamp> n;
   n.onValue = [&](const Stamp& s) { record(sh, kStamp, int(s.sentNs)); };
   stamps.notifyIs(n);
   if (!stamps.initialize()) return 2;
   auto ldp = agent.mounter.mountKeyshadowOf<TT::LdpTunnelTable>();
   if (!ldp) return 3;
   LdpRecorder onLdp;
   onLdp.sh = sh;
   onLdp.table = ldp.get();
   ldp->notifieeAdd(&onLdp);
   while (!Bench::synchronized(*ldp)) loop.runOnce(std::chrono::milliseconds(1));
   bump(sh->ready);
   while (sh->round.load(std::memory_order_acquire) < kRounds) {
      loop.runOnce(std::chrono::milliseconds(100));
   }
   ldp->notifieeDel(&onLdp);
   return 0;
}

void NotifyLatency(benchmark::State& state) {
   const std::string root = Bench::freshRoot("notify-bench");
   auto* sh = static_cast<Shared*>(
       ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   new (sh) Shared{};
   sh->round.store(-1);
   Writer w(config());
   w.initialize("bench/latency");
   Bench::Mounted agent;
   auto ldp = agent.mounter.mountWriterOf<TT::LdpTunnelTable>();
   for (int k = kLdp1; k <= kLdp600; ++k) ldp->entryIs(ldpEntry(Kind(k), -1));
   int pair[2];
   if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) != 0) std::abort();
   const pid_t child = ::fork();
   if (child == 0) {
      ::close(pair[0]);
      ::_exit(readerProcess(sh, w.directory(), pair[1]));
   }
   pinIfAsked(0);
   for (auto _ : state) {
      (void)_;
      for (int i = 0; i < kFutexRounds; ++i) {
         const uint32_t ack = sh->ack.load();
         sh->sentNs.store(Bench::nowNs(), std::memory_order_release);
         bump(sh->futexWord);
         awaitChange(sh->ack, ack);
      }
      awaitChange(sh->ready, 0);
      for (int r = 0; r < kRounds; ++r) {
         std::this_thread::sleep_for(kGap);
         const uint32_t ack = sh->ack.load();
         const Kind kind = kindOf(r);
         // Built before the clock starts: the entry is the caller's, not the store's work.
         const TT::LdpTunnelTableEntry entry =
             kLdpVias[kind] ? ldpEntry(kind, r) : TT::LdpTunnelTableEntry();
         sh->round.store(r, std::memory_order_release);
         sh->sentNs.store(Bench::nowNs(), std::memory_order_release);
         if (kind == kBare) {
            const char byte = 0;
            if (::send(pair[0], &byte, 1, 0) != 1) std::abort();
         } else if (kind == kStamp) {
            Stamp s;
            s.key = 1;
            s.sentNs = uint64_t(r);  // the round: the shared page holds the time
            w.write(s);
            w.flush();
         } else {
            ldp->entryIs(entry);
         }
         awaitChange(sh->ack, ack, kKindNames[kind], r);
      }
      sh->round.store(kRounds, std::memory_order_release);
   }
   ::waitpid(child, nullptr, 0);
   std::vector<uint64_t> f(sh->futexLatency, sh->futexLatency + kFutexRounds);
   state.counters["futex_p50_us"] = Bench::percentileUs(f, 0.5);
   state.counters["futex_p99_us"] = Bench::percentileUs(f, 0.99);
   std::vector<uint64_t> byKind[kKinds];
   for (int r = 0; r < kRounds; ++r) {
      if (counted(r)) byKind[kindOf(r)].push_back(sh->latency[r]);
   }
   const double bare50 = Bench::percentileUs(byKind[kBare], 0.5);
   const double bare99 = Bench::percentileUs(byKind[kBare], 0.99);
   for (int k = 0; k < kKinds; ++k) {
      const std::string name = kKindNames[k];
      const double p50 = Bench::percentileUs(byKind[k], 0.5);
      const double p99 = Bench::percentileUs(byKind[k], 0.99);
      state.counters[name + "_p50_us"] = p50;
      state.counters[name + "_p99_us"] = p99;
      if (k != kBare) {
         state.counters[name + "_over_bare_p50"] = p50 / bare50;
         state.counters[name + "_over_bare_p99"] = p99 / bare99;
      }
   }
   ::close(pair[0]);
   ::close(pair[1]);
   ::munmap(sh, sizeof(Shared));
   std::filesystem::remove_all(root);
}
// One iteration: kRoundsPerKind rounds of each kind, interleaved by blocks.
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
