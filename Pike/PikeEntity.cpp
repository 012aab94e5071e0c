#include "Pike/PikeEntity.h"

#include "Pike/PikeCollection.h"
#include "Pike/PikeReader.h"
#include "Pike/PikeWriter.h"

namespace Pike {

PikeCollection::PikeCollection(PikeEntity& owner, Vela::AttributeId attr)
    : owner_(owner), attr_(attr) {
   owner.collections_.push_back(this);
}

PikeEntity::~PikeEntity() {
   if (writer_) writer_->entityGone(id_);
   if (reader_) reader_->copyGone(*this);
}

void PikeEntity::doPikeInit() {
   Allocator* allocator = Allocator::current();
   if (allocator == nullptr || writer_ != nullptr) return;
   writer_ = &allocator->store();
   id_ = allocator->allocateId();
   writer_->entityIs(*this);
}

void PikeEntity::depike(const PikeRecord& source, PikeReader& manager) {
   reader_ = &manager;
   sourceKey_ = source.key;
   id_ = source.child;
   manager.entityIs(id_, *this);
   for (PikeCollection* c : collections_) {
      for (const PikeKey& key : manager.membersOf(id_, c->attr())) {
         if (auto r = manager.record(key)) c->applyChild(*r, manager);
      }
   }
}

PikeCollection* PikeEntity::collection(Vela::AttributeId attr) const noexcept {
   for (PikeCollection* c : collections_) {
      if (c->attr() == attr) return c;
   }
   return nullptr;
}

void PikeEntity::handleChild(const PikeRecord& record) {
   if (PikeCollection* c = collection(Vela::AttributeId{record.key.collection}); c && reader_) {
      c->applyChild(record, *reader_);
   }
}

void PikeEntity::handleChildDel(const PikeKey& key) {
   if (PikeCollection* c = collection(Vela::AttributeId{key.collection})) c->applyChildDel(key);
}

void PikeEntity::handleChildRestart() {
   PikeReader* reader = reader_;
   if (reader == nullptr) return;
   pikeDelAll();
   if (id_) reader->entityDel(id_, *this);
   id_ = 0;
   if (auto r = reader->record(sourceKey_)) depike(*r, *reader);
}

void PikeEntity::pikeDelAll() {
   for (PikeCollection* c : collections_) c->delAll();
}

void PikeEntity::handleFlush(std::function<void()> task) {
   if (writer_) {
      writer_->flush(*this, task);
   } else if (task) {
      task();
   }
}

void PikeEntity::pikeDetach() {
   if (writer_ == nullptr) return;
   for (PikeCollection* c : collections_) c->detachChildren();
   writer_->entityGone(id_);
   writer_ = nullptr;
}

}  // namespace Pike
