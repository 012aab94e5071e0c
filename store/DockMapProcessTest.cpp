// The writer and key-shadowing readers (which map the files read-only) in separate processes:
// random churn of values 1..600 vias long, readers joining midway and paused until lapped, the
// table growing and shrinking under them, the writer SIGKILLed at random points and restarted.
//
// The churn is a pure function of (seed, op index): op i writes or removes one key, and a written
// value carries i as its version, so any process can replay ops 0..n to know the table's content.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "Loom/EventLoop.h"
#include "store/DockMap.h"
#include "testing/StoreTestSupport.h"
#include "testing/TempRoot.h"

namespace {

using DockTest::Value;
using Map = Dock::DockMap<uint64_t, Value, DockTest::KeyOf>;
using Clock = std::chrono::steady_clock;

constexpr const char* kTable = "test/table/entry";

// A small ring: a paused reader gets lapped.
const Dock::DockConfig kConfig = DockTest::tableConfig(16, 1 << 16, 256);

struct Op {
   bool remove;
   Value value;
};

// Phases of 10000 ops: grow to ~2000 keys; sweep removes over every key (the table shrinks);
// churn on a small key space.
Op opAt(uint64_t seed, uint32_t i) {
   const uint64_t h = DockTest::mix(seed * 1000003 + i);
   const uint32_t phase = i % 10000;
   const uint32_t vias =
       (h >> 40) % 16 == 0 ? 1 + uint32_t((h >> 8) % 600) : 1 + uint32_t((h >> 8) % 6);
   if (phase >= 4000 && phase < 6500) {
      const uint64_t key = 1 + (phase - 4000) % 2000;
      return Op{(h >> 20) % 20 != 0, Value(key, i, vias)};
   }
   const uint64_t key = 1 + (h % (phase >= 6500 ? 300 : 2000));
   return Op{(h >> 20) % 5 == 0, Value(key, i, vias)};
}

std::map<uint64_t, Value> replay(uint64_t seed, uint32_t ops) {
   std::map<uint64_t, Value> m;
   for (uint32_t i = 0; i < ops; ++i) {
      Op op = opAt(seed, i);
      if (op.remove) {
         m.erase(op.value.key);
      } else {
         m[op.value.key] = op.value;
      }
   }
   return m;
}

void apply(Map& w, const Op& op) {
   if (op.remove) {
      w.safeRemove(op.value.key);
   } else {
      w.safeWrite(op.value, false);
   }
}

// Shared between the test and its children (MAP_SHARED | MAP_ANONYMOUS).
struct Shared {
   std::atomic<uint32_t> done{0};                   // writer finished, final state flushed
   std::atomic<uint32_t> committed{0};              // ops completed by the current writer
   std::atomic<uint32_t> pause{0};                  // the paused reader waits while this is 1
   std::atomic<uint64_t> lapped[3], reattaches[3];  // per reader, when it ended
};

Shared* makeShared() {
   void* p =
       mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
   return new (p) Shared();
}

// This process's mappings of the table's files, as lines of /proc/self/maps.
std::set<std::string> tableMappings() {
   std::set<std::string> lines;
   std::ifstream maps("/proc/self/maps");
   for (std::string line; std::getline(maps, line);) {
      if (line.find(std::string("/") + kTable + "/") != std::string::npos) lines.insert(line);
   }
   return lines;
}

// A reader: mirrors the table from its notifications, checks every value it is handed and that it
// maps the files read-only, and ends with the replayed content. Returns 0 when all holds.
int runReader(Shared* shared, int id, uint64_t seed, uint32_t totalOps, bool pauseFirst,
              int timeoutSeconds = 60) try {
   Loom::EventLoop loop;
   std::map<uint64_t, Value> mirror;
   uint32_t bad = 0;
   Region::Notify<uint64_t, Value> n;
   auto reader = std::make_unique<Map>();
   n.onValue = [&](const Value& v) {
      // Deserialization already checked the checksum and the via bytes; the version says which
      // write it was: it must be a write of this key.
      const Op op = opAt(seed, v.version);
      if (op.remove || !(op.value == v)) ++bad;
      mirror[v.key] = v;
   };
   n.onKeyRemoved = [&](const uint64_t& k) { mirror.erase(k); };
   const auto deadline = Clock::now() + std::chrono::seconds(timeoutSeconds);
   const auto inherited = tableMappings();  // a writer's mappings come along with the fork
   for (;;) {
      reader->corruptionHookIs([&](const std::string&) { bad += 1000; });
      if (reader->initReader(kTable, n, loop)) break;
      if (Clock::now() > deadline) return 10;
      reader = std::make_unique<Map>();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
   }
   if (pauseFirst) {
      while (shared->pause.load() == 1 && Clock::now() < deadline) {
         std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
   }
   for (;;) {
      loop.runOnce(std::chrono::milliseconds(5));
      if (shared->done.load() && reader->quiesced()) {
         // One more turn to drain anything posted with the last wake.
         loop.runOnce(std::chrono::milliseconds(20));
         if (reader->quiesced()) break;
      }
      if (Clock::now() > deadline) return 11;
   }
   int mapped = 0;
   for (const std::string& line : tableMappings()) {
      if (inherited.count(line)) continue;
      ++mapped;
      if (line[line.find(' ') + 2] == 'w') return 15;  // perms: "r--s" when read-only
   }
   if (mapped == 0) return 16;
   const auto& c = reader->reader()->readerCounters();
   shared->lapped[id].store(c.lapped);
   shared->reattaches[id].store(c.reattaches);
   // totalOps 0: the writer's final op count, known once it is done.
   if (mirror != replay(seed, totalOps ? totalOps : shared->committed.load())) return 12;
   return bad == 0 ? 0 : 13;
} catch (const std::exception& e) {
   fprintf(stderr, "reader %d: %s\n", id, e.what());
   return 14;
}

TEST(DockMapProcess, ForkedReadersSeeOnlyWrittenValuesAndEndEqualToTheWriter) {
   Testing::TempRoot root;
   Shared* shared = makeShared();
   const uint64_t seed = 42;
   const uint32_t total = 14000;
   shared->pause.store(1);
   Map writer;
   writer.initWriter(kTable, kConfig);
   std::vector<pid_t> readers;
   readers.push_back(Testing::forkChild([&] { return runReader(shared, 0, seed, total, false); }));
   readers.push_back(Testing::forkChild([&] { return runReader(shared, 1, seed, total, true); }));
   uint32_t maxCapacity = 0;
   for (uint32_t i = 0; i < total; ++i) {
      apply(writer, opAt(seed, i));
      if (i % 64 == 63) writer.flush();
      if (i == total / 3) {
         // A reader that joins midway.
         readers.push_back(
             Testing::forkChild([&] { return runReader(shared, 2, seed, total, false); }));
      }
      if (i == total / 2) shared->pause.store(0);  // the paused reader has been lapped by now
      maxCapacity = std::max(maxCapacity, writer.writer()->capacity());
   }
   writer.flush();
   shared->done.store(1);
   for (pid_t p : readers) EXPECT_EQ(Testing::waitChild(p), 0);
   EXPECT_GT(maxCapacity, 1024u);
   EXPECT_GT(writer.writer()->writerCounters().slotShrinks, 0u);
   EXPECT_GT(shared->lapped[1].load(), 0u);
}

// A writer process churns and is SIGKILLed at a random moment, many times. Each restarted writer
// must re-attach (never re-format) holding exactly the ops it had completed (the one in flight may
// have landed) and continue. A reader joining after two kills must follow every restart (often
// cutting its resync short) without a restart of its own or a torn value, and end equal.
TEST(DockMapProcess, ReaderFollowsAWriterKilledAndRestartedManyTimes) {
   Testing::TempRoot root;
   Shared* shared = makeShared();
   const uint64_t seed = 7;
   const uint32_t total = 1u << 30;  // the writers never run out of ops
   std::mt19937 rng(1234);
   const int kKills = 10;
   uint32_t reached = 0;
   pid_t readerPid = -1;
   for (int round = 0; round <= kKills; ++round) {
      const bool last = round == kKills;
      const pid_t w = Testing::forkChild([&] {
         Spoor::Capture cap;
         Map writer;
         writer.initWriter(kTable, kConfig);
         const uint32_t c = shared->committed.load();
         if (round > 0) {
            if (writer.mountStatus() != uint32_t(Dock::MountStatus::kReattached)) return 20;
            if (cap.contains("will be lost")) return 21;
         }
         // Exactly ops [0, c), or [0, c] when the op in flight had landed.
         const auto a = replay(seed, c);
         const auto b = replay(seed, c + 1);
         std::map<uint64_t, Value> have;
         for (auto& [k, v] : b) {
            if (auto got = writer.lookup(k)) have[k] = *got;
         }
         for (auto& [k, v] : a) {
            if (auto got = writer.lookup(k)) have[k] = *got;
         }
         if (writer.members() != have.size()) return 22;
         if (have != a && have != b) return 23;
         if (last) {
            // The final state is the replay of `c` ops: redo the op in flight if it landed.
            if (have == b) shared->committed.store(c + 1);
            writer.flush();
            shared->done.store(1);
            return 0;
         }
         for (uint32_t i = c; i < total; ++i) {
            apply(writer, opAt(seed, i));
            shared->committed.store(i + 1);
            if (i % 32 == 31) writer.flush();
         }
         return 0;
      });
      if (!last) {
         // Odd rounds kill at a random moment (often inside the restart's recovery); even ones
         // after a random number of ops, so kills land inside writes however slow the machine.
         if (round % 2 == 0) {
            const uint32_t target = shared->committed.load() + 16 + rng() % 64;
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (shared->committed.load() < target &&
                   std::chrono::steady_clock::now() < deadline) {
               std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
         }
         std::this_thread::sleep_for(std::chrono::microseconds(rng() % 20000));
         kill(w, SIGKILL);
         EXPECT_EQ(Testing::waitChild(w), 128 + SIGKILL);
      } else {
         EXPECT_EQ(Testing::waitChild(w), 0);
      }
      if (round == 2) {
         // A reader joins after a couple of kills and follows every later restart.
         readerPid = Testing::forkChild([&] { return runReader(shared, 0, seed, 0, false, 120); });
      }
      reached = shared->committed.load();
   }
   EXPECT_GE(reached, uint32_t(kKills / 2) * 16);
   EXPECT_EQ(Testing::waitChild(readerPid), 0);
   EXPECT_GT(shared->reattaches[0].load(), 0u);
}

// The store's one test of writer and readers as threads over the same files (the threaded case
// ThreadSanitizer checks): each reader thread runs its own event loop and DockMap; the writer
// flushes in batches.
TEST(DockMapThreads, ReadersAsThreadsEndEqualToTheWriterUnderChurn) {
   Testing::TempRoot root;
   Map writer;
   writer.initWriter("test/threads/entry", DockTest::tableConfig(16, 1 << 14, 128));
   std::atomic<bool> done{false};
   constexpr int kReaders = 2;
   std::map<uint64_t, Value> mirrors[kReaders];
   std::atomic<int> bad{0};
   std::vector<std::thread> readers;
   for (int r = 0; r < kReaders; ++r) {
      readers.emplace_back([&, r] {
         Loom::EventLoop loop;
         Map reader;
         Region::Notify<uint64_t, Value> n;
         n.onValue = [&](const Value& v) { mirrors[r][v.key] = v; };
         n.onKeyRemoved = [&](const uint64_t& k) { mirrors[r].erase(k); };
         reader.corruptionHookIs([&](const std::string&) { bad.fetch_add(1); });
         ASSERT_TRUE(reader.initReader("test/threads/entry", n, loop));
         const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
         while (std::chrono::steady_clock::now() < deadline) {
            loop.runOnce(std::chrono::milliseconds(2));
            if (done.load(std::memory_order_acquire) && reader.quiesced()) {
               loop.runOnce(std::chrono::milliseconds(10));
               if (reader.quiesced()) return;
            }
         }
         bad.fetch_add(100);
      });
   }
   // Through the growth phase and the removal sweep (the table shrinks).
   const uint64_t seed = 3;
   const uint32_t total = 6500;
   for (uint32_t i = 0; i < total; ++i) {
      apply(writer, opAt(seed, i));
      if (i % 50 == 49) writer.flush();
   }
   writer.flush();
   done.store(true, std::memory_order_release);
   for (auto& t : readers) t.join();
   EXPECT_EQ(bad.load(), 0);
   for (int r = 0; r < kReaders; ++r) EXPECT_EQ(mirrors[r], replay(seed, total)) << "reader " << r;
   EXPECT_GT(writer.writer()->writerCounters().slotShrinks, 0u);
}

}  // namespace
