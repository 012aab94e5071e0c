// Notification queue: positions and sequences, wrap-around, lapping, the two tables, quiesced,
// relume re-stamping that wakes the readers already there; and waking readers through the wake
// directory: readers joining after the writer, killed readers whose names the writer removes
// (names that survive pid reuse), many tables of one process sharing one inotify instance, paths
// too long for a socket address, writers on several threads, and stopped readers that cannot hold
// up a live one. (Readers in other processes woken: DockShadowTest.)
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Region/MappedFile.h"
#include "Region/ProcessStart.h"
#include "Spoor/Trace.h"
#include "Vela/Exception.h"
#include "store/herald/Herald.h"
#include "store/herald/HeraldReader.h"
#include "store/herald/HeraldWriter.h"
#include "store/herald/WakeDirectory.h"
#include "store/herald/WakeFanout.h"
#include "store/herald/WakeWatcher.h"
#include "testing/Expect.h"
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

::testing::AssertionResult attached(HeraldReader& r, const std::string& dir, uint32_t relume) {
   std::string reason;
   if (r.attach(dir, relume, reason)) return ::testing::AssertionSuccess();
   return ::testing::AssertionFailure() << reason;
}

TEST(Wake, ReaderNamesHoldPidAndStartTimeSoADeadNamesRemovalNeverHitsALiveReader) {
   EXPECT_TRUE(Wake::isReaderName("12-345-6"));
   for (const char* bad : {"12-6", "12--6", "-12-3-4", "12-3-4-", "12-3-4-5", "a-1-2", "1-2-b", "",
                           "123", ".", "slab.00"}) {
      EXPECT_FALSE(Wake::isReaderName(bad)) << bad;
   }
   EXPECT_EQ(Wake::processTag(),
             fmt::format("{}-{}", ::getpid(), Region::processStartTime(::getpid())));

   Testing::TempRoot root;
   const std::string wakeDir = root.path() + "/wake/";
   HeraldWriter w;
   w.create(root.path(), 9, 64);
   HeraldReader live;
   ASSERT_TRUE(attached(live, root.path(), 9));
   EXPECT_EQ(live.wakeName(),
             Wake::processTag() + "-" + live.wakeName().substr(Wake::processTag().size() + 1));
   // A forked child is another process: its own pid and start time.
   int names[2];
   ASSERT_EQ(::pipe(names), 0);
   const pid_t child = Testing::forkChild([&] {
      HeraldReader r;
      if (!attached(r, root.path(), 9)) return 2;
      const std::string n = r.wakeName();
      if (::write(names[1], n.data(), n.size()) != ssize_t(n.size())) return 3;
      ::pause();
      return 4;
   });
   char buf[64] = {};
   ASSERT_GT(::read(names[0], buf, sizeof(buf) - 1), 0);
   ::close(names[0]);
   ::close(names[1]);
   const std::string name(buf);
   EXPECT_EQ(name.rfind(fmt::format("{}-{}-", child, Region::processStartTime(child)), 0), 0u)
       << name;
   w.post(1);
   w.wake();
   EXPECT_TRUE(w.fanout().hasReader(name));
   EXPECT_EQ(w.fanout().readers(), 2u);
   ASSERT_EQ(::kill(child, SIGKILL), 0);
   EXPECT_EQ(Testing::waitChild(child), 128 + SIGKILL);
   // Nobody closed the socket gracefully: its name stays until the writer's send is refused.
   EXPECT_TRUE(exists(wakeDir + name));

   // A dead reader that had this very pid, in an earlier process: same pid, earlier start time.
   // Its name is removed when its wake is refused; the live reader's name is not touched.
   const std::string deadName =
       fmt::format("{}-{}-1", ::getpid(), Region::processStartTime(::getpid()) - 1);
   {
      const int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::strncpy(addr.sun_path, (wakeDir + deadName).c_str(), sizeof(addr.sun_path) - 1);
      ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0) << deadName;
      ::close(fd);  // dies without removing its name
   }
   live.drainWake();
   w.post(2);
   w.wake();
   EXPECT_FALSE(exists(wakeDir + deadName));
   EXPECT_FALSE(exists(wakeDir + name));
   EXPECT_FALSE(w.fanout().hasReader(name));
   EXPECT_EQ(w.fanout().readers(), 1u);
   EXPECT_EQ(w.fanout().counters().removed, 2u);
   EXPECT_TRUE(exists(wakeDir + live.wakeName()));
   // The live reader was woken all the same, and later wakes cost nothing for the dead ones.
   EXPECT_TRUE(waitReadable(live.eventFd(), 5000));
   live.drainWake();
   w.post(3);
   w.wake();
   EXPECT_EQ(w.fanout().counters().removed, 2u);
   EXPECT_TRUE(waitReadable(live.eventFd(), 5000));
}

