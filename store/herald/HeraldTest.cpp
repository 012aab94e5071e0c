// Notification queue: positions and sequences, wrap-around, lapping, the two tables, quiesced,
// attach checks; when the writer's queued wake runs. Waking readers through the wake directory:
// readers joining after the writer, killed readers whose names the writer removes (names that
// survive pid reuse), paths too long for a socket address, many tables of one process sharing one
// inotify instance, and writers on several threads.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Loom/EventLoop.h"
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

// In a directory too long for a socket address, so that every bind and send goes through the wake
// directory's descriptor: a reader joining after the writer is woken by the next batch; names hold
// pid and start time, so that a dead reader's name is removed when its wake is refused, never a
// live reader's (a reused pid has another start time); a detached reader is forgotten without a
// send.
TEST(Wake, ReaderNamesHoldPidAndStartTimeSoADeadNamesRemovalNeverHitsALiveReader) {
   EXPECT_TRUE(Wake::isReaderName("12-345-6"));
   for (const char* bad : {"12-6", "12--6", "-12-3-4", "12-3-4-", "12-3-4-5", "a-1-2", "1-2-b", "",
                           "123", ".", "slab.00"}) {
      EXPECT_FALSE(Wake::isReaderName(bad)) << bad;
   }
   EXPECT_EQ(Wake::processTag(),
             fmt::format("{}-{}", ::getpid(), Region::processStartTime(::getpid())));
   sockaddr_un a;
   EXPECT_EQ(Wake::address("/short", 17, "12-3", a),
             socklen_t(offsetof(sockaddr_un, sun_path) + 12));
   EXPECT_EQ(std::string(a.sun_path), "/short/12-3");

   Testing::TempRoot root;
   std::string dir = root.path();
   while (dir.size() < 150) {
      dir += "/" + std::string(40, 'd');
      ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
   }
   const std::string wakeDir = dir + "/wake/";
   HeraldWriter w;
   w.create(dir, 9, 64);
   w.post(1);
   w.wake();
   EXPECT_EQ(w.fanout().readers(), 0u);
   HeraldReader live;
   ASSERT_TRUE(attached(live, dir, 9));
   EXPECT_TRUE(Wake::isReaderName(live.wakeName())) << live.wakeName();
   struct stat st;
   ASSERT_EQ(::stat(wakeDir.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 01777u);
   EXPECT_FALSE(waitReadable(live.eventFd(), 0));
   // A forked child is another process: its own pid and start time.
   int names[2];
   ASSERT_EQ(::pipe(names), 0);
   const pid_t child = Testing::forkChild([&] {
      HeraldReader r;
      if (!attached(r, dir, 9)) return 2;
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
   w.post(2);
   w.wake();
   EXPECT_TRUE(w.fanout().hasReader(name));
   EXPECT_EQ(w.fanout().readers(), 2u);
   ASSERT_TRUE(waitReadable(live.eventFd(), 5000));
   live.drainWake();
   EXPECT_FALSE(waitReadable(live.eventFd(), 0));
   HeraldReader::Entry e;
   ASSERT_EQ(live.next(e), HeraldReader::Next::kEntry);
   EXPECT_EQ(e.slot, 2u);
   ASSERT_EQ(::kill(child, SIGKILL), 0);
   EXPECT_EQ(Testing::waitChild(child), 128 + SIGKILL);
   // Nobody closed the socket gracefully: its name stays until the writer's send is refused.
   EXPECT_TRUE(std::filesystem::exists(wakeDir + name));

   // A dead reader that had this very pid, in an earlier process: same pid, earlier start time.
   // Its name is removed when its wake is refused; the live reader's name is not touched.
   const std::string deadName =
       fmt::format("{}-{}-1", ::getpid(), Region::processStartTime(::getpid()) - 1);
   {
      const int dfd = ::open(wakeDir.c_str(), O_RDONLY | O_DIRECTORY);
      const int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
      const socklen_t n = Wake::address(wakeDir, dfd, deadName, a);
      EXPECT_EQ(std::string(a.sun_path), fmt::format("/proc/self/fd/{}/{}", dfd, deadName));
      ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), n), 0) << deadName;
      ::close(fd);  // dies without removing its name
      ::close(dfd);
   }
   w.post(3);
   w.wake();
   EXPECT_FALSE(std::filesystem::exists(wakeDir + deadName));
   EXPECT_FALSE(std::filesystem::exists(wakeDir + name));
   EXPECT_FALSE(w.fanout().hasReader(name));
   EXPECT_EQ(w.fanout().readers(), 1u);
   EXPECT_EQ(w.fanout().counters().removed, 2u);
   EXPECT_TRUE(std::filesystem::exists(wakeDir + live.wakeName()));
   EXPECT_TRUE(waitReadable(live.eventFd(), 5000));  // woken all the same
   // Detaching removes the name; the writer forgets it at its next wake without a failed send,
   // and the dead ones cost nothing more.
   const std::string liveName = live.wakeName();
   live.detach();
   EXPECT_FALSE(std::filesystem::exists(wakeDir + liveName));
   w.post(4);
   w.wake();
   EXPECT_EQ(w.fanout().readers(), 0u);
   EXPECT_EQ(w.fanout().counters().removed, 2u);
}

