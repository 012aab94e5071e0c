// The resolution client: step by step in one process (which tunnels each change re-resolves, in
// which order, with which results and errors), then against a brute-force model while another
// process churns the FIB, its writer killed midway and replaced.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <random>
#include <set>

#include "TunnelFib/TunnelResolutionClient.h"
#include "Vault/MountService.h"
#include "Wirekit/Errors.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelFib {
namespace {

using TunnelTable::TunnelType;
using Wirekit::DynamicTunnelIntfId;
using Labels = std::vector<uint32_t>;
using std::chrono::milliseconds;

TunnelId idOf(TunnelType type, uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(type, index));
}
EncapId encap(uint32_t n) {
   return EncapId(TunnelTable::EncapType::labelStack, n);
}
// A final via to 10.0.0.<hop> on Ethernet<intf>; a via riding on the tunnel of an id value.
TunnelVia F(uint32_t hop, uint32_t intf, uint32_t e) {
   return TunnelVia(Wirekit::IpGenAddr::ipv4(0x0A000000u + hop),
                    Wirekit::IntfId::ordinary(Wirekit::IntfKind::ethernet, intf), encap(e));
}
TunnelVia V(uint64_t inner, uint32_t e) {
   return TunnelVia({}, DynamicTunnelIntfId::tunnelIdToIntfId(inner), encap(e));
}
TunnelFibEntry entryOf(const TunnelId& id, const std::vector<TunnelVia>& vias,
                       const std::vector<TunnelVia>& backup = {}) {
   TunnelFibEntry e(id);
   for (size_t i = 0; i < vias.size(); ++i) e.tunnelViaIs(TunnelViaIndex(i), vias[i]);
   for (size_t i = 0; i < backup.size(); ++i) e.backupTunnelViaIs(TunnelViaIndex(i), backup[i]);
   return e;
}
LabelStackEncap stackOf(uint32_t n, const Labels& labels) {
   return LabelStackEncap(encap(n), Wirekit::UnboundedMplsLabelOperation::push(labels));
}
const uint64_t kTooLarge = TunnelId::maxValue + 1;

