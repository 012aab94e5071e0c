// The tunnel RIB builder: how fast it converges, and how much later than the protocol table a
// consumer of the RIB hears of a change.
//
// Convergence: a writer process fills five protocol tables (LDP, IS-IS SR, RSVP LER, SR-TE policy,
// IS-IS flex-algo) with 100,000 tunnels, 20,000 each, over 20,000 endpoints, and exits (its files
// stay). In this process, first the floor: plain key-shadowing readers of the same five tables,
// from mount to synchronized (every entry copied once). Then the builder, from its construction to
// settled (both RIBs written). Reported: both times and builder/floor.
//
// Latency: three processes. This one writes an LDP tunnel whose change changes its endpoint's RIB
// entry (its entryMetric carries the round); a second runs the builder; a third mounts both the
// LDP table and the tunnel RIB as key-shadowing readers and records, for each round, the time
// since the write began at the LDP notification (the bare store: one hop) and at the RIB
// notification (two hops, through the builder). Reported: p50 and p99 of both, and RIB/LDP.
#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "BenchAgent.h"
#include "BenchSupport.h"
#include "Loom/EventLoop.h"
#include "TunnelRib/TunnelRibBuilder.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTables.h"
#include "Vault/MountService.h"
#include "store/reader/DockShadow.h"

