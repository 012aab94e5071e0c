// demo: one writer and two readers, each a separate process, on a network description.
//
//   1. the readers start first and mount every table as key-shadowing readers (the files do not
//      exist yet: they wait for the writer, as agents started before a protocol do);
//   2. the writer publishes the description; the readers report each per-key notification,
//      synchronization and quiescence on a pipe;
//   3. once both readers hold every tunnel, the writer applies the update description (SIGUSR1)
//      and the readers report the keys it changed;
//   4. the redistributor (started with the RIB builder, before the writer) has followed the LDP
//      and BGP-LU changes: the demo reads both redistribution configurations, as a third process,
//      before and after the update and prints what changed; then the RIBs the builder made;
//   5. the FIB builder (started beside the RIB builder) has settled: the demo resolves a BGP
//      labelled-unicast tunnel that rides on an LDP tunnel, as `tunnelctl resolve` shows it;
//   6. the readers are stopped (SIGTERM) and report the entries they hold; the others are stopped.
// The demo fails (exit 1) unless both readers end up holding exactly the update's entries.
//
// Unless TUNNEL_SHMEM_ROOT is set, the demo runs under a fresh temporary store root (removed at the
// end), so it needs no write access to /var/shmem and never disturbs a running system.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <tuple>

#include "Agent.h"
#include "Commands.h"
#include "Description.h"
#include "FibView.h"
#include "Publisher.h"
#include "RedistAgent.h"
#include "Region/StoreRoot.h"
#include "TunnelFib/TunnelFibBuilder.h"
#include "TunnelRib/CliTunnelRibExport.h"
#include "TunnelRib/TunnelRibBuilder.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

