// PikeEntity: an entity whose collections live in a Pike store, where another process reads them.
//
// Why it is built this way: a C++ object (with its vtable and heap members) means nothing in
// another address space, so what the store holds of an entity is its image - one record per
// member of each of its collections, keyed by the entity's id (PikeRecord.h) - and each process
// keeps its own C++ objects: the writer's entities, which write their images, and a reader's
// private copies (made by depike), which its PikeReader keeps in step with the images. The store
// under it is the library's shared-memory table store, so records get its lock-free consistent
// copies, its per-key notifications, its wake-ups and its writer restart handling.
//
// Writer side: an entity created while a PikeWriter's allocator is current (pikeNew, or a root
// handed to PikeWriter::rootIs) is bound in doPikeInit(): it takes an id, and its collections then
// record every change as pending in the writer; handleFlush() makes the entity's pending changes,
// and those of its descendants, visible to readers.
// Reader side: depike(source, reader) binds a copy to the image `source` names and fills its
// collections from the store, recursively; the reader then calls handleChild / handleChildDel as
// members come and go, and handleChildRestart when the image a copy stands for was replaced (the
// writer restarted, or re-created the child under the same key).
// An entity bound to neither is a plain heap entity; its collections work the same, privately.
//
// Each collection registers itself with its owner (PikeCollection), so the hooks here are
// written once for every entity type.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "Pike/PikeRecord.h"
#include "Vela/Entity.h"

namespace Pike {

class PikeCollection;
class PikeReader;
class PikeWriter;

// The collection attribute the roots are kept under (owner id 0).
inline constexpr Vela::AttributeId attrPikeRoot{1};

class PikeEntity : public Vela::Entity {
  public:
   uint64_t pikeId() const noexcept { return id_; }
   PikeWriter* pikeWriter() const noexcept { return writer_; }
   PikeReader* pikeReader() const noexcept { return reader_; }
   std::string_view fwkTypeName() const override { return fwkType(); }
   virtual std::string_view fwkType() const = 0;

   // Binds the entity to the thread's current allocator, if any, taking a new id.
   virtual void doPikeInit();
   // Binds this copy to the image `source` names and fills its collections from `manager`.
   virtual void depike(const PikeRecord& source, PikeReader& manager);
   // Reader: a member of one of this copy's collections was added or changed.
   virtual void handleChild(const PikeRecord& record);
   // Reader: a member went away.
   virtual void handleChildDel(const PikeKey& key);
   // Reader: the image this copy stands for was replaced or removed; re-read it from the store.
   virtual void handleChildRestart();
   // Clears every collection of this entity (children first have theirs cleared).
   virtual void pikeDelAll();
   // Writer: makes the pending changes of this entity and its descendants visible to readers,
   // then runs `task`. Elsewhere only runs `task`.
   virtual void handleFlush(std::function<void()> task = {});

   PikeCollection* collection(Vela::AttributeId attr) const noexcept;
   // Writer: the entity left the tree; it writes nothing more (its collections still work).
   void pikeDetach();

  protected:
   explicit PikeEntity(Vela::String name) : Vela::Entity(std::move(name)) {}
   ~PikeEntity() override;

  private:
   friend class PikeCollection;
   friend class PikeReader;
   friend class PikeWriter;

   uint64_t id_ = 0;
   PikeWriter* writer_ = nullptr;
   PikeReader* reader_ = nullptr;
   PikeKey sourceKey_{};  // a copy: the record that names its image
   std::vector<PikeCollection*> collections_;
};

}  // namespace Pike
