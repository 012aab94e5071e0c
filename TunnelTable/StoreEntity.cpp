#include "TunnelTable/StoreEntity.h"

#include "Vela/Assert.h"

namespace Tunnel::TunnelTable {

std::vector<Vela::String> StoreEntity::mountCollections() const {
   std::vector<Vela::String> names;
   for (const StoreCollectionBase* c : collections_) names.push_back(c->name());
   return names;
}

void StoreEntity::controlIs(const Vela::String& collection,
                            const Vela::Ptr<VelaDock::CollectionControl>& control) {
   for (StoreCollectionBase* c : collections_) {
      if (c->name() == collection) {
         c->controlIs(control);
         return;
      }
   }
   throw Vela::Exception(Vela::String(fwkTypeName()) + " has no collection '" + collection + "'");
}

void StoreEntity::handleParent(const Vela::Ptr<Vela::Entity>& parent) {
   size_t opened = 0;
   try {
      for (; opened < collections_.size(); ++opened) collections_[opened]->open(parent);
   } catch (...) {
      while (opened > 0) collections_[--opened]->close();
      throw;
   }
   parentIs(parent.get());
}

void StoreEntity::unmountIs() {
   for (StoreCollectionBase* c : collections_) c->close();
   parentIs(nullptr);
}

bool StoreEntity::isReaderCopy() const {
   for (const StoreCollectionBase* c : collections_) {
      if (c->isReader()) return true;
   }
   return false;
}

bool StoreEntity::synchronized() const {
   for (const StoreCollectionBase* c : collections_) {
      if (!c->synchronized()) return false;
   }
   return true;
}

void StoreEntity::requireNotReaderCopy(const char* operation) const {
   if (isReaderCopy()) {
      VELA_FAIL("{} on {} {}, a reader's copy: only its writer changes it", operation,
                fwkTypeName(), name());
   }
}

}  // namespace Tunnel::TunnelTable
