// tunnelctl driven as an operator drives it: the binary, run as separate processes under a store
// root of the test's own, its exact output, messages and exit statuses. Writers are `publish`
// processes; readers are `show` and `watch` processes; a `fib-builder` process writes the FIB that
// `fib`, `encap` and `resolve` read.
#include <fcntl.h>
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "testing/TempRoot.h"

extern char** environ;

namespace {

std::string readFile(const std::string& path) {
   std::ifstream in(path);
   std::stringstream s;
   s << in.rdbuf();
   return s.str();
}

void writeFile(const std::string& path, const std::string& text) {
   std::ofstream(path) << text;
}

// Whether `text` matches the shell pattern `glob` as a whole ('*' crosses '/'; '[' is escaped as
// "\\[" where meant literally).
bool like(const std::string& text, const std::string& glob) {
   return ::fnmatch(glob.c_str(), text.c_str(), 0) == 0;
}

std::string repeat(const std::string& s, int n) {
   std::string out;
   while (n-- > 0) out += s;
   return out;
}

// One tunnelctl process, its output in files of the test's root.
class Tool {
  public:
   Tool(const std::string& dir, std::vector<std::string> args) {
      static int n = 0;
      const std::string base = dir + "/tool" + std::to_string(++n);
      out_ = base + ".out";
      err_ = base + ".err";
      args.insert(args.begin(), TUNNELCTL_BINARY);
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      posix_spawn_file_actions_t fa;
      posix_spawn_file_actions_init(&fa);
      posix_spawn_file_actions_addopen(&fa, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      posix_spawn_file_actions_addopen(&fa, 2, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (posix_spawn(&pid_, TUNNELCTL_BINARY, &fa, nullptr, argv.data(), environ) != 0) pid_ = 0;
      posix_spawn_file_actions_destroy(&fa);
      EXPECT_NE(pid_, 0) << "cannot start " << TUNNELCTL_BINARY;
   }
   ~Tool() {
      if (pid_ > 0 && status_ < 0) {
         ::kill(pid_, SIGKILL);
         finish();
      }
   }
   // Waits for the process; its exit status (128 + signal when a signal ended it).
   int finish() {
      if (status_ >= 0 || pid_ <= 0) return status_;
      int s = 0;
      ::waitpid(pid_, &s, 0);
      status_ = WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
      return status_;
   }
   void signal(int sig) const { ::kill(pid_, sig); }
   pid_t pid() const { return pid_; }
   std::string out() const { return readFile(out_); }
   std::string err() const { return readFile(err_); }
   // Waits (at most 20 s) until a line of the output matches the shell pattern `pattern`.
   bool waitFor(const std::string& pattern, bool onStderr = false) const {
      for (int i = 0; i < 400; ++i) {
         std::istringstream lines(onStderr ? err() : out());
         for (std::string line; std::getline(lines, line);) {
            if (like(line, pattern)) return true;
         }
         std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      ADD_FAILURE() << "no line matching " << pattern << " in:\n" << out() << err();
      return false;
   }

  private:
   pid_t pid_ = 0;
   int status_ = -1;
   std::string out_, err_;
};

struct Result {
   int status;
   std::string out, err;
};

class OperatorTest : public ::testing::Test {
  protected:
   Result run(std::vector<std::string> args) {
      Tool t(root_.path(), std::move(args));
      const int status = t.finish();
      return {status, t.out(), t.err()};
   }
   std::string file(const std::string& name, const std::string& text) {
      const std::string path = root_.path() + "/" + name;
      writeFile(path, text);
      return path;
   }
   std::string path(const std::string& relative) const { return root_.path() + "/" + relative; }
   Testing::TempRoot root_;
};

// LDP tunnels: index 1 to 10.0.0.0/8, 2 to 10.1.0.0/16, 3 to 10.1.2.3; metric `m1` on index 1.
std::string ldpTunnels(int m1 = 10, bool withThree = true) {
   std::string t = R"({"tunnels": [
      {"table": "ldp", "index": 1, "endpoint": "10.0.0.0/8", "name": "core-a", "entryMetric": )" +
                   std::to_string(m1) + R"(,
       "vias": [{"nextHop": "10.0.1.1", "interface": "Ethernet1", "labels": "push 100"}]},
      {"table": "ldp", "index": 2, "endpoint": "10.1.0.0/16", "name": "core-b", "entryMetric": 20,
       "vias": [{"nextHop": "10.0.2.1", "interface": "Ethernet2", "labels": "push 200"},
                {"nextHop": "10.0.1.1", "interface": "Ethernet1", "labels": "push 201"}]})";
   if (withThree) {
      t += R"(,
      {"table": "ldp", "index": 3, "endpoint": "10.1.2.3", "name": "edge-c", "entryMetric": 30,
       "vias": [{"nextHop": "10.0.2.1", "interface": "Ethernet2"}]})";
   }
   return t + "]}";
}

TEST_F(OperatorTest, UsageMistakesExitTwoWithTheirReason) {
   const struct {
      std::vector<std::string> args;
      std::string err;  // the first line of stderr
   } cases[] = {
       {{"frobnicate"}, "The following argument was not expected: frobnicate"},
       {{"show"}, "TABLE is required"},
       {{"show", "ldp", "--bogus"}, "The following argument was not expected: --bogus"},
       {{"watch", "ldpp"}, "tunnelctl: unknown table 'ldpp' (known: bgpLu, bgpLuPush, ldp, "},
       {{"show", "ldp", "--endpoint", "10.0.0.300"},
        "tunnelctl: --endpoint: not an IPv4/IPv6 prefix or address: '10.0.0.300'"},
       {{"watch", "ldp", "--nexthop", "nowhere"},
        "tunnelctl: --nexthop: not an IPv4/IPv6 address: 'nowhere'"},
       {{"show", "ldp", "17592186044416"},
        "tunnelctl: tunnel index 17592186044416 is out of range"},
   };
   for (const auto& c : cases) {
      const Result r = run(c.args);
      EXPECT_EQ(r.status, 2) << c.args[0] << " " << r.err;
      EXPECT_EQ(r.err.substr(0, c.err.size()), c.err);
   }
}

TEST_F(OperatorTest, BadDescriptionsAreRefusedWithTheirPlaceAndPublishNothing) {
   const std::string big(1000000, 'x');
   const struct {
      std::string name, text, err;
   } cases[] = {
       {"deep", std::string(100000, '['),
        ": " + repeat("[0]", 64) + ": nesting deeper than 64 levels"},
       {"dupkey", R"({"tunnels": [], "tunnels": []})", ": tunnels: duplicate key 'tunnels'"},
       {"labels",
        R"({"tunnels": [{"table": "ldp", "index": 1, "vias": [{"nextHop": "10.0.1.1", "labels": ""}]}]})",
        ": tunnels[0].vias[0].labels: an empty label operation; leave \"labels\" out for none"},
       {"ascii", "{\"tunnels\": [{\"table\": \"ldp\", \"index\": 1, \"name\": \"caf\xc3\xa9\"}]}",
        ": tunnels[0].name: a name is printable ASCII; byte 0xc3 at offset 3 is not"},
       {"address", R"({"tunnels": [{"table": "ldp", "index": 1, "vias": [{"nextHop": "x"}]}]})",
        ": tunnels[0].vias[0].nextHop: bad IPv4/IPv6 address 'x'"},
       {"excerpt", R"({"tunnels": [{"table": "ldp", "index": ")" + big + R"("}]})",
        ": tunnels[0].index: expected a whole number from 0 to 18446744073709551615, got \"" +
            std::string(59, 'x') + "..."},
   };
   for (const auto& c : cases) {
      const std::string f = file(c.name + ".json", c.text);
      const Result r = run({"publish", "--once", f});
      EXPECT_EQ(r.status, 1) << c.name;
      EXPECT_EQ(r.err, "tunnelctl: " + f + c.err + "\n") << c.name;
   }
   EXPECT_EQ(run({"list"}).out.find("ldp"), std::string::npos) << "nothing was published";
}

TEST_F(OperatorTest, ATunnelTooLargeForItsTableIsRefusedAndTheRestPublished) {
   // A BGP-LU tunnel of 600 vias pushing 1,100 labels: above its table's largest entry.
   std::string vias, labels = "push";
   for (int i = 0; i < 600; ++i) vias += std::string(i ? "," : "") + R"({"nextHop": "10.0.1.1"})";
   for (int i = 0; i < 1100; ++i) labels += " 16";
   const std::string net = file("net.json", R"({"tunnels": [
      {"table": "ldp", "index": 1, "vias": [{"nextHop": "10.0.1.1"}]},
      {"table": "bgpLu", "index": 7, "vias": [)" +
                                                vias + R"(], "labels": ")" + labels + R"("},
      {"table": "bgpLu", "index": 8, "vias": [{"nextHop": "10.0.1.1"}]}]})");
   const Result r = run({"publish", "--once", net});
   EXPECT_EQ(r.status, 0) << r.err;
   EXPECT_EQ(r.err,
             "tunnelctl: tunnels[1]: Tunnel::TunnelTable::BgpLuTunnelTable bgpLu: entry "
             "Value('Tunnel::TunnelTable::TunnelId', ** {'value': 35184372088839}) is 21791 bytes "
             "serialized, above the table's largest of 21487 bytes; not written\n");
   EXPECT_NE(r.out.find("bgpLu: 2 tunnels (1 written, 0 removed)\n"), std::string::npos) << r.out;
   EXPECT_NE(r.out.find("ldp: 1 tunnels (1 written, 0 removed)\n"), std::string::npos) << r.out;
}