namespace {

// One line to the parent. Lines are short enough for one pipe write to stay whole.
void emit(int fd, const std::string& line) {
   const std::string l = line + "\n";
   size_t done = 0;
   while (done < l.size()) {
      const ssize_t n = ::write(fd, l.data() + done, l.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      done += size_t(n);
   }
}

std::vector<const TableEntry*> tablesOf(const Description& a, const Description& b) {
   std::set<const TableEntry*> all;
   for (auto* t : a.tables()) all.insert(t);
   for (auto* t : b.tables()) all.insert(t);
   std::vector<const TableEntry*> out(all.begin(), all.end());
   std::sort(out.begin(), out.end(), [](auto* x, auto* y) { return x->id < y->id; });
   return out;
}

// ---- the reader process ----
int readerMain(int fd, const std::vector<const TableEntry*>& tables) {
   Agent agent;
   bool stop = false;
   agent.signalsIs({SIGTERM, SIGINT}, [&](int) { stop = true; });
   struct Watcher : Vela::Entity::Notifiee {
      int fd;
      std::string mountName;
      void onAttribute(Vela::AttributeId attr, const void* key) override {
         if (attr != Vela::attrEntry || !key) return;
         const auto& id = *static_cast<const TT::TunnelId*>(key);
         emit(fd, "key " + mountName + " " + std::to_string(id.tunnelIndex()));
      }
   };
   struct Mounted {
      const TableEntry* table;
      Vela::Ptr<TT::TunnelTableBase> mounted;
      std::unique_ptr<Watcher> watcher;
      bool synced = false;
      bool quiesced = false;
   };
   std::vector<Mounted> mounts;
   for (const TableEntry* t : tables) {
      Mounted m{t, agent.mounter().mountKeyshadow(t->id), std::make_unique<Watcher>()};
      m.watcher->fd = fd;
      m.watcher->mountName = t->mountName;
      m.mounted->notifieeAdd(m.watcher.get());
      mounts.push_back(std::move(m));
      emit(fd, "mounted " + t->mountName);
   }
   // State changes are sampled between loop rounds and reported as they happen.
   agent.runUntil(
       [&] {
          for (auto& m : mounts) {
             const bool synced = readerSynchronized(*m.mounted);
             if (synced && !m.synced) {
                emit(fd,
                     "sync " + m.table->mountName + " " + std::to_string(m.mounted->entryCount()));
             }
             m.synced = synced;
             const bool q = synced && m.mounted->storeQuiesced();
             if (q != m.quiesced) emit(fd, (q ? "quiesced " : "busy ") + m.table->mountName);
             m.quiesced = q;
          }
          return stop;
       },
       std::chrono::minutes(10));
   for (auto& m : mounts) {
      for (const auto& [id, text] : tableSnapshot(*m.mounted)) {
         emit(fd, "entry " + m.table->mountName + " " + text);
      }
      m.mounted->notifieeDel(m.watcher.get());
   }
   emit(fd, "end");
   return 0;
}

// ---- the RIB builder process ----

// Runs the tunnel RIB builder; reports "settled <endpoints> <colored endpoints>" each time it
// settles, until SIGTERM.
int builderMain(int fd) {
   Agent agent;
   bool stop = false;
   agent.signalsIs({SIGTERM, SIGINT}, [&](int) { stop = true; });
   Tunnel::TunnelTable::TunnelRibBuilder builder(agent.mounter());
   Tunnel::TunnelTable::CliTunnelRibExport cli(builder);
   std::optional<uint64_t> reportedChanges;
   agent.runUntil(
       [&] {
          const uint64_t changes = builder.counters().tunnelChanges;
          if (builder.settled() && reportedChanges != changes) {
             reportedChanges = changes;
             emit(fd, "settled " + std::to_string(builder.tunnelRib()->entryCount()) + " " +
                          std::to_string(builder.coloredTunnelRib()->entryCount()));
          }
          return stop;
       },
       std::chrono::hours(1));
   emit(fd, "end");
   return 0;
}

// ---- the FIB builder process ----

// Runs the tunnel FIB builder; reports "settled <entries> <refused>" each time it settles on new
// changes, until SIGTERM.
int fibBuilderMain(int fd) {
   Agent agent;
   bool stop = false;
   agent.signalsIs({SIGTERM, SIGINT}, [&](int) { stop = true; });
   Tunnel::TunnelFib::TunnelFibBuilder builder(agent.mounter());
   std::optional<uint64_t> reportedChanges;
   agent.runUntil(
       [&] {
          const uint64_t changes = builder.counters().tunnelChanges;
          if (builder.settled() && reportedChanges != changes) {
             reportedChanges = changes;
             emit(fd, "settled " + std::to_string(builder.tunnelFib()->entryCount()) + " " +
                          std::to_string(builder.refused().size()));
          }
          return stop;
       },
       std::chrono::hours(1));
   emit(fd, "end");
   return 0;
}

// The first BGP-LU tunnel of the FIB, by id, with a primary via riding on an LDP tunnel; nothing
// when there is none (or the FIB cannot be read: said on stderr).
std::optional<TT::TunnelId> bgpLuOverLdp() {
   Agent agent;
   const auto fib = readTunnelFib(agent);
   if (!fib) return std::nullopt;
   std::vector<TT::TunnelId> keys = fib->entryKeys();
   std::sort(keys.begin(), keys.end());
   for (const TT::TunnelId& key : keys) {
      if (key.tunnelType() != TT::TunnelType::bgpLuTunnel) continue;
      const auto entry = fib->entryIf(key);
      if (!entry) continue;
      for (const auto& via : entry->tunnelVia()) {
         const auto inner = innerTunnel(via.intfId());
         if (inner && inner->tunnelType() == TT::TunnelType::ldpTunnel) return key;
      }
   }
   return std::nullopt;
}

// ---- the redistribution agent ----

// Runs the redistribution agent; reports "handled <table> <index>" for each key its machines have
// handled, until SIGTERM.
int redistributorMain(int fd) {
   Agent agent;
   bool stop = false;
   agent.signalsIs({SIGTERM, SIGINT}, [&](int) { stop = true; });
   RedistAgent redist(agent, [fd](const std::string& table, uint64_t index) {
      emit(fd, "handled " + table + " " + std::to_string(index));
   });
   agent.runUntil([&] { return stop; }, std::chrono::hours(1));
   emit(fd, "end");
   return 0;
}

// The redistribution configurations as this process reads them: (config, endpoint, tunnel) ->
// igpMetric.
using RedistView = std::map<std::tuple<std::string, std::string, std::string>, uint32_t>;
std::optional<RedistView> readRedist() {
   Agent agent;
   std::vector<Vela::Ptr<Tunnel::TunnelRedist::TunnelRedistConfig>> copies;
   for (const char* name : {kLdpRedistConfig, kBgpLuRedistConfig}) {
      copies.push_back(Tunnel::TunnelRedist::mountTunnelRedistConfig(agent.service(), name, false,
                                                                     agent.loop()));
   }
   const bool synced = agent.runUntil(
       [&] {
          for (const auto& c : copies) {
             if (!c->synchronized()) return false;
          }
          return true;
       },
       std::chrono::seconds(10));
   if (!synced) return std::nullopt;
   RedistView view;
   for (const auto& c : copies) {
      for (const auto& [prefix, entry] : c->entries()) {
         for (const auto& [id, info] : entry->memberTunnelInfos()) {
            const std::string tunnel =
                std::string(Tunnel::TunnelTable::tunnelTypeName(id.tunnelType())) + " index " +
                std::to_string(id.tunnelIndex());
            view[{c->name(), prefix.stringValue(), tunnel}] = info.igpMetric();
         }
      }
   }
   return view;
}

// ---- the writer process ----
int writerMain(int fd, const Description& first, const Description& update) {
   Agent agent;
   Publisher publisher(agent);
   bool stop = false;
   agent.signalsIs({SIGTERM, SIGINT, SIGUSR1}, [&](int sig) {
      if (sig != SIGUSR1) {
         stop = true;
         return;
      }
      const auto changes = publisher.apply(update);
      for (const auto& c : changes) {
         emit(fd, "change " + c.table->mountName + " " + std::to_string(c.id.tunnelIndex()) +
                      (c.removed ? " removed" : " written"));
      }
      emit(fd, "updated");
   });
   const auto changes = publisher.apply(first);
   emit(fd, "published " + std::to_string(changes.size()));
   agent.runUntil([&] { return stop; }, std::chrono::minutes(10));
   return 0;
}

// ---- the parent ----
struct Child {
   std::string name;
   pid_t pid = -1;
   int fd = -1;
   std::string buffer;
   bool eof = false;
   std::vector<std::string> lines;  // every line received, in order
};

pid_t spawn(Child& c, const std::function<int(int)>& body) {
   int p[2];
   if (::pipe2(p, O_CLOEXEC) != 0)
      throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
   std::cout.flush();
   const pid_t pid = ::fork();
   if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
   if (pid == 0) {
      ::close(p[0]);
      int status = 1;
      try {
         status = body(p[1]);
      } catch (const std::exception& e) {
         std::cerr << "tunnelctl demo: " << c.name << ": " << e.what() << std::endl;
      }
      ::_exit(status);
   }
   ::close(p[1]);
   c.pid = pid;
   c.fd = p[0];
   return pid;
}

class Children {
  public:
   std::vector<Child*> all;

   // Reads lines until `done()` holds; false after `timeout`.
   bool waitFor(const std::function<bool()>& done, std::chrono::seconds timeout) {
      const auto deadline = std::chrono::steady_clock::now() + timeout;
      while (!done()) {
         const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
             deadline - std::chrono::steady_clock::now());
         if (left.count() <= 0) return false;
         std::vector<pollfd> fds;
         for (Child* c : all) {
            if (!c->eof) fds.push_back({c->fd, POLLIN, 0});
         }
         if (fds.empty()) return done();
         if (::poll(fds.data(), fds.size(), int(left.count())) < 0 && errno != EINTR) return false;
         for (const auto& p : fds) {
            if (!p.revents) continue;
            for (Child* c : all) {
               if (c->fd == p.fd) drain(*c);
            }
         }
      }
      return true;
   }

   void killAll() {
      for (Child* c : all) {
         if (c->pid > 0) ::kill(c->pid, SIGKILL);
      }
   }

   // Waits for the child to exit; its exit status, or -1.
   static int reap(Child& c) {
      int status = 0;
      if (c.pid <= 0 || ::waitpid(c.pid, &status, 0) != c.pid) return -1;
      c.pid = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   }

  private:
   static void drain(Child& c) {
      char buf[65536];
      const ssize_t n = ::read(c.fd, buf, sizeof buf);
      if (n <= 0) {
         if (n == 0 || errno != EINTR) c.eof = true;
         return;
      }
      c.buffer.append(buf, size_t(n));
      size_t nl;
      while ((nl = c.buffer.find('\n')) != std::string::npos) {
         c.lines.push_back(c.buffer.substr(0, nl));
         c.buffer.erase(0, nl + 1);
      }
   }
};

// What a reader has told so far, from its lines.
struct ReaderView {
   std::map<std::string, std::vector<uint64_t>> keys;  // per table, every notified index, in order
   std::set<std::string> mounted, synced, quiesced;
   std::map<std::string, std::vector<std::string>> entries;
   bool ended = false;