TEST(TunnelResolutionClient, ReResolvesTheAffectedTunnelsInnerFirst) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Vault::MountService service;
   auto fib = mountTunnelFib(service, true, loop, 64);
   const TunnelId B1 = idOf(TunnelType::bgpLuTunnel, 1), L1 = idOf(TunnelType::ldpTunnel, 1),
                  L2 = idOf(TunnelType::ldpTunnel, 2), R1 = idOf(TunnelType::rsvpLerTunnel, 1);
   for (uint32_t n : {1, 2, 3}) fib->labelStackEncapIs(stackOf(n, {n == 1 ? 16u : n * 100}));
   fib->entryIs(entryOf(R1, {F(1, 1, 1)}));
   fib->entryIs(entryOf(L1, {V(R1.value(), 2)}));
   fib->entryIs(entryOf(L2, {V(R1.value(), 2)}));
   fib->entryIs(entryOf(B1, {V(L1.value(), 3)}));

   TunnelResolutionClient client(fib, loop);
   std::vector<TunnelId> applied;
   client.observerIs([&](const std::vector<TunnelId>& affected) { applied = affected; });
   // B1 / L1 / L2 / R1: the labels of each result, "-" for none, "error".
   const auto state = [&] {
      std::string s;
      for (const TunnelId& t : {B1, L1, L2, R1}) {
         auto r = client.result(t);
         s += s.empty() ? "" : " / ";
         s += client.error(t) ? "error" : !r ? "-" : r->viaInfo().at(0).labels().stringValue();
      }
      return s;
   };
   const auto turn = [&] { loop.runOnce(milliseconds(0)); };
   const std::string overflow =
       ": label stack deeper than the 11-label limit of a label operation, no result: label "
       "stack of 12 labels exceeds the capacity of 11";
   struct Step {
      const char* what;
      std::function<void()> act;
      std::vector<TunnelId> affected;
      std::string state;
      std::map<TunnelId, std::string> errors = {};
   };
   const std::vector<Step> steps{
       {"the full pass at construction",
        turn,
        {R1, L1, B1, L2},
        "push 16 200 300 / push 16 200 / push 16 200 / push 16"},
       {"a label stack changes: its user and the riders on it",
        [&] { fib->labelStackEncapIs(stackOf(1, {17})), turn(); },
        {R1, L1, B1, L2},
        "push 17 200 300 / push 17 200 / push 17 200 / push 17"},
       {"two changes of one tunnel in one turn: one apply, that tunnel only",
        [&] {
           fib->entryIs(entryOf(B1, {V(L2.value(), 3)}));
           fib->labelStackEncapIs(stackOf(3, {301}));
           turn();
        },
        {B1},
        "push 17 200 301 / push 17 200 / push 17 200 / push 17"},
       {"a loop made: its members together in ascending order, then their riders",
        [&] { fib->entryIs(entryOf(R1, {V(B1.value(), 1)})), client.flush(); },
        {B1, L2, R1, L1},
        "- / - / - / -"},
       {"the loop broken: every member resolves again",
        [&] { fib->entryIs(entryOf(R1, {F(1, 1, 1)})), client.flush(); },
        {R1, L2, B1, L1},
        "push 17 200 301 / push 17 200 / push 17 200 / push 17"},
       {"a joined stack deeper than 11 labels fails its tunnel only",
        [&] {
           fib->labelStackEncapIs(stackOf(3, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10})), turn();
        },
        {B1},
        "error / push 17 200 / push 17 200 / push 17",
        {{B1, "tunnel BGP LU 1" + overflow}}},
       {"an inner tunnel id out of range fails its tunnel",
        [&] {
           fib->entryIs(entryOf(L1, {F(2, 1, 0), V(kTooLarge, 0)})), turn();
        },
        {L1},
        "error / error / push 17 200 / push 17",
        {{L1,
          "tunnel LDP 1: inner tunnel id out of range (a TunnelId is at most 0x1ffffffffffff), no "
          "result: Tunnel::TunnelTable::TunnelId::value < Tunnel::TunnelTable::TunnelId::minValue "
          "or > Tunnel::TunnelTable::TunnelId::maxValue not allowed"}}},
       {"an inner tunnel deleted: its rider re-resolved, its error gone, no result",
        [&] { fib->entryDel(L2), turn(); },
        {L2, B1},
        "- / error / - / push 17"},
       {"a failure inside a loop: every call it interrupted loses its partial result",
        [&] {
           fib->labelStackEncapIs(stackOf(4, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
           fib->entryIs(entryOf(L2, {F(1, 1, 1), F(2, 1, 4), V(L1.value(), 0)}));
           fib->entryIs(entryOf(L1, {V(L2.value(), 0)}));
           turn();
        },
        {L1, L2, B1},
        "- / error / error / push 17",
        {{L1, "tunnel LDP 1" + overflow}, {L2, "tunnel LDP 2" + overflow}}},
   };
   uint64_t total = 0;
   for (const Step& step : steps) {
      SCOPED_TRACE(step.what);
      step.act();
      EXPECT_FALSE(client.pending());
      EXPECT_EQ(applied, step.affected);
      EXPECT_EQ(state(), step.state);
      for (const auto& [t, text] : step.errors) EXPECT_EQ(client.error(t).value_or(""), text);
      total += step.affected.size();
   }
   EXPECT_EQ(client.riders(L2), (std::vector<TunnelId>{B1, L1}));
   EXPECT_EQ(client.riders(R1), std::vector<TunnelId>{});
   const auto& n = client.counters();
   EXPECT_EQ(std::vector<uint64_t>({n.changesSeen, n.applies, n.lastResolved, n.failures}),
             std::vector<uint64_t>({11, steps.size(), 3, 3}));
   EXPECT_EQ(n.totalResolved, total);
   // From scratch: the same.
   const std::string before = state();
   client.resolveAll();
   EXPECT_EQ(state(), before);
   EXPECT_EQ(applied, (std::vector<TunnelId>{L1, L2, B1, R1}));
}

// ---- the brute-force model: every tunnel of a FIB resolved from scratch ----

