// Cost of the entry values with 1, 16 and 600 vias: copy, compare, serialize and deserialize.
//
// Serialize and deserialize are timed as the store runs them: the writer takes serializeLen()
// and writes the bytes; a reader builds a fresh entry and deserializes the bytes it copied out of
// the slab. The last table gives deserialization as a ratio of serialization, per kind and count.
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

BgpLuTunnelTableEntry bgpLuWith(int vias) {
   BgpLuTunnelTableEntry e(TunnelId(TunnelId::convertToTunnelValue(TunnelType::bgpLuTunnel, 1)));
   e.endpointIs(0, Wirekit::IpGenPrefix("10.0.0.0/8"));
   e.nameIs("bench");
   for (int i = 0; i < vias; ++i) {
      e.viaIs(i, Via(Wirekit::IpGenAddr::ipv4(0x0A000001u + i),
                     Wirekit::IntfId::ordinary(Wirekit::IntfKind::ethernet, 1 + i % 48)));
   }
   e.labelsIs(Wirekit::UnboundedMplsLabelOperation::push({16, 17, 18}));
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

// The writer's side of a publish (DockWriter::serializeToScratch): the length, then the bytes.
template <typename E>
void serializeLoop(benchmark::State& state, const E& e) {
   std::vector<uint8_t> buffer(e.serializeLen());
   for (auto _ : state) {
      const uint32_t len = e.serializeLen();
      e.serialize(buffer.data());
      benchmark::DoNotOptimize(len);
      benchmark::DoNotOptimize(buffer.data());
      benchmark::ClobberMemory();
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buffer.size()));
}

// A reader's side of a copy out (DockReader::lookup, DockShadow::copyValue): a fresh entry,
// then deserialize over the bytes copied from the slab, whose length the slot gives.
template <typename E>
void deserializeLoop(benchmark::State& state, const E& e) {
   std::vector<uint8_t> buffer(e.serializeLen());
   e.serialize(buffer.data());
   const auto len = static_cast<uint32_t>(buffer.size());
   for (auto _ : state) {
      E target;
      target.deserialize(buffer.data(), len);
      benchmark::DoNotOptimize(&target);
      benchmark::ClobberMemory();
   }
   E back;
   back.deserialize(buffer.data(), len);
   if (!(back == e)) state.SkipWithError("the entry read back differs");
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buffer.size()));
}

void BM_Serialize(benchmark::State& state) {
   serializeLoop(state, entryWith(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_Serialize)->Arg(1)->Arg(16)->Arg(600);

void BM_Deserialize(benchmark::State& state) {
   deserializeLoop(state, entryWith(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_Deserialize)->Arg(1)->Arg(16)->Arg(600);

// Into an entry that already holds a value (a reader reusing one): no construction.
void BM_DeserializeReused(benchmark::State& state) {
   const LdpTunnelTableEntry e = entryWith(static_cast<int>(state.range(0)));
   std::vector<uint8_t> buffer(e.serializeLen());
   e.serialize(buffer.data());
   LdpTunnelTableEntry target = e;
   for (auto _ : state) {
      target.deserialize(buffer.data(), static_cast<uint32_t>(buffer.size()));
      benchmark::DoNotOptimize(&target);
      benchmark::ClobberMemory();
   }
}
BENCHMARK(BM_DeserializeReused)->Arg(1)->Arg(16)->Arg(600);

// deserializeLen: the non-throwing length scan over untrusted bytes.
void BM_DeserializeLen(benchmark::State& state) {
   const LdpTunnelTableEntry e = entryWith(static_cast<int>(state.range(0)));
   std::vector<uint8_t> buffer(e.serializeLen());
   e.serialize(buffer.data());
   for (auto _ : state) {
      uint32_t len =
          LdpTunnelTableEntry::deserializeLen(buffer.data(), static_cast<uint32_t>(buffer.size()));
      benchmark::DoNotOptimize(len);
   }
}
BENCHMARK(BM_DeserializeLen)->Arg(1)->Arg(600);

// The flex-algo entry writes all 600 via places whatever its count, so its record is 46168 bytes.
FlexAlgoTunnelTableEntry flexAlgoWith(int vias) {
   FlexAlgoTunnelTableEntry e(
       TunnelId(TunnelId::convertToTunnelValue(TunnelType::isisFlexAlgoTunnel, 1)));
   const LdpTunnelTableEntry source = entryWith(vias);
   for (uint32_t i = 0; i < source.viaCount(); ++i) e.viaIs(i, source.via(i));
   return e;
}

void BM_FlexAlgoSerialize(benchmark::State& state) {
   serializeLoop(state, flexAlgoWith(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_FlexAlgoSerialize)->Arg(1)->Arg(600);

void BM_FlexAlgoDeserialize(benchmark::State& state) {
   deserializeLoop(state, flexAlgoWith(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_FlexAlgoDeserialize)->Arg(1)->Arg(600);

// A BGP labelled-unicast entry: a via collection and a label operation of any depth.
void BM_BgpLuSerialize(benchmark::State& state) {
   serializeLoop(state, bgpLuWith(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_BgpLuSerialize)->Arg(1)->Arg(600);

void BM_BgpLuDeserialize(benchmark::State& state) {
   deserializeLoop(state, bgpLuWith(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_BgpLuDeserialize)->Arg(1)->Arg(600);

// Prints as usual and keeps each run's time for the ratio table.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
   void ReportRuns(const std::vector<Run>& runs) override {
      ConsoleReporter::ReportRuns(runs);
      for (const Run& r : runs) times_[r.benchmark_name()] = r.GetAdjustedCPUTime();
   }
   void printRatios() const {
      printPeerRatios();
      printCodecRatios();
   }

  private:
   void printPeerRatios() const {
      const auto peer = times_.find("BM_WholeStorageCopy");
      if (peer == times_.end() || peer->second <= 0) return;
      std::printf("\nCPU time as a ratio of copying the whole %zu-byte entry storage (%.1f ns):\n",
                  sizeof(LdpTunnelTableEntry), peer->second);
      for (const auto& [name, t] : times_) {
         if (name != peer->first) std::printf("  %-28s %8.3fx\n", name.c_str(), t / peer->second);
      }
   }
   // Deserialization against serialization of the same entry, same run; the goal is <= 2.
   void printCodecRatios() const {
      std::printf("\nDeserialize / serialize, CPU time (goal: at most 2):\n  %-26s %12s %12s %8s\n",
                  "entry/vias", "serialize", "deserialize", "ratio");
      for (const auto& [name, ser] : times_) {
         const size_t at = name.find("Serialize/");
         if (at == std::string::npos || ser <= 0) continue;
         const std::string deName = name.substr(0, at) + "Deserialize/" + name.substr(at + 10);
         const auto de = times_.find(deName);
         if (de == times_.end()) continue;
         const std::string prefix = name.substr(3, at - 3);  // "" for the LDP entry
         const std::string kind = (prefix.empty() ? "Ldp" : prefix) + name.substr(at + 9);
         std::printf("  %-26s %9.1f ns %9.1f ns %7.2fx\n", kind.c_str(), ser, de->second,
                     de->second / ser);
      }
   }

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
