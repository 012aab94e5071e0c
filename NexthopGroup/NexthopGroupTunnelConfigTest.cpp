// The nexthop-group tunnel configuration: its entry's text and byte forms, what the config's
// observers are told, and the config published by a writer process and followed by a reader.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <vector>

#include "Loom/EventLoop.h"
#include "NexthopGroup/NexthopGroupTunnelConfig.h"
#include "Vault/MountService.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"

namespace Tunnel::NexthopGroup {
namespace {

using Testing::runUntil;

using Entry = NexthopGroupTunnelConfigEntry;
using Wirekit::IpGenPrefix;

TEST(NexthopGroupTunnelConfigEntry, TextFormReadsBackAndComparesEveryField) {
   const Entry e(IpGenPrefix("10.0.0.1/32"), "ng'1", 7, 300);
   const Vela::String text = valueToStrep(e);
   EXPECT_EQ(text,
             "Value('Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry', ** {'endpoint': "
             "'10.0.0.1/32', 'nexthopGroupName': 'ng\\'1', 'igpPref': 7, 'igpMetric': 300})");
   EXPECT_EQ(Entry(text.begin(), text.end()), e);
   EXPECT_EQ(Testing::streamed(e), text);
   for (const Entry& other : {Entry(IpGenPrefix("10.0.0.2/32"), "ng'1", 7, 300),
                              Entry(IpGenPrefix("10.0.0.1/32"), "ng1", 7, 300),
                              Entry(IpGenPrefix("10.0.0.1/32"), "ng'1", 8, 300),
                              Entry(IpGenPrefix("10.0.0.1/32"), "ng'1", 7, 301)}) {
      EXPECT_NE(other, e);
   }
   EXPECT_EQ(Testing::errorText<Vela::RangeException>(
                 [] { Entry(IpGenPrefix("10.0.0.1/32"), Vela::String(256, 'n')); }),
             "Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry::nexthopGroupNameLength < "
             "Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry::minNexthopGroupNameLength or > "
             "Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry::maxNexthopGroupNameLength not "
             "allowed");
   const Vela::String bad =
       "Value('Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry', ** {'endpoint': "
       "'10.0.0.1/32', 'nexthopGroupName': 'n', 'igpPref': 256, 'igpMetric': 1})";
   EXPECT_NE(Testing::errorText<Vela::ParseException>([&] {
                Entry(bad.begin(), bad.end());
             }).find("igpPref"),
             std::string::npos);
}

TEST(NexthopGroupTunnelConfigEntry, ByteFormRoundTripsAndRefusesDamage) {
   const Entry e(IpGenPrefix("2001:db8::/32"), "ng1", 7, 0x01020304);
   ASSERT_EQ(e.serializeLen(), 33u);
   std::vector<uint8_t> bytes(64, 0xEE);
   e.serialize(bytes.data());
   EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 24, bytes.begin() + 33),
             Testing::hexBytes("04030201 07 03 6e6731"));
   EXPECT_EQ(Entry::deserializeLen(bytes.data(), 32), 0u);
   EXPECT_EQ(Entry::deserializeLen(bytes.data(), 64), 33u);
   Entry back;
   back.deserialize(bytes.data(), 33);
   EXPECT_EQ(back, e);
   EXPECT_EQ(Entry(IpGenPrefix(), Vela::String(255, 'n')).serializeLen(), Entry::kMaxSerializedLen);

   // Shorter or longer than its name length gives, or a name length past the end: refused,
   // changing nothing.
   const auto refusal = [&](uint32_t length) {
      return Testing::errorText<Vela::Exception>([&] { back.deserialize(bytes.data(), length); });
   };
   const std::string error = "Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry: 3";
   EXPECT_EQ(refusal(32), error + "2 bytes, not the length its name length gives");
   EXPECT_EQ(refusal(34), error + "4 bytes, not the length its name length gives");
   bytes[29] = 4;
   EXPECT_EQ(refusal(33), error + "3 bytes, not the length its name length gives");
   EXPECT_EQ(back, e);
}

// Counts "entry" notifications per prefix.
struct Recorder : Vela::Entity::Notifiee {
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr == Vela::attrEntry) ++heard[static_cast<const IpGenPrefix*>(key)->stringValue()];
   }
   std::map<std::string, int> heard;
};

