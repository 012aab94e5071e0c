// The redistribution configuration: its values' text and byte forms, its entries, and the config
// published by one process and read by another.
#include <gtest/gtest.h>

#include <map>

#include "Loom/EventLoop.h"
#include "TunnelRedist/TunnelRedistConfig.h"
#include "Vault/MountService.h"
#include "testing/Expect.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelRedist {
namespace {

using Wirekit::IpGenAddr;
using Wirekit::IpGenPrefix;

IpGenPrefix tep(uint32_t n) {
   return IpGenPrefix(IpGenAddr::ipv4(0x0A000000u + n), 32);
}
TunnelId ldp(uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(TunnelTable::TunnelType::ldpTunnel, index));
}

// Counts member notifications per tunnel id value.
struct Recorder : Vela::Entity::Notifiee {
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr == attrMemberTunnelInfo) ++heard[static_cast<const TunnelId*>(key)->value()];
   }
   std::map<uint64_t, int> heard;
};

TEST(TunnelRedistValues, TextFormsReadBackAndCompareEveryField) {
   const TunnelInfo info(ldp(7), 30);
   const Vela::String infoText = info.stringValue();
   EXPECT_EQ(infoText,
             "Value('Tunnel::TunnelRedist::TunnelInfo', ** {'tunnelId': "
             "Value('Tunnel::TunnelTable::TunnelId', ** {'value': " +
                 std::to_string(ldp(7).value()) + "}), 'igpMetric': 30})");
   EXPECT_EQ(TunnelInfo(infoText.begin(), infoText.end()), info);
   EXPECT_EQ(Testing::streamed(info), infoText);
   EXPECT_NE(info, TunnelInfo(ldp(7), 31));
   EXPECT_NE(info, TunnelInfo(ldp(8), 30));

   const TunnelIdToEndPoint t2e(ldp(7), tep(1));
   const Vela::String t2eText = t2e.stringValue();
   EXPECT_EQ(t2eText,
             "Value('Tunnel::TunnelRedist::TunnelIdToEndPoint', ** {'tunnelId': "
             "Value('Tunnel::TunnelTable::TunnelId', ** {'value': " +
                 std::to_string(ldp(7).value()) + "}), 'tep': '10.0.0.1/32'})");
   EXPECT_EQ(TunnelIdToEndPoint(t2eText.begin(), t2eText.end()), t2e);
   EXPECT_NE(t2e, TunnelIdToEndPoint(ldp(7), tep(2)));
}

TEST(TunnelRedistValues, MemberRecordsRoundTripAndRefuseAWrongLength) {
   const TunnelRedistMember m{tep(3), TunnelInfo(ldp(9), 0xA1B2C3D4)};
   uint8_t bytes[TunnelRedistMember::kSerializedLen + 1];
   m.serialize(bytes);
   EXPECT_EQ(bytes[32], 0xD4);  // the metric, little-endian, after the 32-byte key
   EXPECT_EQ(bytes[35], 0xA1);
   TunnelRedistMember back;
   back.deserialize(bytes, 36);
   EXPECT_EQ(back, m);
   EXPECT_EQ(TunnelRedistMember::deserializeLen(bytes, 35), 0u);
   EXPECT_EQ(TunnelRedistMember::deserializeLen(bytes, 40), 36u);
   for (const uint32_t length : {35u, 37u}) {
      EXPECT_EQ(Testing::errorText<Vela::Exception>([&] { back.deserialize(bytes, length); }),
                "Tunnel::TunnelRedist::TunnelRedistMember: " + std::to_string(length) +
                    " bytes, expected 36");
   }
}

// An entry is made once; a member's metric is replaced in place; removing an absent member or
// entry gives nothing back.
TEST(TunnelRedistConfig, EntriesAndMembersAreReplacedInPlace) {
   auto config = TunnelRedistConfigIs("bgpLu");
   Recorder entryHeard;
   auto e = config->entryIs(tep(1));
   EXPECT_EQ(config->entryIs(tep(1)), e);
   e->notifieeAdd(&entryHeard);
   e->memberTunnelInfoIs(TunnelInfo(ldp(1), 10));
   e->memberTunnelInfoIs(TunnelInfo(ldp(1), 10));  // unchanged: silent
   e->memberTunnelInfoIs(TunnelInfo(ldp(1), 20));
   e->memberTunnelInfoIs(TunnelInfo(ldp(2), 5));
   EXPECT_EQ(e->memberTunnelInfoSize(), 2u);
   EXPECT_EQ(e->memberTunnelInfo(ldp(1))->igpMetric(), 20u);
   EXPECT_EQ(e->memberTunnelInfoDel(ldp(1)), TunnelInfo(ldp(1), 20));
   EXPECT_EQ(e->memberTunnelInfoDel(ldp(1)), TunnelInfo());  // absent: silent
   EXPECT_EQ(entryHeard.heard, (std::map<uint64_t, int>{{ldp(1).value(), 3}, {ldp(2).value(), 1}}));
   e->notifieeDel(&entryHeard);
   EXPECT_EQ(config->entryDel(tep(9)), nullptr);
   EXPECT_EQ(config->entryDel(tep(1)), e);
}

