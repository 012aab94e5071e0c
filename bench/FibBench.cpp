// The tunnel FIB: resolving tunnels that ride on tunnels, keeping the resolution current, and the
// FIB builder's convergence.
//
// Resolution: a FIB (in this process, in the store) holds a three-level chain - 1,000 RSVP
// tunnels with final vias, 10,000 LDP tunnels riding on them, and N BGP labelled-unicast tunnels
// riding on the LDP ones, one label pushed at each level (the BGP labels from a pool of 1,000
// stacks, so encapsulations are shared as the builder shares them). Timed: a fresh resolver
// flattening every BGP tunnel (and through them everything below) from scratch. The floor in the
// same run: reading every BGP tunnel's entry and its label-stack encapsulation from the store,
// which any resolution must do, with no work. Reported: both, resolve/floor, and tunnels per
// second.
//
// Re-resolution: a client (TunnelResolutionClient) over the same FIB, resolved in full once
// (timed: the full pass per tunnel); then one LDP tunnel's label stack changes, and the client
// re-resolves what rides on it (100 BGP tunnels and the LDP tunnel). Reported: the time per
// affected tunnel, and its ratio to the full pass's time per tunnel.
//
// Builder convergence: a writer process fills the LDP table (20,000 tunnels, final vias) and the
// BGP labelled-unicast table (80,000 tunnels over them) and exits. The floor: key-shadowing
// readers of both tables from mount to synchronized. Then the builder from construction to
// settled (every FIB entry and encapsulation written). Reported: both and builder/floor.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "BenchAgent.h"
#include "BenchSupport.h"
#include "TunnelFib/TunnelFibBuilder.h"
#include "TunnelFib/TunnelResolutionClient.h"
#include "TunnelFib/TunnelResolver.h"
#include "TunnelTable/TunnelTables.h"
#include "store/reader/DockShadow.h"

