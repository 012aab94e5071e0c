// The store's writer and reader against their peers, measured in the same run:
//   writer replace of a 1-via value in a 1,000,000-key table  vs  LMDB put (one write txn per put,
//   MDB_NOSYNC | MDB_WRITEMAP)  vs  Redis HSET + PUBLISH (a private redis-server on a unix socket)
//   vs  the memory floor (MemoryFloor.h: the same random lines over regions of the table's sizes,
//   no other work; also with slab entries as small as the value, to show what the size class
//   costs); insert and remove; reader lookup + copy vs LMDB get in a read txn; the writer's longest
//   stall of critical-priority tasks while the table grows to 1,000,000 keys, with the page faults
//   taken inside it; shared-memory bytes per 1-via entry. The LDP table's own figures are in
//   LdpTableBench.
// Ratios are printed after the benchmarks. Nothing here is asserted.
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <lmdb.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "Loom/Clock.h"
#include "Loom/EventLoop.h"
#include "MemoryFloor.h"
#include "store/DockMap.h"
#include "testing/WriterTestValue.h"

namespace {

using DockTest::Value;
using Map = Dock::DockMap<uint64_t, Value, DockTest::KeyOf>;
constexpr uint64_t kKeys = 1000000;
std::map<std::string, double> nsPerOp;     // benchmark -> wall-clock ns per operation
std::map<std::string, double> cpuNsPerOp;  // benchmark -> CPU ns per operation (this process)
double bytesPerEntry = 0;

std::string benchRoot() {
   static std::string root = [] {
      char tmpl[] = "/dev/shm/storebench.XXXXXX";
      const char* d = mkdtemp(tmpl);
      if (!d) {
         char t2[] = "/tmp/storebench.XXXXXX";
         d = mkdtemp(t2);
      }
      setenv("TUNNEL_SHMEM_ROOT", d, 1);
      return std::string(d);
   }();
   return root;
}

Dock::DockConfig config() {
   Dock::DockConfig c;
   c.typeName = "DockTest::Value";
   c.valueSize = sizeof(Value);
   c.minSlots = 1024;
   c.maxSlots = 1u << 21;
   c.maxValueSize = DockTest::kMaxValueSize;
   c.heraldCapacity = 1u << 16;
   return c;
}

// The 1,000,000-key table, built once, by writes in batches of 64 run as tasks of a Loom loop on
// this thread. A critical-priority probe task re-posts itself each time it runs, so it runs before
// every batch and at every yield the writer makes inside a long step (bucket growth, slot file
// growth, slab growth); the longest gap between two of its runs is the writer's longest stall of
// the process's critical work while the table grows.
// The gap is taken twice: in wall-clock time, and in the writer thread's own CPU time, which is
// what the writer controls (on a loaded machine wall-clock gaps also hold preemption).
struct Stall {
   double us = 0;
   uint64_t fromKey = 0;  // keys written when the gap opened
   uint64_t atKey = 0;    // and when it closed
   long faults = 0;       // page faults the writer thread took inside the gap
   std::string during;    // which growth step ran inside the gap
};
Stall longestStall;     // wall clock
Stall longestCpuStall;  // writer thread CPU time

double threadCpuUs() {
   timespec ts;
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
   return double(ts.tv_sec) * 1e6 + double(ts.tv_nsec) / 1e3;
}

long threadFaults() {
   rusage ru{};
   getrusage(RUSAGE_THREAD, &ru);
   return ru.ru_minflt + ru.ru_majflt;
}

Map& table() {
   static std::unique_ptr<Map> map = [] {
      benchRoot();
      auto m = std::make_unique<Map>();
      m->initWriter("bench/store/entry", config());
      Loom::EventLoop loop;
      uint64_t k = 0;
      bool done = false;
      // Calibrates the clock before the first gap opens (the first call takes about 20 ms).
      const double usPerTick = 1e6 / Loom::Clock::ticksPerSecond();
      uint64_t last = Loom::Clock::ticks();
      double lastCpu = threadCpuUs();
      long lastFaults = threadFaults();
      uint64_t lastKey = 0;
      // A step's sizes change when it starts. A gap's steps are those whose sizes changed inside
      // it, and the one under way when it opened: a probe run from a yield inside a batch's
      // write is inside a step, the one whose sizes differ from the batch's start.
      struct Sizes {
         uint32_t capacity, buckets;
      };
      struct Steps {
         bool slotFile = false, buckets = false;
      };
      const auto sizesNow = [&] { return Sizes{m->writer()->capacity(), m->writer()->buckets()}; };
      const auto stepsSince = [&](Sizes then) {
         const Sizes now = sizesNow();
         return Steps{now.capacity != then.capacity, now.buckets != then.buckets};
      };
      Sizes before = sizesNow(), atBatch = before;
      bool inBatch = false;
      Steps stepsAtOpen;
      std::function<void()> probe = [&] {
         const uint64_t now = Loom::Clock::ticks();
         const double us = double(now - last) * usPerTick;
         const double cpuUs = threadCpuUs() - lastCpu;
         if (us > longestStall.us || cpuUs > longestCpuStall.us) {
            const Steps steps = stepsSince(before);
            std::string during;
            if (steps.slotFile || stepsAtOpen.slotFile) during += " slot-file growth";
            if (steps.buckets || stepsAtOpen.buckets) during += " bucket growth";
            if (during.empty()) during = " writes (slab growth or none)";
            const long faults = threadFaults() - lastFaults;
            if (us > longestStall.us) longestStall = Stall{us, lastKey, k, faults, during};
            if (cpuUs > longestCpuStall.us)
               longestCpuStall = Stall{cpuUs, lastKey, k, faults, during};
         }
         before = sizesNow();
         stepsAtOpen = inBatch ? stepsSince(atBatch) : Steps{};
         lastKey = k;
         lastFaults = threadFaults();
         last = Loom::Clock::ticks();
         lastCpu = threadCpuUs();
         if (!done) loop.postCritical(probe);
      };
      std::function<void()> batch = [&] {
         inBatch = true;
         atBatch = sizesNow();
         for (int i = 0; i < 64 && k < kKeys; ++i, ++k) m->safeWrite(Value(k, 0, 1), false);
         inBatch = false;
         if (k < kKeys) {
            loop.post(batch);
         } else {
            done = true;
         }
      };
      loop.postCritical(probe);
      loop.post(batch);
      while (!done) loop.runOnce(std::chrono::nanoseconds(0));
      m->flush();
      uint64_t bytes = 0;
      for (auto& e : std::filesystem::directory_iterator(m->writer()->directory())) {
         struct stat st;
         if (::stat(e.path().c_str(), &st) == 0) bytes += uint64_t(st.st_blocks) * 512;
      }
      bytesPerEntry = double(bytes) / double(kKeys);
      return m;
   }();
   return *map;
}

void BM_StoreReplace1Via(benchmark::State& state) {
   Map& m = table();
   std::mt19937_64 rng(1);
   uint32_t version = 1;
   for (auto _ : state) {
      m.safeWrite(Value(rng() % kKeys, version++, 1), false);
   }
   m.flush();
}
BENCHMARK(BM_StoreReplace1Via);

// The memory floor of a replacement (MemoryFloor.h): the same random lines over regions of the
// same sizes as the table's, no other work.
Bench::MemoryFloor& memoryFloor() {
   static Bench::MemoryFloor floor(
       Bench::FloorRegions::of(*table().writer(), Value(0, 0, 1).serializeLen()), benchRoot());
   return floor;
}

void BM_MemoryFloorChained(benchmark::State& state) {
   Bench::MemoryFloor& f = memoryFloor();
   while (state.KeepRunningBatch(256)) benchmark::DoNotOptimize(f.chained(256));
}
BENCHMARK(BM_MemoryFloorChained);

// The same floor with the value's slab entries only as large as the value (rounded to 8 bytes)
// instead of its size class's 1,456: how much of the floor is the slab file's size (its page
// walks).
void BM_MemoryFloorCompactSlab(benchmark::State& state) {
   static Bench::MemoryFloor floor = [] {
      Bench::FloorRegions r = memoryFloor().regions();
      r.entrySize = (Value(0, 0, 1).serializeLen() + Tessel::kEntryOverhead + 7) / 8 * 8;
      return Bench::MemoryFloor(r, benchRoot());
   }();
   while (state.KeepRunningBatch(256)) benchmark::DoNotOptimize(floor.chained(256));
}
BENCHMARK(BM_MemoryFloorCompactSlab);

void BM_MemoryFloorIndependent(benchmark::State& state) {
   Bench::MemoryFloor& f = memoryFloor();
   while (state.KeepRunningBatch(256)) benchmark::DoNotOptimize(f.independent(256));
}
BENCHMARK(BM_MemoryFloorIndependent);

// The value type's own share of a replacement: building and serializing the same 1-via value
// (its via bytes and its one-at-a-time checksum) into a private buffer, nothing shared. Every
// peer below pays it too.
void BM_ValueSerialize1Via(benchmark::State& state) {
   std::mt19937_64 rng(1);
   uint32_t version = 1;
   std::vector<uint8_t> buf(Value(0, 0, 1).serializeLen());
   for (auto _ : state) {
      Value(rng() % kKeys, version++, 1).serialize(buf.data());
      benchmark::DoNotOptimize(buf.data());
      benchmark::ClobberMemory();
   }
}
BENCHMARK(BM_ValueSerialize1Via);

void BM_StoreInsertRemove(benchmark::State& state) {
   Map& m = table();
   uint64_t k = kKeys;
   for (auto _ : state) {
      m.safeWrite(Value(k, 1, 1), false);
      m.safeRemove(k);
      ++k;
   }
   m.flush();
}
BENCHMARK(BM_StoreInsertRemove);

void BM_StoreReaderLookupCopy(benchmark::State& state) {
   table();
   Loom::EventLoop loop;
   Map reader;
   if (!reader.initReader("bench/store/entry", {}, loop)) {
      state.SkipWithError("reader attach failed");
      return;
   }
   std::mt19937_64 rng(2);
   for (auto _ : state) {
      auto v = reader.lookup(rng() % kKeys);
      benchmark::DoNotOptimize(v);
   }
}
BENCHMARK(BM_StoreReaderLookupCopy);

struct Lmdb {
   MDB_env* env = nullptr;
   MDB_dbi dbi;
   Lmdb() {
      const std::string dir = benchRoot() + "/lmdb";
      std::filesystem::create_directories(dir);
      mdb_env_create(&env);
      mdb_env_set_mapsize(env, size_t(4) << 30);
      mdb_env_open(env, dir.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0644);
      MDB_txn* txn;
      mdb_txn_begin(env, nullptr, 0, &txn);
      mdb_dbi_open(txn, nullptr, 0, &dbi);
      std::vector<uint8_t> buf(Value(0, 0, 1).serializeLen());
      for (uint64_t k = 0; k < kKeys; ++k) {
         Value(k, 0, 1).serialize(buf.data());
         MDB_val key{sizeof k, &k}, val{buf.size(), buf.data()};
         mdb_put(txn, dbi, &key, &val, 0);
      }
      mdb_txn_commit(txn);
   }
};
Lmdb& lmdb() {
   static Lmdb l;
   return l;
}

void BM_LmdbPut1Via(benchmark::State& state) {
   Lmdb& l = lmdb();
   std::mt19937_64 rng(1);
   uint32_t version = 1;
   std::vector<uint8_t> buf(Value(0, 0, 1).serializeLen());
   for (auto _ : state) {
      uint64_t k = rng() % kKeys;
      Value(k, version++, 1).serialize(buf.data());
      MDB_txn* txn;
      mdb_txn_begin(l.env, nullptr, 0, &txn);
      MDB_val key{sizeof k, &k}, val{buf.size(), buf.data()};
      mdb_put(txn, l.dbi, &key, &val, 0);
      mdb_txn_commit(txn);
   }
}
BENCHMARK(BM_LmdbPut1Via);

void BM_LmdbGetCopy(benchmark::State& state) {
   Lmdb& l = lmdb();
   std::mt19937_64 rng(2);
   for (auto _ : state) {
      uint64_t k = rng() % kKeys;
      MDB_txn* txn;
      mdb_txn_begin(l.env, nullptr, MDB_RDONLY, &txn);
      MDB_val key{sizeof k, &k}, val;
      if (mdb_get(txn, l.dbi, &key, &val) == 0) {
         Value v;
         v.deserialize(val.mv_data, uint32_t(val.mv_size));
         benchmark::DoNotOptimize(v);
      }
      mdb_txn_abort(txn);
   }
}
BENCHMARK(BM_LmdbGetCopy);

// A private redis-server on a unix socket, stopped at exit.
struct Redis {
   pid_t pid = -1;
   redisContext* ctx = nullptr;
   std::string sock;
   Redis() {
      sock = benchRoot() + "/redis.sock";
      pid = fork();
      if (pid == 0) {
         execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", sock.c_str(),
                "--save", "", "--appendonly", "no", (char*)nullptr);
         _exit(127);
      }
      for (int i = 0; i < 200 && !ctx; ++i) {
         std::this_thread::sleep_for(std::chrono::milliseconds(10));
         redisContext* c = redisConnectUnix(sock.c_str());
         if (c && !c->err) {
            ctx = c;
         } else if (c) {
            redisFree(c);
         }
      }
   }
   ~Redis() {
      if (ctx) redisFree(ctx);
      if (pid > 0) {
         kill(pid, SIGTERM);
         waitpid(pid, nullptr, 0);
      }
   }
};
Redis& redis() {
   static Redis r;
   return r;
}