TEST_F(OperatorTest, ShowLooksUpFiltersAndCounts) {
   ASSERT_EQ(run({"publish", "--once", file("net.json", ldpTunnels())}).status, 0);
   const std::string header =
       "INDEX  ENDPOINT     NAME    NEXTHOP   INTERFACE  LABELS    METRIC  VIAS\n";
   const std::string row1 =
       "1      10.0.0.0/8   core-a  10.0.1.1  Ethernet1  push 100  10      1\n";
   const std::string row2 =
       "2      10.1.0.0/16  core-b  10.0.2.1  Ethernet2  push 200  20      2\n";
   const std::string row3 =
       "3      10.1.2.3/32  edge-c  10.0.2.1  Ethernet2  -         30      1\n";
   EXPECT_EQ(run({"show", "ldp"}).out, "ldp: 3 entries\n" + header + row1 + row2 + row3);
   // The rest by the indexes shown (columns are as wide as what they show).
   const struct {
      std::vector<std::string> args;
      std::string out;  // the header line, then the indexes shown
   } cases[] = {
       {{"show", "ldp", "2"}, "ldp: 3 entries, 1 shown | 2"},
       // Exact, then longest match, as a route lookup; an address is its host prefix.
       {{"show", "ldp", "--endpoint", "10.1.2.3"}, "ldp: 3 entries, 1 shown | 3"},
       {{"show", "ldp", "--endpoint", "10.1.2.4"}, "ldp: 3 entries, 1 shown | 2"},
       {{"show", "ldp", "--endpoint", "10.2.0.0/16"}, "ldp: 3 entries, 1 shown | 1"},
       {{"show", "ldp", "--endpoint", "11.0.0.1"}, "ldp: 3 entries, 0 shown |"},
       // Any via, not only the first; filters combine.
       {{"show", "ldp", "--nexthop", "10.0.1.1"}, "ldp: 3 entries, 2 shown | 1 2"},
       {{"show", "ldp", "--nexthop", "10.0.2.1", "--name", "core-*"},
        "ldp: 3 entries, 1 shown | 2"},
       {{"show", "ldp", "--nexthop", "10.0.1.1", "--count"}, "ldp: 3 entries, 2 shown |"},
       {{"show", "ldp", "--count"}, "ldp: 3 entries |"},
   };
   for (const auto& c : cases) {
      const Result r = run(c.args);
      EXPECT_EQ(r.status, 0) << c.args.back() << r.err;
      std::istringstream lines(r.out);
      std::string line, shown;
      std::getline(lines, shown);
      shown += " |";
      for (bool header = true; std::getline(lines, line); header = false) {
         if (!header) shown += " " + line.substr(0, line.find(' '));
      }
      EXPECT_EQ(shown, c.out) << c.args.back();
   }
   const Result missing = run({"show", "ldp", "7"});
   EXPECT_EQ(missing.status, 1);
   EXPECT_EQ(missing.out, "");
   EXPECT_EQ(missing.err, "tunnelctl: ldp has no tunnel with index 7\n");
   // --detail: the text form; --json: one document, entries in key order, count last.
   const Result detail = run({"show", "ldp", "3", "--detail"});
   EXPECT_EQ(detail.out.substr(0, 87),
             "ldp: 3 entries, 1 shown\nValue('Tunnel::TunnelTable::LdpTunnelTableEntry', ** "
             "{'tunnelId");
   const Result json = run({"show", "ldp", "--json", "--name", "core-?"});
   const auto doc = nlohmann::json::parse(json.out);
   EXPECT_EQ(doc["count"], 2);
   EXPECT_EQ(doc["entries"][1]["via"][1]["labels"],
             nlohmann::json::parse(R"({"operation":"push","pops":0,"labels":[201]})"));
   EXPECT_EQ(doc["entries"][0]["tunnelId"]["index"], 1);
}

