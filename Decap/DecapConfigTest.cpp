// The decap configuration: what its observers are told per operation, the group map's key check,
// and the configuration published by a writer process and followed key by key by a reader.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <map>

#include "Decap/DecapGroup.h"
#include "Loom/EventLoop.h"
#include "Vault/MountService.h"
#include "Vela/TypeRegistry.h"
#include "testing/Expect.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"

namespace Tunnel::Decap {
namespace {

using Testing::runUntil;

using Wirekit::IpGenPrefix;

// Counts notifications per "<attribute>:<key>"; with a config to look at, also what the config
// held when ready was told.
struct Recorder : Vela::Entity::Notifiee {
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr == attrGlobalDestPortToPayloadType) {
         ++heard["port:" + std::to_string(*static_cast<const uint16_t*>(key))];
      } else if (attr == attrDecapGroup) {
         ++heard["group:" + *static_cast<const Vela::String*>(key)];
      } else if (attr == attrReady && !key) {
         ++heard["ready"];
         if (config)
            sizesAtReady = {config->globalDestPortToPayloadTypes().size(),
                            config->decapGroups().size()};
      }
   }
   std::map<std::string, int> heard;
   const Config* config = nullptr;
   std::pair<size_t, size_t> sizesAtReady;
};

Vela::Ptr<const DecapGroup> group(const char* name, const char* ip = "10.0.0.1/32") {
   return decapGroupFactory(name, DecapTunnelType::gre, {IpGenPrefix(ip)});
}

TEST(DecapConfig, PortsAndReadyNotifyOnlyOnChange) {
   auto config = ConfigIs("decap");
   EXPECT_EQ(config->fwkType(), "Tunnel::Decap::Config");
   Recorder r;
   config->notifieeAdd(&r);
   config->readyIs(false);  // not ready at first: silent
   EXPECT_TRUE(r.heard.empty());
   config->readyIs(true);
   config->readyIs(true);
   config->readyIs(false);
   config->globalDestPortToPayloadTypeIs(4789, PayloadType::ethernet);
   config->globalDestPortToPayloadTypeIs(4789, PayloadType::ethernet);  // same type: silent
   config->globalDestPortToPayloadTypeIs(4789, PayloadType::ipv4);      // changed: told
   config->globalDestPortToPayloadTypeIs(6635, PayloadType::mpls);
   EXPECT_EQ(config->globalDestPortToPayloadType(4789), PayloadType::ipv4);
   EXPECT_EQ(config->globalDestPortToPayloadTypeDel(1), PayloadType::unknown);  // absent: silent
   EXPECT_EQ(config->globalDestPortToPayloadTypeDel(6635), PayloadType::mpls);
   EXPECT_EQ(config->globalDestPortToPayloadType(6635), std::nullopt);
   config->globalDestPortToPayloadTypeIs(1, PayloadType::ipv6);
   config->globalDestPortToPayloadTypeDelAll();
   EXPECT_TRUE(config->globalDestPortToPayloadTypes().empty());
   EXPECT_EQ(r.heard, (std::map<std::string, int>{
                          {"port:1", 2}, {"port:4789", 3}, {"port:6635", 2}, {"ready", 2}}));
   config->notifieeDel(&r);
}

TEST(DecapConfig, GroupsAreReplacedByIdentity) {
   auto config = configFactory("decap");
   Recorder r;
   config->notifieeAdd(&r);
   const auto g = group("g1");
   config->decapGroupIs(g);
   config->decapGroupIs(g);  // the same object: silent
   EXPECT_EQ(r.heard["group:g1"], 1);
   const auto copy = group("g1");  // equal content, a new object: replaces and tells
   ASSERT_EQ(*copy, *g);
   config->decapGroupIs(copy);
   EXPECT_EQ(r.heard["group:g1"], 2);
   EXPECT_EQ(config->decapGroup("g1"), copy);
   EXPECT_EQ(g->references(), 1u);  // the map let go of the old object

   EXPECT_EQ(
       Testing::errorText<Vela::NullArgumentException>([&] { config->decapGroupIs(nullptr); }),
       "Tunnel::Decap::Config::decapGroupIs: attribute decapGroup is null");
   EXPECT_EQ(config->decapGroupDel("none"), nullptr);  // absent: silent
   config->decapGroupIs(group("g2"));
   config->decapGroupIs(group("g3"));
   EXPECT_EQ(config->decapGroupDel("g1"), copy);
   EXPECT_EQ(config->decapGroup("g1"), nullptr);
   config->decapGroupDelAll();
   EXPECT_TRUE(config->decapGroups().empty());
   EXPECT_EQ(r.heard,
             (std::map<std::string, int>{{"group:g1", 3}, {"group:g2", 2}, {"group:g3", 2}}));
   config->notifieeDel(&r);
}

// The group map's key check, and a group (it holds a collection) has no text constructor.
TEST(DecapConfigDeathTest, KeyCheckAndGroupTextConstructorAssert) {
   checkDecapGroupKey("g1", *group("g1"));
   EXPECT_DEATH(checkDecapGroupKey("g1", *group("g2")),
                "assertion failed: fwkKey\\(\\) == KeyFunktor\\(\\)\\( _value \\)");
   const Vela::String text = "Value('Tunnel::Decap::DecapGroup', ** {})";
   EXPECT_DEATH(Vela::makePtr<const DecapGroup>(text.begin(), text.end()),
                "assertion failed: No String constructor for DecapGroup - has collection");
}