void BM_RedisHsetPublish1Via(benchmark::State& state) {
   Redis& r = redis();
   if (!r.ctx) {
      state.SkipWithError("redis-server did not start");
      return;
   }
   std::mt19937_64 rng(1);
   uint32_t version = 1;
   std::vector<uint8_t> buf(Value(0, 0, 1).serializeLen());
   for (auto _ : state) {
      uint64_t k = rng() % kKeys;
      Value(k, version++, 1).serialize(buf.data());
      auto* a = static_cast<redisReply*>(
          redisCommand(r.ctx, "HSET entry %b %b", &k, sizeof k, buf.data(), buf.size()));
      freeReplyObject(a);
      auto* b = static_cast<redisReply*>(redisCommand(r.ctx, "PUBLISH entry %b", &k, sizeof k));
      freeReplyObject(b);
   }
}
BENCHMARK(BM_RedisHsetPublish1Via);

class RatioReporter : public benchmark::ConsoleReporter {
  public:
   void ReportRuns(const std::vector<Run>& runs) override {
      for (const Run& r : runs) {
         if (r.iterations > 0) {
            nsPerOp[r.benchmark_name()] = r.GetAdjustedRealTime();  // in the run's time unit (ns)
            cpuNsPerOp[r.benchmark_name()] = r.GetAdjustedCPUTime();
         }
      }
      ConsoleReporter::ReportRuns(runs);
   }
};