   explicit ReaderView(const Child& c) {
      for (const auto& line : c.lines) {
         std::istringstream in(line);
         std::string word, table;
         in >> word >> table;
         if (word == "key") {
            uint64_t index = 0;
            in >> index;
            keys[table].push_back(index);
         } else if (word == "mounted") {
            mounted.insert(table);
         } else if (word == "sync") {
            synced.insert(table);
         } else if (word == "quiesced") {
            quiesced.insert(table);
         } else if (word == "busy") {
            quiesced.erase(table);
         } else if (word == "entry") {
            entries[table].push_back(line.substr(7 + table.size()));
         } else if (word == "end") {
            ended = true;
         }
      }
   }
};

std::map<std::string, std::vector<std::string>> expectedEntries(const Description& d) {
   std::map<std::string, std::vector<std::string>> out;
   for (const TableEntry* t : d.tables()) {
      std::vector<const DescribedTunnel*> ts = d.tunnelsOf(*t);
      std::sort(ts.begin(), ts.end(), [](auto* a, auto* b) { return a->id < b->id; });
      for (auto* dt : ts) out[t->mountName].push_back(dt->text());
   }
   return out;
}

size_t countOf(const std::map<std::string, std::vector<std::string>>& m) {
   size_t n = 0;
   for (const auto& [k, v] : m) n += v.size();
   return n;
}

}  // namespace

