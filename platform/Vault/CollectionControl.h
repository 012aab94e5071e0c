// VelaDock::CollectionControl: the platform's side of one mounted collection of an entity (a
// table's "entry"). The mount service makes one per collection and hands it to the entity
// (entryControlIs) before attaching it; it tells the entity how it is mounted (mode, store root,
// mount path, collection name, sizing value, event loop) and the entity reports back through it
// what its store sees: quiesced (every write seen by readers, or a reader caught up with the
// writer) and the store's mount status.
//
// When the entity's last reference goes, its zero-references notifiee hands the entity to the
// control (entityRefIs) so the platform learns the collection is no longer served. The entity is
// being deleted at that point, so the control records the release and never keeps the reference
// (Vela::Entity asserts that nothing revives it).
//
// A control belongs to the event loop its entity runs on; it is not thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Region/StoreRoot.h"
#include "Vela/Entity.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Loom {
class EventLoop;
}

namespace VelaDock {

// How a collection is mounted: by its single writer, by a plain reader, or by a reader that keeps
// a shadow of the keys and is told per key.
class Mode {
  public:
   enum class Kind : uint8_t { writer = 1, reader = 2, keyshadow = 3 };

   constexpr explicit Mode(Kind kind) noexcept : kind_(kind) {}
   constexpr Kind kind() const noexcept { return kind_; }
   // "writer", "reader" or "keyshadow".
   constexpr std::string_view name() const noexcept {
      switch (kind_) {
         case Kind::writer:
            return "writer";
         case Kind::reader:
            return "reader";
         case Kind::keyshadow:
            return "keyshadow";
      }
      return "unknown";
   }
   constexpr bool isWriter() const noexcept { return kind_ == Kind::writer; }
   friend constexpr bool operator==(Mode, Mode) = default;

  private:
   Kind kind_;
};

constexpr Mode writer() noexcept {
   return Mode(Mode::Kind::writer);
}
constexpr Mode reader() noexcept {
   return Mode(Mode::Kind::reader);
}
constexpr Mode keyshadow() noexcept {
   return Mode(Mode::Kind::keyshadow);
}

class CollectionControl : public Vela::RefCounted {
  public:
   enum class Change : uint8_t { quiesced, mountStatus, entityReleased };
   // Told of every change the entity reports, after the control has recorded it.
   using Reactor = std::function<void(const CollectionControl&, Change)>;

   // `storeRoot` is the directory the store files live under, fixed at mount time; the store's
   // name for the collection is "<mountPath>/<collectionName>" under it.
   CollectionControl(Mode mode, Vela::String storeRoot, Vela::String mountPath,
                     Vela::String collectionName, uint32_t sizing, Loom::EventLoop* eventLoop);

   Mode mode() const noexcept { return mode_; }
   const Vela::String& storeRoot() const noexcept { return storeRoot_; }
   const Vela::String& mountPath() const noexcept { return mountPath_; }
   const Vela::String& collectionName() const noexcept { return collectionName_; }
   uint32_t sizing() const noexcept { return sizing_; }
   Loom::EventLoop* eventLoop() const noexcept { return eventLoop_; }
   // "<mountPath>/<collectionName>": the name the store is opened by under the store root.
   Vela::String storeName() const { return Region::tableName(mountPath_, collectionName_); }
   // "<storeRoot>/<mountPath>/<collectionName>": the directory of the collection's files.
   Vela::String storeDirectory() const { return Region::tableDirectory(storeRoot_, storeName()); }

   bool quiesced() const noexcept { return quiesced_; }
   // Records the store's quiesced state; the reactor hears of it only when it changed.
   void quiescedIs(bool quiesced);
   // How many times quiesced went from false to true.
   uint64_t quiescedCount() const noexcept { return quiescedCount_; }

   uint8_t mountStatus() const noexcept { return mountStatus_; }
   // Records the store's mount status (its low 8 bits); the reactor hears only of changes.
   void mountStatusIs(uint8_t status);

   // The entity's last reference went. REQUIRES: entity is not null; called once.
   void entityRefIs(const Vela::Ptr<Vela::Entity>& entity);
   bool entityReleased() const noexcept { return entityReleased_; }
   // Name of the entity that was handed back ("" before).
   const Vela::String& releasedEntityName() const noexcept { return releasedEntityName_; }

   void reactorIs(Reactor reactor) { reactor_ = std::move(reactor); }

  private:
   void tell(Change change) const {
      if (reactor_) reactor_(*this, change);
   }

   const Mode mode_;
   const Vela::String storeRoot_;
   const Vela::String mountPath_;
   const Vela::String collectionName_;
   const uint32_t sizing_;
   Loom::EventLoop* const eventLoop_;

   bool quiesced_ = false;
   uint64_t quiescedCount_ = 0;
   uint8_t mountStatus_ = 0;
   bool entityReleased_ = false;
   Vela::String releasedEntityName_;
   Reactor reactor_;
};

}  // namespace VelaDock