// Per tunnel with an entry: "-", "error: label stack", "error: out of range" or the result.
using Outcomes = std::map<TunnelId, std::string>;

// `looped`: the tunnels that reach themselves.
Outcomes modelOf(const TunnelFib& fib, std::set<TunnelId>& looped) {
   std::map<TunnelId, std::vector<TunnelVia>> entries;
   for (const TunnelId& t : fib.entryKeys()) {
      if (auto e = fib.entryIf(t)) entries[t].assign(e->tunnelVia().begin(), e->tunnelVia().end());
   }
   const auto innerOf = [&](const TunnelVia& v) -> std::optional<TunnelId> {
      if (!DynamicTunnelIntfId::isDynamicTunnelIntfId(v.intfId())) return std::nullopt;
      const uint64_t inner = DynamicTunnelIntfId::tunnelId(v.intfId());
      if (inner > TunnelId::maxValue || !entries.count(TunnelId(inner))) return std::nullopt;
      return TunnelId(inner);
   };
   std::map<TunnelId, std::set<TunnelId>> reach;  // tunnels with entries below, transitively
   for (const auto& [t, vias] : entries) {
      for (std::vector<TunnelId> work{t}; !work.empty();) {
         const TunnelId u = work.back();
         work.pop_back();
         for (const TunnelVia& v : entries[u]) {
            if (auto inner = innerOf(v); inner && reach[t].insert(*inner).second) {
               work.push_back(*inner);
            }
         }
      }
      if (reach[t].count(t)) looped.insert(t);
   }
   // Groups of tunnels that reach each other, each once all it reaches is done, members
   // ascending. Among ready groups the one with the largest first member goes first: the order
   // between independent groups must not matter.
   std::vector<TunnelId> order;
   std::set<TunnelId> done;
   while (done.size() < entries.size()) {
      std::set<TunnelId> next;
      for (const auto& [t, vias] : entries) {
         std::set<TunnelId> group{t};
         for (const TunnelId& u : reach[t]) {
            if (reach[u].count(t)) group.insert(u);
         }
         bool ready = !done.count(t);
         for (const TunnelId& g : group) {
            for (const TunnelId& u : reach[g]) ready &= group.count(u) || done.count(u);
         }
         if (ready && (next.empty() || *group.begin() > *next.begin())) next = group;
      }
      if (next.empty()) return {{TunnelId(), "no group is ready"}};
      for (const TunnelId& g : next) order.push_back(g), done.insert(g);
   }
   std::set<TunnelId> rendered;
   std::map<TunnelId, std::set<MplsVia>> results;
   std::vector<TunnelId> stack;
   std::function<void(const TunnelId&)> flatten = [&](const TunnelId& t) {
      if (!entries.count(t) || rendered.count(t) || results.count(t)) return;
      rendered.insert(t);
      stack.push_back(t);
      for (const TunnelVia& v : entries[t]) {
         auto encap = fib.labelStackEncapIf(v.encapId());
         const auto labels =
             encap ? encap->labelStack().toBounded() : Wirekit::MplsLabelOperation();
         if (!DynamicTunnelIntfId::isDynamicTunnelIntfId(v.intfId())) {
            results[t].insert(MplsVia(v.nextHop(), v.intfId(), labels));
            continue;
         }
         const TunnelId u(DynamicTunnelIntfId::tunnelId(v.intfId()));
         if (!results.count(u)) flatten(u);
         if (!results.count(u)) break;
         for (const MplsVia& w : std::set<MplsVia>(results[u])) {
            results[t].insert(MplsVia(w.nextHop(), w.intfId(), labels.smush(w.labels())));
         }
      }
      stack.pop_back();
   };
   Outcomes out;
   for (const TunnelId& t : order) {
      std::string failure;
      try {
         flatten(t);
      } catch (const Wirekit::LabelStackOverflow&) {
         failure = "error: label stack";
      } catch (const Vela::RangeException&) {
         failure = "error: out of range";
      }
      for (const TunnelId& s : stack) results.erase(s), out[s] = failure;
      stack.clear();
   }
   for (const auto& [t, vias] : entries) {
      if (out.count(t)) continue;
      out[t] = results.count(t) ? "" : "-";
      for (const MplsVia& v : results[t]) out[t] += v.stringValue() + ";";
   }
   return out;
}

