// StoreEntity: a configuration entity (redistribution, decapsulation, nexthop-group tunnels) whose
// collections are published in the table store, so that agents in other processes mount the same
// path and hold a copy that is kept current and tells its observers per key.
//
// Each collection is a StoreCollection: a StoreTable of records, keyed by the collection's key,
// that the entity owns. The entity keeps its own in-memory maps (what its operations read and
// compare); the store holds their images:
//  - mounted as writer, every effective change of a collection is written to its table (publish /
//    unpublish) after the entity has changed its map, so readers never see a record the writer's
//    map does not hold;
//  - mounted as a key-shadowing reader, the entity's maps are changed only from the store: each
//    record that arrives, changes or goes is handed to the entity (onKey), which applies it
//    through the same code its writer's operations use, so a reader's observers hear exactly what
//    the writer's heard. The entity's public operations refuse to run on a reader's copy;
//  - never mounted, the entity is a plain in-process one.
//
// The mount service mounts a StoreEntity like a table: one collection control per collection
// (mountCollections names them), then handleParent opens every collection's store, then
// unmountIs lets them go. Each collection's files live at "<store root>/<mount path>/<collection>".
// One owning thread, the agent's event loop.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "TunnelTable/StoreTable.h"
#include "Vault/MountService.h"
#include "Vault/Mountable.h"
#include "Vela/Entity.h"
#include "Vela/TypeRegistry.h"

namespace Tunnel::TunnelTable {

// One published collection, for the entity that does not know its key or record type.
class StoreCollectionBase {
  public:
   explicit StoreCollectionBase(Vela::String name) : name_(std::move(name)) {}
   virtual ~StoreCollectionBase() = default;
   StoreCollectionBase(const StoreCollectionBase&) = delete;
   StoreCollectionBase& operator=(const StoreCollectionBase&) = delete;

   const Vela::String& name() const noexcept { return name_; }
   virtual void controlIs(const Vela::Ptr<VelaDock::CollectionControl>& control) = 0;
   // Opens the store as the control's mode says. Throws as StoreTable::handleParent.
   virtual void open(const Vela::Ptr<Vela::Entity>& parent) = 0;
   virtual void close() = 0;
   virtual bool isWriter() const = 0;
   virtual bool isReader() const = 0;
   // A reader that has worked through the store as it was at attach (a writer: always).
   virtual bool synchronized() const = 0;
   virtual uint32_t recordCount() const = 0;

  private:
   Vela::String name_;
};

template <class Key, class Record, class KeyOf>
class StoreCollection final : public StoreCollectionBase {
   // The records' table: a StoreTable of its own, never registered or mounted by name.
   class RecordTable final : public StoreTable<Key, Record, KeyOf, StoreTableBase> {
     public:
      RecordTable(const Vela::String& name, const TableType& type)
          : StoreTable<Key, Record, KeyOf, StoreTableBase>(name, type) {}
   };

   struct Relay final : Vela::Entity::Notifiee {
      explicit Relay(StoreCollection& c) : collection(c) {}
      void onAttribute(Vela::AttributeId attr, const void* key) override {
         if (attr != Vela::attrEntry || !key || !collection.table_->hasStore() ||
             collection.table_->isWriter() || !collection.onKey_) {
            return;
         }
         collection.onKey_(*static_cast<const Key*>(key));
      }
      StoreCollection& collection;
   };

  public:
   // `type` names the records (type and entry type names, largest record); its mount fields are
   // unused, the path comes from the mount.
   StoreCollection(Vela::String name, const TableType& type)
       : StoreCollectionBase(std::move(name)), type_(type) {}
   ~StoreCollection() override { close(); }

   // Reader: called per key whose record arrived, changed or went (record(key) says which).
   void onKeyIs(std::function<void(const Key&)> f) { onKey_ = std::move(f); }
   // Reader: called each time the reader reaches synchronization (attach, writer restart).
   void onSynchronizedIs(std::function<void()> f) { onSynchronized_ = std::move(f); }
   // Writer or reader: called after the store's mount status or quiesced state, as recorded in
   // the collection control, changed.
   void onMountStatusIs(std::function<void()> f) { onMountStatus_ = std::move(f); }
   void onQuiescedIs(std::function<void(bool)> f) { onQuiesced_ = std::move(f); }

   void controlIs(const Vela::Ptr<VelaDock::CollectionControl>& control) override {
      control_ = control;
   }
   void open(const Vela::Ptr<Vela::Entity>& parent) override {
      if (!control_) {
         throw Vela::Exception("collection '" + name() + "' of " + parent->name() +
                               " has no collection control");
      }
      table_ = Vela::Ptr<RecordTable>(new RecordTable(name(), type_));
      table_->hasNotificationActiveIs(true);
      table_->notifieeAdd(&relay_);
      table_->entryControlIs(control_);
      control_->reactorIs([this](const VelaDock::CollectionControl& control,
                                 VelaDock::CollectionControl::Change change) {
         using Change = VelaDock::CollectionControl::Change;
         if (change == Change::quiesced && onQuiesced_) onQuiesced_(control.quiesced());
         if (change != Change::mountStatus) return;
         if (onMountStatus_) onMountStatus_();
         if (isReader() && synchronized() && onSynchronized_) onSynchronized_();
      });
      try {
         table_->handleParent(parent);
      } catch (...) {
         close();
         throw;
      }
   }
   void close() override {
      if (control_) control_->reactorIs(nullptr);
      if (!table_) return;
      table_->unmountIs();
      table_->notifieeDel(&relay_);
      table_ = nullptr;
   }