namespace {

namespace TT = Tunnel::TunnelTable;
namespace TF = Tunnel::TunnelFib;
using Wirekit::IpGenAddr;
using Wirekit::UnboundedMplsLabelOperation;

constexpr uint32_t kRsvp = 1000, kLdp = 10000, kLabelPool = 1000;

TT::TunnelId tid(TT::TunnelType type, uint64_t index) {
   return TT::TunnelId(TT::TunnelId::convertToTunnelValue(type, index));
}
Wirekit::IntfId over(const TT::TunnelId& inner) {
   return Wirekit::DynamicTunnelIntfId::tunnelIdToIntfId(inner.value());
}
TT::EncapId stack(uint32_t n) {
   return TT::EncapId(TT::EncapType::labelStack, n);
}
TF::TunnelFibEntry oneVia(const TT::TunnelId& id, const IpGenAddr& nh, Wirekit::IntfId intf,
                          uint32_t encap) {
   TF::TunnelFibEntry e(id);
   e.tunnelViaIs(0, TT::TunnelVia(nh, intf, stack(encap)));
   return e;
}

// The three-level chain in `fib`: label stack n pushes label 16 + n; RSVP tunnels use stacks
// 1..1000, LDP 1001..2000 (shared ten ways) plus one spare (2001), BGP 3001..4000.
void fillChain(TF::TunnelFib& fib, uint32_t bgp) {
   for (uint32_t n = 1; n <= 4000; ++n) {
      fib.labelStackEncapIs(
          TF::LabelStackEncap(stack(n), UnboundedMplsLabelOperation::push({16 + n})));
   }
   for (uint32_t i = 1; i <= kRsvp; ++i) {
      fib.entryIs(oneVia(tid(TT::TunnelType::rsvpFrrTunnel, i), IpGenAddr::ipv4(0x0A000000 + i),
                         Wirekit::IntfId::parse("Ethernet" + std::to_string(i % 48 + 1)), i));
   }
   for (uint32_t i = 1; i <= kLdp; ++i) {
      fib.entryIs(oneVia(tid(TT::TunnelType::ldpTunnel, i), IpGenAddr(),
                         over(tid(TT::TunnelType::rsvpFrrTunnel, 1 + i % kRsvp)),
                         1001 + i % kLabelPool));
   }
   for (uint32_t i = 1; i <= bgp; ++i) {
      fib.entryIs(oneVia(tid(TT::TunnelType::bgpLuTunnel, i), IpGenAddr(),
                         over(tid(TT::TunnelType::ldpTunnel, 1 + i % kLdp)),
                         3001 + i % kLabelPool));
   }
}

void Resolution(benchmark::State& state) {
   const std::string root = Bench::freshRoot("fib-bench");
   const auto bgp = uint32_t(state.range(0));
   double floorMs = 0, resolveMs = 0, fullPerTunnelNs = 0, affectedPerTunnelNs = 0;
   uint64_t affected = 0;
   {
      Bench::Mounted m;
      auto fib = TF::mountTunnelFib(*m.service, true, m.loop, 1 << 20);
      fillChain(*fib, bgp);
      for (auto _ : state) {
         (void)_;
         uint64_t start = Bench::nowNs();
         uint64_t sink = 0;
         for (uint32_t i = 1; i <= bgp; ++i) {
            const TF::TunnelFibEntry e = fib->entry(tid(TT::TunnelType::bgpLuTunnel, i));
            sink += fib->labelStackEncap(e.tunnelVia(0).encapId()).labelStack().labelCount();
         }
         benchmark::DoNotOptimize(sink);
         floorMs = double(Bench::nowNs() - start) / 1e6;

         auto resolver = TF::TunnelResolverIs(fib);
         start = Bench::nowNs();
         for (uint32_t i = 1; i <= bgp; ++i) {
            resolver->updateFlattenedInfo(tid(TT::TunnelType::bgpLuTunnel, i));
         }
         resolveMs = double(Bench::nowNs() - start) / 1e6;
         if (!resolver->consolidatedEntry(tid(TT::TunnelType::bgpLuTunnel, bgp))) std::abort();
      }

      TF::TunnelResolutionClient client(fib, m.loop);
      uint64_t start = Bench::nowNs();
      client.resolveAll();
      fullPerTunnelNs = double(Bench::nowNs() - start) / double(client.counters().lastResolved);
      // LDP tunnel 7 moves to the spare stack: it and its riders are re-resolved.
      fib->entryIs(oneVia(tid(TT::TunnelType::ldpTunnel, 7), IpGenAddr(),
                          over(tid(TT::TunnelType::rsvpFrrTunnel, 8)), 2001));
      start = Bench::nowNs();
      client.flush();
      affected = client.counters().lastResolved;
      affectedPerTunnelNs = double(Bench::nowNs() - start) / double(affected);
   }
   state.counters["tunnels"] = bgp;
   state.counters["floor_ms"] = floorMs;
   state.counters["resolve_ms"] = resolveMs;
   state.counters["resolve_over_floor"] = resolveMs / floorMs;
   state.counters["tunnels_per_s"] = double(bgp) / (resolveMs / 1e3);
   state.counters["full_pass_ns_per_tunnel"] = fullPerTunnelNs;
   state.counters["affected"] = double(affected);
   state.counters["reresolve_ns_per_affected"] = affectedPerTunnelNs;
   state.counters["reresolve_over_full_per_tunnel"] = affectedPerTunnelNs / fullPerTunnelNs;
   std::filesystem::remove_all(root);
}
BENCHMARK(Resolution)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

// The builder's sources: `ldp` LDP tunnels with final vias, `bgp` BGP tunnels riding on them.
int fillTables(uint32_t ldp, uint32_t bgp) {
   Bench::Mounted m;
   auto ldpTable = Vela::dynamicPtrCast<TT::LdpTunnelTable>(
       m.mounter.mountWriter(TT::TunnelTableIdentifier::ldpTunnelTable));
   auto bgpTable = Vela::dynamicPtrCast<TT::BgpLuTunnelTable>(
       m.mounter.mountWriter(TT::TunnelTableIdentifier::bgpLuTunnelTable));
   if (!ldpTable || !bgpTable) return 2;
   for (uint32_t i = 1; i <= ldp; ++i) {
      TT::LdpTunnelTableEntry e(tid(TT::TunnelType::ldpTunnel, i));
      e.viaIs(0, TT::MplsVia(IpGenAddr::ipv4(0x0A000000 + i), Wirekit::IntfId::parse("Ethernet1"),
                             Wirekit::MplsLabelOperation::push({16 + i % kLabelPool})));
      ldpTable->entryIs(e);
      if (i % 256 == 0) m.loop.runOnce(std::chrono::milliseconds(0));
   }
   for (uint32_t i = 1; i <= bgp; ++i) {
      TT::BgpLuTunnelTableEntry e(tid(TT::TunnelType::bgpLuTunnel, i));
      e.viaIs(0, TT::Via::tunnelIdVia(tid(TT::TunnelType::ldpTunnel, 1 + i % ldp)));
      e.labelsIs(UnboundedMplsLabelOperation::push({100000 + i % kLabelPool}));
      bgpTable->entryIs(e);
      if (i % 256 == 0) m.loop.runOnce(std::chrono::milliseconds(0));
   }
   m.loop.runOnce(std::chrono::milliseconds(0));
   return 0;
}

void BuilderConvergence(benchmark::State& state) {
   const std::string root = Bench::freshRoot("fib-bench");
   const auto tunnels = uint32_t(state.range(0));
   Bench::runWriterProcess([&] { return fillTables(tunnels / 5, tunnels - tunnels / 5); });

   double floorMs = 0, builderMs = 0;
   uint32_t entries = 0, encaps = 0;
   for (auto _ : state) {
      (void)_;
      {
         Bench::Mounted m;
         const uint64_t start = Bench::nowNs();
         auto ldp = m.mounter.mountKeyshadow(TT::TunnelTableIdentifier::ldpTunnelTable);
         auto bgp = m.mounter.mountKeyshadow(TT::TunnelTableIdentifier::bgpLuTunnelTable);
         while (!Bench::synchronized(*ldp) || !Bench::synchronized(*bgp))
            m.loop.runOnce(std::chrono::milliseconds(1));
         floorMs = double(Bench::nowNs() - start) / 1e6;
      }
      {
         Bench::Mounted m;
         const uint64_t start = Bench::nowNs();
         TF::TunnelFibBuilder builder(m.mounter);
         while (!builder.settled()) m.loop.runOnce(std::chrono::milliseconds(1));
         builderMs = double(Bench::nowNs() - start) / 1e6;
         entries = builder.tunnelFib()->entryCount();
         encaps = builder.tunnelFib()->labelStackEncapCount();
      }
      std::filesystem::remove_all(root + "/tunnel/fib");
   }
   state.counters["tunnels"] = tunnels;
   state.counters["fib_entries"] = entries;
   state.counters["label_stacks"] = encaps;
   state.counters["readers_sync_ms"] = floorMs;
   state.counters["builder_settled_ms"] = builderMs;
   state.counters["builder_over_readers"] = builderMs / floorMs;
   std::filesystem::remove_all(root);
}
BENCHMARK(BuilderConvergence)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
