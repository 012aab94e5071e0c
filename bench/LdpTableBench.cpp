// The writer's replacement on the path agents use: LdpTunnelTable::entryIs of LDP entries with 1,
// 16 and 600 vias into a mounted table, with a key-shadowing reader agent following the table in
// another process. Writes run as tasks of the writer's event loop, 64 a turn, so readers are woken
// once a turn as in an agent; the timed figure includes those wakes.
//
// Peers in the same run, per via count: LMDB put of the same serialized bytes (the entry
// serialized, then one write transaction per put, MDB_NOSYNC | MDB_WRITEMAP), and the memory floor
// (MemoryFloor.h) over regions of the table's own sizes. Tables hold 1,000,000 keys with 1 and 16
// vias and 10,000 keys with 600 vias (30 KB entries: a million would be 30 GB). Ratios are printed
// at the end. Nothing here is asserted.
#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "BenchAgent.h"
#include "BenchSupport.h"
#include "MemoryFloor.h"
#include "TunnelTable/TunnelTables.h"

namespace {

namespace TT = Tunnel::TunnelTable;

constexpr int kBatch = 64;  // writes per loop turn

uint32_t keysFor(int vias) {
   return vias >= 600 ? 10000 : 1000000;
}

TT::TunnelId tid(uint64_t index) {
   return TT::TunnelId(TT::TunnelId::convertToTunnelValue(TT::TunnelType::ldpTunnel, index));
}

TT::LdpTunnelTableEntry entryWith(int vias) {
   TT::LdpTunnelTableEntry e(tid(1));
   e.endpointIs(0, Wirekit::IpGenPrefix("10.0.0.0/8"));
   e.nameIs("bench");
   for (int i = 0; i < vias; ++i) {
      e.viaIs(i, TT::MplsVia(Wirekit::IpGenAddr::ipv4(0x0A000001u + i),
                             Wirekit::IntfId::ordinary(Wirekit::IntfKind::ethernet, 1 + i % 48),
                             Wirekit::MplsLabelOperation::push({16u + i})));
   }
   return e;
}

// A writer agent holding the LDP table with keysFor(vias) keys, and a reader agent in a child
// process that has synchronized with it and keeps following it until this is destroyed.
struct Setup {
   int vias;
   std::string root;
   std::unique_ptr<Bench::Mounted> agent;
   Vela::Ptr<TT::LdpTunnelTable> table;
   TT::LdpTunnelTableEntry entry;
   pid_t reader = -1;
   uint32_t metric = 1;
   std::unique_ptr<Bench::MemoryFloor> floor;  // made on first use

