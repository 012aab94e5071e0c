#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Spoor/Trace.h"
#include "testing/TempRoot.h"

namespace {

// Every test uses its own module names: the registry is process-wide.

// Each setting string in turn, then the level of each module named; a module first named in a
// check has no handle until then, so the setting reached it before it existed. A malformed string
// is refused whole and changes nothing.
TEST(SpoorConfigure, SettingStringsSetModuleLevelsIncludingModulesNotYetSeen) {
   Spoor::Handle& a = Spoor::handle("Cfg.A");
   EXPECT_EQ(&a, &Spoor::handle("Cfg.A"));  // one handle per module
   EXPECT_EQ(a.level(), -1);                // off until configured
   Spoor::handle("Cfg.B");
   const struct {
      const char* setting;
      std::vector<std::pair<const char*, int>> levels;
   } steps[] = {
       {"Cfg.A/3,Cfg.B/9,Cfg.Later/4", {{"Cfg.A", 3}, {"Cfg.B", 9}, {"Cfg.Later", 4}}},
       // Levels above the top mean "everything", however many digits.
       {"Cfg.A/12,Cfg.B/99999999999999999999", {{"Cfg.A", 9}, {"Cfg.B", 9}}},
       {"Cfg/Sub/2", {{"Cfg/Sub", 2}}},  // the level follows the last '/'
       {"", {{"Cfg.A", 9}}},
       {"Cfg.A/1,", {{"Cfg.A", 1}}},  // a trailing comma ends the list
       // "*" overrides what was set before it and applies to modules created later; items after
       // it override it.
       {"*/2,Cfg.B/7", {{"Cfg.A", 2}, {"Cfg.B", 7}, {"Cfg.New", 2}}},
       {"Cfg.A/6,*/1", {{"Cfg.A", 1}}},
       {"Cfg.A/5", {{"Cfg.A", 5}}},
   };
   for (const auto& step : steps) {
      SCOPED_TRACE(step.setting);
      EXPECT_TRUE(Spoor::configure(step.setting));
      for (const auto& [module, level] : step.levels) {
         EXPECT_EQ(Spoor::handle(module).level(), level) << module;
      }
   }
   for (const char* bad :
        {"Cfg.A", "Cfg.A/", "Cfg.A/x", "Cfg.A/-1", "/3", "Cfg.A/1,,Cfg.A/2", "Cfg.A/1,Cfg.Bad"}) {
      EXPECT_FALSE(Spoor::configure(bad)) << bad;
      EXPECT_EQ(a.level(), 5) << bad;
   }
   Spoor::levelIs("*", -1);
   EXPECT_EQ(a.level(), -1);
   EXPECT_EQ(Spoor::handle("Cfg.Newer").level(), -1);
}

// A line is formatted only when its level is on; a line that is off does not even evaluate its
// arguments. (Records' module, level and text are checked by the suites that trace.)
TEST(SpoorCapture, RecordsEnabledLinesOnlyAndRestoresLevelsAfterwards) {
   Spoor::Handle& h = Spoor::handle("Cap.Mod");
   Spoor::Handle& other = Spoor::handle("Cap.Other");
   Spoor::levelIs("Cap.Mod", 2);
   Spoor::configure("Cap.Later/6");  // configured, no handle yet
   {
      Spoor::Capture cap(4);
      int evaluated = 0;
      SPOOR_TRACE(h, 4, "quiesced {}", ++evaluated);
      SPOOR_TRACE(h, 5, "too detailed {}", ++evaluated);
      SPOOR_TRACE(other, 0, "other module");
      EXPECT_EQ(evaluated, 1);
      EXPECT_EQ(cap.records().size(), 2u);
      EXPECT_EQ(cap.count("Cap.Mod", "quiesced 1"), 1u);
      EXPECT_EQ(cap.count("Cap.Other", "quiesced"), 0u);
      EXPECT_EQ(cap.count("", "module"), 1u);
   }
   // The levels from before the capture are back, also for a module that had no handle yet.
   EXPECT_EQ(h.level(), 2);
   EXPECT_EQ(other.level(), -1);
   EXPECT_FALSE(other.enabled(0));  // -1 turns the module off
   EXPECT_EQ(Spoor::handle("Cap.Later").level(), 6);
   {
      Spoor::Capture nested(9);
      Spoor::handle("Cap.During").write(9, "made during a capture");
      EXPECT_EQ(nested.count("Cap.During", "made during"), 1u);
   }
   EXPECT_EQ(Spoor::handle("Cap.During").level(), -1);
}

TEST(SpoorCapture, ConcurrentWritersLoseNoLine) {
   Spoor::Capture cap;
   constexpr int kThreads = 4, kLines = 500;
   std::vector<std::thread> threads;
   for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([t] {
         Spoor::Handle& h = Spoor::handle(fmt::format("Conc.{}", t % 2));
         for (int i = 0; i < kLines; ++i) SPOOR_TRACE(h, 3, "line {} {}", t, i);
      });
   }
   for (auto& t : threads) t.join();
   EXPECT_EQ(cap.records().size(), size_t(kThreads * kLines));
   EXPECT_EQ(cap.count("Conc.0", "line"), size_t(2 * kLines));
   EXPECT_EQ(cap.count("", "line 3 499"), 1u);
}