TEST(Wake, StoppedReadersHoldOneWakeEachAndNeverDelayALiveOne) {
   Testing::TempRoot root;
   HeraldWriter w;
   w.create(root.path(), 11, 64);
   // Enough stalled readers that ten queued wakes each would exhaust any one socket's buffer.
   constexpr int kStopped = 48;
   std::vector<pid_t> stopped;
   for (int i = 0; i < kStopped; ++i) {
      stopped.push_back(Testing::forkChild([&] {
         HeraldReader r;
         if (!attached(r, root.path(), 11)) return 2;
         ::raise(SIGSTOP);
         return 0;
      }));
   }
   for (pid_t p : stopped) {
      int status = 0;
      ASSERT_EQ(::waitpid(p, &status, WUNTRACED), p);
      ASSERT_TRUE(WIFSTOPPED(status));
   }
   HeraldReader live;
   ASSERT_TRUE(attached(live, root.path(), 11));
   constexpr uint32_t kBatches = 4000;
   for (uint32_t b = 0; b < kBatches; ++b) {
      w.post(b % 1000);
      w.wake();
      ASSERT_TRUE(waitReadable(live.eventFd(), 2000)) << "batch " << b;
      live.drainWake();
      HeraldReader::Entry e;
      ASSERT_EQ(live.next(e), HeraldReader::Next::kEntry) << "batch " << b;
      ASSERT_EQ(e.slot, b % 1000);
   }
   EXPECT_EQ(w.fanout().readers(), size_t(kStopped) + 1);
   // One datagram to each stopped reader, one per batch to the live one; the rest were skipped.
   EXPECT_EQ(w.fanout().counters().sent, uint64_t(kStopped) + kBatches);
   EXPECT_EQ(w.fanout().counters().pending, uint64_t(kStopped) * (kBatches - 1));
   for (pid_t p : stopped) {
      ::kill(p, SIGKILL);
      ::kill(p, SIGCONT);
      EXPECT_EQ(Testing::waitChild(p), 128 + SIGKILL);
   }
   // Their names are removed at the next wake, and the live reader is woken as before.
   w.post(1);
   w.wake();
   EXPECT_EQ(w.fanout().readers(), 1u);
   EXPECT_EQ(w.fanout().counters().removed, uint64_t(kStopped));
   EXPECT_TRUE(waitReadable(live.eventFd(), 2000));
}

// In a directory too long for a socket address, so that every bind and send goes through the
// wake directory's descriptor.
TEST(Wake, ReaderJoiningAfterTheWriterIsWokenByTheNextBatch) {
   Testing::TempRoot root;
   std::string dir = root.path();
   while (dir.size() < 150) {
      dir += "/" + std::string(40, 'd');
      ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
   }
   sockaddr_un a;
   const socklen_t n = Wake::address(dir + "/wake", 17, "12-3", a);
   EXPECT_EQ(std::string(a.sun_path), "/proc/self/fd/17/12-3");
   EXPECT_EQ(n, socklen_t(offsetof(sockaddr_un, sun_path) + 22));
   Wake::address("/short", 17, "12-3", a);
   EXPECT_EQ(std::string(a.sun_path), "/short/12-3");

   HeraldWriter w;
   w.create(dir, 5, 64);
   w.post(1);
   w.wake();
   EXPECT_EQ(w.fanout().readers(), 0u);

   HeraldReader r;
   ASSERT_TRUE(attached(r, dir, 5));
   const std::string name = r.wakeName();
   EXPECT_TRUE(Wake::isReaderName(name)) << name;
   EXPECT_TRUE(exists(dir + "/wake/" + name));
   struct stat st;
   ASSERT_EQ(::stat((dir + "/wake").c_str(), &st), 0);
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

   // No batch, no wake and no datagram.
   const uint32_t wakes = w.header()->wakeWord.load();
   w.wake();
   EXPECT_EQ(w.header()->wakeWord.load(), wakes);
   EXPECT_FALSE(waitReadable(r.eventFd(), 0));

   // Detaching removes the name; the writer forgets it at its next wake without a failed send.
   r.detach();
   EXPECT_FALSE(exists(dir + "/wake/" + name));
   w.post(3);
   w.wake();
   EXPECT_EQ(w.fanout().readers(), 0u);
   EXPECT_EQ(w.fanout().counters().removed, 0u);
   EXPECT_EQ(w.fanout().counters().sent, 1u);
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
      ASSERT_TRUE(attached(*readers.back(), dir, 100 + i));
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
   ASSERT_TRUE(attached(late, root.path() + "/t0", 200));
   second.post(1);
   second.wake();
   EXPECT_EQ(second.fanout().readers(), 2u);
   EXPECT_TRUE(waitReadable(late.eventFd(), 5000));
   second.detach();
   writers.clear();
   EXPECT_EQ(WakeWatcher::instance().watches(), watchesBefore);
   EXPECT_EQ(inotifyInstances(), 1);
}