int runDemo(std::ostream& out, const std::string& file, const std::string& updateFile) {
   const Description first = loadDescription(file);
   const Description update = loadDescription(updateFile);
   const auto tables = tablesOf(first, update);

   std::string tempRoot;
   if (const char* r = std::getenv(Region::kStoreRootVariable); !r || !*r) {
      char dir[] = "/tmp/tunnelctl-demo.XXXXXX";
      if (!::mkdtemp(dir))
         throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
      tempRoot = dir;
      ::setenv(Region::kStoreRootVariable, dir, 1);
   }
   struct RootCleanup {
      std::string dir;
      ~RootCleanup() {
         std::error_code ec;
         if (!dir.empty()) std::filesystem::remove_all(dir, ec);
      }
   } cleanup{tempRoot};

   out << "tunnelctl demo: store root " << Region::storeRoot() << "\n";
   out << "network " << file << " (" << (first.name.empty() ? "unnamed" : first.name)
       << "): " << first.routers.size() << " routers, " << first.tunnels.size() << " tunnels in "
       << first.tables().size() << " tables\n";

   Child r1{"reader 1"}, r2{"reader 2"}, w{"writer"}, b{"rib builder"}, rd{"redistributor"},
       fb{"fib builder"};
   Children children;
   children.all = {&r1, &r2};
   auto fail = [&](const std::string& what) {
      children.killAll();
      for (Child* c : children.all) Children::reap(*c);
      std::cerr << "tunnelctl demo: " << what << std::endl;
      return 1;
   };

   // 1. Readers first.
   spawn(r1, [&](int fd) { return readerMain(fd, tables); });
   spawn(r2, [&](int fd) { return readerMain(fd, tables); });
   const auto allMounted = [&] {
      return ReaderView(r1).mounted.size() == tables.size() &&
             ReaderView(r2).mounted.size() == tables.size();
   };
   if (!children.waitFor(allMounted, std::chrono::seconds(20))) {
      return fail("the readers did not mount their tables within 20 s");
   }
   out << "reader 1 (pid " << r1.pid << ") and reader 2 (pid " << r2.pid << ") mounted "
       << tables.size() << " tables as key-shadowing readers, before any writer\n";

   // 2. The RIB and FIB builders mount the same tables, then the writer publishes.
   spawn(b, [&](int fd) { return builderMain(fd); });
   children.all.push_back(&b);
   spawn(fb, [&](int fd) { return fibBuilderMain(fd); });
   children.all.push_back(&fb);
   spawn(rd, [&](int fd) { return redistributorMain(fd); });
   children.all.push_back(&rd);
   spawn(w, [&](int fd) { return writerMain(fd, first, update); });
   children.all.push_back(&w);
   const auto expectFirst = expectedEntries(first);
   const auto holdsAll = [&](const Child& c) {
      ReaderView v(c);
      for (const TableEntry* t : first.tables()) {
         if (!v.synced.count(t->mountName) || !v.quiesced.count(t->mountName)) return false;
         std::set<uint64_t> seen(v.keys[t->mountName].begin(), v.keys[t->mountName].end());
         for (auto* dt : first.tunnelsOf(*t)) {
            if (!seen.count(dt->id.tunnelIndex())) return false;
         }
      }
      return true;
   };
   if (!children.waitFor([&] { return holdsAll(r1) && holdsAll(r2); }, std::chrono::seconds(30))) {
      return fail("the readers were not told of every published tunnel within 30 s");
   }
   out << "writer (pid " << w.pid << ") published " << first.tunnels.size() << " tunnels\n";
   for (Child* c : {&r1, &r2}) {
      ReaderView v(*c);
      size_t total = 0;
      for (const auto& [t, k] : v.keys) total += k.size();
      out << c->name << ": " << total << " per-key notifications; synchronized and quiesced on "
          << v.quiesced.size() << " tables\n";
      for (const TableEntry* t : first.tables()) {
         out << "  " << t->mountName << ": " << v.keys[t->mountName].size()
             << " notifications, synchronized, quiesced\n";
      }
   }

   // The redistributor has filed every LDP and BGP-LU tunnel: the configurations before the update.
   const auto redistHandled = [&](size_t from,
                                  const std::set<std::pair<std::string, uint64_t>>& keys) {
      std::set<std::pair<std::string, uint64_t>> handled;
      for (size_t i = from; i < rd.lines.size(); ++i) {
         std::istringstream in(rd.lines[i]);
         std::string word, table;
         uint64_t index = 0;
         if (in >> word >> table >> index && word == "handled") handled.insert({table, index});
      }
      return std::includes(handled.begin(), handled.end(), keys.begin(), keys.end());
   };
   std::set<std::pair<std::string, uint64_t>> redistKeys;
   for (const auto& t : first.tunnels) {
      if (t.table->mountName == "ldp" || t.table->mountName == "bgpLu") {
         redistKeys.insert({t.table->mountName, t.id.tunnelIndex()});
      }
   }
   if (!children.waitFor([&] { return redistHandled(0, redistKeys); }, std::chrono::seconds(30))) {
      return fail("the redistributor did not file every LDP and BGP-LU tunnel within 30 s");
   }
   const std::optional<RedistView> redistBefore = readRedist();
   if (!redistBefore) return fail("the redistribution configurations could not be read");

   // 3. The update.
   const size_t before1 = r1.lines.size(), before2 = r2.lines.size(), beforeW = w.lines.size(),
                beforeB = b.lines.size(), beforeRd = rd.lines.size(), beforeFb = fb.lines.size();
   ::kill(w.pid, SIGUSR1);
   const auto updated = [&] {
      for (size_t i = beforeW; i < w.lines.size(); ++i) {
         if (w.lines[i] == "updated") return true;
      }
      return false;
   };
   if (!children.waitFor(updated, std::chrono::seconds(20))) {
      return fail("the writer did not apply the update within 20 s");
   }
   std::vector<std::pair<std::string, uint64_t>> changed;
   out << "writer applied " << updateFile << ":\n";
   for (size_t i = beforeW; i < w.lines.size(); ++i) {
      std::istringstream in(w.lines[i]);
      std::string word, table, what;
      uint64_t index = 0;
      if (in >> word >> table >> index >> what && word == "change") {
         changed.emplace_back(table, index);
         out << "  " << table << " index " << index << ": " << what << "\n";
      }
   }
   const auto toldOfUpdate = [&](const Child& c, size_t from) {
      std::set<std::pair<std::string, uint64_t>> told;
      std::map<std::string, bool> q;
      for (size_t i = from; i < c.lines.size(); ++i) {
         std::istringstream in(c.lines[i]);
         std::string word, table;
         uint64_t index = 0;
         in >> word >> table;
         if (word == "key" && in >> index) told.insert({table, index});
         if (word == "quiesced") q[table] = true;
         if (word == "busy") q[table] = false;
      }
      for (const auto& k : changed) {
         if (!told.count(k)) return false;
      }
      for (const auto& [t, isQ] : q) {
         if (!isQ) return false;
      }
      return true;
   };
   if (!children.waitFor([&] { return toldOfUpdate(r1, before1) && toldOfUpdate(r2, before2); },
                         std::chrono::seconds(30))) {
      return fail("the readers were not told of every change within 30 s");
   }
   for (auto [c, from] : {std::pair{&r1, before1}, std::pair{&r2, before2}}) {
      out << c->name << " was notified of:";
      for (size_t i = from; i < c->lines.size(); ++i) {
         std::istringstream in(c->lines[i]);
         std::string word, table;
         uint64_t index = 0;
         if (in >> word >> table >> index && word == "key") out << " " << table << "/" << index;
      }
      out << "; quiesced again\n";
   }

   // The redistribution configurations follow the LDP and BGP-LU changes of the update.
   std::set<std::pair<std::string, uint64_t>> redistChanged;
   for (const auto& k : changed) {
      if (k.first == "ldp" || k.first == "bgpLu") redistChanged.insert(k);
   }
   if (!children.waitFor([&] { return redistHandled(beforeRd, redistChanged); },
                         std::chrono::seconds(30))) {
      return fail("the redistributor did not follow the update within 30 s");
   }
   const std::optional<RedistView> redistAfter = readRedist();
   if (!redistAfter) return fail("the redistribution configurations could not be read");
   out << "redistributor (pid " << rd.pid << ") followed the update; the configurations ("
       << redistAfter->size() << " members) changed:\n";
   const auto print = [&](const RedistView::key_type& key, const std::string& what) {
      const auto& [config, tep, tunnel] = key;
      out << "  " << config << " " << tep << ": " << tunnel << " igpMetric " << what << "\n";
   };
   for (const auto& [key, metric] : *redistBefore) {
      const auto it = redistAfter->find(key);
      if (it == redistAfter->end()) {
         print(key, std::to_string(metric) + " removed");
      } else if (it->second != metric) {
         print(key, std::to_string(metric) + " -> " + std::to_string(it->second));
      }
   }
   for (const auto& [key, metric] : *redistAfter) {
      if (!redistBefore->count(key)) print(key, std::to_string(metric) + " added");
   }

   // 4. The RIB the builder made of the update, as this (third) process reads it.
   // It says "settled" each time it has applied new changes and holds what the tables say.
   // Whether an agent said "settled" in a line from `from` on.
   const auto settledSince = [](const auto& agent, size_t from) {
      for (size_t i = from; i < agent.lines.size(); ++i) {
         if (agent.lines[i].rfind("settled ", 0) == 0) return true;
      }
      return false;
   };
   if (!children.waitFor([&] { return settledSince(b, beforeB); }, std::chrono::seconds(30))) {
      return fail("the RIB builder did not settle on the update within 30 s");
   }
   out << "rib builder (pid " << b.pid << ") " << b.lines.back() << "; the tunnel RIB:\n";
   if (runRib(out, false, "", false) != 0) return fail("the tunnel RIB could not be read");
   out << "the colored tunnel RIB:\n";
   if (runRib(out, true, "", false) != 0) return fail("the colored tunnel RIB could not be read");
   out << "every candidate of each endpoint, the RIB's choice marked *:\n";
   if (runRib(out, false, "", false, true) != 0)
      return fail("the candidate tree could not be read");

   // 5. The FIB the FIB builder made of the update: a BGP-LU tunnel over an LDP tunnel, resolved.
   if (!children.waitFor([&] { return settledSince(fb, beforeFb); }, std::chrono::seconds(30))) {
      return fail("the FIB builder did not settle on the update within 30 s");
   }
   {
      std::istringstream in(fb.lines.back());
      std::string word;
      size_t entries = 0, refused = 0;
      in >> word >> entries >> refused;
      out << "fib builder (pid " << fb.pid << ") settled: " << entries << " FIB entries, "
          << refused << " refused";
   }
   if (const auto tunnel = bgpLuOverLdp()) {
      out << "; a BGP-LU tunnel riding on an LDP tunnel, as `tunnelctl resolve "
          << tunnelName(*tunnel) << "` shows it:\n";
      if (runResolve(out, tunnelName(*tunnel), false) != 0) {
         return fail("the tunnel could not be resolved");
      }
   } else {
      out << "; no BGP-LU tunnel of the FIB rides on an LDP tunnel\n";
   }

   // 6. Readers report what they hold, then everyone stops.
   ::kill(r1.pid, SIGTERM);
   ::kill(r2.pid, SIGTERM);
   if (!children.waitFor([&] { return ReaderView(r1).ended && ReaderView(r2).ended; },
                         std::chrono::seconds(20))) {
      return fail("the readers did not report their entries within 20 s");
   }
   ::kill(w.pid, SIGTERM);
   ::kill(b.pid, SIGTERM);
   ::kill(rd.pid, SIGTERM);
   ::kill(fb.pid, SIGTERM);
   int status = 0;
   for (Child* c : {&r1, &r2, &w, &b, &rd, &fb}) {
      if (Children::reap(*c) != 0) {
         status = 1;
         std::cerr << "tunnelctl demo: " << c->name << " did not exit cleanly\n";
      }
   }

   const auto expected = expectedEntries(update);
   const ReaderView v1(r1), v2(r2);
   out << "final entries seen by reader 1 (" << countOf(v1.entries) << "):\n";
   for (const auto& [table, entries] : v1.entries) {
      out << "  " << table << " (" << entries.size() << ")\n";
      for (const auto& e : entries) out << "    " << e << "\n";
   }
   for (const auto* v : {&v1, &v2}) {
      const char* who = v == &v1 ? "reader 1" : "reader 2";
      auto held = v->entries;
      for (auto it = held.begin(); it != held.end();)
         it = it->second.empty() ? held.erase(it) : ++it;
      if (held != expected) {
         std::cerr << "tunnelctl demo: " << who << " does not hold the update's "
                   << countOf(expected) << " entries\n";
         status = 1;
      } else {
         out << who << ": holds exactly the " << countOf(expected) << " entries of " << updateFile
             << "\n";
      }
   }
   out << (status == 0 ? "demo passed" : "demo FAILED") << std::endl;
   return status;
}

}  // namespace TunnelCtl
