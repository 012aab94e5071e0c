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

   info.collectionIs("entry", 1024);  // one collection's text: in the tunnel table mount test
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

// The reactor hears only of changes; quiescedCount counts false -> true transitions.
TEST(CollectionControl, CarriesItsMountAndReportsOnlyChanges) {
   Loom::EventLoop loop;
   auto control = Vela::makePtr<VelaDock::CollectionControl>(
       VelaDock::keyshadow(), "/dev/shm/x", "tunnel/table/ldp", "entry", 1024, &loop);
   EXPECT_EQ(control->mode().name(), "keyshadow");
   EXPECT_EQ(VelaDock::writer().name(), "writer");
   EXPECT_EQ(VelaDock::reader().name(), "reader");
   EXPECT_EQ(control->storeName(), "tunnel/table/ldp/entry");
   EXPECT_EQ(control->storeDirectory(), "/dev/shm/x/tunnel/table/ldp/entry");

   using Change = VelaDock::CollectionControl::Change;
   std::vector<Change> changes;
   control->reactorIs([&](const VelaDock::CollectionControl& c, auto change) {
      EXPECT_EQ(&c, control.get());
      changes.push_back(change);
   });
   for (bool q : {false, true, true, false, true}) control->quiescedIs(q);
   EXPECT_EQ(control->quiescedCount(), 2u);
   for (int status : {0, 3, 3}) control->mountStatusIs(status);
   EXPECT_EQ(control->mountStatus(), 3);
   EXPECT_EQ(changes, (std::vector<Change>{Change::quiesced, Change::quiesced, Change::quiesced,
                                           Change::mountStatus}));
}

class NamedEntity : public Vela::Entity {
  public:
   using Vela::Entity::Entity;
};

// The hand-back itself is checked through the mount service's unmount.
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