// One watch event of --json -t: its time is UTC with milliseconds; returns it without "time".
nlohmann::ordered_json event(const std::string& line) {
   auto j = nlohmann::ordered_json::parse(line);
   const std::string d = "[0-9]";
   EXPECT_TRUE(like(j["time"].get<std::string>(), repeat(d, 4) + "-" + d + d + "-" + d + d + "T" +
                                                      d + d + ":" + d + d + ":" + d + d + "." +
                                                      repeat(d, 3) + "Z"))
       << line;
   j.erase("time");
   if (j.contains("entry")) j["entry"] = j["entry"]["name"];  // the name says which entry
   return j;
}

TEST_F(OperatorTest, WatchShowsRealChangesWriterRestartsAndWaitsForTheTable) {
   const std::string net = file("net.json", ldpTunnels());
   // Started before any writer: it waits, then synchronizes with the first one.
   Tool waiter(root_.path(), {"watch", "ldp", "--json", "--wait", "--seconds", "60"});
   ASSERT_TRUE(waiter.waitFor(R"({"event":"waiting","table":"ldp"})"));
   Tool pub(root_.path(), {"publish", net});
   ASSERT_TRUE(pub.waitFor("ready: 3 tunnels*"));
   ASSERT_TRUE(waiter.waitFor(
       R"({"event":"synchronized","table":"ldp","entries":?,"matching":?,"writerPid":)" +
       std::to_string(pub.pid()) + "}"));
   waiter.signal(SIGTERM);
   EXPECT_EQ(waiter.finish(), 0);
   Tool all(root_.path(), {"watch", "ldp", "--json", "-t", "--seconds", "60"});
   ASSERT_TRUE(all.waitFor(R"(*"event":"synchronized"*)"));
   Tool edge(root_.path(), {"watch", "ldp", "--endpoint", "10.1.2.3", "--seconds", "60"});
   ASSERT_TRUE(edge.waitFor("ldp: synchronized, 3 entries, 3 match"));

   // A reload: index 1's metric changes and index 3 goes.
   writeFile(net, ldpTunnels(11, false));
   pub.signal(SIGHUP);
   ASSERT_TRUE(pub.waitFor("reloaded *: 2 changes"));
   ASSERT_TRUE(all.waitFor(R"(*"event":"removed"*)"));

   // The writer killed and another started on a file where only index 1 differs again: the
   // restart is one marker naming index 1, not a change of every key.
   pub.signal(SIGKILL);
   pub.finish();
   writeFile(net, ldpTunnels(12, false));
   Tool pub2(root_.path(), {"publish", net});
   ASSERT_TRUE(pub2.waitFor("ready: 2 tunnels*"));
   ASSERT_TRUE(all.waitFor(R"(*"event":"resynchronized"*)"));
   ASSERT_TRUE(edge.waitFor("ldp: resynchronized*"));
   all.signal(SIGTERM);
   edge.signal(SIGTERM);
   EXPECT_EQ(all.finish(), 0);
   EXPECT_EQ(edge.finish(), 0);

   std::vector<nlohmann::ordered_json> events;
   std::istringstream lines(all.out());
   for (std::string line; std::getline(lines, line);) events.push_back(event(line));
   const std::string p1 = std::to_string(pub.pid()), p2 = std::to_string(pub2.pid());
   const std::vector<std::string> want = {
       R"({"event":"synchronized","table":"ldp","entries":3,"matching":3,"writerPid":)" + p1 + "}",
       R"({"event":"changed","table":"ldp","index":1,"entry":"core-a"})",
       R"({"event":"removed","table":"ldp","index":3})",
       R"({"event":"writerGone","table":"ldp","pid":)" + p1 + "}",
       R"({"event":"writerBack","table":"ldp","pid":)" + p2 + "}",
       R"({"event":"resynchronized","table":"ldp","writerPid":)" + p2 + R"(,"differed":[1]})",
       R"({"event":"changed","table":"ldp","index":1,"entry":"core-a"})",
       R"({"event":"stopped","table":"ldp","changes":3})",
   };
   ASSERT_EQ(events.size(), want.size()) << all.out();
   for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(events[i].dump(), want[i]) << i;

   // The filtered watch: every entry covering 10.1.2.3; the text lines.
   std::string text = edge.out();
   for (size_t at; (at = text.find("changed: Value(")) != std::string::npos;) {
      text.erase(at + 7, text.find('\n', at) - at - 7);
   }
   EXPECT_EQ(text,
             "ldp: synchronized, 3 entries, 3 match\n"
             "ldp index 1 changed\n"
             "ldp index 3 removed\n"
             "ldp: writer pid " +
                 p1 +
                 " gone\n"
                 "ldp: writer pid " +
                 p2 +
                 " back\n"
                 "ldp: resynchronized with writer pid " +
                 p2 +
                 ": 1 keys differed: index 1\n"
                 "ldp index 1 changed\n"
                 "ldp: 3 changes\n");
}