Entry entry(uint32_t n, uint32_t metric = 10) {
   return Entry(IpGenPrefix(Wirekit::IpGenAddr::ipv4(0x0A000000u + n), 32), "ng", 1, metric);
}

TEST(NexthopGroupConfig, EntriesAreComparedByContent) {
   auto config = ConfigIs("nhg");
   EXPECT_EQ(config->fwkType(), "Tunnel::NexthopGroup::Config");
   Recorder r;
   config->notifieeAdd(&r);
   config->entryIs(entry(1));
   config->entryIs(entry(1));      // equal: silent
   config->entryIs(entry(1, 20));  // a non-key field changed: replaces and tells
   EXPECT_EQ(config->entry(entry(1).fwkKey()), entry(1, 20));
   EXPECT_EQ(config->entryDel(entry(9).fwkKey()), Entry());  // absent: silent
   config->entryIs(entry(2));
   config->entryIs(entry(3));
   EXPECT_EQ(config->entryDel(entry(2).fwkKey()), entry(2));
   EXPECT_EQ(config->entry(entry(2).fwkKey()), std::nullopt);
   config->entryDelAll();
   EXPECT_TRUE(config->entries().empty());
   EXPECT_EQ(r.heard, (std::map<std::string, int>{
                          {"10.0.0.1/32", 3}, {"10.0.0.2/32", 2}, {"10.0.0.3/32", 2}}));
   config->notifieeDel(&r);
}

std::vector<Entry> entriesOf(const Config& c) {
   std::vector<Entry> out;
   for (const auto& [endpoint, e] : c.entries()) out.push_back(e);
   std::sort(out.begin(), out.end(),
             [](const Entry& a, const Entry& b) { return a.fwkKey() < b.fwkKey(); });
   return out;
}

TEST(NexthopGroupConfigProcess, AReaderFollowsTheWriterKeyByKey) {
   Testing::TempRoot root;
   Testing::Pipe mounted, go;
   const pid_t writer = Testing::forkChild([&] {
      ::alarm(60);
      Loom::EventLoop loop;
      auto service = Vela::makePtr<Vault::MountService>();
      auto config =
          TunnelTable::mountStoreEntity<Config>(*service, kNexthopGroupConfigPath, true, loop);
      if (!mounted.send() || !go.receive()) return 3;
      for (const uint32_t n : {1u, 2u, 3u}) config->entryIs(entry(n));
      if (!go.receive()) return 4;
      config->entryIs(entry(1));      // unchanged: nothing reaches the reader
      config->entryIs(entry(2, 99));  // replaced
      config->entryDel(entry(3).fwkKey());
      for (;;) loop.runOnce(std::chrono::milliseconds(10));
   });
   ASSERT_TRUE(mounted.receive());

   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   auto copy =
       TunnelTable::mountStoreEntity<Config>(*service, kNexthopGroupConfigPath, false, loop);
   Recorder r;
   copy->notifieeAdd(&r);
   ASSERT_TRUE(runUntil(loop, [&] { return copy->synchronized(); }));
   ASSERT_TRUE(go.send());
   const std::vector<Entry> loaded{entry(1), entry(2), entry(3)};
   EXPECT_TRUE(runUntil(loop, [&] { return entriesOf(*copy) == loaded; }));
   EXPECT_EQ(r.heard, (std::map<std::string, int>{
                          {"10.0.0.1/32", 1}, {"10.0.0.2/32", 1}, {"10.0.0.3/32", 1}}));

   ASSERT_TRUE(go.send());
   const std::vector<Entry> changed{entry(1), entry(2, 99)};
   EXPECT_TRUE(runUntil(loop, [&] { return entriesOf(*copy) == changed; }));
   EXPECT_EQ(r.heard, (std::map<std::string, int>{
                          {"10.0.0.1/32", 1}, {"10.0.0.2/32", 2}, {"10.0.0.3/32", 2}}));
   EXPECT_DEATH(copy->entryDelAll(),
                "entryDelAll on Tunnel::NexthopGroup::Config .*, a reader's copy");
   copy->notifieeDel(&r);
   ::kill(writer, SIGTERM);
   Testing::waitChild(writer);
}

}  // namespace
}  // namespace Tunnel::NexthopGroup
