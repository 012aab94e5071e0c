// The two redistribution machines: the edge cases step by step with their exact traces, the
// refusal of a plain reader, and both machines fed by tables another process writes (its writer
// killed and replaced midway), against a model of the configuration, with the configuration read
// back by a third process.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <map>
#include <random>

#include "Loom/EventLoop.h"
#include "Spoor/Trace.h"
#include "TunnelRedist/BgpLuTunnelRedistConfigSm.h"
#include "TunnelRedist/LdpTunnelRedistConfigSm.h"
#include "TunnelTable/TunnelMount.h"
#include "Vault/MountService.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelRedist {
namespace {

using TunnelTable::BgpLuTunnelTable;
using TunnelTable::BgpLuTunnelTableEntry;
using TunnelTable::LdpTunnelTable;
using TunnelTable::LdpTunnelTableEntry;
using TunnelTable::TepIndex;
using TunnelTable::TunnelType;
using Wirekit::IpGenPrefix;

IpGenPrefix tep(uint32_t n) {
   return IpGenPrefix(Wirekit::IpGenAddr::ipv4(0x0A000000u + n), 32);
}
TunnelId idOf(TunnelType type, uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(type, index));
}
LdpTunnelTableEntry ldpEntry(uint64_t index, uint32_t at, uint32_t metric) {
   LdpTunnelTableEntry e(idOf(TunnelType::ldpTunnel, index));
   e.endpointIs(TepIndex(0), tep(at));
   e.igpMetricIs(metric);
   return e;
}
BgpLuTunnelTableEntry luEntry(uint64_t index, uint32_t at) {
   BgpLuTunnelTableEntry e(idOf(TunnelType::bgpLuTunnel, index));
   e.endpointIs(TepIndex(0), tep(at));
   return e;
}

// prefix -> tunnel index -> metric
using Content = std::map<std::string, std::map<uint64_t, uint32_t>>;
Content contentOf(const TunnelRedistConfig& config) {
   Content c;
   for (const auto& [prefix, entry] : config.entries()) {
      for (const auto& [id, info] : entry->memberTunnelInfos()) {
         c[prefix.stringValue()][id.tunnelIndex()] = info.igpMetric();
      }
   }
   return c;
}

// Both tables mounted as writers in this process (their notifications arrive at once), both
// machines over them.
struct Machines {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Vela::Ptr<Vault::MountService> service = Vela::makePtr<Vault::MountService>();
   TunnelTable::TunnelTableMounter mounter{service, loop};
   Vela::Ptr<LdpTunnelTable> ldp = mounter.mountWriterOf<LdpTunnelTable>();
   Vela::Ptr<BgpLuTunnelTable> lu = mounter.mountWriterOf<BgpLuTunnelTable>();
   Vela::Ptr<TunnelRedistConfig> ldpConfig = TunnelRedistConfigIs("ldp");
   Vela::Ptr<TunnelRedistConfig> luConfig = TunnelRedistConfigIs("bgpLu");
   Vela::Ptr<LdpTunnelRedistConfigSm> ldpSm = ldpTunnelRedistConfigSmFactory(ldpConfig, ldp);
   Vela::Ptr<BgpLuTunnelRedistConfigSm> luSm = bgpLuTunnelRedistConfigSmFactory(luConfig, lu);
};

std::string idText(TunnelType type, uint64_t index) {
   return "Value('Tunnel::TunnelTable::TunnelId', ** {'value': " +
          std::to_string(idOf(type, index).value()) + "})";
}