// The metrics of the ldp entries a reader process sees, in key order.
std::string ldpMetrics(const Result& shown) {
   std::string metrics;
   const auto doc = nlohmann::json::parse(shown.out);
   for (const auto& e : doc["entries"]) {
      metrics += (metrics.empty() ? "" : " ") + std::to_string(e["entryMetric"].get<int>());
   }
   return metrics;
}

TEST_F(OperatorTest, AReloadPublishesOnlyWhatChangedAndABadEditKeepsTheTables) {
   const std::string net = file("net.json", ldpTunnels());
   Tool pub(root_.path(), {"publish", net});
   ASSERT_TRUE(pub.waitFor("ready: 3 tunnels*"));
   const struct {
      std::string what, text;
      std::string out, err;  // what the writer prints for the reload
      std::string metrics;   // of the ldp entries a reader sees afterwards
   } reloads[] = {
       {"a change and a removal", ldpTunnels(11, false),
        "ldp index 1: written\nldp index 3: removed\nreloaded " + net + ": 2 changes\n", "",
        "11 20"},
       {"a syntax error", R"({"tunnels": [)", "",
        "tunnelctl: " + net +
            ":1: syntax error while parsing value - unexpected end of input; expected '[', '{', "
            "or a literal; keeping what is published\n",
        "11 20"},
       {"the same description again", ldpTunnels(11, false), "reloaded " + net + ": 0 changes\n",
        "", "11 20"},
       {"ldp no longer described: emptied, in key order",
        R"({"tunnels": [{"table": "static", "index": 1, "vias": [{"nextHop": "10.0.1.1"}]}]})",
        "static index 1: written\nldp index 1: removed\nldp index 2: removed\nreloaded " + net +
            ": 3 changes\n",
        "", ""},
   };
   for (const auto& r : reloads) {
      const size_t outBefore = pub.out().size(), errBefore = pub.err().size();
      writeFile(net, r.text);
      pub.signal(SIGHUP);
      for (int i = 0; i < 400 && pub.out().size() == outBefore && pub.err().size() == errBefore;
           ++i) {
         std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the rest of its lines
      EXPECT_EQ(pub.out().substr(outBefore), r.out) << r.what;
      EXPECT_EQ(pub.err().substr(errBefore), r.err) << r.what;
      EXPECT_EQ(ldpMetrics(run({"show", "ldp", "--json"})), r.metrics) << r.what;
   }
   pub.signal(SIGTERM);
   EXPECT_EQ(pub.finish(), 0);
   EXPECT_TRUE(pub.out().ends_with("\nstopped\n")) << pub.out();
}

TEST_F(OperatorTest, AReloadNeedingATableAnotherWriterHoldsIsRefusedWhole) {
   const std::string net = file("net.json", ldpTunnels());
   Tool pub(root_.path(), {"publish", net});
   ASSERT_TRUE(pub.waitFor("ready: 3 tunnels*"));
   const std::string other =
       file("other.json",
            R"({"tunnels": [{"table": "static", "index": 1, "vias": [{"nextHop": "10.0.1.1"}]}]})");
   Tool holder(root_.path(), {"publish", other});
   ASSERT_TRUE(holder.waitFor("ready: 1 tunnels*"));
   // The edit changes ldp and needs static, which the other writer holds.
   std::string edit = ldpTunnels(99);
   edit.insert(edit.size() - 2,
               R"(, {"table": "static", "index": 2, "vias": [{"nextHop": "10.0.1.1"}]})");
   writeFile(net, edit);
   pub.signal(SIGHUP);
   ASSERT_TRUE(pub.waitFor("*already has a live writer (pid " + std::to_string(holder.pid()) +
                               ")*; keeping what is published",
                           true));
   EXPECT_EQ(::kill(pub.pid(), 0), 0) << "the publisher goes on";
   const Result shown = run({"show", "ldp", "1"});
   EXPECT_NE(shown.out.find("core-a  10.0.1.1  Ethernet1  push 100  10 "), std::string::npos)
       << shown.out;
   EXPECT_EQ(run({"show", "static", "--count"}).out, "static: 1 entries\n");
   // The same edit once the other writer is gone applies whole.
   holder.signal(SIGTERM);
   EXPECT_EQ(holder.finish(), 0);
   pub.signal(SIGHUP);
   ASSERT_TRUE(pub.waitFor("reloaded *: 3 changes"));  // ldp 1, static 2 written, static 1 gone
   EXPECT_EQ(run({"show", "static", "2", "--count"}).out, "static: 1 entries, 1 shown\n");
}

TEST_F(OperatorTest, DamagedFilesAreExplainedAtOnce) {
   Tool pub(root_.path(), {"publish", file("net.json", ldpTunnels())});
   ASSERT_TRUE(pub.waitFor("ready: 3 tunnels*"));
   const Result valid = run({"validate", "ldp", "--json"});
   EXPECT_EQ(valid.status, 0);
   EXPECT_TRUE(like(valid.out, R"({"table":"ldp","valid":true,"occupiedSlots":3,"freeSlots":*,)"
                               R"("slabEntries":3})"
                               "\n"))
       << valid.out;
   const std::string dir = path("tunnel/table/ldp/entry");
   {
      std::fstream f(dir + "/slots", std::ios::in | std::ios::out | std::ios::binary);
      f.write("XXXX", 4);
   }
   const std::string why = dir + "::attach() cannot attach to shmem " + dir +
                           "/slots size:*: bad magic: 544f4c5358585858";
   // Damaged under a live writer, which may be re-formatting them: the reason once, and the end
   // of the wait with the last reason.
   const Result waited = run({"show", "ldp"});
   EXPECT_EQ(waited.status, 1);
   EXPECT_TRUE(
       like(waited.err, "tunnelctl: ldp: waiting for the writer: " + why +
                            "\ntunnelctl: ldp: the reader did not synchronize within 10 s: " + why +
                            "\n"))
       << waited.err;
   pub.signal(SIGTERM);
   EXPECT_EQ(pub.finish(), 0);

   const Result invalid = run({"validate", "ldp", "--json"});
   EXPECT_EQ(invalid.status, 1);
   EXPECT_EQ(invalid.out,
             R"({"table":"ldp","valid":false,"error":"Dock tunnel/table/ldp/entry validation )"
             R"(failed: bad magic: 544f4c5358585858"})"
             "\n");
   // No writer to repair them: the reader says why and stops.
   const Result shown = run({"show", "ldp"});
   EXPECT_EQ(shown.status, 1);
   EXPECT_TRUE(like(shown.err, "tunnelctl: ldp: cannot attach: " + why + "\n")) << shown.err;
   // A writer re-formats them and says so.
   const Result again = run({"publish", "--once", path("net.json")});
   EXPECT_EQ(again.status, 0);
   EXPECT_EQ(again.err,
             "tunnelctl: warning: ldp: its files were damaged and have been re-formatted: failed "
             "to validate existing files: bad magic: 544f4c5358585858\n");
   EXPECT_EQ(run({"show", "ldp", "--count"}).out, "ldp: 3 entries\n");
}

}  // namespace

