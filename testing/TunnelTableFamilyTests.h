// The behaviour every member of the tunnel table family shares, as a typed test suite. Each test
// folder instantiates it over its members (TunnelTable over the protocol tables, Mldp over the
// mLDP table). Tables are mounted for real: a writer on a fresh store root, readers in forked
// processes that follow the writer through the shared files.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <thread>
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
   size_t count(Vela::AttributeId attr, const TunnelId& key) const {
      size_t n = 0;
      for (const auto& [a, k] : events) n += (a == attr.value && k == key.value());
      return n;
   }
   size_t count(Vela::AttributeId attr) const {
      size_t n = 0;
      for (const auto& [a, k] : events) n += (a == attr.value);
      return n;
   }
   std::vector<std::pair<uint32_t, uint64_t>> events;
};

// Runs `loop` until `done` or the deadline; returns done().
inline bool runUntil(Loom::EventLoop& loop, const std::function<bool()>& done,
                     std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
   const auto deadline = std::chrono::steady_clock::now() + limit;
   while (!done()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      loop.runOnce(std::chrono::milliseconds(20));
   }
   return true;
}

// Waits for a child at most `limit`; kills it after that. Returns its exit code (128 + signal
// when a signal ended it).
inline int waitChildFor(pid_t pid,
                        std::chrono::milliseconds limit = std::chrono::milliseconds(20000)) {
   const auto deadline = std::chrono::steady_clock::now() + limit;
   int status = 0;
   for (;;) {
      const pid_t r = ::waitpid(pid, &status, WNOHANG);
      if (r == pid) break;
      if (std::chrono::steady_clock::now() >= deadline) {
         ::kill(pid, SIGKILL);
         ::waitpid(pid, &status, 0);
         return 255;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
   }
   if (WIFEXITED(status)) return WEXITSTATUS(status);
   return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

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
   std::string path() const {
      return std::string("tunnel/table/") + "t" + std::to_string(int(type().tableId));
   }

   Vela::Ptr<Table> writerTable() {
      auto table = M::factory("writer");
      control_ = mountTable(table, VelaDock::writer(), root_.path(), path(), loop_, parent_);
      table->notifieeAdd(&recorder_);
      return table;
   }
   Vela::Ptr<Table> readerTable(Loom::EventLoop& loop) {
      auto table = M::factory("reader");
      mountTable(table, VelaDock::keyshadow(), root_.path(), path(), loop, parent_);
      return table;
   }

   ~TunnelTableFamilyTest() override = default;

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
   ASSERT_TRUE(table->entryStrep(k).has_value());
   EXPECT_EQ(*table->entryStrep(k), valueToStrep(e2));

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

TYPED_TEST_P(TunnelTableFamilyTest, DeleteAllNotifiesEveryKeyOnceAndEmptiesTheTable) {
   auto table = this->writerTable();
   // Enough keys that removals shrink the store under the walk; 300 events for 300 distinct keys
   // is every key exactly once.
   for (uint64_t i = 1; i <= 300; ++i) table->entryIs(this->make(i, 1));
   this->recorder_.events.clear();
   table->entryDelAll();
   EXPECT_EQ(this->recorder_.events.size(), 300u);
   std::set<uint64_t> seen;
   for (const auto& [a, k] : this->recorder_.events) seen.insert(k);
   EXPECT_EQ(seen.size(), 300u);
   EXPECT_EQ(table->entryCount(), 0u);
   EXPECT_TRUE(table->entryKeys().empty());
}

TYPED_TEST_P(TunnelTableFamilyTest, DirectWriteCommitsAndIterationSeesEveryEntry) {
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
}

TYPED_TEST_P(TunnelTableFamilyTest, LastReferenceHandsTheTableBackToItsControl) {
   Vela::Ptr<VelaDock::CollectionControl> control;
   {
      auto table = this->writerTable();
      control = this->control_;
      this->control_ = nullptr;
      EXPECT_TRUE(table->entryControl() == control);
      EXPECT_TRUE(control->mountStatus() != 0);
      table->notifieeDel(&this->recorder_);
      EXPECT_FALSE(control->entityReleased());
   }
   EXPECT_TRUE(control->entityReleased());
   EXPECT_EQ(control->releasedEntityName(), "writer");
   EXPECT_EQ(control->references(), 1u);  // the table let go of it
}

TYPED_TEST_P(TunnelTableFamilyTest, ForkedReadersSeeEveryKeysFinalState) {
   auto table = this->writerTable();
   for (uint64_t i = 1; i <= 40; ++i) table->entryIs(this->make(i, 1));
   for (uint64_t i = 1; i <= 40; i += 3) table->entryIs(this->make(i, 2));
   for (uint64_t i = 2; i <= 40; i += 5) table->entryDel(this->key(i));

   std::map<uint64_t, typename TestFixture::Entry> expected;
   {
      typename TestFixture::Table::Cursor c = table->entries();
      typename TestFixture::Entry e;
      while (c.next(e)) expected.emplace(TunnelEntryKey()(e).value(), e);
   }
   ASSERT_EQ(expected.size(), 40u - 8u);

   std::vector<pid_t> children;
   for (int r = 0; r < 2; ++r) {
      children.push_back(Testing::forkChild([&]() -> int {
         Loom::EventLoop loop;
         auto reader = this->readerTable(loop);
         if (reader->isWriter()) return 2;
         const auto control = reader->entryControl();
         if (!runUntil(loop, [&] { return control->quiesced() && reader->entryCount() == 32; })) {
            return 3;
         }
         if (control->mountStatus() == 0) return 4;
         for (const auto& [k, e] : expected) {
            if (!(reader->entry(TunnelId(k)) == e)) return 5;
         }
         if (reader->entryHas(this->key(2))) return 6;
         // Then a change made after the readers synchronized reaches them, per key.
         Recorder seen;
         reader->notifieeAdd(&seen);
         const TunnelId k40 = this->key(40);
         // Wait for the notification, not the value: a key-shadowing reader reads values from the
         // shared table, so the new value can be visible before the loop delivers its notification.
         if (!runUntil(loop, [&] { return seen.count(Vela::attrEntry, k40) > 0; })) return 8;
         if (!(reader->entry(k40) == this->make(40, 9))) return 7;
         reader->notifieeDel(&seen);
         return 0;
      }));
   }
   // Change key 40 once the readers are attached: it is present with variant 1 until then.
   std::this_thread::sleep_for(std::chrono::milliseconds(200));
   table->entryIs(this->make(40, 9));
   for (pid_t pid : children) EXPECT_EQ(waitChildFor(pid), 0);
}

REGISTER_TYPED_TEST_SUITE_P(TunnelTableFamilyTest, MemberIsStampedAndFactoryTurnsNotificationsOn,
                            WriteReplaceDeleteNotifyOncePerKey,
                            DeleteAllNotifiesEveryKeyOnceAndEmptiesTheTable,
                            DirectWriteCommitsAndIterationSeesEveryEntry,
                            LastReferenceHandsTheTableBackToItsControl,
                            ForkedReadersSeeEveryKeysFinalState);

}  // namespace Tunnel::TunnelTable::FamilyTest