// ---- a writer process and a reader's copy ----

using Content = std::map<std::string, std::string>;
Content contentOf(const Config& c) {
   Content out;
   for (const auto& [port, type] : c.globalDestPortToPayloadTypes()) {
      out["port:" + std::to_string(port)] = valueToStrep(type);
   }
   for (const auto& [name, g] : c.decapGroups()) out["group:" + name] = valueToStrep(*g);
   return out;
}

Vela::Ptr<Config> mount(Vault::MountService& service, bool writer, Loom::EventLoop& loop) {
   return TunnelTable::mountStoreEntity<Config>(service, kDecapConfigPath, writer, loop);
}

TEST(DecapConfigProcess, AReaderFollowsTheWriterKeyByKey) {
   Testing::TempRoot root;
   Testing::Pipe mounted, filled, go;
   const pid_t writer = Testing::forkChild([&] {
      ::alarm(60);
      Loom::EventLoop loop;
      auto service = Vela::makePtr<Vault::MountService>();
      auto config = mount(*service, true, loop);
      if (!mounted.send() || !go.receive()) return 3;
      config->globalDestPortToPayloadTypeIs(4789, PayloadType::ethernet);
      config->globalDestPortToPayloadTypeIs(6635, PayloadType::mpls);
      config->decapGroupIs(group("g1"));
      config->decapGroupIs(group("g2", "2001:db8::/32"));
      config->readyIs(true);
      loop.runOnce(std::chrono::milliseconds(0));
      if (!filled.send() || !go.receive()) return 4;
      config->globalDestPortToPayloadTypeIs(4789, PayloadType::ipv4);
      config->decapGroupIs(group("g1", "10.9.9.9/32"));
      config->decapGroupDel("g2");
      for (;;) loop.runOnce(std::chrono::milliseconds(10));
   });
   ASSERT_TRUE(mounted.receive());

   // An early reader, attached while the store is empty, is told every key as it comes.
   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   auto copy = mount(*service, false, loop);
   Recorder early;
   copy->notifieeAdd(&early);
   ASSERT_TRUE(runUntil(loop, [&] { return copy->synchronized(); }));
   EXPECT_TRUE(early.heard.empty());
   ASSERT_TRUE(go.send() && filled.receive());
   const Content loaded{{"port:4789", "ethernet"},
                        {"port:6635", "mpls"},
                        {"group:g1", valueToStrep(*group("g1"))},
                        {"group:g2", valueToStrep(*group("g2", "2001:db8::/32"))}};
   EXPECT_TRUE(runUntil(loop, [&] { return copy->ready() && contentOf(*copy) == loaded; }));
   EXPECT_EQ(
       early.heard,
       (std::map<std::string, int>{
           {"port:4789", 1}, {"port:6635", 1}, {"group:g1", 1}, {"group:g2", 1}, {"ready", 1}}));

   // A late reader, with its own mount service and observed from its construction on: told each
   // key once, and ready only when it holds the whole configuration.
   Recorder late;
   auto& registry = Vela::TypeRegistry::instance();
   const Vela::EntityFactory factory = registry.factory(Config::kTypeName);
   registry.typeIs(Config::kTypeName, [&](const Vela::String& name) {
      auto c = configFactory(name);
      late.config = c.get();
      c->notifieeAdd(&late);
      return Vela::Ptr<Vela::Entity>(c);
   });
   auto lateService = Vela::makePtr<Vault::MountService>();
   auto lateCopy = mount(*lateService, false, loop);
   registry.typeIs(Config::kTypeName, factory);
   EXPECT_TRUE(runUntil(loop, [&] { return lateCopy->ready(); }));
   EXPECT_EQ(contentOf(*lateCopy), loaded);
   EXPECT_EQ(late.heard, early.heard);
   EXPECT_EQ(late.sizesAtReady, (std::pair<size_t, size_t>(2, 2)));

   // A change in the writer reaches the reader: a new type, a new group object, a removal.
   ASSERT_TRUE(go.send());
   const Content changed{{"port:4789", "ipv4"},
                         {"port:6635", "mpls"},
                         {"group:g1", valueToStrep(*group("g1", "10.9.9.9/32"))}};
   EXPECT_TRUE(runUntil(loop, [&] { return contentOf(*copy) == changed; }));
   EXPECT_EQ(
       early.heard,
       (std::map<std::string, int>{
           {"port:4789", 2}, {"port:6635", 1}, {"group:g1", 2}, {"group:g2", 2}, {"ready", 1}}));
   EXPECT_DEATH(copy->globalDestPortToPayloadTypeIs(1, PayloadType::ipv4),
                "globalDestPortToPayloadTypeIs on Tunnel::Decap::Config .*, a reader's copy");
   EXPECT_DEATH(copy->readyIs(false), "readyIs on Tunnel::Decap::Config .*, a reader's copy");
   lateCopy->notifieeDel(&late);
   copy->notifieeDel(&early);
   ::kill(writer, SIGTERM);
   Testing::waitChild(writer);
}

}  // namespace
}  // namespace Tunnel::Decap
