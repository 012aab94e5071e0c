// The behaviour every member of the tunnel table family shares, as a typed test suite. Each test
// folder instantiates it over its members (TunnelTable over the protocol tables, Mldp over the
// mLDP table). Tables are mounted for real, as writers on a fresh store root; readers following a
// writer across processes are checked through the mounter in TunnelMountProcessTest.cpp.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <type_traits>
#include <vector>

#include "Loom/EventLoop.h"
#include "TunnelTable/TableRegistry.h"
#include "TunnelTable/TunnelTableBase.h"
#include "TunnelTable/TunnelTableEntry.h"
#include "TunnelTable/TunnelTableFamily.h"
#include "Vault/CollectionControl.h"
#include "Vela/TypeRegistry.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelTable::FamilyTest {

// Builds distinguishable entries of any kind: `index` picks the key, `variant` a field value.
// Members other than the protocol entries specialise it.
template <class Entry, class = void>
struct EntryMaker {
   static Entry make(TunnelType type, uint64_t index, uint32_t variant) {
      static_assert(std::is_base_of_v<TunnelTableEntry, Entry>);
      Entry e{TunnelId(TunnelId::convertToTunnelValue(type, index))};
      e.entryMetricIs(variant);
      return e;
   }
};

// Records every notification a table sends: (attribute, key or 0).
class Recorder : public Vela::Entity::Notifiee {
  public:
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      events.emplace_back(attr.value, key ? static_cast<const TunnelId*>(key)->value() : 0);
   }
   // Those of `attr`, and of `key` if given.
   size_t count(Vela::AttributeId attr, std::optional<TunnelId> key = {}) const {
      size_t n = 0;
      for (const auto& [a, k] : events) n += (a == attr.value && (!key || k == key->value()));
      return n;
   }
   std::vector<std::pair<uint32_t, uint64_t>> events;
};

// Mounts `table` by hand the way the mount service does: a control for "entry", then
// handleParent. Returns the control.
template <class Table>
Vela::Ptr<VelaDock::CollectionControl> mountTable(const Vela::Ptr<Table>& table,
                                                  VelaDock::Mode mode, const std::string& root,
                                                  const std::string& path, Loom::EventLoop& loop,
                                                  const Vela::Ptr<Vela::Entity>& parent) {
   auto control = Vela::makePtr<VelaDock::CollectionControl>(mode, root, path, "entry",
                                                             mode.isWriter() ? 1024 : 0, &loop);
   table->controlIs("entry", control);
   table->handleParent(parent);
   return control;
}

// A member as the suite sees it: the table class, the factory its registry row holds, and its
// TableType.
template <class T>
struct Member {
   using Table = T;
   static Vela::Ptr<T> factory(const Vela::String& name) {
      const TableRow* row = TableRegistry::rowByTypeName(T::kTableType.typeName);
      return row ? Vela::dynamicPtrCast<T>(row->factory(name)) : nullptr;
   }
   static const TableType& type() { return T::kTableType; }
};

// The suite's type list for a folder's TableList.
template <class List>
struct MembersOf;
template <class... Tables>
struct MembersOf<TableList<Tables...>> {
   using type = ::testing::Types<Member<Tables>...>;
};

template <class M>
class TunnelTableFamilyTest : public ::testing::Test {
  public:
   using Table = typename M::Table;
   using Entry = typename Table::EntryType;

  protected:
   static Entry make(uint64_t index, uint32_t variant) {
      return EntryMaker<Entry>::make(type().tunnelType, index, variant);
   }
   static TunnelId key(uint64_t index) { return TunnelEntryKey()(make(index, 0)); }
   static const TunnelTableType& type() { return M::type(); }
   std::string path() const { return "tunnel/table/t" + std::to_string(int(type().tableId)); }

   Vela::Ptr<Table> writerTable() {
      auto table = M::factory("writer");
      control_ = mountTable(table, VelaDock::writer(), root_.path(), path(), loop_, parent_);
      table->notifieeAdd(&recorder_);
      return table;
   }

   Testing::TempRoot root_;
   Loom::EventLoop loop_;
   Vela::Ptr<Vela::Entity> parent_{new Vela::Entity("mounts")};
   Vela::Ptr<VelaDock::CollectionControl> control_;
   Recorder recorder_;
};

TYPED_TEST_SUITE_P(TunnelTableFamilyTest);

TYPED_TEST_P(TunnelTableFamilyTest, MemberIsStampedAndFactoryTurnsNotificationsOn) {
   const TunnelTableType& t = TypeParam::type();
   auto made = TypeParam::factory("made");
   EXPECT_TRUE(made->hasNotificationActive());
   EXPECT_EQ(made->fwkTypeName(), t.typeName);
   EXPECT_EQ(made->tableType(), t.tunnelType);
   EXPECT_EQ(made->tunnelTableId(), t.tableId);
   EXPECT_EQ(&made->fwkType(), &t);
   EXPECT_FALSE(made->hasStore());

   Vela::Ptr<typename TestFixture::Table> direct(new typename TestFixture::Table("direct"));
   EXPECT_FALSE(direct->hasNotificationActive());

   Vela::Ptr<Vela::Entity> registered = Vela::TypeRegistry::instance().create(t.typeName, "byName");
   ASSERT_TRUE(registered);
   EXPECT_EQ(registered->fwkTypeName(), t.typeName);
   EXPECT_TRUE(registered->hasNotificationActive());
   EXPECT_TRUE(Vela::dynamicPtrCast<TunnelTableBase>(registered));
   EXPECT_TRUE(Vela::dynamicPtrCast<typename TestFixture::Table>(registered));

   const TunnelTableAllocations before = tunnelTableAllocations(t.typeName);
   { auto temp = TypeParam::factory("temp"); }
   const TunnelTableAllocations after = tunnelTableAllocations(t.typeName);
   EXPECT_EQ(after.created, before.created + 1);
   EXPECT_EQ(after.live, before.live);

   // An unmounted table reads as empty.
   const TunnelId k = this->key(3);
   EXPECT_TRUE(made->entry(k) == typename TestFixture::Entry());
   EXPECT_EQ(made->entryCount(), 0u);
   made->entryDelAll();
}

