#include "Vela/TypeRegistry.h"

#include "Vela/Exception.h"

namespace Vela {

TypeRegistry& TypeRegistry::instance() {
   static TypeRegistry registry;
   return registry;
}

void TypeRegistry::typeIs(const String& typeName, EntityFactory factory) {
   if (!factory)
      throw NullArgumentException("TypeRegistry::typeIs: factory of '" + typeName + "' is empty");
   std::lock_guard lock(mutex_);
   factories_[typeName] = std::move(factory);
}

void TypeRegistry::typeDel(const String& typeName) {
   std::lock_guard lock(mutex_);
   factories_.erase(typeName);
}

bool TypeRegistry::hasType(const String& typeName) const {
   std::lock_guard lock(mutex_);
   return factories_.count(typeName) != 0;
}

EntityFactory TypeRegistry::factory(const String& typeName) const {
   std::lock_guard lock(mutex_);
   auto it = factories_.find(typeName);
   return it == factories_.end() ? EntityFactory() : it->second;
}

Ptr<Entity> TypeRegistry::create(const String& typeName, const String& name) const {
   EntityFactory f = factory(typeName);  // called outside the lock: a factory may register types
   if (!f) throw Exception("unknown type '" + typeName + "'");
   return f(name);
}

std::vector<String> TypeRegistry::typeNames() const {
   std::lock_guard lock(mutex_);
   std::vector<String> names;
   names.reserve(factories_.size());
   for (const auto& entry : factories_) names.push_back(entry.first);
   return names;
}

void TypeRegistry::operationNamesIs(const String& typeName, std::vector<String> names) {
   std::lock_guard lock(mutex_);
   operations_[typeName] = std::move(names);
}

std::vector<String> TypeRegistry::operationNames(const String& typeName) const {
   std::lock_guard lock(mutex_);
   auto it = operations_.find(typeName);
   return it == operations_.end() ? std::vector<String>() : it->second;
}

}  // namespace Vela