// Wall-clock ratios by default; CPU-time ratios (cpu = true) only for in-process peers, whose
// whole cost is this process's CPU time, and useful when the machine is loaded.
void ratio(const char* what, const char* peer, const char* ours, bool cpu = false) {
   const auto& t = cpu ? cpuNsPerOp : nsPerOp;
   auto p = t.find(peer), o = t.find(ours);
   if (p != t.end() && o != t.end() && o->second > 0) {
      std::printf("%-44s %8.1fx  (%s %.0f ns, %s %.0f ns)\n", what, p->second / o->second, peer,
                  p->second, ours, o->second);
   }
}

}  // namespace

int main(int argc, char** argv) {
   benchmark::Initialize(&argc, argv);
   RatioReporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   std::printf("\n");
   ratio("writer replace vs LMDB put", "BM_LmdbPut1Via", "BM_StoreReplace1Via");
   ratio("writer replace vs LMDB put (CPU time)", "BM_LmdbPut1Via", "BM_StoreReplace1Via", true);
   ratio("writer replace vs memory floor, chained (>= 0.67 wanted)", "BM_MemoryFloorChained",
         "BM_StoreReplace1Via");
   ratio("writer replace vs memory floor, chained (CPU time)", "BM_MemoryFloorChained",
         "BM_StoreReplace1Via", true);
   ratio("floor with compact slab entries vs floor (CPU time)", "BM_MemoryFloorChained",
         "BM_MemoryFloorCompactSlab", true);
   ratio("writer replace vs memory floor, independent", "BM_MemoryFloorIndependent",
         "BM_StoreReplace1Via");
   if (nsPerOp.count("BM_MemoryFloorChained")) {
      const Bench::FloorRegions& r = memoryFloor().regions();
      std::printf(
          "   floor regions: %d random lines an operation over a %u-head mirror, %u slots and "
          "records of %u bytes, %u slab entries of %u bytes\n",
          Bench::MemoryFloor::kRandomLines, r.buckets, r.slots, r.recordSize, r.entries,
          r.entrySize);
   }
   ratio("writer replace vs Redis HSET+PUBLISH", "BM_RedisHsetPublish1Via", "BM_StoreReplace1Via");
   ratio("value serialization's share of a replace (CPU time)", "BM_ValueSerialize1Via",
         "BM_StoreReplace1Via", true);
   ratio("reader lookup+copy vs LMDB get", "BM_LmdbGetCopy", "BM_StoreReaderLookupCopy");
   ratio("reader lookup+copy vs LMDB get (CPU time)", "BM_LmdbGetCopy", "BM_StoreReaderLookupCopy",
         true);
   std::printf("writer's longest critical-task stall while growing to %llu keys:\n",
               (unsigned long long)kKeys);
   for (const auto& [what, st] : {std::pair{"in its own CPU time:", &longestCpuStall},
                                  std::pair{"wall clock:         ", &longestStall}}) {
      std::printf("   %s %.1f us (keys %llu to %llu, %ld page faults, during:%s)\n", what, st->us,
                  (unsigned long long)st->fromKey, (unsigned long long)st->atKey, st->faults,
                  st->during.c_str());
   }
   std::printf("shared-memory bytes per 1-via entry at %llu keys: %.1f\n",
               (unsigned long long)kKeys, bytesPerEntry);
   std::filesystem::remove_all(benchRoot());
   benchmark::Shutdown();
   return 0;
}