// The tables of one process share one inotify instance, each waking only its own readers, also
// while writers on several threads wake and readers come and go.
TEST(Wake, TablesOfOneProcessShareOneInotifyInstanceAndWakeFromSeveralThreads) {
   Testing::TempRoot root;
   constexpr int kTables = 40, kThreads = 3, kBatches = 300;
   const size_t watchesBefore = WakeWatcher::instance().watches();
   struct Table {
      std::string dir;
      HeraldWriter writer;
      HeraldReader steady;
   };
   std::vector<std::unique_ptr<Table>> tables;
   for (int i = 0; i < kTables; ++i) {
      Table& t = *tables.emplace_back(std::make_unique<Table>());
      t.dir = root.path() + "/t" + std::to_string(i);
      ASSERT_EQ(::mkdir(t.dir.c_str(), 0755), 0);
      t.writer.create(t.dir, 100 + i, 1024);
      ASSERT_TRUE(attached(t.steady, t.dir, 100 + i));
   }
   EXPECT_EQ(inotifyInstances(), 1);
   EXPECT_EQ(WakeWatcher::instance().watches(), watchesBefore + kTables);
   // Each table wakes its own reader and no other, whichever writer drained the shared events.
   for (int i = 0; i < kTables; ++i) {
      tables[i]->writer.post(uint32_t(i));
      tables[i]->writer.wake();
      EXPECT_EQ(tables[i]->writer.fanout().readers(), 1u) << i;
      EXPECT_TRUE(waitReadable(tables[i]->steady.eventFd(), 5000)) << i;
      if (i + 1 < kTables) {
         EXPECT_FALSE(waitReadable(tables[i + 1]->steady.eventFd(), 0)) << i;
      }
      tables[i]->steady.drainWake();
   }
   std::atomic<int> running{kThreads};
   std::vector<std::thread> threads;
   for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
         for (int b = 0; b < kBatches; ++b) {
            tables[i]->writer.post(uint32_t(b));
            tables[i]->writer.wake();
         }
         running.fetch_sub(1);
      });
   }
   // Readers join and leave these tables while their writers wake.
   while (running.load() > 0) {
      for (int i = 0; i < kThreads; ++i) {
         HeraldReader r;
         EXPECT_TRUE(attached(r, tables[i]->dir, 100 + i));
      }
   }
   for (auto& t : threads) t.join();
   for (int i = 0; i < kThreads; ++i) {
      // Every reader that came and went is forgotten at the next wake (one that left between
      // being learned of and being sent to counts as removed); the steady one stays.
      Table& t = *tables[i];
      t.steady.drainWake();
      t.writer.post(0);
      t.writer.wake();
      EXPECT_EQ(t.writer.fanout().readers(), 1u) << t.dir;
      EXPECT_TRUE(t.writer.fanout().hasReader(t.steady.wakeName())) << t.dir;
      EXPECT_TRUE(waitReadable(t.steady.eventFd(), 5000));
   }
   // A second writer of one directory shares its watch; either leaving keeps the other's.
   HeraldWriter second;
   second.attach(tables[0]->dir, 200);
   EXPECT_EQ(WakeWatcher::instance().watches(), watchesBefore + kTables);
   EXPECT_EQ(second.fanout().readers(), 1u);
   tables[0]->writer.detach();
   HeraldReader late;
   ASSERT_TRUE(attached(late, tables[0]->dir, 200));
   second.post(1);
   second.wake();
   EXPECT_EQ(second.fanout().readers(), 2u);
   EXPECT_TRUE(waitReadable(late.eventFd(), 5000));
   second.detach();
   tables.clear();
   EXPECT_EQ(WakeWatcher::instance().watches(), watchesBefore);
   EXPECT_EQ(inotifyInstances(), 1);
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

// A reader checks the entry's sequence around its copy: an overwritten entry is reported as lapped
// even when the writer position alone would not tell (the overwrite raced the read).
// A reader exactly a capacity behind still reads; one more behind is lapped and resumes at the
// writer.
TEST_F(HeraldTest, EntryOverwrittenWhileReadIsNotTrustedAndTablesCheckTheirIndex) {
   ASSERT_NO_FATAL_FAILURE(open(9, 4));
   for (uint32_t i = 0; i < 4; ++i) w.post(i);
   ASSERT_TRUE(r.entryAt(0, e));
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   w.post(99);  // overwrites position 0
   EXPECT_FALSE(r.entryAt(0, e));
   ASSERT_TRUE(r.entryAt(4, e));
   EXPECT_EQ(e.slot, 99u);
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);  // position 1, the writer at 5
   EXPECT_EQ(e.slot, 1u);
   w.post(5);
   w.post(6);  // the writer at 7: position 2 is overwritten
   EXPECT_EQ(r.next(e), HeraldReader::Next::kLapped);
   EXPECT_EQ(r.position(), 2u);  // unchanged
   r.restartAt(r.writerPosition());
   EXPECT_EQ(r.lastSeq(), r.seqOf(6));
   w.postTombstone(3);
   ASSERT_EQ(r.next(e), HeraldReader::Next::kEntry);
   EXPECT_EQ(e.kind, kTombstone);
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

// A wake task queued on the loop for changes posted with postChange that outlives its writer does
// nothing: the writer goes in the turn that queued the wake, and the task must not touch it (a use
// of the freed writer fails the sanitizer builds). A writer made afterwards keeps its own task.
TEST(HeraldWakePolicy, AQueuedWakeThatOutlivesItsWriterDoesNothing) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   std::unique_ptr<HeraldWriter> next;
   loop.post([&] {
      auto w = std::make_unique<HeraldWriter>();
      w->create(root.path(), 5, 16);
      w->postChange(1);
      w.reset();
      next = std::make_unique<HeraldWriter>();
      next->create(root.path(), 6, 16);
      next->postChange(2);
   });
   loop.runOnce(std::chrono::milliseconds(0));
   loop.runOnce(std::chrono::milliseconds(0));
   EXPECT_EQ(next->wakes(), 1u);
   EXPECT_TRUE(next->quiesced());
}

}  // namespace
}  // namespace Dock