Outcomes outcomesOf(const TunnelResolutionClient& client, const TunnelFib& fib) {
   Outcomes out;
   for (const TunnelId& t : fib.entryKeys()) {
      const std::string name = "tunnel " + t.typeCliStr() + " " + std::to_string(t.tunnelIndex());
      auto result = client.result(t);
      if (auto e = client.error(t)) {
         out[t] = e->rfind(name + ": label stack deeper than", 0) == 0 ? "error: label stack"
                  : e->rfind(name + ": inner tunnel id out of range", 0) == 0
                      ? "error: out of range"
                      : *e;
         if (result) out[t] += " and a result";
         continue;
      }
      out[t] = result ? "" : "-";
      for (const MplsVia& v : result ? result->viaInfo() : ConsolidatedEntry::ViaInfo()) {
         out[t] += v.stringValue() + ";";
      }
   }
   for (const auto& [t, e] : client.errors()) out.emplace(t, "an error without an entry");
   for (const auto& e : client.resolver()->consolidatedEntries()) {
      out.emplace(e->tunnelId(), "a result without an entry");
   }
   return out;
}

// ---- the writer's churn: the same changes in every writer process ----

const TunnelId kSentinel = idOf(TunnelType::nexthopGroupTunnel, 1);
constexpr uint32_t kSentinelEncap = 999;
constexpr int kSteps = 40;
constexpr int kKillStep = 16;  // the first writer dies halfway through this step

struct Churn {
   std::map<TunnelId, TunnelFibEntry> entries;
   std::map<uint32_t, LabelStackEncap> stacks;
   std::vector<std::pair<bool, uint64_t>> touched;  // (label stack?, key), in write order

   // R (RSVP-like) tunnels end in final vias, L (LDP) ride mostly on R, B (BGP-LU) mostly on L,
   // S (static) have one via riding on an S or final, so loops come and go. Stacks are mostly
   // short, some long enough to overflow when joined, a few too deep on their own. R5 and S5
   // never exist; a few vias name an id out of range.
   void step(int index) {
      std::mt19937 rng(1000u + uint32_t(index));
      const auto pick = [&](uint32_t n) { return uint32_t(rng() % n); };
      const std::string kinds = "RLBS";
      const uint32_t counts[] = {4, 6, 8, 4}, base[] = {1, 11, 21, 31};
      const auto id = [&](size_t k, uint32_t n) {
         const TunnelType types[] = {TunnelType::rsvpLerTunnel, TunnelType::ldpTunnel,
                                     TunnelType::bgpLuTunnel, TunnelType::staticTunnel};
         return idOf(types[k], n);
      };
      const auto setTunnel = [&](size_t k, uint32_t n) {
         std::vector<TunnelVia> vias;
         for (uint32_t i = 0, count = k == 3 ? 1 : 1 + pick(2); i < count; ++i) {
            const uint32_t e = base[k] + pick(6), r = pick(100);
            const int inner = k == 1   ? (r < 80   ? 0
                                          : r < 90 ? 3
                                                   : -1)
                              : k == 2 ? (r < 75   ? 1
                                          : r < 85 ? 0
                                          : r < 90 ? 9
                                                   : -1)
                              : k == 3 ? (r < 75 ? 3 : -1)
                                       : -1;
            vias.push_back(inner == 9   ? V(kTooLarge, e)
                           : inner >= 0 ? V(id(inner, 1 + pick(inner == 1 ? 6 : 5)).value(), e)
                                        : F(1 + pick(4), 1 + pick(3), e));
         }
         const TunnelId t = id(k, n);
         entries.insert_or_assign(t, entryOf(t, vias, {F(9, 9, base[k])}));
         touched.push_back({false, t.value()});
      };
      const auto setStack = [&](uint32_t n) {
         const uint32_t r = pick(100);
         Labels labels(r < 60 ? 1 : r < 85 ? 2 + pick(3) : r < 95 ? 5 : 12);
         for (uint32_t& l : labels) l = 16 + pick(1000);
         stacks.insert_or_assign(n, stackOf(n, labels));
         touched.push_back({true, n});
      };
      if (index == 0) {  // everything once
         for (size_t k = 0; k < 4; ++k) {
            for (uint32_t n = 1; n <= counts[k]; ++n) setTunnel(k, n);
            for (uint32_t n = base[k]; n < base[k] + 6; ++n) setStack(n);
         }
         return;
      }
      for (int c = 0; c < 8; ++c) {
         const uint32_t r = pick(100), k = pick(4), n = 1 + pick(counts[k]), e = base[k] + pick(6);
         if (r < 20) {
            setTunnel(3, 1 + k);
         } else if (r < 50) {
            setTunnel(k, n);
         } else if (r < 60) {
            entries.erase(id(k, n));
            touched.push_back({false, id(k, n).value()});
         } else if (r < 93) {
            setStack(e);
         } else {
            stacks.erase(e);
            touched.push_back({true, e});
         }
      }
   }