namespace {

namespace TT = Tunnel::TunnelTable;

Wirekit::IpGenPrefix endpoint(uint32_t n) {
   return Wirekit::IpGenPrefix::host(Wirekit::IpGenAddr::ipv4(0x0A000000u + n));
}

template <class Entry>
Entry make(TT::TunnelType type, uint64_t index, uint32_t tep, uint32_t metric) {
   Entry e(TT::TunnelId(TT::TunnelId::convertToTunnelValue(type, index)));
   e.endpointIs(TT::TepIndex(0), endpoint(tep));
   e.entryMetricIs(metric);
   e.tunnelBwIs(TT::TunnelBandwidth(float(index % 100)));
   return e;
}

constexpr TT::TunnelTableIdentifier kTables[] = {
    TT::TunnelTableIdentifier::ldpTunnelTable, TT::TunnelTableIdentifier::isisSrTunnelTable,
    TT::TunnelTableIdentifier::rsvpLerTunnelTable, TT::TunnelTableIdentifier::srTePolicyTunnelTable,
    TT::TunnelTableIdentifier::isisFlexAlgoTunnelTable};

// The writer of the five tables: `perTable` tunnels each over `perTable` endpoints.
int fillTables(uint32_t perTable) {
   Bench::Mounted m;
   auto ldp = Vela::dynamicPtrCast<TT::LdpTunnelTable>(m.mounter.mountWriter(kTables[0]));
   auto sr = Vela::dynamicPtrCast<TT::IsisSrTunnelTable>(m.mounter.mountWriter(kTables[1]));
   auto ler = Vela::dynamicPtrCast<TT::RsvpLerTunnelTable>(m.mounter.mountWriter(kTables[2]));
   auto policy = Vela::dynamicPtrCast<TT::SrTePolicyTunnelTable>(m.mounter.mountWriter(kTables[3]));
   auto flex = Vela::dynamicPtrCast<TT::IsisFlexAlgoTunnelTable>(m.mounter.mountWriter(kTables[4]));
   if (!ldp || !sr || !ler || !policy || !flex) return 2;
   for (uint32_t i = 1; i <= perTable; ++i) {
      ldp->entryIs(make<TT::LdpTunnelTableEntry>(TT::TunnelType::ldpTunnel, i, i, 10));
      sr->entryIs(make<TT::SrTunnelTableEntry>(TT::TunnelType::isisSrTunnel, i, i, 20));
      ler->entryIs(make<TT::RsvpLerTunnelTableEntry>(TT::TunnelType::rsvpLerTunnel, i, i, 30));
      auto p = make<TT::SrTePolicyTunnelTableEntry>(TT::TunnelType::srTePolicyTunnel, i, i, 0);
      p.colorIs(1 + i % 4);
      policy->entryIs(p);
      flex->entryIs(
          make<TT::FlexAlgoTunnelTableEntry>(TT::TunnelType::isisFlexAlgoTunnel, i, i, 40));
      if (i % 256 == 0) m.loop.runOnce(std::chrono::milliseconds(0));
   }
   m.loop.runOnce(std::chrono::milliseconds(0));
   return 0;
}

void BuilderConvergence(benchmark::State& state) {
   const std::string root = Bench::freshRoot("rib-bench");
   const auto perTable = uint32_t(state.range(0));
   Bench::runWriterProcess([&] { return fillTables(perTable); });

   double floorMs = 0, builderMs = 0;
   uint32_t endpoints = 0;
   for (auto _ : state) {
      (void)_;
      {
         Bench::Mounted m;
         const uint64_t start = Bench::nowNs();
         std::vector<Vela::Ptr<TT::TunnelTableBase>> readers;
         for (auto id : kTables) readers.push_back(m.mounter.mountKeyshadow(id));
         const auto all = [&] {
            return std::all_of(readers.begin(), readers.end(),
                               [](const auto& t) { return Bench::synchronized(*t); });
         };
         while (!all()) m.loop.runOnce(std::chrono::milliseconds(1));
         floorMs = double(Bench::nowNs() - start) / 1e6;
      }
      {
         Bench::Mounted m;
         const uint64_t start = Bench::nowNs();
         TT::TunnelRibBuilder builder(m.mounter);
         while (!builder.settled()) m.loop.runOnce(std::chrono::milliseconds(1));
         builderMs = double(Bench::nowNs() - start) / 1e6;
         endpoints = builder.tunnelRib()->entryCount() + builder.coloredTunnelRib()->entryCount();
      }
      std::filesystem::remove_all(root + "/tunnel/rib");
   }
   state.counters["tunnels"] = double(perTable) * 5;
   state.counters["rib_entries"] = endpoints;
   state.counters["readers_sync_ms"] = floorMs;
   state.counters["builder_settled_ms"] = builderMs;
   state.counters["builder_over_readers"] = builderMs / floorMs;
   state.counters["tunnels_per_s"] = double(perTable) * 5 / (builderMs / 1e3);
   std::filesystem::remove_all(root);
}
BENCHMARK(BuilderConvergence)->Arg(20000)->Iterations(1)->Unit(benchmark::kMillisecond);

constexpr int kRounds = 2000;

struct Shared {
   std::atomic<uint64_t> sentNs[kRounds + 1];
   uint64_t ldpLatency[kRounds + 1];
   uint64_t ribLatency[kRounds + 1];
   std::atomic<uint32_t> ready;
   std::atomic<uint32_t> acked;  // the last round both latencies were recorded for
};

// Records, for each round, the latency at the LDP and at the RIB notification.
struct LatencyReader : Vela::Entity::Notifiee {
   Shared* sh;
   bool rib;
   std::function<uint32_t()> round;
   void onAttribute(Vela::AttributeId attr, const void*) override {
      if (attr != Vela::attrEntry) return;
      const uint32_t r = round();
      if (r == 0 || r > uint32_t(kRounds)) return;
      uint64_t& slot = rib ? sh->ribLatency[r] : sh->ldpLatency[r];
      if (slot == 0) slot = Bench::nowNs() - sh->sentNs[r].load(std::memory_order_acquire);
      if (sh->ldpLatency[r] && sh->ribLatency[r]) sh->acked.store(r, std::memory_order_release);
   }
};

void RibNotifyLatency(benchmark::State& state) {
   const std::string root = Bench::freshRoot("rib-bench");
   auto* sh = static_cast<Shared*>(
       ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   new (sh) Shared{};
   Bench::Mounted w;
   auto ldp = Vela::dynamicPtrCast<TT::LdpTunnelTable>(w.mounter.mountWriter(kTables[0]));
   ldp->entryIs(make<TT::LdpTunnelTableEntry>(TT::TunnelType::ldpTunnel, 1, 1, 0));

   const pid_t builderPid = ::fork();
   if (builderPid == 0) {
      Bench::Mounted b;
      TT::TunnelRibBuilder builder(b.mounter);
      sh->ready.fetch_add(1);
      for (;;) b.loop.runOnce(std::chrono::seconds(1));
   }
   const pid_t readerPid = ::fork();
   if (readerPid == 0) {
      Bench::Mounted r;
      auto ldpReader =
          Vela::dynamicPtrCast<TT::LdpTunnelTable>(r.mounter.mountKeyshadow(kTables[0]));
      auto ribReader = r.mounter.mountKeyshadowOf<TT::TunnelRib>();
      LatencyReader onLdp, onRib;
      onLdp.sh = onRib.sh = sh;
      onRib.rib = true;
      onLdp.round = [&] {
         return ldpReader
             ->entry(TT::TunnelId(TT::TunnelId::convertToTunnelValue(TT::TunnelType::ldpTunnel, 1)))
             .entryMetric();
      };
      onRib.round = [&] { return ribReader->tunnelRibEntry(endpoint(1)).entryMetric(); };
      ldpReader->notifieeAdd(&onLdp);
      ribReader->notifieeAdd(&onRib);
      sh->ready.fetch_add(1);
      while (sh->acked.load() < uint32_t(kRounds)) r.loop.runOnce(std::chrono::seconds(1));
      ::_exit(0);
   }
   while (sh->ready.load() < 2) w.loop.runOnce(std::chrono::milliseconds(1));
   // Both have synchronized: let the builder write the first RIB entry.
   const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
   while (std::chrono::steady_clock::now() < until) w.loop.runOnce(std::chrono::milliseconds(1));

   for (auto _ : state) {
      (void)_;
      for (uint32_t r = 1; r <= uint32_t(kRounds); ++r) {
         sh->sentNs[r].store(Bench::nowNs(), std::memory_order_release);
         ldp->entryIs(make<TT::LdpTunnelTableEntry>(TT::TunnelType::ldpTunnel, 1, 1, r));
         const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
         while (sh->acked.load(std::memory_order_acquire) < r &&
                std::chrono::steady_clock::now() < deadline) {
            w.loop.runOnce(std::chrono::microseconds(0));
         }
      }
   }
   ::kill(builderPid, SIGKILL);
   ::kill(readerPid, SIGKILL);
   ::waitpid(builderPid, nullptr, 0);
   ::waitpid(readerPid, nullptr, 0);
   std::vector<uint64_t> ldpLat, ribLat;
   for (int r = 1; r <= kRounds; ++r) {
      if (sh->ldpLatency[r] && sh->ribLatency[r]) {
         ldpLat.push_back(sh->ldpLatency[r]);
         ribLat.push_back(sh->ribLatency[r]);
      }
   }
   if (ldpLat.empty()) {
      state.SkipWithError("no round reached both readers");
   } else {
      state.counters["rounds"] = double(ldpLat.size());
      state.counters["store_p50_us"] = Bench::percentileUs(ldpLat, 0.5);
      state.counters["store_p99_us"] = Bench::percentileUs(ldpLat, 0.99);
      state.counters["rib_p50_us"] = Bench::percentileUs(ribLat, 0.5);
      state.counters["rib_p99_us"] = Bench::percentileUs(ribLat, 0.99);
      state.counters["rib_over_store_p50"] =
          Bench::percentileUs(ribLat, 0.5) / Bench::percentileUs(ldpLat, 0.5);
      state.counters["rib_over_store_p99"] =
          Bench::percentileUs(ribLat, 0.99) / Bench::percentileUs(ldpLat, 0.99);
   }
   ::munmap(sh, sizeof(Shared));
   std::filesystem::remove_all(root);
}
BENCHMARK(RibNotifyLatency)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
