// Vault::MountService: attaches entities to their shared-memory stores by path, as the single
// writer or as a (key-shadowing) reader, and records them in the process's Database.
//
// mount(path, typeName, mode, info, loop):
//   1. a path already mounted in this process with the same type and mode gives back the mounted
//      entity (another mode or type is a MountError);
//   2. the entity is built through the type registry and must be a Vault::Mountable;
//   3. one CollectionControl per collection of `info` (for a reader mount with an empty `info`,
//      per collection the entity names itself, sizing 0) is handed to it with controlIs;
//   4. it is attached under the mount group with handleParent, where it opens its store;
//   5. it is recorded at `path` in the database and as a child of the group.
// If any step throws, nothing is recorded and the exception reaches the caller.
//
// unmount(path) calls the entity's unmountIs (its store lets go of its files and owner file)
// and forgets it; users holding a reference keep a detached entity. cleanup(path) also removes the
// directory "<store root>/<path>" with every file in it, and then each parent directory under the
// store root that this left empty. It does not ask whether another process still uses the files:
// it is for tearing a table down, not for routine unmounting.
//
// One owning thread (the agent's); not thread-safe. Destroying the service unmounts everything.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "Vault/CollectionControl.h"
#include "Vault/Database.h"
#include "Vault/MountGroup.h"
#include "Vault/MountInfo.h"
#include "Vault/Mountable.h"
#include "Vela/Entity.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Loom {
class EventLoop;
}

namespace Vault {

class MountService : public Vela::RefCounted {
  public:
   // With no database or group given, the service makes its own (group named "mounts").
   explicit MountService(Vela::Ptr<Database> database = nullptr,
                         Vela::Ptr<MountGroup> group = nullptr);
   ~MountService() override;
   MountService(const MountService&) = delete;
   MountService& operator=(const MountService&) = delete;

   const Vela::Ptr<Database>& database() const noexcept { return database_; }
   const Vela::Ptr<MountGroup>& mountGroup() const noexcept { return group_; }

   // Throws MountError (bad path, unknown or unmountable type, a writer mount with no
   // collection, conflicting mount), Vela::RecreationException when the database holds an
   // unmounted entity at `path`, and whatever the entity's handleParent throws.
   Vela::Ptr<Vela::Entity> mount(std::string_view path, const Vela::String& typeName,
                                 VelaDock::Mode mode, const VelaDock::MountInfo& info,
                                 Loom::EventLoop& loop);
   // False when `path` was not mounted.
   bool unmount(std::string_view path);
   // Unmounts `path` if mounted, then removes its files. True when any file or directory was
   // removed. Throws MountError for a bad path or a directory that cannot be removed.
   bool cleanup(std::string_view path);

   bool mounted(std::string_view path) const;
   std::optional<VelaDock::Mode> modeOf(std::string_view path) const;
   // The controls of the mount at `path`, in collection order (empty when not mounted).
   std::vector<Vela::Ptr<VelaDock::CollectionControl>> controls(std::string_view path) const;
   Vela::Ptr<VelaDock::CollectionControl> control(std::string_view path,
                                                  std::string_view collection) const;
   size_t mountCount() const noexcept { return mounts_.size(); }

  private:
   struct Mount {
      Vela::String typeName;
      VelaDock::Mode mode;
      Vela::String storeRoot;
      Vela::Ptr<Vela::Entity> entity;
      Mountable* mountable;
      std::vector<Vela::Ptr<VelaDock::CollectionControl>> controls;
   };

   const Mount* find(std::string_view path) const;

   Vela::Ptr<Database> database_;
   Vela::Ptr<MountGroup> group_;
   std::vector<std::pair<Vela::String, Mount>> mounts_;  // few per process: a vector suffices
};

}  // namespace Vault
