// Vault::MountGroup: the entity mounted entities are attached under. A mount passes the group to
// the entity's handleParent; the group owns its children through Ptr for as long as they are
// mounted (a child's parent pointer, where it keeps one, is non-owning). One owning thread.
#pragma once

#include <map>
#include <string_view>
#include <vector>

#include "Vela/Entity.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Vault {

class MountGroup : public Vela::Entity {
  public:
   explicit MountGroup(Vela::String name) : Vela::Entity(std::move(name)) {}
   std::string_view fwkTypeName() const override { return "Vault::MountGroup"; }

   // The child mounted at `path`, or null.
   Vela::Ptr<Vela::Entity> child(std::string_view path) const;
   size_t childCount() const noexcept { return children_.size(); }
   std::vector<Vela::String> childPaths() const;

  private:
   friend class MountService;
   // REQUIRES: no child at `path`, child not null.
   void childIs(std::string_view path, const Vela::Ptr<Vela::Entity>& child);
   bool childDel(std::string_view path);

   std::map<Vela::String, Vela::Ptr<Vela::Entity>, std::less<>> children_;
};

}  // namespace Vault