   // Writes the first `limit` touched keys as the state has them, then the sentinels.
   void publish(TunnelFib& fib, size_t limit, int marker) {
      for (size_t i = 0; i < touched.size() && i < limit; ++i) {
         const auto [isStack, key] = touched[i];
         if (isStack) {
            auto it = stacks.find(uint32_t(key));
            it == stacks.end() ? (void)fib.labelStackEncapDel(encap(uint32_t(key)))
                               : fib.labelStackEncapIs(it->second);
         } else {
            auto it = entries.find(TunnelId(key));
            it == entries.end() ? (void)fib.entryDel(TunnelId(key)) : fib.entryIs(it->second);
         }
      }
      touched.clear();
      if (marker == 0) return;
      TunnelFibEntry sentinel = entryOf(kSentinel, {F(7, 7, kSentinelEncap)});
      sentinel.resetFailoverStateIs(uint8_t(marker));
      fib.entryIs(sentinel);
      fib.labelStackEncapIs(stackOf(kSentinelEncap, {uint32_t(marker)}));
   }
};

struct Pipe {
   int fds[2] = {-1, -1};
   Pipe() { EXPECT_EQ(::pipe(fds), 0); }
   ~Pipe() { ::close(fds[0]), ::close(fds[1]); }
   void send(char c) const { (void)!::write(fds[1], &c, 1); }
   // The next byte, or 0 when none came within the timeout.
   char receive(int timeoutMs) const {
      pollfd p{fds[0], POLLIN, 0};
      char c = 0;
      return ::poll(&p, 1, timeoutMs) == 1 && ::read(fds[0], &c, 1) == 1 ? c : 0;
   }
};

// A writer process. The first (replayTo 0) publishes steps [0, kKillStep), then half of step
// kKillStep, and is killed. The second replays steps [0, replayTo) silently, rewrites the whole
// FIB from that state and publishes the remaining steps. Each publication ends with the
// sentinels and waits for the test's acknowledgement.
int runWriter(const Pipe& up, const Pipe& down, int replayTo) {
   Loom::EventLoop loop;
   Vault::MountService service;
   auto fib = mountTunnelFib(service, true, loop, 64);
   Churn churn;
   for (int s = 0; s < replayTo; ++s) churn.step(s);
   int marker = replayTo == 0 ? 0 : replayTo - 1;
   const auto sync = [&] {
      churn.publish(*fib, SIZE_MAX, ++marker);
      loop.runOnce(milliseconds(0));
      up.send('s');
      return down.receive(30000) == 'a';
   };
   if (replayTo > 0) {
      churn.touched.clear();
      for (const TunnelId& t : fib->entryKeys()) churn.touched.push_back({false, t.value()});
      for (const EncapId& e : fib->labelStackEncapKeys())
         churn.touched.push_back({true, e.value()});
      for (const auto& [t, e] : churn.entries) churn.touched.push_back({false, t.value()});
      for (const auto& [n, e] : churn.stacks) churn.touched.push_back({true, n});
      if (!sync()) return 3;
   }
   for (int s = replayTo; s < (replayTo == 0 ? kKillStep : kSteps); ++s) {
      churn.step(s);
      if (!sync()) return 3;
   }
   if (replayTo > 0) return 0;
   churn.step(kKillStep);
   churn.publish(*fib, churn.touched.size() / 2, 0);
   loop.runOnce(milliseconds(0));
   ::raise(SIGKILL);
   return 1;
}

