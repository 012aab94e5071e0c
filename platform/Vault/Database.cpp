#include "Vault/Database.h"

#include "Vault/MountError.h"
#include "Vela/Exception.h"
#include "Vela/TypeRegistry.h"

namespace Vault {

bool Database::validPath(std::string_view path) {
   if (path.empty() || path.front() == '/' || path.back() == '/') return false;
   size_t start = 0;
   while (start <= path.size()) {
      size_t end = path.find('/', start);
      if (end == std::string_view::npos) end = path.size();
      const std::string_view part = path.substr(start, end - start);
      if (part.empty() || part == "." || part == "..") return false;
      start = end + 1;
   }
   return true;
}

Vela::String Database::leafName(std::string_view path) {
   const size_t slash = path.rfind('/');
   return Vela::String(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

Vela::Ptr<Vela::Entity> Database::entity(std::string_view path) const {
   auto it = entities_.find(path);
   return it == entities_.end() ? Vela::Ptr<Vela::Entity>() : it->second;
}

void Database::entityIs(std::string_view path, const Vela::Ptr<Vela::Entity>& entity) {
   if (!validPath(path)) throw MountError("invalid entity path '" + Vela::String(path) + "'");
   if (!entity) {
      throw Vela::NullArgumentException("Database::entityIs: entity for '" + Vela::String(path) +
                                        "' is null");
   }
   if (entities_.count(path) != 0) {
      throw Vela::RecreationException("an entity already exists at '" + Vela::String(path) + "'");
   }
   entities_.emplace(Vela::String(path), entity);
}

bool Database::entityDel(std::string_view path) {
   auto it = entities_.find(path);
   if (it == entities_.end()) return false;
   // Moved out first: the entity's release may run code that looks at the database.
   Vela::Ptr<Vela::Entity> gone = std::move(it->second);
   entities_.erase(it);
   return true;
}

Vela::Ptr<Vela::Entity> Database::entityNew(std::string_view path, const Vela::String& typeName) {
   if (!validPath(path)) throw MountError("invalid entity path '" + Vela::String(path) + "'");
   if (entities_.count(path) != 0) {
      throw Vela::RecreationException("an entity already exists at '" + Vela::String(path) + "'");
   }
   Vela::EntityFactory factory = Vela::TypeRegistry::instance().factory(typeName);
   if (!factory) throw MountError("unknown type '" + typeName + "'");
   Vela::Ptr<Vela::Entity> entity = factory(leafName(path));
   if (!entity) throw MountError("the factory of type '" + typeName + "' made no entity");
   entityIs(path, entity);
   return entity;
}

std::vector<Vela::String> Database::paths() const {
   std::vector<Vela::String> out;
   out.reserve(entities_.size());
   for (const auto& e : entities_) out.push_back(e.first);
   return out;
}

}  // namespace Vault