TEST(Wake, WritersOnSeveralThreadsWakeWhileReadersComeAndGo) {
   Testing::TempRoot root;
   constexpr int kThreads = 3;
   constexpr int kBatches = 300;
   struct Table {
      std::string dir;
      HeraldWriter writer;
      HeraldReader steady;
   } tables[kThreads];
   for (int i = 0; i < kThreads; ++i) {
      Table& t = tables[i];
      t.dir = root.path() + "/w" + std::to_string(i);
      ASSERT_EQ(::mkdir(t.dir.c_str(), 0755), 0);
      t.writer.create(t.dir, 50 + i, 1024);
      ASSERT_TRUE(attached(t.steady, t.dir, 50 + i));
   }
   std::atomic<int> running{kThreads};
   std::vector<std::thread> threads;
   for (Table& t : tables) {
      threads.emplace_back([&] {
         for (int b = 0; b < kBatches; ++b) {
            t.writer.post(uint32_t(b));
            t.writer.wake();
         }
         running.fetch_sub(1);
      });
   }
   // Readers join and leave every table while the writers wake.
   while (running.load() > 0) {
      for (int i = 0; i < kThreads; ++i) {
         HeraldReader r;
         EXPECT_TRUE(attached(r, tables[i].dir, 50 + i));
      }
   }
   for (auto& t : threads) t.join();
   for (Table& t : tables) {
      // Every reader that came and went is forgotten at the next wake (one that left between
      // being learned of and being sent to counts as removed); the steady one stays.
      t.writer.post(0);
      t.writer.wake();
      EXPECT_EQ(t.writer.fanout().readers(), 1u) << t.dir;
      EXPECT_TRUE(t.writer.fanout().hasReader(t.steady.wakeName())) << t.dir;
      EXPECT_TRUE(waitReadable(t.steady.eventFd(), 5000));
   }
}

class HeraldTest : public ::testing::Test {
  protected:
   // A ring of `capacity` notifications stamped `relume`, and reader `r` attached to it.
   void open(uint32_t relume, uint32_t capacity) {
      w.create(root.path(), relume, capacity);
      ASSERT_TRUE(attached(r, root.path(), relume));
   }

   Testing::TempRoot root;
   HeraldWriter w;
   HeraldReader r;
   std::string reason;
   HeraldReader::Entry e;
};

TEST_F(HeraldTest, ReaderFollowsTheWriterAcrossTheWrapAndSwapsTables) {
   ASSERT_NO_FATAL_FAILURE(open(77, 8));
   EXPECT_EQ(r.position(), 0u);
   EXPECT_EQ(r.next(e), HeraldReader::Next::kEmpty);
   Spoor::Capture cap;
   // 20 notifications read in steps of 3: crosses the halves five times, wraps twice.
   uint32_t nextSlot = 100;
   for (int round = 0; round < 7; ++round) {
      for (int i = 0; i < 3; ++i) EXPECT_EQ(w.post(nextSlot + i), uint64_t(round * 3 + i));
      for (int i = 0; i < 3; ++i) {
         ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
         EXPECT_EQ(e.slot, nextSlot + i);
         EXPECT_EQ(e.kind, kSlotChanged);
         EXPECT_EQ(e.seq, (uint64_t(77) << 32) + round * 3 + i);
      }
      nextSlot += 3;
   }
   EXPECT_EQ(r.next(e), HeraldReader::Next::kEmpty);
   EXPECT_EQ(r.position(), 21u);
   // Positions 4, 8, 12, 16, 20 change the table.
   EXPECT_EQ(cap.count("Herald", "herald swapped"), 5u);
   EXPECT_EQ(r.current(), 1u);  // position 21 is index 5: upper half
}

TEST_F(HeraldTest, LappedReaderIsToldAndResumesAtTheWriter) {
   ASSERT_NO_FATAL_FAILURE(open(5, 8));
   w.post(1);
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   // Exactly a capacity ahead is still readable...
   for (uint32_t i = 0; i < 8; ++i) w.post(10 + i);
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   EXPECT_EQ(e.slot, 10u);
   // ...one more overwrites the next unread entry.
   w.post(18);
   w.post(19);
   EXPECT_EQ(r.next(e), HeraldReader::Next::kLapped);
   EXPECT_EQ(r.position(), 2u);  // unchanged
   r.restartAt(r.writerPosition());
   EXPECT_EQ(r.lastSeq(), r.seqOf(10));
   EXPECT_TRUE(r.quiesced(r.lastSeq()));
   EXPECT_FALSE(r.quiesced(r.lastSeq() - 1));
   w.postTombstone(3);
   EXPECT_FALSE(r.quiesced(r.lastSeq()));
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   EXPECT_EQ(e.kind, kTombstone);
   EXPECT_EQ(e.slot, 3u);
   EXPECT_TRUE(r.quiesced(e.seq));
}

