// Mount descriptions, collection controls, the database, and the mount service against a small
// real mountable that, as writer, takes the owner file in each collection's directory under the
// store root. (A writer in another process is refused by the owner file, OwnerFileTest; through
// the mounter, TunnelMountProcessTest.)
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "Loom/EventLoop.h"
#include "Region/Error.h"
#include "Region/OwnerFile.h"
#include "Region/StoreRoot.h"
#include "Vault/MountError.h"
#include "Vault/MountInfo.h"
#include "Vault/MountService.h"
#include "Vela/Exception.h"
#include "Vela/TypeRegistry.h"
#include "testing/Expect.h"
#include "testing/TempRoot.h"

namespace {

namespace fs = std::filesystem;

class FileTable : public Vela::Entity, public Vault::Mountable {
  public:
   explicit FileTable(Vela::String name) : Vela::Entity(std::move(name)) {
      zeroReferencesNotifieeIs(&handBack_);
      handBack_.table = this;
   }
   std::string_view fwkTypeName() const override { return "Test::FileTable"; }
   std::vector<Vela::String> mountCollections() const override { return {"entry", "status"}; }

   void controlIs(const Vela::String& collection,
                  const Vela::Ptr<VelaDock::CollectionControl>& control) override {
      EXPECT_FALSE(attached_) << "controls come before handleParent";
      controls_[collection] = control;
   }
   void handleParent(const Vela::Ptr<Vela::Entity>& parent) override {
      ++handleParentCalls_;
      parent_ = parent.get();
      for (auto& [name, control] : controls_) {
         if (control->mode().isWriter()) {
            Region::makeDirectories(control->storeDirectory());
            owners_.push_back(Region::OwnerFile::acquire(control->storeDirectory()));
         }
      }
      attached_ = true;
   }
   void unmountIs() override {
      owners_.clear();
      attached_ = false;
      ++unmounts_;
   }

   std::map<Vela::String, Vela::Ptr<VelaDock::CollectionControl>> controls_;
   Vela::Entity* parent_ = nullptr;
   int handleParentCalls_ = 0;
   int unmounts_ = 0;
   bool attached_ = false;

