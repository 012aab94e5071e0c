// The resolver's edge cases with their results, rendered sets and exact level-0 traces, its id map,
// and the resolution client step by step (which tunnels each change re-resolves, in which order,
// with which results and errors), over a FIB mounted as writer in a fresh store root. Against a
// brute-force model, with the FIB written by the builder from tables in another process, the
// client runs in TunnelFibBuilderTest.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>

#include "Loom/EventLoop.h"
#include "Spoor/Trace.h"
#include "TunnelFib/TunnelResolutionClient.h"
#include "TunnelFib/TunnelResolver.h"
#include "Vault/MountService.h"
#include "testing/FibVias.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelFib {
namespace {

using TunnelTable::TunnelType;
using Labels = std::vector<uint32_t>;
using std::chrono::milliseconds;

TunnelId idOf(TunnelType type, uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(type, index));
}
const TunnelId R1 = idOf(TunnelType::rsvpLerTunnel, 1), L1 = idOf(TunnelType::ldpTunnel, 1),
               L2 = idOf(TunnelType::ldpTunnel, 2), B1 = idOf(TunnelType::bgpLuTunnel, 1);
// A final via to 10.0.0.<hop> on Ethernet<intf>; a via riding on a tunnel.
TunnelVia F(uint32_t hop, uint32_t intf, uint32_t e) {
   return Testing::finalVia(hop, intf, e);
}
TunnelVia V(const TunnelId& inner, uint32_t e) {
   return Testing::ridingVia(inner.value(), e);
}
TunnelFibEntry entryOf(const TunnelId& id, const std::vector<TunnelVia>& vias,
                       const std::vector<TunnelVia>& backup = {}) {
   TunnelFibEntry e(id);
   for (size_t i = 0; i < vias.size(); ++i) e.tunnelViaIs(TunnelViaIndex(i), vias[i]);
   for (size_t i = 0; i < backup.size(); ++i) e.backupTunnelViaIs(TunnelViaIndex(i), backup[i]);
   return e;
}
LabelStackEncap stackOf(uint32_t n, const Labels& labels) {
   return LabelStackEncap(Testing::labelStackId(n),
                          Wirekit::UnboundedMplsLabelOperation::push(labels));
}

struct Entry {
   TunnelId id;
   std::vector<TunnelVia> vias, backup = {};
};

// A FIB mounted as writer; every case finds the same label stacks in it.
struct Fib {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Vault::MountService service;
   Vela::Ptr<TunnelFib> fib = mountTunnelFib(service, true, loop, 64);
   Fib() {
      for (const auto& [n, labels] :
           std::map<uint32_t, Labels>{{1, {16}}, {2, {200}}, {3, {300}}, {4, {17}}}) {
         fib->labelStackEncapIs(stackOf(n, labels));
      }
   }
   // The FIB holds exactly these entries.
   void is(const std::vector<Entry>& entries) {
      fib->entryDelAll();
      for (const Entry& e : entries) fib->entryIs(entryOf(e.id, e.vias, e.backup));
   }
};

// "<tunnel>: <intf> <next hop> <labels>, ... | <tunnel>: ..." by ascending tunnel.
std::string resultsOf(const TunnelResolver& r) {
   std::string s;
   for (const auto& e : r.consolidatedEntries()) {
      s += (s.empty() ? "" : " | ") + e->tunnelId().typeCliStr() + " " +
           std::to_string(e->tunnelId().tunnelIndex()) + ":";
      for (const MplsVia& v : e->viaInfo()) {
         s += " " + v.intfId().name() + " " + v.nextHop().stringValue() + " " +
              v.labels().stringValue() + ",";
      }
   }
   return s;
}