TYPED_TEST_P(TunnelTableFamilyTest, WriteReplaceDeleteNotifyOncePerKey) {
   auto table = this->writerTable();
   ASSERT_TRUE(table->isWriter());
   const auto e1 = this->make(7, 1);
   const auto e2 = this->make(7, 2);
   const TunnelId k = this->key(7);
   ASSERT_FALSE(e1 == e2);

   table->entryIs(e1);
   EXPECT_TRUE(table->entry(k) == e1);
   EXPECT_EQ(this->recorder_.count(Vela::attrEntry, k), 1u);
   EXPECT_EQ(table->operationsStarted(), 1u);
   EXPECT_EQ(table->operationsCompleted(), 1u);

   table->entryIs(e2);
   EXPECT_TRUE(table->entry(k) == e2);
   EXPECT_EQ(this->recorder_.count(Vela::attrEntry, k), 2u);
   EXPECT_EQ(table->entryCount(), 1u);

   // An equal entry is written and notified again, once.
   table->entryIs(e2);
   EXPECT_EQ(this->recorder_.count(Vela::attrEntry, k), 3u);
   EXPECT_EQ(table->operationsCompleted(), 3u);
   EXPECT_TRUE(table->entryStrep(k) == valueToStrep(e2));

   // Absent key: default entry, no notification, completed counter unchanged.
   const TunnelId absent = this->key(8);
   const size_t events = this->recorder_.events.size();
   EXPECT_TRUE(table->entry(absent) == typename TestFixture::Entry());
   EXPECT_FALSE(table->entryHas(absent));
   EXPECT_FALSE(table->entryStrep(absent).has_value());
   EXPECT_TRUE(table->entryDel(absent) == typename TestFixture::Entry());
   EXPECT_EQ(this->recorder_.events.size(), events);
   EXPECT_EQ(table->operationsStarted(), 4u);
   EXPECT_EQ(table->operationsCompleted(), 3u);

   EXPECT_TRUE(table->entryDel(k) == e2);
   EXPECT_EQ(this->recorder_.count(Vela::attrEntry, k), 4u);
   EXPECT_EQ(table->operationsCompleted(), 4u);
   EXPECT_FALSE(table->entryHas(k));
   EXPECT_EQ(table->entryCount(), 0u);
   EXPECT_EQ(this->recorder_.count(Vela::attrEntryControl), 0u);
}

TYPED_TEST_P(TunnelTableFamilyTest, DirectWriteIterationAndDeleteAllSeeEveryEntryOnce) {
   auto table = this->writerTable();
   const auto e = this->make(11, 5);
   table->entryDirectIs(this->key(11));
   table->entryCommit(&e);
   EXPECT_TRUE(table->entry(this->key(11)) == e);
   EXPECT_EQ(this->recorder_.count(Vela::attrEntry, this->key(11)), 1u);
   EXPECT_EQ(table->operationsStarted(), 1u);
   EXPECT_EQ(table->operationsCompleted(), 1u);

   for (uint64_t i = 20; i < 60; ++i) table->entryIs(this->make(i, uint32_t(i)));
   std::set<uint64_t> seen;
   typename TestFixture::Table::Cursor c = table->entries();
   typename TestFixture::Entry got;
   while (c.next(got)) {
      const TunnelId k = TunnelEntryKey()(got);
      EXPECT_TRUE(seen.insert(k.value()).second);
      if (k != this->key(11)) {
         EXPECT_TRUE(got == this->make(k.tunnelIndex(), uint32_t(k.tunnelIndex())));
      }
   }
   EXPECT_FALSE(c.next(got));
   EXPECT_EQ(seen.size(), 41u);
   EXPECT_EQ(table->entryKeys().size(), 41u);

   // Enough keys that removals shrink the store under the walk; 300 events for 300 distinct keys
   // is every key exactly once.
   for (uint64_t i = 60; i < 319; ++i) table->entryIs(this->make(i, 1));
   this->recorder_.events.clear();
   table->entryDelAll();
   EXPECT_EQ(this->recorder_.events.size(), 300u);
   seen.clear();
   for (const auto& [a, k] : this->recorder_.events) seen.insert(k);
   EXPECT_EQ(seen.size(), 300u);
   EXPECT_EQ(table->entryCount(), 0u);
   EXPECT_TRUE(table->entryKeys().empty());
}

REGISTER_TYPED_TEST_SUITE_P(TunnelTableFamilyTest, MemberIsStampedAndFactoryTurnsNotificationsOn,
                            WriteReplaceDeleteNotifyOncePerKey,
                            DirectWriteIterationAndDeleteAllSeeEveryEntryOnce);

}  // namespace Tunnel::TunnelTable::FamilyTest
