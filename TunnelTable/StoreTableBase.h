// StoreTableBase: what every shared-memory table is, whatever its key and entry: the per-protocol
// tunnel tables, the tunnel RIBs, and every later table. It holds what does not depend on the key:
// the entity (named, reference counted, notifying), the mount-service side (the collection control,
// the parent the mount attached it under), the framework type descriptor, the two operation
// counters, and the quiesce and mount-status reports to the control. The typed half, the store
// itself and everything keyed, is StoreTable<Key, Entry, KeyOf, Base> (StoreTable.h).
//
// Notifications carry attribute "entry" (386) with a pointer to the changed key, or
// "entryControl" (387) with no key. They start switched off on a directly constructed table; the
// factories turn them on before handing the table out.
//
// One owning thread, the agent's event loop; nothing here is locked.
#pragma once

#include <cstdint>
#include <string_view>

#include "Spoor/Trace.h"
#include "TunnelTable/TableType.h"
#include "Vault/CollectionControl.h"
#include "Vault/Mountable.h"
#include "Vela/AttributeId.h"
#include "Vela/Entity.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Tunnel::TunnelTable {

// How many tables of one type were built and are still alive (the tracked-allocation record).
struct TunnelTableAllocations {
   uint64_t created = 0;
   uint64_t live = 0;
};
TunnelTableAllocations tunnelTableAllocations(std::string_view typeName);

// The trace handle of the tables (module "TunnelTable").
Spoor::Handle& tunnelTableTrace();

class StoreTableBase : public Vela::Entity, public Vault::Mountable {
  public:
   // Runs when the table's last reference goes: hands the table to its collection control (so the
   // platform learns the collection is no longer served), drops the table's reference to the
   // control, and deletes itself. Each table class has its own subclass
   // (LdpTunnelTable::LdpTunnelTableZeroReferencesNotifiee, ...).
   class StoreTableZeroReferencesNotifiee : public Vela::Entity::ZeroReferencesNotifiee {
     public:
      explicit StoreTableZeroReferencesNotifiee(StoreTableBase* table) : table_(table) {}
      void onZeroReferences(Vela::Entity* entity) override;
      StoreTableBase* table() const noexcept { return table_; }

     private:
      StoreTableBase* table_;
   };

   const TableType& fwkType() const noexcept { return *type_; }
   std::string_view fwkTypeName() const override { return type_->typeName; }

   // ---- the collection control ----
   const Vela::Ptr<VelaDock::CollectionControl>& entryControl() const noexcept {
      return entryControl_;
   }
   // Sets entryControl; observers of "entryControl" (387) are told when it changed.
   void entryControlIs(const Vela::Ptr<VelaDock::CollectionControl>& control);
   // Vault::Mountable: the table serves one collection, "entry". Throws Vela::Exception for any
   // other collection name.
   void controlIs(const Vela::String& collection,
                  const Vela::Ptr<VelaDock::CollectionControl>& control) override;
   // The entity handleParent attached the table under (null before, and after unmountIs).
   Vela::Entity* mountParent() const noexcept { return mountParent_; }

   // ---- reports from the store ----
   // Passes the store's quiesced state to the collection control.
   void entryNotifyQuiesced(bool quiesced);
   // Traces "mountStatus" (level 5) and passes the low 8 bits of the store's mount status to the
   // collection control.
   void entryNotifyMountStatus();
   // The store's quiesced state; at trace level 5 writes "quiesced <store root> type:<value type>".
   bool getCurrentQuiescedState() const;

   // ---- operation counters ----
   // Incremented when a write, commit or removal starts, and when one has been completed and
   // notified. A removal of an absent key starts but never completes, so the difference counts
   // removal misses plus any operation cut short (an entry refused as too large, or the process
   // ending on corruption).
   uint64_t operationsStarted() const noexcept { return operationsStarted_; }
   uint64_t operationsCompleted() const noexcept { return operationsCompleted_; }

   // ---- the store, for code that does not know the key or entry type ----
   virtual bool hasStore() const = 0;
   virtual bool isWriter() const = 0;
   // The store's mount status: the writer's MountStatus or the reader's state (0 without store).
   virtual uint32_t storeMountStatus() const = 0;
   virtual bool storeQuiesced() const = 0;
   // Why the store could not use its files as they were: a writer's reason for re-formatting
   // them, or a reader's last failure to attach (empty when there was none, or without store).
   virtual std::string storeProblem() const = 0;
   // How many times a reader has re-attached after its writer restarted (0 for a writer).
   virtual uint64_t storeReattaches() const = 0;
   // The store's sequence number: the writer's notification position, or the last one a reader
   // has consumed (0 without store).
   virtual uint64_t storeSequence() const = 0;
   virtual uint32_t entryCount() const = 0;
   virtual void entryDelAll() = 0;

  protected:
   StoreTableBase(const Vela::String& name, const TableType& type);
   ~StoreTableBase() override;

   // Installs the class's own zero-references notifiee (owned by the table until it runs).
   void zeroReferencesNotifieeSet(StoreTableZeroReferencesNotifiee* n);
   void mountParentIs(Vela::Entity* parent) noexcept { mountParent_ = parent; }
   // The store's root and value type, for the quiesced trace.
   virtual Vela::String storeRootPath() const;

   uint64_t operationsStarted_ = 0;
   uint64_t operationsCompleted_ = 0;

  private:
   const TableType* type_;
   Vela::Ptr<VelaDock::CollectionControl> entryControl_;
   Vela::Entity* mountParent_ = nullptr;
};

}  // namespace Tunnel::TunnelTable
