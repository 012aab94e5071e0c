// The resolver's edge cases with their results, rendered sets and exact level-0 traces, over a FIB
// mounted as writer in a fresh store root, and its id map. Its failures are pinned by the
// resolution client's test, which reports them.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>

#include "Loom/EventLoop.h"
#include "Spoor/Trace.h"
#include "TunnelFib/TunnelResolver.h"
#include "Vault/MountService.h"
#include "testing/FibVias.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelFib {
namespace {

using TunnelTable::TunnelType;
using Labels = std::vector<uint32_t>;

TunnelId idOf(TunnelType type, uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(type, index));
}
const TunnelId R1 = idOf(TunnelType::rsvpLerTunnel, 1), L1 = idOf(TunnelType::ldpTunnel, 1),
               L2 = idOf(TunnelType::ldpTunnel, 2);
EncapId encap(uint32_t n) {
   return Testing::labelStackId(n);
}
// A final via to 10.0.0.<hop> on Ethernet<intf>; a via riding on a tunnel.
TunnelVia F(uint32_t hop, uint32_t intf, uint32_t e) {
   return Testing::finalVia(hop, intf, e);
}
TunnelVia V(const TunnelId& inner, uint32_t e) {
   return Testing::ridingVia(inner.value(), e);
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
      const std::map<uint32_t, Labels> stacks{{1, {16}}, {2, {200}}, {3, {3000}}, {4, {17}}};
      for (const auto& [n, labels] : stacks) {
         fib->labelStackEncapIs(
             LabelStackEncap(encap(n), Wirekit::UnboundedMplsLabelOperation::push(labels)));
      }
   }
   // The FIB holds exactly these entries.
   void is(const std::vector<Entry>& entries) {
      fib->entryDelAll();
      for (const Entry& e : entries) {
         TunnelFibEntry entry(e.id);
         for (size_t i = 0; i < e.vias.size(); ++i) entry.tunnelViaIs(TunnelViaIndex(i), e.vias[i]);
         for (size_t i = 0; i < e.backup.size(); ++i) {
            entry.backupTunnelViaIs(TunnelViaIndex(i), e.backup[i]);
         }
         fib->entryIs(entry);
      }
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
        "LDP 1: Ethernet1 10.0.0.1 push 16, Ethernet1 10.0.0.1 push 16 3000 200, | LDP 2: "
        "Ethernet1 10.0.0.1 push 16 3000,",
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

}  // namespace
}  // namespace Tunnel::TunnelFib
