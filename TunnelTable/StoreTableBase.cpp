#include "TunnelTable/StoreTableBase.h"

#include <map>
#include <mutex>

#include "Region/StoreRoot.h"
#include "Vela/Exception.h"

namespace Tunnel::TunnelTable {

namespace {

// Tables may be built on several agent threads of one process; the record is shared.
std::mutex allocationsMutex;
std::map<Vela::String, TunnelTableAllocations, std::less<>>& allocationsByType() {
   static std::map<Vela::String, TunnelTableAllocations, std::less<>> m;
   return m;
}

}  // namespace

TunnelTableAllocations tunnelTableAllocations(std::string_view typeName) {
   std::lock_guard<std::mutex> lock(allocationsMutex);
   auto& m = allocationsByType();
   auto it = m.find(typeName);
   return it == m.end() ? TunnelTableAllocations{} : it->second;
}

Spoor::Handle& tunnelTableTrace() {
   static Spoor::Handle& h = Spoor::handle("TunnelTable");
   return h;
}

StoreTableBase::StoreTableBase(const Vela::String& name, const TableType& type)
    : Vela::Entity(name), type_(&type) {
   hasNotificationActiveIs(false);
   std::lock_guard<std::mutex> lock(allocationsMutex);
   auto& a = allocationsByType()[type.typeName];
   ++a.created;
   ++a.live;
}

StoreTableBase::~StoreTableBase() {
   // Normally the notifiee ran and removed itself; a table torn down otherwise frees it here.
   if (auto* n = zeroReferencesNotifiee()) {
      zeroReferencesNotifieeIs(nullptr);
      delete n;
   }
   std::lock_guard<std::mutex> lock(allocationsMutex);
   --allocationsByType()[type_->typeName].live;
}

void StoreTableBase::zeroReferencesNotifieeSet(StoreTableZeroReferencesNotifiee* n) {
   delete zeroReferencesNotifiee();
   zeroReferencesNotifieeIs(n);
}

void StoreTableBase::StoreTableZeroReferencesNotifiee::onZeroReferences(Vela::Entity* entity) {
   StoreTableBase* table = table_;
   VELA_ASSERT(entity == table);
   if (Vela::Ptr<VelaDock::CollectionControl> control = std::move(table->entryControl_)) {
      // The temporary reference taken here goes back to zero when it is dropped; the entity's
      // zero-references run is already under way and does not start again.
      control->entityRefIs(Vela::Ptr<Vela::Entity>(entity));
   }
   table->zeroReferencesNotifieeIs(nullptr);
   delete this;
}

void StoreTableBase::entryControlIs(const Vela::Ptr<VelaDock::CollectionControl>& control) {
   if (control == entryControl_) return;
   entryControl_ = control;
   notify(Vela::attrEntryControl);
}

void StoreTableBase::controlIs(const Vela::String& collection,
                               const Vela::Ptr<VelaDock::CollectionControl>& control) {
   if (collection != "entry") {
      throw Vela::Exception(Vela::String(fwkTypeName()) + " has no collection '" + collection +
                            "'");
   }
   entryControlIs(control);
}

void StoreTableBase::entryNotifyQuiesced(bool quiesced) {
   if (entryControl_) entryControl_->quiescedIs(quiesced);
}

void StoreTableBase::entryNotifyMountStatus() {
   SPOOR_TRACE(tunnelTableTrace(), 5, "mountStatus");
   if (entryControl_) entryControl_->mountStatusIs(static_cast<uint8_t>(storeMountStatus() & 0xFF));
}

bool StoreTableBase::getCurrentQuiescedState() const {
   SPOOR_TRACE(tunnelTableTrace(), 5, "quiesced {} type:{}", storeRootPath(), type_->entryTypeName);
   return storeQuiesced();
}

Vela::String StoreTableBase::storeRootPath() const {
   return entryControl_ ? entryControl_->storeRoot() : Region::storeRoot();
}

}  // namespace Tunnel::TunnelTable
