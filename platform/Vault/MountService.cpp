#include "Vault/MountService.h"

#include <filesystem>
#include <system_error>

#include "Region/StoreRoot.h"
#include "Spoor/Trace.h"
#include "Vault/MountError.h"
#include "Vela/Exception.h"
#include "Vela/TypeRegistry.h"

namespace Vault {

namespace {

Spoor::Handle& trace() {
   static Spoor::Handle& h = Spoor::handle("Vault");
   return h;
}

}  // namespace

MountService::MountService(Vela::Ptr<Database> database, Vela::Ptr<MountGroup> group)
    : database_(database ? std::move(database) : Vela::makePtr<Database>()),
      group_(group ? std::move(group) : Vela::makePtr<MountGroup>("mounts")) {}

MountService::~MountService() {
   while (!mounts_.empty()) unmount(Vela::String(mounts_.back().first));
}

const MountService::Mount* MountService::find(std::string_view path) const {
   for (const auto& [p, m] : mounts_) {
      if (p == path) return &m;
   }
   return nullptr;
}

Vela::Ptr<Vela::Entity> MountService::mount(std::string_view path, const Vela::String& typeName,
                                            VelaDock::Mode mode, const VelaDock::MountInfo& info,
                                            Loom::EventLoop& loop) {
   const Vela::String p(path);
   if (!Database::validPath(path)) throw MountError("invalid mount path '" + p + "'");
   if (const Mount* m = find(path)) {
      if (m->typeName != typeName) {
         throw MountError("cannot mount '" + p + "' with type '" + typeName +
                          "': already mounted with type '" + m->typeName + "'");
      }
      if (m->mode != mode) {
         throw MountError("cannot mount '" + p + "' as " + Vela::String(mode.name()) +
                          ": already mounted as " + Vela::String(m->mode.name()));
      }
      return m->entity;
   }
   if (database_->entity(path)) {
      throw Vela::RecreationException("cannot mount '" + p +
                                      "': the path holds an entity that is not mounted");
   }
   if (mode.isWriter() && info.empty()) {
      throw MountError("cannot mount '" + p + "' as writer: the mount describes no collection");
   }

   Vela::EntityFactory factory = Vela::TypeRegistry::instance().factory(typeName);
   if (!factory) throw MountError("cannot mount '" + p + "': unknown type '" + typeName + "'");
   Vela::Ptr<Vela::Entity> entity = factory(Database::leafName(path));
   auto* mountable = dynamic_cast<Mountable*>(entity.get());
   if (!mountable) {
      throw MountError("cannot mount '" + p + "': type '" + typeName + "' is not mountable");
   }

   // The store root is fixed now: the entity and a later cleanup use the same directory even
   // if the environment changes meanwhile.
   Mount m{typeName, mode, Region::storeRoot(), entity, mountable, {}};
   std::vector<VelaDock::CollectionInfo> collections = info.collections();
   if (collections.empty()) {
      for (auto& name : mountable->mountCollections()) {
         collections.push_back(VelaDock::CollectionInfo{std::move(name), 0});
      }
   }
   for (const auto& c : collections) {
      auto control = Vela::makePtr<VelaDock::CollectionControl>(mode, m.storeRoot, p, c.attrName,
                                                                c.sizing, &loop);
      mountable->controlIs(c.attrName, control);
      m.controls.push_back(std::move(control));
   }

   // Attached to the group first, so the entity finds itself a child during handleParent.
   group_->childIs(path, entity);
   try {
      mountable->handleParent(Vela::Ptr<Vela::Entity>(group_));
   } catch (...) {
      group_->childDel(path);
      throw;
   }
   database_->entityIs(path, entity);
   mounts_.emplace_back(p, std::move(m));
   SPOOR_TRACE(trace(), 3, "mounted {} type:{} as {}", p, typeName, mode.name());
   return entity;
}

bool MountService::unmount(std::string_view path) {
   auto it = mounts_.begin();
   while (it != mounts_.end() && it->first != path) ++it;
   if (it == mounts_.end()) return false;
   Mount m = std::move(it->second);
   const Vela::String p = std::move(it->first);
   mounts_.erase(it);
   // Forgotten before the entity lets go of its store, so nothing finds a half-detached entity.
   database_->entityDel(p);
   group_->childDel(p);
   m.mountable->unmountIs();
   SPOOR_TRACE(trace(), 3, "unmounted {}", p);
   return true;
}

bool MountService::cleanup(std::string_view path) {
   const Vela::String p(path);
   if (!Database::validPath(path)) throw MountError("invalid mount path '" + p + "'");
   const Mount* m = find(path);
   const std::filesystem::path root(m ? m->storeRoot : Region::storeRoot());
   unmount(path);

   std::error_code ec;
   const std::filesystem::path dir = root / p;
   const auto removed = std::filesystem::remove_all(dir, ec);
   if (ec) throw MountError("cannot clean up '" + dir.string() + "': " + ec.message());
   // Parents that only held this mount go too (tunnel/table once its last table is gone); the
   // store root itself stays.
   for (auto parent = dir.parent_path(); parent != root && parent.has_relative_path();
        parent = parent.parent_path()) {
      if (!std::filesystem::is_empty(parent, ec) || ec) break;
      if (!std::filesystem::remove(parent, ec) || ec) break;
   }
   SPOOR_TRACE(trace(), 3, "cleaned up {} ({} files)", dir.string(), uint64_t(removed));
   return removed != 0 && removed != static_cast<std::uintmax_t>(-1);
}

bool MountService::mounted(std::string_view path) const {
   return find(path) != nullptr;
}

std::optional<VelaDock::Mode> MountService::modeOf(std::string_view path) const {
   const Mount* m = find(path);
   return m ? std::optional<VelaDock::Mode>(m->mode) : std::nullopt;
}

std::vector<Vela::Ptr<VelaDock::CollectionControl>> MountService::controls(
    std::string_view path) const {
   const Mount* m = find(path);
   return m ? m->controls : std::vector<Vela::Ptr<VelaDock::CollectionControl>>{};
}

Vela::Ptr<VelaDock::CollectionControl> MountService::control(std::string_view path,
                                                             std::string_view collection) const {
   if (const Mount* m = find(path)) {
      for (const auto& c : m->controls) {
         if (c->collectionName() == collection) return c;
      }
   }
   return nullptr;
}

}  // namespace Vault
