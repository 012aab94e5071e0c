// The two redistribution machines: the refusal of a plain reader, and both machines fed by tables
// another process writes (its writer killed and replaced midway), against a model of the
// configuration, then a full pass. A reader of the configuration in another process is checked in
// TunnelRedistConfigTest.
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <random>

#include "Loom/EventLoop.h"
#include "Spoor/Trace.h"
#include "TunnelRedist/BgpLuTunnelRedistConfigSm.h"
#include "TunnelRedist/LdpTunnelRedistConfigSm.h"
#include "TunnelTable/TunnelMount.h"
#include "Vault/MountService.h"
#include "testing/RunUntil.h"
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

TEST(TunnelRedistConfigSmDeathTest, APlainReaderIsRefused) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Vault::MountService service;
   const auto plain = [&](const TunnelTable::TableType& t) {
      return service.mount(t.path, t.typeName, VelaDock::reader(), VelaDock::MountInfo(), loop);
   };
   auto lu = Vela::dynamicPtrCast<BgpLuTunnelTable>(plain(BgpLuTunnelTable::kTableType));
   auto ldp = Vela::dynamicPtrCast<LdpTunnelTable>(plain(LdpTunnelTable::kTableType));
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

   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   TunnelTable::TunnelTableMounter mounter(service, loop);
   auto ldpConfig = mountTunnelRedistConfig(*service, "ldp", true, loop);
   auto luConfig = mountTunnelRedistConfig(*service, "bgpLu", true, loop);
   auto ldpSm =
       ldpTunnelRedistConfigSmFactory(ldpConfig, mounter.mountKeyshadowOf<LdpTunnelTable>());
   auto luSm =
       bgpLuTunnelRedistConfigSmFactory(luConfig, mounter.mountKeyshadowOf<BgpLuTunnelTable>());

   const pid_t first = Testing::forkChild([&] {
      writeChurn(ops, 0, 300);
      ::raise(SIGKILL);
      return 1;
   });
   EXPECT_EQ(Testing::runUntilExit(loop, first), 128 + SIGKILL);
   const pid_t second = Testing::forkChild([&] { return writeChurn(ops, 300, ops.size()); });
   EXPECT_EQ(Testing::runUntilExit(loop, second), 0);

   Testing::runUntil(
       loop, [&] { return contentOf(*ldpConfig) == wantLdp && contentOf(*luConfig) == wantLu; });
   ASSERT_EQ(contentOf(*ldpConfig), wantLdp);
   ASSERT_EQ(contentOf(*luConfig), wantLu);
   // A full pass clears the configuration and files every tunnel again, keeping what the machines
   // remember: LDP files an unchanged tunnel again, BGP-LU takes it as seen and leaves it out (so
   // an empty BGP-LU configuration shows that every tunnel was remembered under its end point).
   Spoor::Capture capture(8);
   ldpSm->handleTunnelEntry();
   luSm->handleTunnelEntry();
   EXPECT_EQ(contentOf(*ldpConfig), wantLdp);
   EXPECT_EQ(contentOf(*luConfig), Content());
   std::vector<std::pair<int, std::string>> passes;  // the lines opening each pass, traced at 8
   for (const Spoor::Record& r : capture.records()) {
      if (r.module == "TunnelRedist" && r.text.ends_with("::handleTunnelEntry()")) {
         passes.emplace_back(r.level, r.text);
      }
   }
   EXPECT_EQ(
       passes,
       (std::vector<std::pair<int, std::string>>{
           {8, "void Tunnel::TunnelRedist::LdpTunnelRedistConfigSm::handleTunnelEntry()"},
           {8, "void Tunnel::TunnelRedist::BgpLuTunnelRedistConfigSm::handleTunnelEntry()"}}));
}

}  // namespace
}  // namespace Tunnel::TunnelRedist