   explicit Setup(int v) : vias(v), root(Bench::freshRoot("ldp-bench")), entry(entryWith(v)) {
      int ready[2];
      if (::pipe(ready) != 0) std::abort();
      reader = ::fork();
      if (reader == 0) {
         ::close(ready[0]);
         Bench::Mounted m;
         auto t = m.mounter.mountKeyshadow(TT::TunnelTableIdentifier::ldpTunnelTable);
         bool told = false;
         for (;;) {
            m.loop.runOnce(std::chrono::milliseconds(50));
            if (!told && t && Bench::synchronized(*t) && t->entryCount() == keysFor(vias)) {
               told = ::write(ready[1], "r", 1) == 1;
            }
         }
      }
      ::close(ready[1]);
      agent = std::make_unique<Bench::Mounted>();
      table = Vela::dynamicPtrCast<TT::LdpTunnelTable>(
          agent->mounter.mountWriter(TT::TunnelTableIdentifier::ldpTunnelTable));
      if (!table) std::abort();
      const uint32_t keys = keysFor(vias);
      for (uint32_t k = 1; k <= keys;) {
         agent->loop.post([&] {
            for (int i = 0; i < kBatch && k <= keys; ++i, ++k) {
               entry.tunnelIdIs(tid(k));
               table->entryIs(entry);
            }
         });
         agent->loop.runOnce(std::chrono::milliseconds(0));
      }
      agent->loop.runOnce(std::chrono::milliseconds(0));
      char c;
      if (::read(ready[0], &c, 1) != 1) std::abort();
      ::close(ready[0]);
   }
   ~Setup() {
      ::kill(reader, SIGKILL);
      ::waitpid(reader, nullptr, 0);
      floor.reset();
      table = nullptr;
      agent.reset();
      std::filesystem::remove_all(root);
   }
   uint32_t valueLength() const { return entry.serializeLen(); }
};

// One setup at a time (the benchmarks of one via count run together).
std::unique_ptr<Setup> current;
Setup& setup(int vias) {
   if (!current || current->vias != vias) {
      current.reset();
      current = std::make_unique<Setup>(vias);
   }
   return *current;
}

void BM_LdpReplace(benchmark::State& state) {
   Setup& s = setup(int(state.range(0)));
   const uint32_t keys = keysFor(s.vias);
   std::mt19937_64 rng(1);
   while (state.KeepRunningBatch(kBatch)) {
      s.agent->loop.post([&] {
         for (int i = 0; i < kBatch; ++i) {
            s.entry.tunnelIdIs(tid(1 + rng() % keys));
            s.entry.igpMetricIs(++s.metric);
            s.table->entryIs(s.entry);
         }
      });
      s.agent->loop.runOnce(std::chrono::milliseconds(0));
   }
   state.counters["bytes"] = double(s.valueLength());
}

void BM_LdpMemoryFloor(benchmark::State& state) {
   Setup& s = setup(int(state.range(0)));
   if (!s.floor) {
      s.floor = std::make_unique<Bench::MemoryFloor>(
          Bench::FloorRegions::of(*s.table->store()->writer(), s.valueLength()), s.root);
   }
   while (state.KeepRunningBatch(256)) benchmark::DoNotOptimize(s.floor->chained(256));
   state.counters["slab_entry"] = s.floor->regions().entrySize;
}

void BM_LdpLmdbPut(benchmark::State& state) {
   const int vias = int(state.range(0));
   const uint32_t keys = keysFor(vias);
   TT::LdpTunnelTableEntry e = entryWith(vias);
   std::vector<uint8_t> buf(e.serializeLen());
   const std::string dir = Bench::freshRoot("ldp-lmdb");
   MDB_env* env;
   MDB_dbi dbi;
   mdb_env_create(&env);
   mdb_env_set_mapsize(env, size_t(8) << 30);
   if (mdb_env_open(env, dir.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0644) != 0) std::abort();
   MDB_txn* txn;
   mdb_txn_begin(env, nullptr, 0, &txn);
   mdb_dbi_open(txn, nullptr, 0, &dbi);
   for (uint64_t k = 1; k <= keys; ++k) {
      e.tunnelIdIs(tid(k));
      e.serialize(buf.data());
      MDB_val key{sizeof k, &k}, val{buf.size(), buf.data()};
      mdb_put(txn, dbi, &key, &val, 0);
   }
   mdb_txn_commit(txn);
   std::mt19937_64 rng(1);
   uint32_t metric = 1;
   for (auto _ : state) {
      const uint64_t k = 1 + rng() % keys;
      e.tunnelIdIs(tid(k));
      e.igpMetricIs(++metric);
      e.serialize(buf.data());
      mdb_txn_begin(env, nullptr, 0, &txn);
      MDB_val key{sizeof k, const_cast<uint64_t*>(&k)}, val{buf.size(), buf.data()};
      mdb_put(txn, dbi, &key, &val, 0);
      mdb_txn_commit(txn);
   }
   mdb_env_close(env);
   std::filesystem::remove_all(dir);
}

BENCHMARK(BM_LdpReplace)->Arg(1);
BENCHMARK(BM_LdpMemoryFloor)->Arg(1);
BENCHMARK(BM_LdpLmdbPut)->Arg(1);
BENCHMARK(BM_LdpReplace)->Arg(16);
BENCHMARK(BM_LdpMemoryFloor)->Arg(16);
BENCHMARK(BM_LdpLmdbPut)->Arg(16);
BENCHMARK(BM_LdpReplace)->Arg(600);
BENCHMARK(BM_LdpMemoryFloor)->Arg(600);
BENCHMARK(BM_LdpLmdbPut)->Arg(600);

std::map<std::string, double> nsPerOp;     // wall clock
std::map<std::string, double> cpuNsPerOp;  // this process's CPU time

class RatioReporter : public benchmark::ConsoleReporter {
  public:
   void ReportRuns(const std::vector<Run>& runs) override {
      for (const Run& r : runs) {
         if (r.iterations > 0) {
            nsPerOp[r.benchmark_name()] = r.GetAdjustedRealTime();
            cpuNsPerOp[r.benchmark_name()] = r.GetAdjustedCPUTime();
         }
      }
      ConsoleReporter::ReportRuns(runs);
   }
};

}  // namespace

int main(int argc, char** argv) {
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
   RatioReporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   current.reset();  // stops the reader agent
   // CPU time too: the machine may be shared, and every peer here runs in this process (the
   // reader agent's own CPU is not counted in either).
   for (const auto* t : {&nsPerOp, &cpuNsPerOp}) {
      std::printf("\nreplace (entryIs, reader attached) per via count, %s:\n",
                  t == &nsPerOp ? "wall clock" : "CPU time");
      for (int vias : {1, 16, 600}) {
         const auto n = [&](const char* b) {
            auto it = t->find(std::string(b) + "/" + std::to_string(vias));
            return it == t->end() ? 0.0 : it->second;
         };
         const double ours = n("BM_LdpReplace"), lmdb = n("BM_LdpLmdbPut"),
                      floor = n("BM_LdpMemoryFloor");
         if (ours <= 0) continue;
         std::printf(
             "  %3d vias, %7u keys: %8.0f ns; LMDB put %8.0f ns (%.1fx, >= 5 wanted); memory floor "
             "%6.0f ns (replace/floor %.2f, <= 1.5 wanted)\n",
             vias, keysFor(vias), ours, lmdb, lmdb / ours, floor, floor > 0 ? ours / floor : 0.0);
      }
   }
   benchmark::Shutdown();
   return 0;
}