const std::string kSig = TunnelResolver::kUpdateFlattenedInfoSignature + std::string(" ");
std::string cur(const std::string& type, int index) {
   return kSig + "Current tunnel Info, type: " + type + " tunnel Index: " + std::to_string(index) +
          "\n";
}
std::string fin(const std::string& type, int index, int intf, int hop) {
   return kSig + "Final nexthop and interface found for  tunnel type: " + type +
          " index:" + std::to_string(index) + "\nIntf: Ethernet" + std::to_string(intf) +
          " Nexthop: 10.0.0." + std::to_string(hop) + "\n";
}
const std::string kNone = kSig + "No further tunnel entry found in tunnel fib\n";
const std::string kCycle = kSig + "Cycle Detected for this tunnel\n";

TEST(TunnelResolver, EdgeCasesWithResultsRenderedSetsAndExactTraces) {
   EXPECT_EQ(cur("LDP", 1) + kCycle,
             "void Tunnel::TunnelFib::TunnelResolver::updateFlattenedInfo(const "
             "Tunnel::TunnelTable::TunnelId&) Current tunnel Info, type: LDP tunnel Index: 1\n"
             "void Tunnel::TunnelFib::TunnelResolver::updateFlattenedInfo(const "
             "Tunnel::TunnelTable::TunnelId&) Cycle Detected for this tunnel\n");
   const auto calls = [](std::vector<TunnelId> ids) {
      return [ids](TunnelResolver& r) {
         for (const TunnelId& id : ids) r.updateFlattenedInfo(id);
      };
   };
   struct Case {
      const char* what;
      std::vector<Entry> entries;
      std::function<void(TunnelResolver&)> act;
      std::string results, traces;
      std::vector<TunnelId> rendered;
   };
   const std::vector<Case> cases{
       {"one MplsVia per distinct (next hop, interface, label operation); stack 9 absent",
        {{L1, {F(1, 1, 1), F(1, 1, 1), F(1, 1, 4), F(2, 1, 1), F(1, 2, 9)}}},
        calls({L1}),
        "LDP 1: Ethernet1 10.0.0.1 push 16, Ethernet1 10.0.0.1 push 17, Ethernet2 10.0.0.1 , "
        "Ethernet1 10.0.0.2 push 16,",
        cur("LDP", 1) + fin("LDP", 1, 1, 1) + fin("LDP", 1, 1, 1) + fin("LDP", 1, 1, 1) +
            fin("LDP", 1, 1, 2) + fin("LDP", 1, 2, 1),
        {L1}},
       {"a via riding on an unresolvable tunnel stops the walk: L1's final via after it is not "
        "looked at, L2's before it is kept",
        {{L1, {V(R1, 0), F(1, 1, 0)}}, {L2, {F(1, 1, 0), V(R1, 0), F(2, 1, 0)}}},
        calls({L1, L2}),
        "LDP 2: Ethernet1 10.0.0.1 ,",
        cur("LDP", 1) + cur("RSVP LER", 1) + kNone + cur("LDP", 2) + fin("LDP", 2, 1, 1) +
            cur("RSVP LER", 1) + kNone,
        {L1, L2}},
       {"a cycle behind a final via: B takes A's first via, A both",
        {{L1, {F(1, 1, 1), V(L2, 2)}}, {L2, {V(L1, 3)}}},
        calls({L1}),
        "LDP 1: Ethernet1 10.0.0.1 push 16, Ethernet1 10.0.0.1 push 16 300 200, | LDP 2: "
        "Ethernet1 10.0.0.1 push 16 300,",
        cur("LDP", 1) + fin("LDP", 1, 1, 1) + cur("LDP", 2),
        {L1, L2}},
       {"a via riding on its own tunnel joins the tunnel's earlier result",
        {{L1, {F(1, 1, 1), V(L1, 2)}}},
        calls({L1}),
        "LDP 1: Ethernet1 10.0.0.1 push 16, Ethernet1 10.0.0.1 push 16 200,",
        cur("LDP", 1) + fin("LDP", 1, 1, 1),
        {L1}},
       {"backup vias are ignored (no result, yet rendered); no entry: not rendered",
        {{L1, {}, {F(1, 1, 0)}}},
        calls({L1, L2}),
        "",
        cur("LDP", 1) + cur("LDP", 2) + kNone,
        {L1}},
       {"a second call does nothing; after consolidatedEntryDel alone a call reports the cycle "
        "and records nothing",
        {{L1, {F(1, 1, 0)}}},
        [](TunnelResolver& r) {
           r.updateFlattenedInfo(L1);
           r.updateFlattenedInfo(L1);
           EXPECT_EQ(resultsOf(r), "LDP 1: Ethernet1 10.0.0.1 ,");
           EXPECT_TRUE(r.consolidatedEntryDel(L1));
           r.updateFlattenedInfo(L1);
        },
        "",
        cur("LDP", 1) + fin("LDP", 1, 1, 1) + cur("LDP", 1) + kCycle + cur("LDP", 1) + kCycle,
        {L1}},
       {"an inner result left empty by a client: the rider's result is removed again",
        {{L1, {V(R1, 0)}}, {R1, {F(1, 1, 0)}}},
        [](TunnelResolver& r) {
           r.consolidatedEntryIs(R1);
           r.updateFlattenedInfo(L1);
        },
        "RSVP LER 1:",
        cur("LDP", 1),
        {L1}},
   };
   Fib f;
   for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      f.is(c.entries);
      auto resolver = TunnelResolverIs(f.fib);
      Spoor::Capture capture(0);
      c.act(*resolver);
      std::string traces;
      for (const Spoor::Record& r : capture.records()) {
         if (r.module == "TunnelFib" && r.level == 0) traces += r.text + "\n";
      }
      EXPECT_EQ(traces, c.traces);
      EXPECT_EQ(resultsOf(*resolver), c.results);
      EXPECT_EQ(resolver->renderedTunnelIds(), c.rendered);
      EXPECT_TRUE(resolver->interruptedTunnelId().empty());
   }
}