TEST(TunnelRedistConfigSm, EdgeCasesStepByStepWithExactTraces) {
   Machines m;
   Spoor::Capture capture(8);
   const std::string ldpSm = "void Tunnel::TunnelRedist::LdpTunnelRedistConfigSm::";
   const std::string luSm = "void Tunnel::TunnelRedist::BgpLuTunnelRedistConfigSm::";
   const std::string byId = "(const Tunnel::TunnelTable::TunnelId&)";
   const std::string byTepAndId =
       "(const Wirekit::IpGenPrefix&, const Tunnel::TunnelTable::TunnelId&)";
   const std::string ldpEntrySig = ldpSm + "handleTunnelEntry" + byId;
   const std::string luEntrySig = luSm + "handleTunnelEntry" + byId;
   const std::string ldpAdd = ldpSm +
                              "addOrUpdateTunnelRedistConfig(const Wirekit::IpGenPrefix&, const "
                              "Tunnel::TunnelRedist::TunnelInfo&)";
   const std::string luAdd = luSm + "addTunnelRedistConfig" + byTepAndId;
   const std::string ldpDel = ldpSm + "delTunnelRedistConfig" + byTepAndId;
   const std::string luDel = luSm + "delTunnelRedistConfig" + byTepAndId;
   const std::string L1 = idText(TunnelType::ldpTunnel, 1), B1 = idText(TunnelType::bgpLuTunnel, 1);
   const std::string L2 = idText(TunnelType::ldpTunnel, 2), B2 = idText(TunnelType::bgpLuTunnel, 2);

   // The machines' lines since the last clear, all at level 8.
   const auto traced = [&] {
      std::vector<std::string> lines;
      for (const Spoor::Record& r : capture.records()) {
         if (r.module != "TunnelRedist") continue;
         EXPECT_EQ(r.level, 8);
         lines.push_back(r.text);
      }
      return lines;
   };
   struct Step {
      const char* what;
      std::function<void()> act;
      Content ldp, lu;
      std::vector<std::string> traces;  // the machines' lines, in order
   };
   const std::vector<Step> steps{
       {"a new tunnel makes its entry",
        [&] {
           m.ldp->entryIs(ldpEntry(1, 1, 10));
           m.lu->entryIs(luEntry(1, 1));
        },
        {{"10.0.0.1/32", {{1, 10}}}},
        {{"10.0.0.1/32", {{1, 0}}}},
        {ldpAdd + " tunnelId:" + L1 + " tep:10.0.0.1/32",
         luAdd + " tunnelId:" + B1 + " tep:10.0.0.1/32"}},
       {"same end point again: LDP updates the metric, BGP-LU writes nothing",
        [&] {
           m.ldp->entryIs(ldpEntry(1, 1, 11));
           m.lu->entryIs(luEntry(1, 1));
        },
        {{"10.0.0.1/32", {{1, 11}}}},
        {{"10.0.0.1/32", {{1, 0}}}},
        {ldpEntrySig + " update for tunnelId:" + L1 + " tep:10.0.0.1/32",
         ldpAdd + " tunnelId:" + L1 + " tep:10.0.0.1/32",
         luEntrySig + " no-op for tunnelId:" + B1 + " tep:10.0.0.1/32"}},
       {"a second tunnel shares the entry",
        [&] {
           m.ldp->entryIs(ldpEntry(2, 1, 5));
           m.lu->entryIs(luEntry(2, 1));
        },
        {{"10.0.0.1/32", {{1, 11}, {2, 5}}}},
        {{"10.0.0.1/32", {{1, 0}, {2, 0}}}},
        {ldpAdd + " tunnelId:" + L2 + " tep:10.0.0.1/32",
         luAdd + " tunnelId:" + B2 + " tep:10.0.0.1/32"}},
       {"the end point moves: the member moves, the old entry keeps the other tunnel",
        [&] { m.ldp->entryIs(ldpEntry(1, 2, 11)); },
        {{"10.0.0.1/32", {{2, 5}}}, {"10.0.0.2/32", {{1, 11}}}},
        {{"10.0.0.1/32", {{1, 0}, {2, 0}}}},
        {ldpEntrySig + " tunnelId:" + L1 + " replace tep new:10.0.0.2/32 old:10.0.0.1/32",
         ldpDel + " del tunnelId:" + L1, ldpDel + " del tep:10.0.0.1/32",
         ldpAdd + " tunnelId:" + L1 + " tep:10.0.0.2/32"}},
       {"deleting the only member removes the entry",
        [&] {
           m.ldp->entryDel(idOf(TunnelType::ldpTunnel, 1));
           m.lu->entryDel(idOf(TunnelType::bgpLuTunnel, 1));
        },
        {{"10.0.0.1/32", {{2, 5}}}},
        {{"10.0.0.1/32", {{2, 0}}}},
        {ldpDel + " del tunnelId:" + L1, ldpDel + " del tep:10.0.0.2/32",
         luDel + " del tunnelId:" + B1, luDel + " del tep:10.0.0.1/32"}},
       {"deleting a tunnel never filed does nothing",
        [&] {
           m.ldp->entryDel(idOf(TunnelType::ldpTunnel, 9));
           m.lu->entryDel(idOf(TunnelType::bgpLuTunnel, 9));
        },
        {{"10.0.0.1/32", {{2, 5}}}},
        {{"10.0.0.1/32", {{2, 0}}}},
        {}},
       {"a second full pass: LDP files the unchanged tunnel again, BGP-LU leaves it out",
        [&] {
           m.ldpSm->handleTunnelEntry();
           m.luSm->handleTunnelEntry();
        },
        {{"10.0.0.1/32", {{2, 5}}}},
        {},
        {ldpSm + "handleTunnelEntry()",
         ldpEntrySig + " update for tunnelId:" + L2 + " tep:10.0.0.1/32",
         ldpAdd + " tunnelId:" + L2 + " tep:10.0.0.1/32", luSm + "handleTunnelEntry()",
         luEntrySig + " no-op for tunnelId:" + B2 + " tep:10.0.0.1/32"}},
   };
   for (const Step& step : steps) {
      SCOPED_TRACE(step.what);
      capture.clear();
      step.act();
      EXPECT_EQ(contentOf(*m.ldpConfig), step.ldp);
      EXPECT_EQ(contentOf(*m.luConfig), step.lu);
      EXPECT_EQ(traced(), step.traces);
   }
   EXPECT_EQ(m.ldpSm->tidToTep(idOf(TunnelType::ldpTunnel, 2)),
             TunnelIdToEndPoint(idOf(TunnelType::ldpTunnel, 2), tep(1)));
   EXPECT_EQ(m.luSm->tidToTep().size(), 1u);  // kept by the full pass

   // Construction traces handleInitialized, then the full pass; teardown traces handleDelete and
   // stops following the table.
   capture.clear();
   auto again = ldpTunnelRedistConfigSmFactory(TunnelRedistConfigIs("x"), m.ldp);
   again->handleDelete();
   m.ldp->entryIs(ldpEntry(3, 3, 1));
   std::vector<std::string> lines = traced();
   std::erase_if(lines, [](const std::string& t) {
      return t.find("::handleTunnelEntry(const") != std::string::npos ||
             t.find("::addOrUpdate") != std::string::npos;
   });
   EXPECT_EQ(lines,
             (std::vector<std::string>{ldpSm + "handleInitialized()", ldpSm + "handleTunnelEntry()",
                                       ldpSm + "handleDelete()"}));
   EXPECT_EQ(contentOf(*again->tunnelRedistConfig()), (Content{{"10.0.0.1/32", {{2, 5}}}}));
}