  private:
   struct HandBack : Vela::Entity::ZeroReferencesNotifiee {
      FileTable* table;
      void onZeroReferences(Vela::Entity* e) override {
         for (auto& [name, control] : table->controls_) control->entityRefIs(e);
         table->controls_.clear();
      }
   } handBack_;
   std::vector<Region::OwnerFile> owners_;
};

class RefusingTable : public FileTable {
  public:
   using FileTable::FileTable;
   void handleParent(const Vela::Ptr<Vela::Entity>&) override {
      throw Region::Error("store refused");
   }
};

class PlainEntity : public Vela::Entity {
  public:
   using Vela::Entity::Entity;
};

struct Registration {
   Registration() {
      auto& r = Vela::TypeRegistry::instance();
      r.typeIs("Test::FileTable",
               [](const Vela::String& n) { return Vela::makePtr<FileTable>(n); });
      r.typeIs("Test::RefusingTable",
               [](const Vela::String& n) { return Vela::makePtr<RefusingTable>(n); });
      r.typeIs("Test::Plain", [](const Vela::String& n) { return Vela::makePtr<PlainEntity>(n); });
   }
} registration;

VelaDock::MountInfo entryInfo(uint32_t sizing = 1024) {
   VelaDock::MountInfo info;
   info.collectionIs("entry", sizing);
   return info;
}

FileTable* asTable(const Vela::Ptr<Vela::Entity>& e) {
   return dynamic_cast<FileTable*>(e.get());
}

// Each test gets a fresh store root and a loop; mount() fills in what most mounts share.
class MountServiceTest : public ::testing::Test {
  protected:
   Vela::Ptr<Vela::Entity> mount(Vault::MountService& s, const char* path,
                                 VelaDock::Mode mode = VelaDock::writer(),
                                 const VelaDock::MountInfo& info = entryInfo(),
                                 const char* type = "Test::FileTable") {
      return s.mount(path, type, mode, info, loop);
   }
   std::string refusal(Vault::MountService& s, const char* path, VelaDock::Mode mode,
                       const VelaDock::MountInfo& info, const char* type = "Test::FileTable") {
      return Testing::errorText([&] { mount(s, path, mode, info, type); });
   }
   Testing::TempRoot root;
   Loom::EventLoop loop;
};

TEST_F(MountServiceTest, WriterMountBuildsThroughRegistryHandsControlsAndAttachesUnderGroup) {
   auto service = Vela::makePtr<Vault::MountService>();
   auto e = mount(*service, "tunnel/table/ldp");
   FileTable* t = asTable(e);
   ASSERT_NE(t, nullptr);
   EXPECT_EQ(t->handleParentCalls_, 1);
   EXPECT_EQ(t->parent_, service->mountGroup().get());
   EXPECT_EQ(service->mountGroup()->child("tunnel/table/ldp"), e);
   EXPECT_TRUE(service->mounted("tunnel/table/ldp"));
   EXPECT_EQ(service->modeOf("tunnel/table/ldp"), VelaDock::writer());

   auto control = service->control("tunnel/table/ldp", "entry");
   ASSERT_TRUE(control);
   EXPECT_EQ(t->controls_.size(), 1u);  // the described collections replace the entity's
   EXPECT_EQ(t->controls_["entry"], control);
   EXPECT_EQ(control->eventLoop(), &loop);
   EXPECT_TRUE(
       fs::exists(root.path() + "/tunnel/table/ldp/entry/owner"));  // where the control says

   // Mounting again in this process gives the same entity, attached once.
   EXPECT_EQ(mount(*service, "tunnel/table/ldp"), e);
   EXPECT_EQ(t->handleParentCalls_, 1);
   EXPECT_EQ(service->mountCount(), 1u);
   EXPECT_EQ(refusal(*service, "tunnel/table/ldp", VelaDock::keyshadow(), {}),
             "cannot mount 'tunnel/table/ldp' as keyshadow: already mounted as writer");
   EXPECT_EQ(refusal(*service, "tunnel/table/ldp", VelaDock::writer(), entryInfo(),
                     "Test::RefusingTable"),
             "cannot mount 'tunnel/table/ldp' with type 'Test::RefusingTable': already mounted "
             "with type 'Test::FileTable'");
   // With no collections described, a reader mounts the entity's own, sized 0.
   auto* r = asTable(mount(*service, "tunnel/table/a", VelaDock::keyshadow(), {}));
   ASSERT_EQ(r->controls_.size(), 2u);
   EXPECT_EQ(r->controls_["status"]->sizing(), 0u);
   EXPECT_EQ(r->controls_["status"]->mode(), VelaDock::keyshadow());
   // Destroying the service unmounts what is still mounted and lets go of the store.
   service = nullptr;
   EXPECT_EQ(t->unmounts_, 1);
   EXPECT_NO_THROW(Region::OwnerFile::acquire(root.path() + "/tunnel/table/ldp/entry"));
}

TEST_F(MountServiceTest, BadMountsFailWithTheirReasonAndLeaveNothingBehind) {
   Vault::MountService service;
   const auto writer = VelaDock::writer();
   EXPECT_EQ(refusal(service, "tunnel/table/x", writer, entryInfo(), "No::Such"),
             "cannot mount 'tunnel/table/x': unknown type 'No::Such'");
   EXPECT_EQ(refusal(service, "tunnel/table/x", writer, entryInfo(), "Test::Plain"),
             "cannot mount 'tunnel/table/x': type 'Test::Plain' is not mountable");
   EXPECT_EQ(refusal(service, "tunnel/table/x", writer, {}),
             "cannot mount 'tunnel/table/x' as writer: the mount describes no collection");
   for (const char* bad : {"", "/tunnel", "tunnel/", "a//b", "a/./b", "a/../b", "..", "."}) {
      EXPECT_EQ(refusal(service, bad, writer, entryInfo()),
                "invalid mount path '" + std::string(bad) + "'");
   }
   EXPECT_EQ(refusal(service, "tunnel/table/x", writer, entryInfo(), "Test::RefusingTable"),
             "store refused");
   EXPECT_EQ(Testing::errorText<Vault::MountError>([&] { service.cleanup("../etc"); }),
             "invalid mount path '../etc'");  // cleanup stays in the root
   EXPECT_EQ(service.mountCount(), 0u);
   EXPECT_EQ(service.mountGroup()->childCount(), 0u);
   EXPECT_EQ(service.database()->entityCount(), 0u);

   // A configuration entity at a path is not a mount.
   service.database()->entityIs("config/decap", Vela::makePtr<PlainEntity>("decap"));
   EXPECT_THROW(mount(service, "config/decap"), Vela::RecreationException);
   EXPECT_FALSE(service.unmount("config/decap"));
   EXPECT_TRUE(service.database()->entity("config/decap"));
}

TEST_F(MountServiceTest, UnmountDetachesAndTheLastReferenceHandsTheEntityBack) {
   Vault::MountService service;
   auto e = mount(service, "tunnel/table/ldp");
   auto control = service.control("tunnel/table/ldp", "entry");
   EXPECT_TRUE(service.unmount("tunnel/table/ldp"));
   EXPECT_FALSE(service.unmount("tunnel/table/ldp"));
   EXPECT_FALSE(service.mounted("tunnel/table/ldp"));
   EXPECT_FALSE(service.database()->entity("tunnel/table/ldp"));
   EXPECT_EQ(service.mountGroup()->childCount(), 0u);
   EXPECT_EQ(asTable(e)->unmounts_, 1);

   // The user's reference kept the detached entity alive; its last reference hands it back.
   EXPECT_FALSE(control->entityReleased());
   e = nullptr;
   EXPECT_TRUE(control->entityReleased());
   EXPECT_EQ(control->releasedEntityName(), "ldp");
   // A new mount after the unmount builds a new entity.
   EXPECT_EQ(asTable(mount(service, "tunnel/table/ldp"))->handleParentCalls_, 1);
   EXPECT_NE(service.control("tunnel/table/ldp", "entry"), control);
}

TEST(Database, PathsAndEntities) {
   for (const char* good : {"a", "tunnel/table/ldp", "a.b/c..d"}) {
      EXPECT_TRUE(Vault::Database::validPath(good)) << good;
   }
   EXPECT_EQ(Vault::Database::leafName("tunnel/table/ldp"), "ldp");
   EXPECT_EQ(Vault::Database::leafName("ldp"), "ldp");

   Vault::Database db;
   auto e = Vela::makePtr<PlainEntity>("x");
   db.entityIs("config/x", e);
   EXPECT_EQ(db.entity("config/x"), e);
   EXPECT_FALSE(db.entity("config"));
   EXPECT_THROW(db.entityIs("config/x", e), Vela::RecreationException);
   EXPECT_THROW(db.entityIs("config/y", nullptr), Vela::NullArgumentException);
   EXPECT_THROW(db.entityIs("/config/y", e), Vault::MountError);
   auto made = db.entityNew("config/f", "Test::FileTable");
   EXPECT_EQ(made->name(), "f");
   EXPECT_EQ(Testing::errorText([&] { db.entityNew("config/g", "No::Such"); }),
             "unknown type 'No::Such'");
   EXPECT_EQ(db.paths(), (std::vector<Vela::String>{"config/f", "config/x"}));
   EXPECT_TRUE(db.entityDel("config/x"));
   EXPECT_FALSE(db.entityDel("config/x"));
   EXPECT_EQ(e->references(), 1u);
}

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
   EXPECT_EQ(VelaDock::reader().name(), "reader");  // the others: in the refusals above
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

// The hand-back itself is checked through the mount service's unmount.
TEST(CollectionControlDeathTest, EntityHandedBackTwiceOrNullIsAProgrammingError) {
   auto control = Vela::makePtr<VelaDock::CollectionControl>(VelaDock::writer(), "/r", "a/b",
                                                             "entry", 1, nullptr);
   auto entity = Vela::makePtr<PlainEntity>("ldp");
   EXPECT_DEATH(control->entityRefIs(nullptr),
                "assertion failed: entity && \"entityRefIs of a null entity\"");
   control->entityRefIs(entity);
   EXPECT_DEATH(control->entityRefIs(entity),
                "assertion failed: !entityReleased_ && \"entity handed back twice\"");
}

}  // namespace
