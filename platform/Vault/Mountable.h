// Vault::Mountable: what the mount service needs of an entity it mounts. The platform knows no
// table type; a table implements this beside Vela::Entity, and the service reaches it with a
// dynamic_cast from the entity the type registry built.
//
// A mount calls, in order: controlIs once per collection, then handleParent once. An unmount
// calls unmountIs once, after which the entity holds no store and the service forgets it.
#pragma once

#include <vector>

#include "Vault/CollectionControl.h"
#include "Vela/Entity.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Vault {

class Mountable {
  public:
   virtual ~Mountable() = default;

   // The collections a mount serves when its mount description names none (a reader mount). By
   // default the one collection "entry" (the runtime's attribute 386).
   virtual std::vector<Vela::String> mountCollections() const { return {"entry"}; }

   // Gives the entity the control of one of its collections (a table's entryControlIs).
   virtual void controlIs(const Vela::String& collection,
                          const Vela::Ptr<VelaDock::CollectionControl>& control) = 0;

   // Attaches the entity under `parent` (its mount group); here the entity opens its store as
   // its controls' mode says. Throws when the store refuses (a second writer, damaged files); the
   // service then drops the entity and the mount fails with that exception.
   virtual void handleParent(const Vela::Ptr<Vela::Entity>& parent) = 0;

   // Detaches the entity from its store: a writer lets go of its files and owner file, a reader
   // stops following the writer.
   virtual void unmountIs() = 0;
};

}  // namespace Vault