TEST(TunnelRedistConfigSmDeathTest, APlainReaderIsRefused) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Vault::MountService service;
   const auto plain = [&](const char* path, const char* type) {
      return service.mount(path, type, VelaDock::reader(), VelaDock::MountInfo(), loop);
   };
   auto lu = Vela::dynamicPtrCast<BgpLuTunnelTable>(
       plain(TunnelTable::BgpLuTunnelTable::kTableType.path,
             TunnelTable::BgpLuTunnelTable::kTableType.typeName));
   auto ldp = Vela::dynamicPtrCast<LdpTunnelTable>(
       plain(TunnelTable::LdpTunnelTable::kTableType.path,
             TunnelTable::LdpTunnelTable::kTableType.typeName));
   ASSERT_TRUE(lu && ldp);
   EXPECT_DEATH(bgpLuTunnelRedistConfigSmFactory(TunnelRedistConfigIs("a"), lu),
                "assertion failed: luTunnelTable\\(\\)->entryControl\\(\\)->mode\\(\\) != "
                "VelaDock::reader\\(\\)");
   EXPECT_DEATH(ldpTunnelRedistConfigSmFactory(TunnelRedistConfigIs("a"), ldp),
                "assertion failed: ldpTunnelTable\\(\\)->entryControl\\(\\)->mode\\(\\) != "
                "VelaDock::reader\\(\\)");
}

// Random churn of both tables, the same list in the writer child and in the model.
struct Op {
   bool lu;
   uint64_t index;
   bool remove;
   uint32_t at;
   uint32_t metric;
};
std::vector<Op> churn(uint32_t seed, int count) {
   std::mt19937 rng(seed);
   std::vector<Op> ops;
   for (int i = 0; i < count; ++i) {
      ops.push_back({rng() % 2 == 0, 1 + rng() % 30, rng() % 4 == 0, uint32_t(1 + rng() % 5),
                     uint32_t(rng() % 4)});
   }
   return ops;
}