// The wanted content of a config: prefix -> tunnel index -> metric.
using Content = std::map<std::string, std::map<uint64_t, uint32_t>>;
Content contentOf(const TunnelRedistConfig& config) {
   Content c;
   for (const auto& [prefix, entry] : config.entries()) {
      auto& members = c[prefix.stringValue()];
      for (const auto& [id, info] : entry->memberTunnelInfos()) {
         members[id.tunnelIndex()] = info.igpMetric();
      }
   }
   return c;
}

TEST(TunnelRedistConfig, ANewWriterLeavesInTheStoreOnlyWhatItHolds) {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   {
      auto old = mountTunnelRedistConfig(*service, "ldp", true, loop);
      old->entryIs(tep(1))->memberTunnelInfoIs(TunnelInfo(ldp(1), 10));
      old->entryIs(tep(2))->memberTunnelInfoIs(TunnelInfo(ldp(2), 20));
      service->unmount(tunnelRedistConfigPath("ldp"));
   }
   auto config = mountTunnelRedistConfig(*service, "ldp", true, loop);
   config->entryIs(tep(1))->memberTunnelInfoIs(TunnelInfo(ldp(1), 11));
   EXPECT_EQ(config->publishedMembers(),
             (std::vector<TunnelRedistMember>{{tep(1), TunnelInfo(ldp(1), 11)}}));
}

TEST(TunnelRedistConfig, AReaderInAnotherProcessFollowsTheWriterAndRefusesWrites) {
   Testing::TempRoot root;
   Testing::Pipe ready, go;
   // The writer: a first content, then (on the parent's word) a member moves and an entry goes.
   const pid_t writer = Testing::forkChild([&] {
      Loom::EventLoop loop;
      auto service = Vela::makePtr<Vault::MountService>();
      auto config = mountTunnelRedistConfig(*service, "ldp", true, loop);
      auto a = config->entryIs(tep(1));
      a->memberTunnelInfoIs(TunnelInfo(ldp(1), 10));
      a->memberTunnelInfoIs(TunnelInfo(ldp(2), 20));
      config->entryIs(tep(2))->memberTunnelInfoIs(TunnelInfo(ldp(3), 30));
      loop.runOnce(std::chrono::milliseconds(0));
      if (!ready.send() || !go.receive()) return 3;
      a->memberTunnelInfoIs(TunnelInfo(ldp(2), 21));
      a->memberTunnelInfoDel(ldp(1));
      config->entryDel(tep(2));
      config->entryIs(tep(4))->memberTunnelInfoIs(TunnelInfo(ldp(4), 40));
      for (int i = 0; i < 100; ++i) loop.runOnce(std::chrono::milliseconds(10));
      return 0;
   });
   ASSERT_TRUE(ready.receive());

   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   auto copy = mountTunnelRedistConfig(*service, "ldp", false, loop);
   const auto until = [&](const Content& want) {
      Testing::runUntil(loop, [&] { return contentOf(*copy) == want; });
      return contentOf(*copy);
   };
   const Content before{{"10.0.0.1/32", {{1, 10}, {2, 20}}}, {"10.0.0.2/32", {{3, 30}}}};
   EXPECT_EQ(until(before), before);
   ASSERT_TRUE(go.send());
   const Content after{{"10.0.0.1/32", {{2, 21}}}, {"10.0.0.4/32", {{4, 40}}}};
   EXPECT_EQ(until(after), after);
   EXPECT_DEATH(copy->entryIs(tep(5)),
                "entryIs on Tunnel::TunnelRedist::TunnelRedistConfig ldp, a reader's copy");
   ::kill(writer, SIGTERM);
   Testing::waitChild(writer);
}

}  // namespace
}  // namespace Tunnel::TunnelRedist
