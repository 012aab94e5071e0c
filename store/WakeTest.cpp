// Waking readers through the wake directory: readers joining after the writer, killed readers
// whose names the writer removes, a restarted writer finding the readers already there, many
// tables of one process sharing one inotify instance, long paths, and writers on several threads.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "store/HeraldReader.h"
#include "store/HeraldWriter.h"
#include "store/WakeDirectory.h"
#include "store/WakeFanout.h"
#include "store/WakeWatcher.h"
#include "testing/TempRoot.h"

namespace Dock {
namespace {

bool waitReadable(int fd, int ms) {
   pollfd p{fd, POLLIN, 0};
   return ::poll(&p, 1, ms) == 1;
}

bool exists(const std::string& path) {
   struct stat st;
   return ::lstat(path.c_str(), &st) == 0;
}

int inotifyInstances() {
   int n = 0;
   for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ec;
      if (std::filesystem::read_symlink(e.path(), ec).string() == "anon_inode:inotify") ++n;
   }
   return n;
}

TEST(Wake, ReaderJoiningAfterTheWriterIsWokenByTheNextBatch) {
   Testing::TempRoot root;
   HeraldWriter w;
   w.create(root.path(), 5, 64);
   w.post(1);
   w.wake();
   EXPECT_EQ(w.fanout().readers(), 0u);

   HeraldReader r;
   std::string reason;
   ASSERT_TRUE(r.attach(root.path(), 5, reason)) << reason;
   const std::string name = r.wakeName();
   EXPECT_TRUE(Wake::isReaderName(name)) << name;
   EXPECT_EQ(name.substr(0, name.find('-')), std::to_string(::getpid()));
   struct stat st;
   ASSERT_EQ(::stat((root.path() + "/wake").c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 01777u);
   EXPECT_FALSE(waitReadable(r.eventFd(), 0));

   w.post(2);
   w.wake();
   EXPECT_TRUE(w.fanout().hasReader(name));
   ASSERT_TRUE(waitReadable(r.eventFd(), 5000));
   r.drainWake();
   EXPECT_FALSE(waitReadable(r.eventFd(), 0));
   HeraldReader::Entry e;
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   EXPECT_EQ(e.slot, 2u);

   // No batch, no datagram.
   w.wake();
   EXPECT_FALSE(waitReadable(r.eventFd(), 0));

   // Detaching removes the name; the writer forgets it at its next wake without a failed send.
   r.detach();
   EXPECT_FALSE(exists(root.path() + "/wake/" + name));
   w.post(3);
   w.wake();
   EXPECT_EQ(w.fanout().readers(), 0u);
   EXPECT_EQ(w.fanout().counters().removed, 0u);
   EXPECT_EQ(w.fanout().counters().sent, 1u);
}

TEST(Wake, SocketOfAReaderKilledWithSigkillIsRemovedByTheWriter) {
   Testing::TempRoot root;
   HeraldWriter w;
   w.create(root.path(), 7, 64);
   HeraldReader live;
   std::string reason;
   ASSERT_TRUE(live.attach(root.path(), 7, reason)) << reason;
   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   const pid_t child = Testing::forkChild([&] {
      HeraldReader r;
      std::string why;
      if (!r.attach(root.path(), 7, why)) return 2;
      const std::string& n = r.wakeName();
      if (::write(ready[1], n.data(), n.size()) != ssize_t(n.size())) return 3;
      ::pause();
      return 4;
   });
   char buf[64] = {};
   const ssize_t got = ::read(ready[0], buf, sizeof(buf) - 1);
   ASSERT_GT(got, 0);
   const std::string name(buf, size_t(got));
   EXPECT_EQ(name.substr(0, name.find('-')), std::to_string(child));

   w.post(1);
   w.wake();
   EXPECT_TRUE(w.fanout().hasReader(name));
   EXPECT_EQ(w.fanout().readers(), 2u);

   ASSERT_EQ(::kill(child, SIGKILL), 0);
   EXPECT_EQ(Testing::waitChild(child), 128 + SIGKILL);
   // Nobody closed the socket gracefully: its name stays until the writer's send is refused.
   EXPECT_TRUE(exists(root.path() + "/wake/" + name));
   live.drainWake();
   w.post(2);
   w.wake();
   EXPECT_FALSE(exists(root.path() + "/wake/" + name));
   EXPECT_FALSE(w.fanout().hasReader(name));
   EXPECT_EQ(w.fanout().readers(), 1u);
   EXPECT_EQ(w.fanout().counters().removed, 1u);
   // The live reader was woken all the same, and later wakes cost nothing for the dead one.
   EXPECT_TRUE(waitReadable(live.eventFd(), 5000));
   live.drainWake();
   w.post(3);
   w.wake();
   EXPECT_EQ(w.fanout().counters().removed, 1u);
   EXPECT_TRUE(waitReadable(live.eventFd(), 5000));
   ::close(ready[0]);
   ::close(ready[1]);
}

TEST(Wake, RestartedWriterFindsTheReadersAlreadyThere) {
   Testing::TempRoot root;
   auto w = std::make_unique<HeraldWriter>();
   w->create(root.path(), 30, 64);
   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   const pid_t child = Testing::forkChild([&] {
      HeraldReader r;
      std::string why;
      if (!r.attach(root.path(), 30, why)) return 2;
      const char c = 'r';
      if (::write(ready[1], &c, 1) != 1) return 3;
      // Sleeps until a datagram arrives: only the restarted writer sends one.
      if (!waitReadable(r.eventFd(), 20000)) return 4;
      return r.relume() == 31 ? 0 : 5;
   });
   char c;
   ASSERT_EQ(::read(ready[0], &c, 1), 1);
   // The writer goes away without waking anyone; a new one attaches to the same files.
   w.reset();
   HeraldWriter again;
   again.attach(root.path(), 31);
   // Found by listing the directory (the reader may already have left again when it returns).
   EXPECT_EQ(again.fanout().counters().sent, 1u);
   EXPECT_EQ(Testing::waitChild(child), 0);
   ::close(ready[0]);
   ::close(ready[1]);
}

TEST(Wake, TablesOfOneProcessShareOneInotifyInstance) {
   Testing::TempRoot root;
   constexpr int kTables = 40;
   const size_t watchesBefore = WakeWatcher::instance().watches();
   std::vector<std::unique_ptr<HeraldWriter>> writers;
   std::vector<std::unique_ptr<HeraldReader>> readers;
   for (int i = 0; i < kTables; ++i) {
      const std::string dir = root.path() + "/t" + std::to_string(i);
      ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
      writers.push_back(std::make_unique<HeraldWriter>());
      writers.back()->create(dir, 100 + i, 16);
      readers.push_back(std::make_unique<HeraldReader>());
      std::string reason;
      ASSERT_TRUE(readers.back()->attach(dir, 100 + i, reason)) << reason;
   }
   EXPECT_EQ(inotifyInstances(), 1);
   EXPECT_EQ(WakeWatcher::instance().watches(), watchesBefore + kTables);
   // Each table wakes its own reader and no other, whichever writer drained the shared events.
   for (int i = 0; i < kTables; ++i) {
      writers[i]->post(uint32_t(i));
      writers[i]->wake();
      EXPECT_EQ(writers[i]->fanout().readers(), 1u) << i;
      EXPECT_TRUE(waitReadable(readers[i]->eventFd(), 5000)) << i;
      if (i + 1 < kTables) {
         EXPECT_FALSE(waitReadable(readers[i + 1]->eventFd(), 0)) << i;
      }
   }
   // A second writer of one directory shares its watch; either leaving keeps the other's.
   HeraldWriter second;
   second.attach(root.path() + "/t0", 200);
   EXPECT_EQ(WakeWatcher::instance().watches(), watchesBefore + kTables);
   EXPECT_EQ(second.fanout().readers(), 1u);
   writers[0].reset();
   HeraldReader late;
   std::string reason;
   ASSERT_TRUE(late.attach(root.path() + "/t0", 200, reason)) << reason;
   second.post(1);
   second.wake();
   EXPECT_EQ(second.fanout().readers(), 2u);
   EXPECT_TRUE(waitReadable(late.eventFd(), 5000));
   second.detach();
   writers.clear();
   EXPECT_EQ(WakeWatcher::instance().watches(), watchesBefore);
   EXPECT_EQ(inotifyInstances(), 1);
}

TEST(Wake, PathsTooLongForASocketAddressGoThroughTheDirectoryDescriptor) {
   Testing::TempRoot root;
   std::string dir = root.path();
   while (dir.size() < 150) {
      dir += "/" + std::string(40, 'd');
      ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
   }
   HeraldWriter w;
   w.create(dir, 9, 16);
   HeraldReader r;
   std::string reason;
   ASSERT_TRUE(r.attach(dir, 9, reason)) << reason;
   EXPECT_TRUE(exists(dir + "/wake/" + r.wakeName()));
   w.post(1);
   w.wake();
   EXPECT_TRUE(waitReadable(r.eventFd(), 5000));
   EXPECT_EQ(w.fanout().counters().sent, 1u);

   sockaddr_un a;
   const socklen_t n = Wake::address(dir + "/wake", 17, "12-3", a);
   EXPECT_EQ(std::string(a.sun_path), "/proc/self/fd/17/12-3");
   EXPECT_EQ(n, socklen_t(offsetof(sockaddr_un, sun_path) + 22));
   Wake::address("/short", 17, "12-3", a);
   EXPECT_EQ(std::string(a.sun_path), "/short/12-3");

   for (const char* bad : {"", "-", "1-", "-1", "1", "1-2-3", "a-1", "1-b", ".", "..", "1.tmp"}) {
      EXPECT_FALSE(Wake::isReaderName(bad)) << bad;
   }
   EXPECT_TRUE(Wake::isReaderName("123-45"));
}

TEST(Wake, WritersOnSeveralThreadsWakeWhileReadersComeAndGo) {
   Testing::TempRoot root;
   constexpr int kThreads = 3;
   constexpr int kBatches = 300;
   std::vector<std::string> dirs;
   std::vector<std::unique_ptr<HeraldWriter>> writers;
   for (int i = 0; i < kThreads; ++i) {
      dirs.push_back(root.path() + "/w" + std::to_string(i));
      ASSERT_EQ(::mkdir(dirs.back().c_str(), 0755), 0);
      writers.push_back(std::make_unique<HeraldWriter>());
      writers.back()->create(dirs.back(), 50 + i, 1024);
   }
   std::vector<std::unique_ptr<HeraldReader>> steady;
   for (int i = 0; i < kThreads; ++i) {
      steady.push_back(std::make_unique<HeraldReader>());
      std::string reason;
      ASSERT_TRUE(steady.back()->attach(dirs[i], 50 + i, reason)) << reason;
   }
   std::atomic<int> running{kThreads};
   std::vector<std::thread> threads;
   for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
         for (int b = 0; b < kBatches; ++b) {
            writers[i]->post(uint32_t(b));
            writers[i]->wake();
         }
         running.fetch_sub(1);
      });
   }
   // Readers join and leave every table while the writers wake.
   while (running.load() > 0) {
      for (int i = 0; i < kThreads; ++i) {
         HeraldReader r;
         std::string reason;
         ASSERT_TRUE(r.attach(dirs[i], 50 + i, reason)) << reason;
      }
   }
   for (auto& t : threads) t.join();
   for (int i = 0; i < kThreads; ++i) {
      // Every reader that came and went is forgotten at the next wake (one that left between
      // being learned of and being sent to counts as removed); the steady one stays.
      writers[i]->post(0);
      writers[i]->wake();
      EXPECT_EQ(writers[i]->fanout().readers(), 1u) << i;
      EXPECT_TRUE(writers[i]->fanout().hasReader(steady[i]->wakeName())) << i;
      EXPECT_TRUE(waitReadable(steady[i]->eventFd(), 5000));
   }
}

}  // namespace
}  // namespace Dock