namespace ConfigViews {

// An LDP and a BGP-LU tunnel, and both configurations; `ldpEndpoint` and `nhgMetric` change.
std::string description(const std::string& ldpEndpoint, int nhgMetric) {
   return R"({"tunnels": [
      {"table": "ldp", "index": 1, "endpoint": ")" +
          ldpEndpoint + R"(", "igpMetric": 7},
      {"table": "bgpLu", "index": 2, "endpoint": "192.0.2.2/32"}],
    "decapGroups": [{"name": "g1", "tunnelType": "gre", "decapIps": ["10.9.0.1"]}],
    "decapPorts": [{"port": 4789, "payloadType": "ethernet"}],
    "nexthopGroupTunnels": [{"endpoint": "198.51.100.1/32", "nexthopGroup": "nhg", "igpMetric": )" +
          std::to_string(nhgMetric) + "}]}";
}

}  // namespace ConfigViews

TEST_F(OperatorTest, ConfigurationsAreReadFromOtherProcessesAndFollowTheirSources) {
   EXPECT_EQ(run({"decap"}).err,
             "tunnelctl: the decap configuration is not published (publish a description with "
             "it)\n");
   EXPECT_EQ(run({"redist", "ospf"}).status, 2);
   const std::string net = file("net.json", ConfigViews::description("10.1.0.0/16", 10));
   Tool redistributor(root_.path(), {"redistributor"});
   ASSERT_TRUE(redistributor.waitFor("redistributor: following ldp and bgpLu*"));
   Tool pub(root_.path(), {"publish", net});
   ASSERT_TRUE(pub.waitFor("ready: 2 tunnels*"));
   EXPECT_NE(pub.out().find("decap: 1 groups, 1 ports, ready\nnexthop-group tunnels: 1\n"),
             std::string::npos);

   const auto redistOnce = [&](const std::string& want) {
      Result r;
      for (int i = 0; i < 100; ++i) {
         r = run({"redist"});
         if (r.out == want) break;
         std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
      return r.out;
   };
   const std::string first =
       "TunnelRedistConfig ldp: 1 entries\n  10.1.0.0/16\n    ldpTunnel index 1 igpMetric 7\n"
       "TunnelRedistConfig bgpLu: 1 entries\n  192.0.2.2/32\n    bgpLuTunnel index 2 igpMetric "
       "0\n";
   EXPECT_EQ(redistOnce(first), first);
   EXPECT_EQ(run({"decap"}).out,
             "Decap config tunnel/decap/config (ready): 1 decap groups, 1 ports\n"
             "  group g1 gre vrf default: 10.9.0.1/32\n  port 4789 payload ethernet\n");
   EXPECT_EQ(run({"nexthop-group"}).out,
             "NexthopGroup config tunnel/nexthopGroup/config: 1 tunnels\n"
             "  198.51.100.1/32 nexthop-group nhg igpPref 0 igpMetric 10\n");

   // The LDP tunnel's endpoint moves and the nexthop-group tunnel's metric changes.
   const size_t before = pub.out().size();
   writeFile(net, ConfigViews::description("10.2.0.0/16", 11));
   pub.signal(SIGHUP);
   ASSERT_TRUE(pub.waitFor("reloaded *"));
   EXPECT_EQ(pub.out().substr(before),
             "ldp index 1: written\nnexthop-group tunnel "
             "198.51.100.1/32: written\nreloaded " +
                 net + ": 2 changes\n");
   const std::string moved =
       "TunnelRedistConfig ldp: 1 entries\n  10.2.0.0/16\n    ldpTunnel index 1 igpMetric 7\n"
       "TunnelRedistConfig bgpLu: 1 entries\n  192.0.2.2/32\n    bgpLuTunnel index 2 igpMetric "
       "0\n";
   EXPECT_EQ(redistOnce(moved), moved);
   const Result json = run({"nexthop-group", "--json"});
   EXPECT_NE(json.out.find("\"igpMetric\": 11"), std::string::npos) << json.out;
   EXPECT_EQ(run({"redist", "bgpLu", "--json"}).status, 0);
   pub.signal(SIGTERM);
   redistributor.signal(SIGTERM);
   EXPECT_EQ(pub.finish(), 0);
   EXPECT_EQ(redistributor.finish(), 0);
}

TEST_F(OperatorTest, FibBuilderFillsTheFibThatFibEncapAndResolveRead) {
   // The example network, plus two BGP-LU tunnels riding on each other and one whose labels and
   // LDP 21's make too deep a stack.
   auto net = nlohmann::ordered_json::parse(
       readFile(std::string(TUNNEL_SOURCE_DIR) + "/examples/network.json"));
   const auto bgpLu = [](int index, const char* table, int inner) {
      return nlohmann::ordered_json{{"table", "bgpLu"},
                                    {"index", index},
                                    {"vias", {{{"tunnel", {{"table", table}, {"index", inner}}}}}}};
   };
   net["tunnels"].push_back(bgpLu(901, "bgpLu", 902));
   net["tunnels"].push_back(bgpLu(902, "bgpLu", 901));
   net["tunnels"].push_back(bgpLu(903, "ldp", 21));
   net["tunnels"].back()["labels"] = "push 1 2 3 4 5 6 7 8 9 10 11";
   Tool pub(root_.path(), {"publish", file("net.json", net.dump())});
   ASSERT_TRUE(pub.waitFor("ready: 99 tunnels*"));
   Tool builder(root_.path(), {"fib-builder"});
   ASSERT_TRUE(
       builder.waitFor("fib-builder: settled: 95 entries; encapsulations: * labelStack, 2 "
                       "gre, 1 ipsecGre, 1 ipsecVti, 6 vxlan (this process only); 0 "
                       "refused"));

   // BGP-LU 300 rides on LDP 21; which label stack encapsulation each names is the builder's.
   const auto doc = nlohmann::json::parse(run({"resolve", "bgpLu:300", "--json"}).out);
   const auto& outer = doc["chain"]["vias"][0];
   const auto& inner = outer["inner"]["vias"][0];
   EXPECT_EQ(outer["tunnelId"]["type"], "ldpTunnel");
   EXPECT_EQ(outer["inner"]["tunnelId"]["index"], 21);
   EXPECT_EQ(doc["flattened"], nlohmann::json::parse(R"([{"nextHop": "10.0.1.1",
       "intfId": "Ethernet1", "labels": {"operation": "push", "pops": 0,
       "labels": [24021, 100200]}}])"));
   EXPECT_EQ(doc["reason"], nullptr);
   const std::string outerEncap = "MPLS " + outer["encapId"]["value"].dump();
   const std::string innerEncap = "MPLS " + inner["encapId"]["value"].dump();

   EXPECT_EQ(run({"resolve", "bgpLuTunnel:300"}).out,
             "bgpLuTunnel:300\n  via 0.0.0.0 ldpTunnel:21 " + outerEncap +
                 " push 100200\n    ldpTunnel:21\n      via 10.0.1.1 Ethernet1 " + innerEncap +
                 " push 24021\nflattened: 1 final via\n  10.0.1.1 Ethernet1 push 24021 100200\n");
   EXPECT_EQ(run({"resolve", "bgpLu:901"}).out,
             "bgpLuTunnel:901\n  via 0.0.0.0 bgpLuTunnel:902 -\n    bgpLuTunnel:902\n"
             "      via 0.0.0.0 bgpLuTunnel:901 -\n        cycle back to bgpLuTunnel:901\n"
             "flattened: none: bgpLuTunnel:901 -> bgpLuTunnel:902 -> bgpLuTunnel:901: a cycle\n");
   EXPECT_TRUE(
       run({"resolve", "bgpLu:903"})
           .out.ends_with("\nflattened: none: label stack too deep: label stack of 12 "
                          "labels exceeds the capacity of 11 (resolving bgpLuTunnel:903)\n"));
   EXPECT_EQ(run({"fib", "bgpLu:300"}).out,
             "bgpLuTunnel:300 (tunnel id 35184372089132)\n  arePrimaryViasUsable yes, "
             "burnPrimaryVias no, resetFailoverState 0, seqNo 0\n  primary 0: 0.0.0.0 "
             "ldpTunnel:21 " +
                 outerEncap + " push 100200\n");
   const std::string rows = run({"fib"}).out;
   EXPECT_TRUE(
       rows.starts_with("tunnel/fib: 95 entries\nTUNNEL                    USABLE  "
                        "PRIMARY  BACKUP  VIAS\nbgpLuPushTunnel:400 "))
       << rows;
   EXPECT_NE(rows.find("\nbgpLuTunnel:300           yes     1        0       0.0.0.0 "
                       "ldpTunnel:21 " +
                       outerEncap + "\n"),
             std::string::npos)
       << rows;
   EXPECT_EQ(run({"encap", "gre"}).out,
             "tunnel/fib: 2 gre encapsulations\nENCAP  CONTENT\nGRE 1  srcAddr 10.255.0.7 dstAddr "
             "10.255.0.23 tunnelIntfPort 10 okey 1010 ikey 1010 mtu 1476 underlayVrfId 0 ttl 64 "
             "tos 0 pathMtuDiscovery true dontFragment false\nGRE 2  srcAddr 10.255.0.7 dstAddr "
             "10.255.0.24 tunnelIntfPort 11 okey 0 ikey 0 mtu 1476 underlayVrfId 0 ttl 64 tos 0 "
             "pathMtuDiscovery false dontFragment true\n");
   EXPECT_EQ(run({"encap", "vxlan"}).out,
             "vxlan: VXLAN encapsulations are kept only in the FIB builder's own process; no other "
             "process can read them\n");
   const Result missing = run({"resolve", "ldp:999"});
   EXPECT_EQ(missing.status, 1);
   EXPECT_EQ(missing.err, "tunnelctl: the tunnel FIB has no entry for ldpTunnel:999\n");
   // The re-resolving agent: a full pass at start, the too-deep tunnel named with its reason.
   Tool resolver(root_.path(), {"resolver"});
   EXPECT_TRUE(resolver.waitFor(
       "resolver: re-resolved 95 tunnels: 87 with final vias, 1 failed, 7 with none"));
   EXPECT_TRUE(resolver.waitFor("resolver: bgpLuTunnel:903: *label stack*"));
   resolver.signal(SIGTERM);
   EXPECT_EQ(resolver.finish(), 0);
   builder.signal(SIGTERM);
   pub.signal(SIGTERM);
   EXPECT_EQ(builder.finish(), 0);
   EXPECT_EQ(pub.finish(), 0);
}