int writeChurn(const std::vector<Op>& ops, size_t from, size_t to) {
   Loom::EventLoop loop;
   TunnelTable::TunnelTableMounter mounter(Vela::makePtr<Vault::MountService>(), loop);
   auto ldp = mounter.mountWriterOf<LdpTunnelTable>();
   auto lu = mounter.mountWriterOf<BgpLuTunnelTable>();
   for (size_t i = from; i < to; ++i) {
      const Op& op = ops[i];
      const TunnelId id = idOf(op.lu ? TunnelType::bgpLuTunnel : TunnelType::ldpTunnel, op.index);
      if (op.remove) {
         op.lu ? (void)lu->entryDel(id) : (void)ldp->entryDel(id);
      } else if (op.lu) {
         lu->entryIs(luEntry(op.index, op.at));
      } else {
         ldp->entryIs(ldpEntry(op.index, op.at, op.metric));
      }
      if (i % 8 == 0) loop.runOnce(std::chrono::milliseconds(1));
   }
   loop.runOnce(std::chrono::milliseconds(0));
   return 0;
}

TEST(TunnelRedistConfigSm, ConfigsMatchAModelAfterChurnFromAnotherProcessAndAWriterRestart) {
   Testing::TempRoot root;
   const auto ops = churn(7, 600);
   Content wantLdp, wantLu;
   {
      std::map<std::pair<bool, uint64_t>, std::pair<uint32_t, uint32_t>> final;
      for (const Op& op : ops) {
         if (op.remove) {
            final.erase({op.lu, op.index});
         } else {
            final[{op.lu, op.index}] = {op.at, op.lu ? 0 : op.metric};
         }
      }
      for (const auto& [key, v] : final) {
         (key.first ? wantLu : wantLdp)[tep(v.first).stringValue()][key.second] = v.second;
      }
   }

   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   TunnelTable::TunnelTableMounter mounter(service, loop);
   auto ldpConfig = mountTunnelRedistConfig(*service, "ldp", true, loop);
   auto luConfig = mountTunnelRedistConfig(*service, "bgpLu", true, loop);
   auto ldpSm =
       ldpTunnelRedistConfigSmFactory(ldpConfig, mounter.mountKeyshadowOf<LdpTunnelTable>());
   auto luSm =
       bgpLuTunnelRedistConfigSmFactory(luConfig, mounter.mountKeyshadowOf<BgpLuTunnelTable>());

   const auto runUntilExit = [&](pid_t pid) {
      for (;;) {
         loop.runOnce(std::chrono::milliseconds(5));
         int status = 0;
         if (::waitpid(pid, &status, WNOHANG) == pid) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
         }
      }
   };
   const pid_t first = Testing::forkChild([&] {
      writeChurn(ops, 0, 300);
      ::raise(SIGKILL);
      return 1;
   });
   EXPECT_EQ(runUntilExit(first), 128 + SIGKILL);
   const pid_t second = Testing::forkChild([&] { return writeChurn(ops, 300, ops.size()); });
   EXPECT_EQ(runUntilExit(second), 0);

   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
   while ((contentOf(*ldpConfig) != wantLdp || contentOf(*luConfig) != wantLu) &&
          std::chrono::steady_clock::now() < deadline) {
      loop.runOnce(std::chrono::milliseconds(10));
   }
   ASSERT_EQ(contentOf(*ldpConfig), wantLdp);
   ASSERT_EQ(contentOf(*luConfig), wantLu);

   // The redistributing protocol's view: both configurations read by another process.
   const pid_t reader = Testing::forkChild([&] {
      Loom::EventLoop readerLoop;
      Vault::MountService readerService;
      auto ldpCopy = mountTunnelRedistConfig(readerService, "ldp", false, readerLoop);
      auto luCopy = mountTunnelRedistConfig(readerService, "bgpLu", false, readerLoop);
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while ((contentOf(*ldpCopy) != wantLdp || contentOf(*luCopy) != wantLu) &&
             std::chrono::steady_clock::now() < until) {
         readerLoop.runOnce(std::chrono::milliseconds(10));
      }
      return contentOf(*ldpCopy) == wantLdp && contentOf(*luCopy) == wantLu ? 0 : 1;
   });
   EXPECT_EQ(runUntilExit(reader), 0);
}

}  // namespace
}  // namespace Tunnel::TunnelRedist
