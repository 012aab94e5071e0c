// The resolution client step by step (which tunnels each change re-resolves, in which order, with
// which results and errors). Against a brute-force model, with the FIB written by the builder from
// tables in another process, it runs in TunnelFibBuilderTest.
#include <gtest/gtest.h>

#include "TunnelFib/TunnelResolutionClient.h"
#include "Vault/MountService.h"
#include "testing/FibVias.h"
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
   return Testing::labelStackId(n);
}
// A final via to 10.0.0.<hop> on Ethernet<intf>; a via riding on the tunnel of an id value.
TunnelVia F(uint32_t hop, uint32_t intf, uint32_t e) {
   return Testing::finalVia(hop, intf, e);
}
TunnelVia V(uint64_t inner, uint32_t e) {
   return Testing::ridingVia(inner, e);
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

}  // namespace
}  // namespace Tunnel::TunnelFib
