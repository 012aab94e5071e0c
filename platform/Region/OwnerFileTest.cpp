// One writer per table: the owner file's lock, its text, and take-over after a crash; the process
// start time that tells a recycled pid from the owner.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "Region/Error.h"
#include "Region/OwnerFile.h"
#include "Region/ProcessStart.h"
#include "testing/Expect.h"
#include "testing/TempRoot.h"

namespace {

TEST(ProcessStart, RunningProcessesHaveOneEndedAndZombieOnesNone) {
   const unsigned long long self = Region::processStartTime(::getpid());
   EXPECT_GT(self, 0u);
   Testing::Pipe ready;
   const pid_t child = Testing::forkChild([&] {
      // Blanks and parentheses in the command name: fields count from its last ')'.
      ::prctl(PR_SET_NAME, "a) 1 2 (b");
      if (!ready.send()) return 1;
      ::pause();
      return 0;
   });
   ASSERT_TRUE(ready.receive());
   EXPECT_GE(Region::processStartTime(child), self);
   ::kill(child, SIGKILL);
   // Killed but not reaped: a zombie has ended all the same.
   unsigned long long zombie = 1;
   for (int i = 0; i < 500 && zombie != 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      zombie = Region::processStartTime(child);
   }
   EXPECT_EQ(zombie, 0u);
   EXPECT_EQ(Testing::waitChild(child), 128 + SIGKILL);
   EXPECT_EQ(Region::processStartTime(child), 0u);
}

TEST(OwnerFile, TextNamesThisProcessAndParsesBack) {
   Testing::TempRoot root;
   auto owner = Region::OwnerFile::acquire(root.path());
   const std::string text = Region::OwnerFile::read(root.path());
   EXPECT_EQ(text, owner.text());
   EXPECT_EQ(text.rfind("pid:" + std::to_string(::getpid()) + " host:", 0), 0u) << text;
   Region::OwnerText parsed;
   ASSERT_TRUE(Region::OwnerText::parse(text, parsed));
   EXPECT_EQ(parsed.pid, ::getpid());
   EXPECT_GT(parsed.start, 0u);
   EXPECT_EQ(parsed.text(), text);

   for (const char* bad :
        {"", "pid:1", "pid:x host:h start:1", "pid:1 host: start:1", "pid:1 host:h start:1 more",
         "host:h pid:1 start:1", "pid:-3 host:h start:1", "pid:1 host:h start:1x"}) {
      EXPECT_FALSE(Region::OwnerText::parse(bad, parsed)) << bad;
   }
   EXPECT_THROW(Region::OwnerFile::acquire(root.path() + "/nope"), Region::Error);
   EXPECT_EQ(Region::OwnerFile::read(root.path() + "/nope"), "");
}

TEST(OwnerFile, ProcessesContendAndACrashedOwnerIsTakenOver) {
   Testing::TempRoot root;
   Testing::Pipe ready;
   pid_t holder = Testing::forkChild([&] {
      auto owner = Region::OwnerFile::acquire(root.path());
      if (!ready.send()) return 2;
      ::pause();  // until killed
      return 0;
   });
   ASSERT_TRUE(ready.receive());

   // Refused while the holder lives, naming it.
   EXPECT_EQ(
       Testing::errorText<Region::OwnerError>([&] { Region::OwnerFile::acquire(root.path()); }),
       "table " + root.path() + " already has a live writer (pid " + std::to_string(holder) +
           "); owner file says \"" + Region::OwnerFile::read(root.path()) + "\"");

   ASSERT_EQ(::kill(holder, SIGKILL), 0);
   EXPECT_EQ(Testing::waitChild(holder), 128 + SIGKILL);
   // The kernel released the dead holder's lock: the file is taken over and rewritten.
   auto taker = Region::OwnerFile::acquire(root.path());
   EXPECT_EQ(taker.owner(), ::getpid());
   EXPECT_EQ(Region::OwnerFile::read(root.path()), taker.text());
   taker.release();
   EXPECT_FALSE(taker.held());
   EXPECT_TRUE(Region::OwnerFile::acquire(root.path()).held());
}

}  // namespace
