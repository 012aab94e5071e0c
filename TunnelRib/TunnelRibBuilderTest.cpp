// The RIB builder against a brute-force model: protocol tables written by other processes (one
// writer killed and replaced midway), after which both RIBs hold, key for key, what the model
// computes from the tables' final contents, and the command-line tree, read by another process,
// holds every candidate class of every endpoint with its tunnels.
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <random>
#include <set>
#include <vector>

#include "Loom/EventLoop.h"
#include "Pike/PikeReader.h"
#include "TunnelRib/CliTunnelRibExport.h"
#include "TunnelRib/TunnelRibBuilder.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTables.h"
#include "Vault/MountService.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelTable {
namespace {

constexpr int kEndpoints = 6;

Wirekit::IpGenPrefix endpointPrefix(int n) {
   return Wirekit::IpGenPrefix(Wirekit::IpGenAddr::ipv4(0x0A000000u + uint32_t(n) * 256), 24);
}

// One write or removal of a tunnel table; the same seed gives the writer child and the model the
// same list.
struct Op {
   uint64_t index;
   bool remove;
   int endpoint;
   uint8_t pref;
   uint32_t metric;
   float bw;
   uint32_t color;  // the colored kinds; 0 uncolored
};

std::vector<Op> opsFor(uint32_t seed, int count, bool colored) {
   std::mt19937 rng(seed);
   std::vector<Op> ops;
   for (int i = 0; i < count; ++i) {  // a braced list: its fields drawn in order
      ops.push_back(Op{1 + rng() % 40, rng() % 5 == 0, int(rng() % kEndpoints), uint8_t(rng() % 3),
                       uint32_t(rng() % 3), float(rng() % 100) / 4.0f,
                       colored ? uint32_t(1 + rng() % 2) : 0u});
   }
   return ops;
}

TunnelId idOf(TunnelType type, const Op& op) {
   return TunnelId(TunnelId::convertToTunnelValue(type, op.index));
}
// The fields every kind shares; `metricBase` keeps the kinds' IGP metrics apart.
template <class Entry>
Entry filled(Entry e, const Op& op, uint32_t metricBase) {
   e.endpointIs(TepIndex(0), endpointPrefix(op.endpoint));
   e.entryMetricIs(op.metric);
   e.tunnelBwIs(op.bw);
   e.igpMetricIs(metricBase + uint32_t(op.index));
   return e;
}
LdpTunnelTableEntry ldpEntry(const Op& op) {
   LdpTunnelTableEntry e(idOf(TunnelType::ldpTunnel, op), TunnelEntryPref(op.pref));
   e.igpPrefIs(TunnelIgpPref(uint32_t(op.index) % 7));
   return filled(e, op, 100);
}
IsisSrTunnelTable::EntryType srEntry(const Op& op) {
   return filled(SrTunnelTableEntry(idOf(TunnelType::isisSrTunnel, op), TunnelEntryPref(op.pref)),
                 op, 200);
}
SrTePolicyTunnelTableEntry policyEntry(const Op& op) {
   SrTePolicyTunnelTableEntry e(idOf(TunnelType::srTePolicyTunnel, op));
   e.entryPrefIs(TunnelEntryPref(op.pref));
   e.colorIs(op.color);
   return filled(e, op, 300);
}

// A writer agent of table `id` in this (child) process, applying ops [from, to).
template <class Table, class Make>
int writeOps(TunnelTableIdentifier id, const std::vector<Op>& ops, size_t from, size_t to,
             Make make) {
   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   TunnelTableMounter mounter(service, loop);
   auto table = Vela::dynamicPtrCast<Table>(mounter.mountWriter(id));
   if (!table) return 2;
   for (size_t i = from; i < to; ++i) {
      const Op& op = ops[i];
      if (op.remove) {
         table->entryDel(make(op).tunnelId());
      } else {
         table->entryIs(make(op));
      }
      if (i % 16 == 0) loop.runOnce(std::chrono::milliseconds(0));
   }
   loop.runOnce(std::chrono::milliseconds(0));
   return 0;
}

// The brute-force model: each endpoint's classes from every final tunnel, the best class by
// scanning all of them, its tunnels sorted by id.
std::map<ColoredTunnelEndpoint, TunnelRibEntry> model(const std::vector<RibContribution>& all) {
   std::map<ColoredTunnelEndpoint, std::vector<const RibContribution*>> byEndpoint;
   for (const auto& c : all) byEndpoint[c.endpoint].push_back(&c);
   std::map<ColoredTunnelEndpoint, TunnelRibEntry> rib;
   for (auto& [endpoint, tunnels] : byEndpoint) {
      const RibContribution* best = tunnels.front();
      for (const auto* c : tunnels) {
         if (c->candidate < best->candidate ||
             (c->candidate == best->candidate && c->tunnelId.value() < best->tunnelId.value())) {
            best = c;
         }
      }
      std::vector<const RibContribution*> winners;
      for (const auto* c : tunnels) {
         if (c->candidate == best->candidate) winners.push_back(c);
      }
      std::sort(winners.begin(), winners.end(),
                [](auto* a, auto* b) { return a->tunnelId.value() < b->tunnelId.value(); });
      TunnelRibEntry e(endpoint);
      e.entryPrefIs(best->candidate.entryPref());
      e.entryMetricIs(best->candidate.entryMetric());
      e.metricIs(best->metric);
      e.metricTypeIs(best->metricType);
      e.metric2Is(best->metric2);
      e.prefIs(best->pref);
      e.pref2Is(best->pref2);
      for (const auto* c : winners) e.addTunnelWithBw(c->tunnelId, c->bandwidth);
      rib.emplace(endpoint, e);
   }
   return rib;
}

template <class Entry, class Make>
void finalContributions(const std::vector<Op>& ops, Make make, std::vector<RibContribution>& out) {
   std::map<uint64_t, Op> last;
   for (const Op& op : ops) op.remove ? (void)last.erase(op.index) : (void)(last[op.index] = op);
   for (const auto& [index, op] : last) {
      const Entry e = make(op);
      RibContribution c;
      c.tunnelId = e.tunnelId();
      c.endpoint = op.color ? ColoredTunnelEndpoint(e.tep(), op.color) : e.tep();
      c.candidate = InternalTunnelCandidateId(e.tunnelId().tunnelType(), e.entryPref().value(),
                                              e.entryMetric());
      c.bandwidth = e.tunnelBw();
      c.metric = e.igpMetric();
      c.pref = e.igpPref().value();
      if constexpr (!std::is_same_v<Entry, SrTePolicyTunnelTableEntry>) {
         c.metric2 = e.igpMetric2();
         c.pref2 = e.igpPref2();
      }
      out.push_back(c);
   }
}

TEST(TunnelRibBuilder, RibsMatchABruteForceModelAfterChurnFromOtherProcessesAndAWriterRestart) {
   Testing::TempRoot root;
   const auto ldpOps = opsFor(1, 400, false);
   const auto srOps = opsFor(2, 300, false);
   const auto policyOps = opsFor(3, 300, true);

   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   TunnelTableMounter mounter(service, loop);
   // A stale entry an earlier builder left: the first reconcile removes it.
   {
      auto stale = mounter.mountWriterOf<TunnelRib>();
      stale->tunnelRibEntryIs(TunnelRibEntry(endpointPrefix(99)));
      service->unmount(tunnelRibType.path);
   }
   TunnelRibBuilder builder(mounter);
   CliTunnelRibExport cli(builder);

   // LDP: a writer killed halfway, then a second writer re-attaches and finishes; SR and policy
   // writers run alongside.
   const pid_t ldp1 = Testing::forkChild([&] {
      writeOps<LdpTunnelTable>(TunnelTableIdentifier::ldpTunnelTable, ldpOps, 0, 200, ldpEntry);
      ::raise(SIGKILL);
      return 1;
   });
   const pid_t sr = Testing::forkChild([&] {
      return writeOps<IsisSrTunnelTable>(TunnelTableIdentifier::isisSrTunnelTable, srOps, 0,
                                         srOps.size(), srEntry);
   });
   const pid_t policy = Testing::forkChild([&] {
      return writeOps<SrTePolicyTunnelTable>(TunnelTableIdentifier::srTePolicyTunnelTable,
                                             policyOps, 0, policyOps.size(), policyEntry);
   });
   // The builder's loop runs while the child writes, so its readers keep up.
   const auto runFor = [&](pid_t pid) { return Testing::runUntilExit(loop, pid); };
   EXPECT_EQ(runFor(ldp1), 128 + SIGKILL);
   const pid_t ldp2 = Testing::forkChild([&] {
      return writeOps<LdpTunnelTable>(TunnelTableIdentifier::ldpTunnelTable, ldpOps, 200,
                                      ldpOps.size(), ldpEntry);
   });
   EXPECT_EQ(runFor(sr), 0);
   EXPECT_EQ(runFor(policy), 0);
   EXPECT_EQ(runFor(ldp2), 0);

   std::vector<RibContribution> all;
   finalContributions<LdpTunnelTableEntry>(ldpOps, ldpEntry, all);
   finalContributions<SrTunnelTableEntry>(srOps, srEntry, all);
   finalContributions<SrTePolicyTunnelTableEntry>(policyOps, policyEntry, all);
   const auto expected = model(all);

   // Settled, and every table's final content taken in.
   const auto matches = [&] {
      if (!builder.settled()) return false;
      size_t n = 0;
      for (const auto& [endpoint, entry] : expected) {
         const TunnelRibBase& rib =
             endpoint.isColored() ? static_cast<const TunnelRibBase&>(*builder.coloredTunnelRib())
                                  : static_cast<const TunnelRibBase&>(*builder.tunnelRib());
         if (!(rib.tunnelRibEntry(endpoint) == entry)) return false;
         ++n;
      }
      return n == builder.tunnelRib()->entryCount() + builder.coloredTunnelRib()->entryCount();
   };
   ASSERT_TRUE(Testing::runUntil(loop, matches));
   EXPECT_FALSE(builder.tunnelRib()->tunnelRibEntryHas(endpointPrefix(99)));
   EXPECT_GE(builder.counters().reconciles, 1u);

   using Classes =
       std::map<ColoredTunnelEndpoint, std::map<InternalTunnelCandidateId, std::set<uint64_t>>>;
   Classes classes;
   for (const auto& c : all) classes[c.endpoint][c.candidate].insert(c.tunnelId.value());
   const pid_t reader = Testing::forkChild([&] {
      Loom::EventLoop readerLoop;
      Pike::PikeReader pike(kCliTunnelRibStore, readerLoop);
      auto status = tunnelPikeStatusFactory(kCliTunnelRibRoot);
      pike.rootIs(*status);
      const auto tree = [&] {
         Classes got;
         for (uint32_t id : {0u, 1u}) {
            auto rib = status->cliTunnelRibColl(TunnelRibId(id));
            if (!rib) continue;
            for (const auto& [tep, entry] : rib->entry()) {
               if (tep.isColored() != (id == 1)) return Classes{};
               for (const auto& [candidateId, candidate] : entry->candidates()) {
                  for (const TunnelId& t : candidate->tunnelId()) {
                     got[tep][candidateId].insert(t.value());
                  }
               }
            }
         }
         return got;
      };
      return Testing::runUntil(readerLoop, [&] { return tree() == classes; }) ? 0 : 1;
   });
   // The builder's loop keeps running: the tree's last changes reach the store from it.
   EXPECT_EQ(runFor(reader), 0);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
