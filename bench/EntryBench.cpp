// Cost of the entry values with 1, 16 and 600 vias: copy, compare, serialize and deserialize.
//
// Entries are fixed-capacity values (an LDP entry holds room for 600 vias, about 46 KB), so the
// figures that matter are how each operation scales with the live vias rather than the capacity.
// The peer, measured in the same run, is a plain copy of the entry's whole storage (what a
// byte-for-byte copy of the object costs); the program ends with each operation's CPU time as a
// ratio of that peer (CPU rather than wall time: the machine is shared).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "TunnelTable/TunnelTableEntries.h"

namespace {

using namespace Tunnel::TunnelTable;

LdpTunnelTableEntry entryWith(int vias) {
   LdpTunnelTableEntry e(TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, 1)));
   e.endpointIs(0, Wirekit::IpGenPrefix("10.0.0.0/8"));
   e.nameIs("bench");
   for (int i = 0; i < vias; ++i) {
      e.viaIs(i, MplsVia(Wirekit::IpGenAddr::ipv4(0x0A000001u + i),
                         Wirekit::IntfId::ordinary(Wirekit::IntfKind::ethernet, 1 + i % 48),
                         Wirekit::MplsLabelOperation::push({16u + i})));
   }
   return e;
}

void BM_WholeStorageCopy(benchmark::State& state) {
   std::vector<unsigned char> from(sizeof(LdpTunnelTableEntry), 1), to(sizeof(LdpTunnelTableEntry));
   for (auto _ : state) {
      std::memcpy(to.data(), from.data(), from.size());
      benchmark::DoNotOptimize(to.data());
      benchmark::ClobberMemory();
   }
}
BENCHMARK(BM_WholeStorageCopy);

void BM_CopyConstruct(benchmark::State& state) {
   const LdpTunnelTableEntry e = entryWith(static_cast<int>(state.range(0)));
   for (auto _ : state) {
      LdpTunnelTableEntry copy(e);
      benchmark::DoNotOptimize(&copy);
      benchmark::ClobberMemory();
   }
}
BENCHMARK(BM_CopyConstruct)->Arg(1)->Arg(16)->Arg(600);

void BM_CopyAssign(benchmark::State& state) {
   const LdpTunnelTableEntry e = entryWith(static_cast<int>(state.range(0)));
   LdpTunnelTableEntry target;
   for (auto _ : state) {
      target = e;
      benchmark::DoNotOptimize(&target);
      benchmark::ClobberMemory();
   }
}
BENCHMARK(BM_CopyAssign)->Arg(1)->Arg(16)->Arg(600);

void BM_Compare(benchmark::State& state) {
   const LdpTunnelTableEntry a = entryWith(static_cast<int>(state.range(0)));
   const LdpTunnelTableEntry b = a;
   for (auto _ : state) {
      bool same = a == b;
      benchmark::DoNotOptimize(same);
   }
}
BENCHMARK(BM_Compare)->Arg(1)->Arg(16)->Arg(600);

void BM_Serialize(benchmark::State& state) {
   const LdpTunnelTableEntry e = entryWith(static_cast<int>(state.range(0)));
   std::vector<uint8_t> buffer(e.serializeLen());
   for (auto _ : state) {
      e.serialize(buffer.data());
      benchmark::DoNotOptimize(buffer.data());
      benchmark::ClobberMemory();
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buffer.size()));
}
BENCHMARK(BM_Serialize)->Arg(1)->Arg(16)->Arg(600);

void BM_Deserialize(benchmark::State& state) {
   const LdpTunnelTableEntry e = entryWith(static_cast<int>(state.range(0)));
   std::vector<uint8_t> buffer(e.serializeLen());
   e.serialize(buffer.data());
   LdpTunnelTableEntry target;
   for (auto _ : state) {
      const uint32_t len =
          LdpTunnelTableEntry::deserializeLen(buffer.data(), static_cast<uint32_t>(buffer.size()));
      target.deserialize(buffer.data(), len);
      benchmark::DoNotOptimize(&target);
      benchmark::ClobberMemory();
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buffer.size()));
}
BENCHMARK(BM_Deserialize)->Arg(1)->Arg(16)->Arg(600);

void BM_FlexAlgoSerialize(benchmark::State& state) {
   FlexAlgoTunnelTableEntry e(
       TunnelId(TunnelId::convertToTunnelValue(TunnelType::isisFlexAlgoTunnel, 1)));
   const LdpTunnelTableEntry source = entryWith(static_cast<int>(state.range(0)));
   for (uint32_t i = 0; i < source.viaCount(); ++i) e.viaIs(i, source.via(i));
   std::vector<uint8_t> buffer(e.serializeLen());
   for (auto _ : state) {
      e.serialize(buffer.data());
      benchmark::DoNotOptimize(buffer.data());
      benchmark::ClobberMemory();
   }
}
BENCHMARK(BM_FlexAlgoSerialize)->Arg(1)->Arg(600);

// Prints as usual and keeps each run's time for the ratio table.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
   void ReportRuns(const std::vector<Run>& runs) override {
      ConsoleReporter::ReportRuns(runs);
      for (const Run& r : runs) times_[r.benchmark_name()] = r.GetAdjustedCPUTime();
   }
   void printRatios() const {
      const auto peer = times_.find("BM_WholeStorageCopy");
      if (peer == times_.end() || peer->second <= 0) return;
      std::printf("\nCPU time as a ratio of copying the whole %zu-byte entry storage (%.1f ns):\n",
                  sizeof(LdpTunnelTableEntry), peer->second);
      for (const auto& [name, t] : times_) {
         if (name != peer->first) std::printf("  %-28s %8.3fx\n", name.c_str(), t / peer->second);
      }
   }

  private:
   std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
   RatioReporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   reporter.printRatios();
   benchmark::Shutdown();
   return 0;
}