// A reader checks the entry's sequence around its copy: an overwritten entry is reported as lapped
// even when the writer position alone would not tell (the overwrite raced the read).
TEST_F(HeraldTest, EntryOverwrittenWhileReadIsNotTrustedAndTablesCheckTheirIndex) {
   ASSERT_NO_FATAL_FAILURE(open(9, 4));
   for (uint32_t i = 0; i < 4; ++i) w.post(i);
   ASSERT_TRUE(r.entryAt(0, e));
   w.post(99);  // overwrites position 0
   EXPECT_FALSE(r.entryAt(0, e));
   ASSERT_TRUE(r.entryAt(4, e));
   EXPECT_EQ(e.slot, 99u);
   // Each table is half the ring.
   EXPECT_EQ(r.table(0).size(), 2u);
   EXPECT_NO_THROW(r.table(1).at(1));
   EXPECT_EQ(Testing::errorText<Vela::Exception>([&] { r.table(1).at(2); }),
             "out-of-range index:2 max:2");
}

TEST_F(HeraldTest, QuiescedNeedsTheLatestNotificationInTheRing) {
   ASSERT_NO_FATAL_FAILURE(open(3, 4));
   EXPECT_TRUE(r.quiesced(0));  // nothing ever posted
   w.post(1);
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   // Corrupt the latest entry's sequence behind the reader's back (as a lapping writer would).
   Region::MappedFile raw = Region::MappedFile::openReadWrite(Herald::path(root.path()));
   auto* ring = reinterpret_cast<Notification*>(raw.data() + kHeraldHeaderSize);
   ring[0].seq.store(12345, std::memory_order_release);
   Spoor::Capture cap;
   EXPECT_FALSE(r.quiesced(e.seq));
   EXPECT_TRUE(cap.contains("latest notification out-of-range"));
}

TEST(Herald, AttachAndValidationRejectWrongFiles) {
   Testing::TempRoot root;
   HeraldReader r;
   std::string reason;
   EXPECT_FALSE(r.attach(root.path(), 1, reason));
   HeraldWriter w;
   w.create(root.path(), 4, 8);
   EXPECT_FALSE(r.attach(root.path(), 5, reason));
   EXPECT_EQ(reason, "bad relume:4 wanted:5");
   EXPECT_TRUE(r.attach(root.path(), 0, reason));
   // (version, capacity, file size) and the reason.
   const std::tuple<uint32_t, uint32_t, size_t, const char*> cases[] = {
       {kHeraldVersion, 6, 4096, "bad capacity: 6"},
       {kHeraldVersion, 8, Herald::fileSizeFor(8) - 1,
        "bad shmem size:191 wanted:192 for 8 notifications"},
       {2, 8, 4096, "bad version: 2"}};
   for (auto [version, capacity, size, want] : cases) {
      HeraldHeader h{};
      h.magic = kHeraldMagic;
      h.version = version;
      h.capacity = capacity;
      EXPECT_FALSE(Herald::validate(h, size, 0, reason));
      EXPECT_EQ(reason, want);
   }
}

TEST(Herald, RestartedWriterRestampsAndWakesReadersOfTheOldFile) {
   Testing::TempRoot root;
   HeraldWriter w;
   w.create(root.path(), 10, 8);
   w.post(1);
   HeraldReader r;
   ASSERT_TRUE(attached(r, root.path(), 10));
   EXPECT_EQ(r.relume(), 10u);
   {
      // A writer that keeps its files continues the positions.
      HeraldWriter again;
      again.attach(root.path(), 11);
      EXPECT_EQ(again.position(), 1u);
      EXPECT_EQ(again.fanout().counters().sent, 1u);  // the reader found by listing the directory
      ASSERT_TRUE(waitReadable(r.eventFd(), 5000));
      EXPECT_EQ(r.relume(), 11u);
      r.drainWake();
      // A writer that formats anew replaces the file; the old one is re-stamped and woken.
      HeraldWriter fresh;
      fresh.create(root.path(), 12, 8);
      ASSERT_TRUE(waitReadable(r.eventFd(), 5000));
      EXPECT_EQ(r.relume(), 12u);
      EXPECT_EQ(fresh.position(), 0u);
   }
   HeraldReader r2;
   ASSERT_TRUE(attached(r2, root.path(), 12));
}

}  // namespace
}  // namespace Dock
