#include "Vault/MountGroup.h"

#include "Vela/Assert.h"

namespace Vault {

Vela::Ptr<Vela::Entity> MountGroup::child(std::string_view path) const {
   auto it = children_.find(path);
   return it == children_.end() ? Vela::Ptr<Vela::Entity>() : it->second;
}

std::vector<Vela::String> MountGroup::childPaths() const {
   std::vector<Vela::String> out;
   out.reserve(children_.size());
   for (const auto& c : children_) out.push_back(c.first);
   return out;
}

void MountGroup::childIs(std::string_view path, const Vela::Ptr<Vela::Entity>& child) {
   VELA_ASSERT(child && children_.count(path) == 0);
   children_.emplace(Vela::String(path), child);
}

bool MountGroup::childDel(std::string_view path) {
   auto it = children_.find(path);
   if (it == children_.end()) return false;
   Vela::Ptr<Vela::Entity> gone = std::move(it->second);
   children_.erase(it);
   return true;
}

}  // namespace Vault