// The line after its "<seconds>.<microseconds> " prefix, or "bad timestamp: <line>".
std::string afterTimestamp(const std::string& line) {
   const auto digits = [&](size_t from, size_t to) {
      return to > from && to <= line.size() &&
             std::all_of(line.begin() + from, line.begin() + to, ::isdigit);
   };
   const size_t dot = line.find('.');
   const bool ok = dot != std::string::npos && digits(0, dot) && digits(dot + 1, dot + 7) &&
                   line.size() > dot + 7 && line[dot + 7] == ' ';
   return ok ? line.substr(dot + 8) : "bad timestamp: " + line;
}

TEST(SpoorSink, FileSinkAppendsOneLinePerRecord) {
   Testing::TempRoot dir;
   std::string path = dir.path() + "/trace.log";
   Spoor::Handle& h = Spoor::handle("File.Mod");
   Spoor::levelIs("File.Mod", 9);
   auto previous = Spoor::sinkIs(Spoor::fileSink(path));
   SPOOR_TRACE(h, 3, "hello {}", 1);
   h.write(9, "second line");
   Spoor::sinkIs(Spoor::fileSink(path));  // a new sink on the same file appends
   SPOOR_TRACE(h, 0, "third");
   Spoor::sinkIs(previous);
   SPOOR_TRACE(h, 0, "not in the file");

   std::ifstream in(path);
   std::vector<std::string> lines;
   for (std::string line; std::getline(in, line);) lines.push_back(line);
   ASSERT_EQ(lines.size(), 3u);
   std::string pid = std::to_string(::getpid());
   EXPECT_EQ(afterTimestamp(lines[0]), pid + " File.Mod 3 hello 1");
   EXPECT_EQ(afterTimestamp(lines[1]), pid + " File.Mod 9 second line");
   EXPECT_EQ(afterTimestamp(lines[2]), pid + " File.Mod 0 third");

   EXPECT_EQ(Spoor::fileSink(dir.path() + "/no/such/dir/trace.log"), nullptr);
}

// The environment variable is read once, when the registry is first used, so it is checked in
// a fresh process: this test runs itself again with SPOOR_TRACE set.
TEST(SpoorEnvironment, ThresholdsComeFromTheEnvironmentVariable) {
   if (std::getenv("SPOOR_TEST_CHILD")) {
      EXPECT_EQ(Spoor::handle("Env.A").level(), 4);
      EXPECT_EQ(Spoor::handle("Env.B").level(), 1);  // from "*"
      return;
   }
   pid_t child = Testing::forkChild([] {
      ::setenv("SPOOR_TRACE", "*/1,Env.A/4", 1);
      ::setenv("SPOOR_TEST_CHILD", "1", 1);
      ::alarm(60);  // survives exec: a hung child cannot hang the test
      const char* args[] = {
          "spoor_tests", "--gtest_filter=SpoorEnvironment.ThresholdsComeFromTheEnvironmentVariable",
          nullptr};
      ::execv("/proc/self/exe", const_cast<char* const*>(args));
      return 98;
   });
   EXPECT_EQ(Testing::waitChild(child), 0);
}

}  // namespace
