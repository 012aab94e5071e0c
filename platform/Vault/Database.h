// Vault::Database: the state database of one process, entities by path ("tunnel/table/ldp").
// Mounted tables are recorded here by the mount service; configuration entities are put here by
// the agents that own them. The database holds a reference to every entity it records.
//
// Paths are relative, '/'-separated, with no empty, "." or ".." component (they also name
// directories under the store root). One owning thread; not thread-safe.
#pragma once

#include <map>
#include <string_view>
#include <vector>

#include "Vela/Entity.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Vault {

class Database : public Vela::RefCounted {
  public:
   Database() = default;
   Database(const Database&) = delete;
   Database& operator=(const Database&) = delete;

   // Whether `path` is a valid entity path.
   static bool validPath(std::string_view path);
   // The last component of a path ("ldp" for "tunnel/table/ldp").
   static Vela::String leafName(std::string_view path);

   // The entity at `path`, or null.
   Vela::Ptr<Vela::Entity> entity(std::string_view path) const;
   // Records `entity` at `path`. Throws MountError for an invalid path,
   // Vela::NullArgumentException for a null entity and Vela::RecreationException when the path
   // already holds one.
   void entityIs(std::string_view path, const Vela::Ptr<Vela::Entity>& entity);
   // Forgets the entity at `path`; false when there was none.
   bool entityDel(std::string_view path);
   // Builds an entity of `typeName` through the type registry, named by the path's leaf, and
   // records it at `path`. Throws MountError "unknown type '<typeName>'" and as entityIs.
   Vela::Ptr<Vela::Entity> entityNew(std::string_view path, const Vela::String& typeName);

   size_t entityCount() const noexcept { return entities_.size(); }
   // Every recorded path, in lexical order.
   std::vector<Vela::String> paths() const;

  private:
   std::map<Vela::String, Vela::Ptr<Vela::Entity>, std::less<>> entities_;
};

}  // namespace Vault
