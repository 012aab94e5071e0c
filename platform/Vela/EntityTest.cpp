#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Vela/Entity.h"
#include "Vela/TypeRegistry.h"
#include "testing/Expect.h"

namespace {

using Vela::AttributeId;
using Vela::Entity;

int tablesAlive = 0;

struct Table : Entity {
   explicit Table(Vela::String name, Entity* parent = nullptr) : Entity(std::move(name), parent) {
      ++tablesAlive;
   }
   ~Table() override { --tablesAlive; }
   std::string_view fwkTypeName() const override { return "Tunnel::TunnelTable::LdpTunnelTable"; }
};

// Records every call; an optional action runs inside the callback.
struct Recorder : Entity::Notifiee {
   std::vector<std::pair<uint32_t, uint64_t>> calls;
   std::function<void()> action;
   void onAttribute(AttributeId attr, const void* key) override {
      calls.emplace_back(attr.value, key ? *static_cast<const uint64_t*>(key) : 0);
      if (action) action();
   }
};

TEST(Entity, NotifiesEveryNotifieeOnlyWhileActive) {
   Vela::Ptr<Table> t = Vela::makePtr<Table>("ldp");
   Recorder a, b;
   t->notifieeAdd(&a);
   t->notifieeAdd(&b);
   t->notifieeAdd(&a);  // already there
   EXPECT_EQ(t->notifieeCount(), 2u);
   const uint64_t key = 0x300000000007;
   t->notify(Vela::attrEntry, &key);
   t->hasNotificationActiveIs(false);
   t->notify(Vela::attrEntryControl, &key);
   t->hasNotificationActiveIs(true);
   t->notify(Vela::attrEntryControl);
   using Calls = std::vector<std::pair<uint32_t, uint64_t>>;
   EXPECT_EQ(a.calls, (Calls{{386, key}, {387, 0}}));
   EXPECT_EQ(b.calls, a.calls);
   t->notifieeDel(&a);
   t->notifieeDel(&a);  // not there any more
   t->notify(Vela::attrEntry, &key);
   EXPECT_EQ(a.calls.size(), 2u);
   EXPECT_EQ(b.calls.size(), 3u);
   EXPECT_THROW(t->notifieeAdd(nullptr), Vela::NullArgumentException);
}

TEST(Entity, NotifieesMayRemoveAndAddDuringNotify) {
   Vela::Ptr<Table> t = Vela::makePtr<Table>("ldp");
   Recorder self, later, added;
   self.action = [&] { t->notifieeDel(&self); };  // removes itself
   later.action = [&] { t->notifieeAdd(&added); };
   Recorder victim, killer;
   killer.action = [&] { t->notifieeDel(&victim); };  // removes one not yet called
   t->notifieeAdd(&self);
   t->notifieeAdd(&killer);
   t->notifieeAdd(&victim);
   t->notifieeAdd(&later);
   t->notify(Vela::attrEntry);
   EXPECT_EQ(self.calls.size(), 1u);
   EXPECT_EQ(killer.calls.size(), 1u);
   EXPECT_EQ(victim.calls.size(), 0u);
   EXPECT_EQ(later.calls.size(), 1u);
   EXPECT_EQ(added.calls.size(), 0u);  // joins from the next notify
   EXPECT_EQ(t->notifieeCount(), 3u);
   later.action = nullptr;
   t->notify(Vela::attrEntry);
   EXPECT_EQ(self.calls.size(), 1u);
   EXPECT_EQ(killer.calls.size(), 2u);
   EXPECT_EQ(later.calls.size(), 2u);
   EXPECT_EQ(added.calls.size(), 1u);
}

TEST(Entity, NestedNotifyReachesEveryoneAndKeepsListConsistent) {
   Vela::Ptr<Table> t = Vela::makePtr<Table>("ldp");
   Recorder outer, inner;
   outer.action = [&] {
      outer.action = nullptr;
      t->notifieeDel(&outer);
      t->notify(Vela::attrEntryControl);  // re-entered while the outer walk is in progress
   };
   t->notifieeAdd(&outer);
   t->notifieeAdd(&inner);
   t->notify(Vela::attrEntry);
   using Calls = std::vector<std::pair<uint32_t, uint64_t>>;
   EXPECT_EQ(outer.calls, (Calls{{386, 0}}));
   EXPECT_EQ(inner.calls, (Calls{{387, 0}, {386, 0}}));
   EXPECT_EQ(t->notifieeCount(), 1u);
   t->notifieeAdd(&outer);
   EXPECT_EQ(t->notifieeCount(), 2u);
}

struct Returner : Entity::ZeroReferencesNotifiee {
   std::vector<std::string> seen;
   int aliveDuringCall = -1;
   bool takeTemporaryReference = false;
   void onZeroReferences(Entity* e) override {
      seen.push_back(e->name());
      aliveDuringCall = tablesAlive;
      if (takeTemporaryReference) Vela::Ptr<Entity> again(e);  // count 1, then 0 again
   }
};

TEST(Entity, ZeroReferencesNotifieeRunsBeforeDeletion) {
   tablesAlive = 0;
   Returner r;
   {
      Vela::Ptr<Table> t = Vela::makePtr<Table>("ldp");
      t->zeroReferencesNotifieeIs(&r);
      Vela::Ptr<Entity> other = t;
      Vela::Ptr<Table> child = Vela::makePtr<Table>("child", t.get());
      EXPECT_EQ(t->references(), 2u);  // a child does not own its parent
   }
   EXPECT_EQ(r.seen, std::vector<std::string>{"ldp"});
   EXPECT_EQ(r.aliveDuringCall, 1);  // the child went first
   EXPECT_EQ(tablesAlive, 0);

   r.takeTemporaryReference = true;  // must not run the hook or delete twice
   { Vela::Ptr<Table>(new Table("bgpLu"))->zeroReferencesNotifieeIs(&r); }
   EXPECT_EQ(r.seen, (std::vector<std::string>{"ldp", "bgpLu"}));
   EXPECT_EQ(tablesAlive, 0);
}

struct Keeper : Entity::ZeroReferencesNotifiee {
   Vela::Ptr<Entity> kept;
   void onZeroReferences(Entity* e) override { kept = e; }
};

TEST(Entity, RevivingFromZeroReferencesIsAnAssertion) {
   Keeper k;
   EXPECT_DEATH(
       {
          Vela::Ptr<Table> t = Vela::makePtr<Table>("ldp");
          t->zeroReferencesNotifieeIs(&k);
       },
       "assertion failed: references\\(\\) == 0 && \"an entity was revived by its "
       "zero-references notifiee\"");
}

TEST(TypeRegistry, BuildsEntitiesByFrameworkTypeName) {
   auto& reg = Vela::TypeRegistry::instance();
   const Vela::String type = "Tunnel::TunnelTable::LdpTunnelTable";
   EXPECT_FALSE(reg.factory(type));
   EXPECT_EQ(Testing::errorText<Vela::Exception>([&] { reg.create(type, "ldp"); }),
             "unknown type 'Tunnel::TunnelTable::LdpTunnelTable'");
   reg.typeIs(type, [](const Vela::String& name) { return Vela::makePtr<Table>(name); });
   EXPECT_TRUE(reg.hasType(type));
   Vela::Ptr<Entity> e = reg.create(type, "ldp");
   ASSERT_TRUE(e);
   EXPECT_EQ(e->name(), "ldp");
   EXPECT_TRUE(Vela::dynamicPtrCast<Table>(e));
   EXPECT_EQ(reg.typeNames(), std::vector<Vela::String>{type});
   EXPECT_THROW(reg.typeIs("X", nullptr), Vela::NullArgumentException);
   reg.typeDel(type);
   EXPECT_FALSE(reg.hasType(type));
}

}  // namespace