TEST(TunnelResolver, IdMapAgreesWithAnOrderedMapUnderRandomChurn) {
   IdMap<TunnelId, int> map;
   std::map<TunnelId, int> model;
   std::mt19937 rng(7);
   for (int i = 0; i < 50000; ++i) {
      // At most 7 records: the array stays at 16 slots, so runs often wrap around its end.
      const TunnelId t = idOf(TunnelType::ldpTunnel, rng() % 1000);
      if (model.size() < 7 && rng() % 2) {
         *map.insert(t).first = model[t] = i;
      } else {
         const TunnelId victim = rng() % 4 && !model.empty() ? model.begin()->first : t;
         EXPECT_EQ(map.erase(victim), model.erase(victim) == 1);
      }
      ASSERT_EQ(map.size(), model.size());
      for (const auto& [k, v] : model) ASSERT_TRUE(map.find(k) && *map.find(k) == v) << i;
   }
   std::map<TunnelId, int> seen;
   map.forEach([&](const TunnelId& t, int v) { seen[t] = v; });
   EXPECT_EQ(seen, model);
}

TEST(TunnelResolutionClient, ReResolvesTheAffectedTunnelsInnerFirst) {
   Fib f;
   auto& fib = f.fib;
   auto& loop = f.loop;
   f.is({{R1, {F(1, 1, 1)}}, {L1, {V(R1, 2)}}, {L2, {V(R1, 2)}}, {B1, {V(L1, 3)}}});
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
           fib->entryIs(entryOf(B1, {V(L2, 3)}));
           fib->labelStackEncapIs(stackOf(3, {301}));
           turn();
        },
        {B1},
        "push 17 200 301 / push 17 200 / push 17 200 / push 17"},
       {"a loop made: its members together in ascending order, then their riders",
        [&] { fib->entryIs(entryOf(R1, {V(B1, 1)})), client.flush(); },
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
           fib->entryIs(entryOf(L1, {F(2, 1, 0), Testing::ridingVia(TunnelId::maxValue + 1, 0)})),
               turn();
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
           fib->entryIs(entryOf(L2, {F(1, 1, 1), F(2, 1, 4), V(L1, 0)}));
           fib->entryIs(entryOf(L1, {V(L2, 0)}));
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

}  // namespace
}  // namespace Tunnel::TunnelFib
