// The command-line tunnel RIB tree in its Pike store: what a tunnel change costs the tree, and how
// much later than a protocol table's reader a reader of the tree in another process hears of it.
//
// Update cost: a tree of 10,000 endpoints, each with two candidate classes of two tunnels. A
// change moves one tunnel from one class of an endpoint to the other (a removal and an addition,
// two member records), flushed every 64 changes, as the RIB builder does per batch. The floor is
// the bare store doing the same records: a write and a removal of a record of the same size in a
// table of the same size, flushed as often. Reported: ns per change for both and tree/store.
//
// Latency: this process writes, per round, an LDP tunnel (its entryMetric carries the round) and
// adds a tunnel id carrying the round to a candidate of the tree, flushing it (the order alternates
// per round). A second process reads both - the LDP table as a key-shadowing reader, the tree
// through a PikeReader - and records the time since the round began at each notification.
// Reported: p50 and p99 of both and tree/store.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "BenchAgent.h"
#include "BenchSupport.h"
#include "Loom/EventLoop.h"
#include "Pike/PikeReader.h"
#include "TunnelRib/CliTunnelRibExport.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTables.h"
#include "Vault/MountService.h"

namespace {

namespace TT = Tunnel::TunnelTable;

TT::ColoredTunnelEndpoint tep(uint32_t n) {
   return Wirekit::IpGenPrefix::host(Wirekit::IpGenAddr::ipv4(0x0A000000u + n));
}
TT::TunnelId ldpId(uint64_t index) {
   return TT::TunnelId(TT::TunnelId::convertToTunnelValue(TT::TunnelType::ldpTunnel, index));
}
const TT::InternalTunnelCandidateId kA(TT::TunnelType::ldpTunnel, 1, 10);
const TT::InternalTunnelCandidateId kB(TT::TunnelType::isisSrTunnel, 1, 20);

constexpr uint32_t kEndpoints = 10000;
constexpr uint32_t kBatch = 64;

Vela::Ptr<TT::TunnelPikeStatus> makeStatus(Pike::PikeWriter& writer) {
   Vela::Ptr<TT::TunnelPikeStatus> status;
   {
      Pike::AllocatorScope scope(&writer);
      status = TT::tunnelPikeStatusFactory("tunnelPikeStatus");
   }
   writer.rootIs(*status);
   return status;
}

void TreeUpdateCost(benchmark::State& state) {
   const std::string root = Bench::freshRoot("cli-bench");
   double treeNs = 0, storeNs = 0;
   for (auto _ : state) {
      (void)_;
      const uint32_t changes = 200000;
      {
         Pike::PikeWriter writer("bench/tree");
         auto status = makeStatus(writer);
         auto rib = status->cliTunnelRibCollIs("tunnelRib", TT::TunnelRibId(0));
         std::vector<Vela::Ptr<TT::InternalCliTunnelRibEntry>> entries;
         for (uint32_t e = 0; e < kEndpoints; ++e) {
            auto entry = rib->entryIs(tep(e));
            entry->candidatesIs(kA)->tunnelIdIs(ldpId(2 * e));
            entry->candidatesIs(kA)->tunnelIdIs(ldpId(2 * e + 1));
            entry->candidatesIs(kB)->tunnelIdIs(ldpId(1000000 + e));
            entries.push_back(entry);
         }
         status->handleFlush();
         const uint64_t start = Bench::nowNs();
         for (uint32_t i = 0; i < changes; ++i) {
            auto& entry = *entries[i % kEndpoints];
            const bool toB = (i / kEndpoints) % 2 == 0;
            auto from = entry.candidates(toB ? kA : kB);
            auto to = entry.candidates(toB ? kB : kA);
            const TT::TunnelId moved = ldpId(2 * (i % kEndpoints));
            from->tunnelIdDel(moved);
            to->tunnelIdIs(moved);
            if (i % kBatch == kBatch - 1) status->handleFlush();
         }
         status->handleFlush();
         treeNs = double(Bench::nowNs() - start) / changes;
      }
      {
         // The same records through the bare store, in a table of the same size.
         Pike::PikeWriter writer("bench/store");
         auto& map = writer.map();
         const auto record = [](uint64_t owner, uint64_t id) {
            Pike::PikeRecord r;
            r.key = Pike::pikeKeyOf(owner, TT::attrTunnelId, ldpId(id));
            return r;
         };
         for (uint32_t e = 0; e < kEndpoints; ++e) {
            map.writer()->write(record(3 * e, 2 * e));
            map.writer()->write(record(3 * e, 2 * e + 1));
            map.writer()->write(record(3 * e + 1, 1000000 + e));
         }
         map.flush();
         const uint64_t start = Bench::nowNs();
         for (uint32_t i = 0; i < changes; ++i) {
            const uint32_t e = i % kEndpoints;
            const bool toB = (i / kEndpoints) % 2 == 0;
            const uint64_t from = toB ? 3 * e : 3 * e + 1, to = toB ? 3 * e + 1 : 3 * e;
            map.writer()->remove(record(from, 2 * e).key);
            map.writer()->write(record(to, 2 * e));
            if (i % kBatch == kBatch - 1) map.flush();
         }
         map.flush();
         storeNs = double(Bench::nowNs() - start) / changes;
      }
      std::filesystem::remove_all(root + "/bench");
   }
   state.counters["tree_ns_per_change"] = treeNs;
   state.counters["store_ns_per_change"] = storeNs;
   state.counters["tree_over_store"] = treeNs / storeNs;
   std::filesystem::remove_all(root);
}
BENCHMARK(TreeUpdateCost)->Iterations(1)->Unit(benchmark::kMillisecond);

constexpr int kRounds = 2000;
constexpr uint64_t kRoundBase = 5000000;

struct Shared {
   std::atomic<uint64_t> sentNs[kRounds + 1];
   uint64_t storeLatency[kRounds + 1];
   uint64_t treeLatency[kRounds + 1];
   std::atomic<uint32_t> ready;
   std::atomic<uint32_t> acked;  // the last round both latencies were recorded for
};

struct Recorder : Vela::Entity::Notifiee {
   Shared* sh = nullptr;
   bool tree = false;
   std::function<uint32_t(const void*)> round;
   void onAttribute(Vela::AttributeId, const void* key) override {
      const uint32_t r = round(key);
      if (r == 0 || r > uint32_t(kRounds)) return;
      uint64_t& slot = tree ? sh->treeLatency[r] : sh->storeLatency[r];
      if (slot == 0) slot = Bench::nowNs() - sh->sentNs[r].load(std::memory_order_acquire);
      if (sh->storeLatency[r] && sh->treeLatency[r]) sh->acked.store(r, std::memory_order_release);
   }
};

void TreeNotifyLatency(benchmark::State& state) {
   const std::string root = Bench::freshRoot("cli-bench");
   auto* sh = static_cast<Shared*>(
       ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   new (sh) Shared{};
   Bench::Mounted w;
   auto ldp = w.mounter.mountWriterOf<TT::LdpTunnelTable>();
   const auto ldpEntry = [](uint32_t r) {
      TT::LdpTunnelTableEntry e(ldpId(1));
      e.endpointIs(TT::TepIndex(0), tep(1).tep());
      e.entryMetricIs(r);
      return e;
   };
   ldp->entryIs(ldpEntry(0));
   Pike::PikeWriter writer(TT::kCliTunnelRibStore);
   auto status = makeStatus(writer);
   auto candidate = status->cliTunnelRibCollIs("tunnelRib", TT::TunnelRibId(0))
                        ->entryIs(tep(1))
                        ->candidatesIs(kA);
   status->handleFlush();

   const pid_t readerPid = ::fork();
   if (readerPid == 0) {
      Bench::Mounted r;
      auto ldpReader = r.mounter.mountKeyshadowOf<TT::LdpTunnelTable>();
      Pike::PikeReader pike(TT::kCliTunnelRibStore, r.loop);
      auto copy = TT::tunnelPikeStatusFactory("tunnelPikeStatus");
      pike.rootIs(*copy);
      Recorder onLdp, onTree;
      onLdp.sh = onTree.sh = sh;
      onTree.tree = true;
      onLdp.round = [&](const void*) { return ldpReader->entry(ldpId(1)).entryMetric(); };
      onTree.round = [](const void* key) {
         return uint32_t(static_cast<const TT::TunnelId*>(key)->tunnelIndex() - kRoundBase);
      };
      ldpReader->notifieeAdd(&onLdp);
      Vela::Ptr<TT::InternalCliTunnelRibCandidate> watched;
      while (!watched) {
         r.loop.runOnce(std::chrono::milliseconds(1));
         auto rib = copy->cliTunnelRibColl(TT::TunnelRibId(0));
         auto entry = rib ? rib->entry(tep(1)) : nullptr;
         watched = entry ? entry->candidates(kA) : nullptr;
      }
      watched->notifieeAdd(&onTree);
      sh->ready.fetch_add(1);
      while (sh->acked.load() < uint32_t(kRounds)) r.loop.runOnce(std::chrono::seconds(1));
      ::_exit(0);
   }
   while (sh->ready.load() < 1) w.loop.runOnce(std::chrono::milliseconds(1));

   for (auto _ : state) {
      (void)_;
      for (uint32_t r = 1; r <= uint32_t(kRounds); ++r) {
         sh->sentNs[r].store(Bench::nowNs(), std::memory_order_release);
         const auto tree = [&] {
            if (r > 1) candidate->tunnelIdDel(ldpId(kRoundBase + r - 1));
            candidate->tunnelIdIs(ldpId(kRoundBase + r));
            status->handleFlush();
         };
         if (r % 2) tree();
         ldp->entryIs(ldpEntry(r));
         w.loop.runOnce(std::chrono::microseconds(0));
         if (r % 2 == 0) tree();
         const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
         while (sh->acked.load(std::memory_order_acquire) < r &&
                std::chrono::steady_clock::now() < deadline) {
            w.loop.runOnce(std::chrono::microseconds(0));
         }
      }
   }
   ::kill(readerPid, SIGKILL);
   ::waitpid(readerPid, nullptr, 0);
   std::vector<uint64_t> storeLat, treeLat;
   for (int r = 1; r <= kRounds; ++r) {
      if (sh->storeLatency[r] && sh->treeLatency[r]) {
         storeLat.push_back(sh->storeLatency[r]);
         treeLat.push_back(sh->treeLatency[r]);
      }
   }
   if (storeLat.empty()) {
      state.SkipWithError("no round reached both readers");
   } else {
      state.counters["rounds"] = double(storeLat.size());
      state.counters["store_p50_us"] = Bench::percentileUs(storeLat, 0.5);
      state.counters["store_p99_us"] = Bench::percentileUs(storeLat, 0.99);
      state.counters["tree_p50_us"] = Bench::percentileUs(treeLat, 0.5);
      state.counters["tree_p99_us"] = Bench::percentileUs(treeLat, 0.99);
      state.counters["tree_over_store_p50"] =
          Bench::percentileUs(treeLat, 0.5) / Bench::percentileUs(storeLat, 0.5);
      state.counters["tree_over_store_p99"] =
          Bench::percentileUs(treeLat, 0.99) / Bench::percentileUs(storeLat, 0.99);
   }
   ::munmap(sh, sizeof(Shared));
   std::filesystem::remove_all(root);
}
BENCHMARK(TreeNotifyLatency)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
