// The type registry: framework type name -> factory of entities of that type. Table types register
// themselves at start-up; the mount service looks a type up by the name a mount path carries and
// builds the entity through it. Registration and lookup may come from any thread (a mutex guards
// the map); the factories themselves run on the caller's thread.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string_view>
#include <vector>

#include "Vela/Entity.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Vela {

using EntityFactory = std::function<Ptr<Entity>(const String& name)>;

class TypeRegistry {
  public:
   static TypeRegistry& instance();

   // Registers (or replaces) the factory of a type.
   void typeIs(const String& typeName, EntityFactory factory);
   void typeDel(const String& typeName);
   bool hasType(const String& typeName) const;
   // The factory of a type; an empty function when the type is unknown.
   EntityFactory factory(const String& typeName) const;
   // Builds an entity of a registered type; throws Exception "unknown type '<name>'" otherwise.
   Ptr<Entity> create(const String& typeName, const String& name) const;
   std::vector<String> typeNames() const;

   // The names of the operations a type offers, as its clients call them ("entryIs", ...).
   void operationNamesIs(const String& typeName, std::vector<String> names);
   // Empty for a type that listed none.
   std::vector<String> operationNames(const String& typeName) const;

  private:
   mutable std::mutex mutex_;
   std::map<String, EntityFactory, std::less<>> factories_;
   std::map<String, std::vector<String>, std::less<>> operations_;
};

}  // namespace Vela
