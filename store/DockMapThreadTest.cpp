// Writer and readers as threads of one process, so that ThreadSanitizer sees every access of the
// publishing and copying protocols (build with -DTUNNEL_SANITIZE=thread). Each reader thread runs
// its own event loop and key-shadowing DockMap; the writer churns values of 1..600 vias, growing
// and shrinking the table, and flushes in batches.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

#include "Loom/EventLoop.h"
#include "store/DockMap.h"
#include "store/StoreTestSupport.h"
#include "testing/TempRoot.h"

namespace {

using DockTest::Value;
using Map = Dock::DockMap<uint64_t, Value, DockTest::KeyOf>;

TEST(DockMapThreads, ReadersAsThreadsEndEqualToTheWriterUnderChurn) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   Testing::TempRoot root;
   Map writer;
   writer.initWriter("test/threads/entry", DockTest::tableConfig(16, 1 << 14, 128));
   std::map<uint64_t, Value> truth;
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
   const uint32_t total = 6000;
   for (uint32_t i = 0; i < total; ++i) {
      const uint64_t h = DockTest::mix(i);
      const bool shrinkPhase = i >= 2500 && i < 4000;
      const uint64_t key = 1 + (shrinkPhase ? (i - 2500) % 1000 : h % 1000);
      const bool remove = shrinkPhase ? h % 10 != 0 : h % 5 == 0;
      if (remove) {
         writer.safeRemove(key);
         truth.erase(key);
      } else {
         const uint32_t vias = h % 16 == 0 ? 1 + uint32_t((h >> 8) % 600) : 1 + uint32_t(h % 4);
         Value v(key, i, vias);
         writer.safeWrite(v, false);
         truth[key] = v;
      }
      if (i % 50 == 49) writer.flush();
   }
   writer.flush();
   done.store(true, std::memory_order_release);
   for (auto& t : readers) t.join();
   EXPECT_EQ(bad.load(), 0);
   for (int r = 0; r < kReaders; ++r) EXPECT_EQ(mirrors[r], truth) << "reader " << r;
   EXPECT_GT(writer.writer()->writerCounters().slotShrinks, 0u);
}

}  // namespace
