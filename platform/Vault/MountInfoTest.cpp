// Mount descriptions and collection controls: text forms, change reporting, hand-back.
#include <gtest/gtest.h>

#include "Loom/EventLoop.h"
#include "Vault/CollectionControl.h"
#include "Vault/MountInfo.h"
#include "Vela/Exception.h"
#include "testing/Expect.h"

namespace {

TEST(MountInfo, CollectionsKeepOrderReplaceSizingAndRenderTheirText) {
   VelaDock::MountInfo info;
   EXPECT_TRUE(info.empty());
   EXPECT_EQ(info.stringValue(), "Value('VelaDock::MountInfo', ** {'collection': []})");

   info.collectionIs("entry", 1024);
   EXPECT_EQ(info.stringValue(),
             "Value('VelaDock::MountInfo', ** {'collection': [Value('VelaDock::CollectionInfo', "
             "** {'attrName': 'entry', 'sizing': 1024})]})");
   info.collectionIs("status", 7);
   info.collectionIs("entry", 2048);  // replaces, keeps the place
   ASSERT_EQ(info.collectionCount(), 2u);
   EXPECT_EQ(info.collections()[0], (VelaDock::CollectionInfo{"entry", 2048}));
   EXPECT_EQ(info.collections()[1], (VelaDock::CollectionInfo{"status", 7}));
   EXPECT_EQ(info.collection("status")->sizing, 7u);
   EXPECT_FALSE(info.collection("nothing").has_value());
   // Equality is member-wise, so the order of the collections counts.
   VelaDock::MountInfo reversed;
   reversed.collectionIs("status", 7);
   reversed.collectionIs("entry", 2048);
   EXPECT_NE(info, reversed);
   EXPECT_EQ(Testing::streamed(info),
             "Value('VelaDock::MountInfo', ** {'collection': [Value('VelaDock::CollectionInfo', "
             "** {'attrName': 'entry', 'sizing': 2048}), Value('VelaDock::CollectionInfo', ** "
             "{'attrName': 'status', 'sizing': 7})]})");

   EXPECT_THROW(info.collectionIs("", 1), Vela::NullArgumentException);
   EXPECT_FALSE(info.collectionDel("nothing"));
   EXPECT_TRUE(info.collectionDel("entry"));
   EXPECT_EQ(info.collectionCount(), 1u);
}

TEST(CollectionControl, CarriesItsMountAndReportsOnlyChanges) {
   Loom::EventLoop loop;
   auto control = Vela::makePtr<VelaDock::CollectionControl>(
       VelaDock::keyshadow(), "/dev/shm/x", "tunnel/table/ldp", "entry", 1024, &loop);
   EXPECT_NE(control->mode(), VelaDock::writer());
   EXPECT_EQ(control->mode().name(), "keyshadow");
   EXPECT_EQ(VelaDock::writer().name(), "writer");
   EXPECT_EQ(VelaDock::reader().name(), "reader");
   EXPECT_EQ(control->storeName(), "tunnel/table/ldp/entry");
   EXPECT_EQ(control->storeDirectory(), "/dev/shm/x/tunnel/table/ldp/entry");

   std::vector<VelaDock::CollectionControl::Change> changes;
   control->reactorIs([&](const VelaDock::CollectionControl& c, auto change) {
      EXPECT_EQ(&c, control.get());
      changes.push_back(change);
   });
   using Change = VelaDock::CollectionControl::Change;
   control->quiescedIs(false);  // no change
   control->quiescedIs(true);
   control->quiescedIs(true);
   control->quiescedIs(false);
   control->quiescedIs(true);
   EXPECT_TRUE(control->quiesced());
   EXPECT_EQ(control->quiescedCount(), 2u);
   control->mountStatusIs(0);  // no change
   control->mountStatusIs(3);
   control->mountStatusIs(3);
   EXPECT_EQ(control->mountStatus(), 3);
   EXPECT_EQ(changes, (std::vector<Change>{Change::quiesced, Change::quiesced, Change::quiesced,
                                           Change::mountStatus}));
}

class NamedEntity : public Vela::Entity {
  public:
   using Vela::Entity::Entity;
};

TEST(CollectionControl, EntityHandedBackIsRecordedWithoutBeingKept) {
   auto control = Vela::makePtr<VelaDock::CollectionControl>(VelaDock::writer(), "/r", "a/b",
                                                             "entry", 1, nullptr);
   bool released = false;
   control->reactorIs([&](const auto& c, auto change) {
      released = change == VelaDock::CollectionControl::Change::entityReleased;
      EXPECT_TRUE(c.entityReleased());
   });
   // The hand-back from a zero-references run: the entity must still be deletable afterwards.
   struct HandBack : Vela::Entity::ZeroReferencesNotifiee {
      VelaDock::CollectionControl* control;
      void onZeroReferences(Vela::Entity* e) override { control->entityRefIs(e); }
   } handBack;
   handBack.control = control.get();
   {
      auto entity = Vela::makePtr<NamedEntity>("ldp");
      entity->zeroReferencesNotifieeIs(&handBack);
   }
   EXPECT_TRUE(released);
   EXPECT_TRUE(control->entityReleased());
   EXPECT_EQ(control->releasedEntityName(), "ldp");
}

TEST(CollectionControlDeathTest, EntityHandedBackTwiceOrNullIsAProgrammingError) {
   auto control = Vela::makePtr<VelaDock::CollectionControl>(VelaDock::writer(), "/r", "a/b",
                                                             "entry", 1, nullptr);
   auto entity = Vela::makePtr<NamedEntity>("ldp");
   EXPECT_DEATH(control->entityRefIs(nullptr),
                "assertion failed: entity && \"entityRefIs of a null entity\"");
   control->entityRefIs(entity);
   EXPECT_DEATH(control->entityRefIs(entity),
                "assertion failed: !entityReleased_ && \"entity handed back twice\"");
}

}  // namespace
