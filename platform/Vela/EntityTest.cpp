#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "Vela/Entity.h"
#include "Vela/TypeRegistry.h"
#include "testing/Expect.h"

namespace {

using Vela::Entity;
using Calls = std::vector<std::pair<uint32_t, uint64_t>>;

struct Table : Entity {
   using Entity::Entity;
};

// Records every call (attribute, key); an optional action runs inside the callback.
struct Recorder : Entity::Notifiee {
   Calls calls;
   std::function<void()> action;
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      calls.emplace_back(attr.value, key ? *static_cast<const uint64_t*>(key) : 0);
      if (action) action();
   }
};

// A notifiee is in the list once and hears nothing while notifications are off. Removed ones
// (themselves or one not yet called) are not called again; added ones join from the next notify;
// a nested notify reaches everyone and the list stays consistent.
TEST(Entity, NotifieesMayChangeTheListDuringANestedNotify) {
   Vela::Ptr<Table> t = Vela::makePtr<Table>("ldp");
   Recorder self, killer, victim, later, added;
   self.action = [&] {
      self.action = nullptr;
      t->notifieeDel(&self);
      t->notify(Vela::attrEntryControl);  // re-entered while the outer walk is in progress
   };
   killer.action = [&] { t->notifieeDel(&victim); };
   later.action = [&] { t->notifieeAdd(&added); };
   for (Recorder* r : {&self, &killer, &victim, &later, &self}) t->notifieeAdd(r);
   t->hasNotificationActiveIs(false);
   t->notify(Vela::attrEntry);
   t->hasNotificationActiveIs(true);
   const uint64_t key = 0x300000000007;
   t->notify(Vela::attrEntry, &key);
   EXPECT_EQ(self.calls, (Calls{{386, key}}));
   EXPECT_EQ(killer.calls, (Calls{{387, 0}, {386, key}}));
   EXPECT_EQ(victim.calls, Calls{});
   EXPECT_EQ(later.calls, (Calls{{387, 0}, {386, key}}));
   EXPECT_EQ(added.calls, Calls{});
   EXPECT_EQ(t->notifieeCount(), 3u);
   t->notifieeDel(&victim);  // not there any more
   t->notify(Vela::attrEntry);
   EXPECT_EQ(self.calls.size(), 1u);
   EXPECT_EQ(killer.calls.size(), 3u);
   EXPECT_EQ(added.calls, (Calls{{386, 0}}));
   EXPECT_THROW(t->notifieeAdd(nullptr), Vela::NullArgumentException);
}

struct Keeper : Entity::ZeroReferencesNotifiee {
   Vela::Ptr<Entity> kept;
   void onZeroReferences(Entity* e) override { kept = e; }
};

// The hook itself (run once, before the deletion) is exercised by the collection controls.
TEST(EntityDeathTest, RevivingFromZeroReferencesIsAnAssertion) {
   Keeper k;
   EXPECT_DEATH(Vela::makePtr<Table>("ldp")->zeroReferencesNotifieeIs(&k),
                "assertion failed: references\\(\\) == 0 && \"an entity was revived by its "
                "zero-references notifiee\"");
}

TEST(TypeRegistry, BuildsEntitiesByFrameworkTypeName) {
   auto& reg = Vela::TypeRegistry::instance();
   const Vela::String type = "Tunnel::TunnelTable::LdpTunnelTable";
   EXPECT_EQ(Testing::errorText<Vela::Exception>([&] { reg.create(type, "ldp"); }),
             "unknown type 'Tunnel::TunnelTable::LdpTunnelTable'");
   reg.typeIs(type, [](const Vela::String& name) { return Vela::makePtr<Table>(name); });
   Vela::Ptr<Entity> e = reg.create(type, "ldp");
   ASSERT_TRUE(Vela::dynamicPtrCast<Table>(e));
   EXPECT_EQ(e->name(), "ldp");
   EXPECT_EQ(reg.typeNames(), std::vector<Vela::String>{type});
   EXPECT_THROW(reg.typeIs("X", nullptr), Vela::NullArgumentException);
   reg.typeDel(type);
   EXPECT_FALSE(reg.hasType(type));
}

}  // namespace
