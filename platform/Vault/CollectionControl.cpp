#include "Vault/CollectionControl.h"

#include "Vela/Assert.h"

namespace VelaDock {

CollectionControl::CollectionControl(Mode mode, Vela::String storeRoot, Vela::String mountPath,
                                     Vela::String collectionName, uint32_t sizing,
                                     Loom::EventLoop* eventLoop)
    : mode_(mode),
      storeRoot_(std::move(storeRoot)),
      mountPath_(std::move(mountPath)),
      collectionName_(std::move(collectionName)),
      sizing_(sizing),
      eventLoop_(eventLoop) {}

void CollectionControl::quiescedIs(bool quiesced) {
   if (quiesced == quiesced_) return;
   quiesced_ = quiesced;
   if (quiesced) ++quiescedCount_;
   tell(Change::quiesced);
}

void CollectionControl::mountStatusIs(uint8_t status) {
   if (status == mountStatus_) return;
   mountStatus_ = status;
   tell(Change::mountStatus);
}

void CollectionControl::entityRefIs(const Vela::Ptr<Vela::Entity>& entity) {
   VELA_ASSERT(entity && "entityRefIs of a null entity");
   VELA_ASSERT(!entityReleased_ && "entity handed back twice");
   entityReleased_ = true;
   releasedEntityName_ = entity->name();
   // The entity is in its zero-references run: only its name is kept, never the reference.
   tell(Change::entityReleased);
}

}  // namespace VelaDock