   bool isWriter() const override { return table_ && table_->isWriter(); }
   bool isReader() const override { return table_ && table_->hasStore() && !table_->isWriter(); }
   bool synchronized() const override {
      if (!isReader()) return true;
      const auto state = Dock::ReaderState(table_->storeMountStatus());
      return state == Dock::ReaderState::kSynchronized || state == Dock::ReaderState::kQuiesced;
   }
   uint32_t recordCount() const override { return table_ ? table_->entryCount() : 0; }

   // The collection control the mount gave (null before controlIs, after controlRelease).
   const Vela::Ptr<VelaDock::CollectionControl>& control() const noexcept { return control_; }
   // Hands the control over and forgets it: the entity's last reference is going.
   Vela::Ptr<VelaDock::CollectionControl> controlRelease() {
      if (control_ && table_) control_->reactorIs(nullptr);  // open() installed it
      return std::move(control_);
   }

   // Writer only (asserts otherwise): writes the record, replacing any under its key.
   void write(const Record& record) { writerTable("write").entryIs(record); }
   // Writer only: removes the record of `key` and returns it; nothing when absent.
   std::optional<Record> erase(const Key& key) { return writerTable("erase").entryDelIf(key); }
   // Writer only: opens the slot of `key` for a direct write, published by commit(record).
   void directIs(const Key& key) { writerTable("directIs").entryDirectIs(key); }
   void commit(const Record* record) { writerTable("commit").entryCommit(record); }
   // Every key present, in the store's order.
   std::vector<Key> keys() const { return table_ ? table_->entryKeys() : std::vector<Key>(); }

   // Writer: writes the record (readers are told its key); nothing when not the writer.
   void publish(const Record& record) {
      if (isWriter()) table_->entryIs(record);
   }
   // Writer: removes the record of `key`; nothing when not the writer or absent.
   void unpublish(const Key& key) {
      if (isWriter()) table_->entryDel(key);
   }
   // The stored record of `key` (writer or reader).
   std::optional<Record> record(const Key& key) const {
      return table_ ? table_->entryIf(key) : std::nullopt;
   }
   // Every stored record, in the store's order.
   std::vector<Record> records() const {
      std::vector<Record> out;
      if (!table_) return out;
      auto c = table_->entries();
      Record r;
      while (c.next(r)) out.push_back(r);
      return out;
   }
   // The table itself (null while closed): its store counters and status for tools and tests.
   const StoreTableBase* table() const noexcept { return table_.get(); }

  private:
   RecordTable& writerTable(const char* op) {
      if (!isWriter()) {
         VELA_FAIL("{} on collection '{}', which is not the writer of its store", op, name());
      }
      return *table_;
   }

   const TableType& type_;
   Vela::Ptr<VelaDock::CollectionControl> control_;
   Vela::Ptr<RecordTable> table_;
   Relay relay_{*this};
   std::function<void(const Key&)> onKey_;
   std::function<void()> onSynchronized_;
   std::function<void()> onMountStatus_;
   std::function<void(bool)> onQuiesced_;
};

class StoreEntity : public Vela::Entity, public Vault::Mountable {
  public:
   std::vector<Vela::String> mountCollections() const override;
   // Throws Vela::Exception for a collection the entity does not have.
   void controlIs(const Vela::String& collection,
                  const Vela::Ptr<VelaDock::CollectionControl>& control) override;
   // Opens every collection; when one fails, those opened are closed again and the error passes.
   void handleParent(const Vela::Ptr<Vela::Entity>& parent) override;
   void unmountIs() override;

   // Mounted as a reader: the maps follow the store and the operations refuse to run.
   bool isReaderCopy() const;
   // Mounted as a reader and every collection has synchronized (a writer or plain entity: true).
   bool synchronized() const;
   const std::vector<StoreCollectionBase*>& collections() const noexcept { return collections_; }

  protected:
   explicit StoreEntity(Vela::String name) : Vela::Entity(std::move(name)) {}
   // Collections register in the order a mount serves them.
   void collectionAdd(StoreCollectionBase& collection) { collections_.push_back(&collection); }
   // Asserts that `operation` does not run on a reader's copy.
   void requireNotReaderCopy(const char* operation) const;

  private:
   std::vector<StoreCollectionBase*> collections_;
};

// A new entity of type T with notifications on: what each configuration's factory returns.
template <class T>
Vela::Ptr<T> makeStoreEntity(const Vela::String& name) {
   auto entity = Vela::makePtr<T>(name);
   entity->hasNotificationActiveIs(true);
   return entity;
}

// Registers `factory` under T::kTypeName, so the mount service builds T by its name; called once
// when the library loads (`const bool registered = registerStoreEntityType<T>(tFactory);`).
template <class T>
bool registerStoreEntityType(Vela::Ptr<T> (*factory)(const Vela::String&)) {
   Vela::TypeRegistry::instance().typeIs(T::kTypeName, [factory](const Vela::String& name) {
      return Vela::Ptr<Vela::Entity>(factory(name));
   });
   return true;
}

// Mounts a StoreEntity type at `path` as writer (every collection sized `sizing` initial slots) or
// as a key-shadowing reader, through the mount service, and gives it back as T. Throws as
// MountService::mount, and Vela::Exception when the path holds another type.
template <class T>
Vela::Ptr<T> mountStoreEntity(Vault::MountService& service, std::string_view path, bool writer,
                              Loom::EventLoop& loop, uint32_t sizing = 64) {
   VelaDock::MountInfo info;
   if (writer) {
      for (const char* c : T::kCollections) info.collectionIs(c, sizing);
   }
   auto entity = service.mount(path, T::kTypeName,
                               writer ? VelaDock::writer() : VelaDock::keyshadow(), info, loop);
   auto typed = Vela::dynamicPtrCast<T>(entity);
   if (!typed) throw Vela::Exception(Vela::String(path) + " holds another type");
   return typed;
}

}  // namespace Tunnel::TunnelTable