TEST(TunnelResolutionClient, FollowsAFibWrittenByAnotherProcessAsABruteForceModelDoes) {
   Testing::TempRoot root;
   Pipe up, down;
   Loom::EventLoop loop;
   Vault::MountService service;
   auto fib = mountTunnelFib(service, false, loop, 64);
   TunnelResolutionClient client(fib, loop);
   // The sentinels' markers, as their notifications bring them: the last writes of a step.
   struct Sentinels final : Vela::Entity::Notifiee {
      TunnelFib* fib;
      int entry = 0, stack = 0;
      explicit Sentinels(TunnelFib* f) : fib(f) {}
      void onAttribute(Vela::AttributeId attr, const void* key) override {
         if (key && attr == attrFibEntry && *static_cast<const TunnelId*>(key) == kSentinel) {
            entry = fib->entry(kSentinel).resetFailoverState();
         } else if (key && attr == attrLabelStackEncap &&
                    *static_cast<const EncapId*>(key) == encap(kSentinelEncap)) {
            const LabelStackEncap e = fib->labelStackEncap(encap(kSentinelEncap));
            stack = e.labelStack().labelCount() ? int(e.labelStack().labels()[0]) : 0;
         }
      }
   } sentinels(fib.get());
   fib->notifieeAdd(&sentinels);

   int marker = 0, overflows = 0, ranges = 0, exitStatus = -1;
   std::set<TunnelId> looped, loopedBefore, resolvedAfterLoop;
   // Waits for the writer's next publication (false when the writer ended instead), lets the
   // reader catch up with it, compares with the model and lets the writer go on.
   const auto nextStep = [&](pid_t writer) {
      for (;;) {
         loop.runOnce(milliseconds(2));
         if (up.receive(0) == 's') break;
         int status = 0;
         if (::waitpid(writer, &status, WNOHANG) == writer) {
            exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return false;
         }
      }
      ++marker;
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while (!(sentinels.entry == marker && sentinels.stack == marker &&
               fib->entryControl()->quiesced() && fib->labelStackEncapControl()->quiesced()) &&
             std::chrono::steady_clock::now() < deadline) {
         loop.runOnce(milliseconds(2));
      }
      EXPECT_EQ(sentinels.entry, marker);
      EXPECT_EQ(sentinels.stack, marker);
      while (loop.runOnce(milliseconds(0))) {
      }
      client.flush();
      looped.clear();
      const Outcomes model = modelOf(*fib, looped);
      EXPECT_EQ(outcomesOf(client, *fib), model) << "at marker " << marker;
      for (const auto& [t, outcome] : model) {
         overflows += outcome == "error: label stack";
         ranges += outcome == "error: out of range";
         if (looped.count(t)) loopedBefore.insert(t);
         if (!looped.count(t) && loopedBefore.count(t) && outcome != "-" && outcome[0] != 'e') {
            resolvedAfterLoop.insert(t);
         }
      }
      down.send('a');
      return true;
   };
   const pid_t first = Testing::forkChild([&] { return runWriter(up, down, 0); });
   while (nextStep(first)) {
   }
   EXPECT_EQ(exitStatus, 128 + SIGKILL);
   EXPECT_EQ(marker, kKillStep);
   const pid_t second = Testing::forkChild([&] { return runWriter(up, down, kKillStep + 1); });
   while (nextStep(second)) {
   }
   EXPECT_EQ(exitStatus, 0);
   EXPECT_EQ(marker, kSteps);
   // The churn did what it is for: stacks overflowed, ids were out of range, loops were made and
   // later broken.
   EXPECT_GT(overflows, 0);
   EXPECT_GT(ranges, 0);
   EXPECT_FALSE(resolvedAfterLoop.empty());
   fib->notifieeDel(&sentinels);
}

}  // namespace
}  // namespace Tunnel::TunnelFib
