// TunnelTableBase: what every per-protocol tunnel table is, whatever entry kind it holds. The
// mounter hands tables out as this type, and tools that only need keys, text forms and the store's
// state (list, show, watch) use it without knowing the entry kind. The entry-typed operations
// (entryIs, entryDel, entry(key), ...) live in TunnelTableFamily<Entry>.
//
// A table is a Vela::Entity (named, reference counted, notifying) and a Vault::Mountable (the
// mount service hands it its collection control, then calls handleParent, where the store opens).
// Notifications carry attribute "entry" (386) with a pointer to the changed TunnelId, or
// "entryControl" (387) with no key.
//
// Notifications start switched off on a directly constructed table; the factories (and the
// static ...Is creators) turn them on before handing the table out.
//
// One owning thread, the agent's event loop; nothing here is locked.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "Spoor/Trace.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelTableIdentifier.h"
#include "TunnelTable/TunnelType.h"
#include "Vault/CollectionControl.h"
#include "Vault/Mountable.h"
#include "Vela/AttributeId.h"
#include "Vela/Entity.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Tunnel::TunnelTable {

// The framework type descriptor of a table class, returned by fwkType(): one constant per class.
struct TunnelTableType {
   const char* typeName;       // "Tunnel::TunnelTable::LdpTunnelTable"
   const char* entryTypeName;  // the store's value type: "Tunnel::TunnelTable::LdpTunnelTableEntry"
   TunnelType tunnelType;      // stamped on the table (tableType)
   TunnelTableIdentifier tableId;
   uint32_t maxEntryLen;  // largest serialized entry: sizes the store's slab classes
};

// How many tables of one type were built and are still alive (the tracked-allocation record).
struct TunnelTableAllocations {
   uint64_t created = 0;
   uint64_t live = 0;
};
TunnelTableAllocations tunnelTableAllocations(std::string_view typeName);

// The trace handle of the tables (module "TunnelTable").
Spoor::Handle& tunnelTableTrace();

class TunnelTableBase : public Vela::Entity, public Vault::Mountable {
  public:
   // Runs when the table's last reference goes: hands the table to its collection control (so the
   // platform learns the collection is no longer served), drops the table's reference to the
   // control, and deletes itself. Each member of the family has its own subclass
   // (LdpTunnelTable::LdpTunnelTableZeroReferencesNotifiee, ...).
   class TunnelTableZeroReferencesNotifiee : public Vela::Entity::ZeroReferencesNotifiee {
     public:
      explicit TunnelTableZeroReferencesNotifiee(TunnelTableBase* table) : table_(table) {}
      void onZeroReferences(Vela::Entity* entity) override;
      TunnelTableBase* table() const noexcept { return table_; }

     private:
      TunnelTableBase* table_;
   };

   const TunnelTableType& fwkType() const noexcept { return *type_; }
   std::string_view fwkTypeName() const override { return type_->typeName; }
   TunnelType tableType() const noexcept { return type_->tunnelType; }
   TunnelTableIdentifier tunnelTableId() const noexcept { return type_->tableId; }

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

   // ---- notifications from the store ----
   // Tells the observers of "entry" (386) that `key` changed.
   void entryNotify(const TunnelId& key) { notify(Vela::attrEntry, &key); }
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
   // removal misses plus any operation cut short (the process ends on corruption).
   uint64_t operationsStarted() const noexcept { return operationsStarted_; }
   uint64_t operationsCompleted() const noexcept { return operationsCompleted_; }

   // ---- entry access by key, for code that does not know the entry kind ----
   virtual bool hasStore() const = 0;
   virtual bool isWriter() const = 0;
   // The store's mount status: the writer's MountStatus or the reader's state (0 without store).
   virtual uint32_t storeMountStatus() const = 0;
   virtual bool storeQuiesced() const = 0;
   virtual uint32_t entryCount() const = 0;
   virtual bool entryHas(const TunnelId& key) const = 0;
   // Every key present, in the store's iteration order.
   virtual std::vector<TunnelId> entryKeys() const = 0;
   // The entry's text form ("Value('<entry type>', ** {...})"), or nothing when absent.
   virtual std::optional<Vela::String> entryStrep(const TunnelId& key) const = 0;
   // The entry's dump lines (dumpState), or "" when absent.
   virtual Vela::String entryDump(const TunnelId& key, int indent) const = 0;
   // entryDel without the removed entry; true when something was removed.
   virtual bool entryRemove(const TunnelId& key) = 0;
   virtual void entryDelAll() = 0;

  protected:
   TunnelTableBase(const Vela::String& name, const TunnelTableType& type);
   ~TunnelTableBase() override;

   // Installs the member's own zero-references notifiee (owned by the table until it runs).
   void zeroReferencesNotifieeSet(TunnelTableZeroReferencesNotifiee* n);
   void mountParentIs(Vela::Entity* parent) noexcept { mountParent_ = parent; }
   // The store's root and value type, for the quiesced trace.
   virtual Vela::String storeRootPath() const;

   uint64_t operationsStarted_ = 0;
   uint64_t operationsCompleted_ = 0;

  private:
   const TunnelTableType* type_;
   Vela::Ptr<VelaDock::CollectionControl> entryControl_;
   Vela::Entity* mountParent_ = nullptr;
};

}  // namespace Tunnel::TunnelTable
