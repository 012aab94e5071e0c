#include "Pike/PikeWriter.h"

#include <vector>

#include "Pike/PikeCollection.h"
#include "Pike/PikeEntity.h"
#include "Vela/Assert.h"

namespace Pike {

PikeKey rootKey(std::string_view name) {
   VELA_ASSERT(name.size() <= PikeKey::kMaxKeyBytes && "a Pike root name is at most 32 bytes");
   PikeKey key;
   key.collection = attrPikeRoot.value;
   key.keyLen = uint32_t(name.size());
   std::memcpy(key.key, name.data(), name.size());
   return key;
}

namespace {

PikeKey nextIdKey() {
   PikeKey key;
   key.collection = kNextIdCollection;
   return key;
}

}  // namespace

PikeWriter::PikeWriter(const std::string& name, uint32_t maxRecords) {
   Dock::DockConfig config;
   config.typeName = "Pike::PikeRecord";
   config.valueSize = sizeof(PikeRecord);
   config.maxSlots = maxRecords;
   config.maxValueSize = PikeRecord::kMaxLen + 64;
   map_.initWriter(name, config);
   std::vector<PikeKey> stale;
   Dock::IterHint hint;
   PikeRecord record;
   for (bool more = map_.first(hint, record); more; more = map_.next(hint, record)) {
      if (record.key == nextIdKey()) {
         nextId_ = std::max(nextId_, record.child);
      } else {
         stale.push_back(record.key);
      }
   }
   for (const PikeKey& key : stale) map_.writer()->remove(key);
   counters_.staleRemoved = stale.size();
   map_.flush();
}

PikeWriter::~PikeWriter() {
   for (auto& [id, node] : nodes_) {
      if (node.entity) node.entity->writer_ = nullptr;
   }
}

uint64_t PikeWriter::allocateId() {
   const uint64_t id = nextId_++;
   PikeRecord counter;
   counter.key = nextIdKey();
   counter.child = nextId_;
   pending_[counter.key] = std::move(counter);
   return id;
}

void PikeWriter::entityIs(PikeEntity& entity) {
   nodes_[entity.id_].entity = &entity;
}

void PikeWriter::rootIs(PikeEntity& root) {
   if (root.writer_ == nullptr) {
      AllocatorScope scope(this);
      root.doPikeInit();
   }
   VELA_ASSERT(root.writer_ == this && "a Pike root bound to another store");
   roots_.insert(root.id_);
   PikeRecord record;
   record.key = rootKey(root.name());
   record.child = root.id_;
   record.typeName = root.fwkType();
   record.name = root.name();
   pending_[record.key] = std::move(record);
}

void PikeWriter::childIs(PikeEntity& owner, PikeEntity& child, const PikeKey& key) {
   nodes_[child.id_].parent = owner.id_;
   PikeRecord record;
   record.key = key;
   record.child = child.id_;
   record.typeName = child.fwkType().substr(0, kMaxNameLen);
   // Names are the keys' text forms, well under the bound; a longer one is cut, not refused.
   record.name = child.name().substr(0, kMaxNameLen);
   memberIs(owner, std::move(record));
}

void PikeWriter::memberIs(PikeEntity& owner, PikeRecord record) {
   VELA_ASSERT(record.key.owner == owner.id_);
   const PikeKey key = record.key;
   pending_[key] = std::move(record);
}

void PikeWriter::memberDel(PikeEntity& owner, const PikeKey& key) {
   VELA_ASSERT(key.owner == owner.id_);
   pending_[key] = std::nullopt;
}

void PikeWriter::entityGone(uint64_t id) {
   auto it = nodes_.find(id);
   if (it == nodes_.end()) return;
   it->second.entity = nullptr;
   roots_.erase(id);
   // Kept while it has pending removals: the flush of an ancestor finds them through `parent`.
   if (hasPending(id)) {
      gone_.insert(id);
   } else {
      nodes_.erase(it);
   }
}

bool PikeWriter::hasPending(uint64_t owner) const {
   PikeKey first;
   first.owner = owner;
   first.collection = 0;
   auto it = pending_.lower_bound(first);
   return it != pending_.end() && it->first.owner == owner;
}

bool PikeWriter::within(uint64_t id, uint64_t ancestor) const {
   // Trees here are a few levels deep; a node whose chain ends without the ancestor is outside.
   for (uint64_t at = id; at != 0;) {
      if (at == ancestor) return true;
      auto it = nodes_.find(at);
      if (it == nodes_.end()) return false;
      at = it->second.parent;
   }
   return false;
}

void PikeWriter::flush(const PikeEntity& entity, const std::function<void()>& task) {
   VELA_ASSERT(entity.writer_ == this && "flush of an entity this Pike store does not hold");
   const bool all = roots_.size() == 1 && roots_.count(entity.id_) != 0;
   uint64_t owner = 0;
   bool under = true;  // owner 0: the roots and the id counter go with every flush
   for (auto it = pending_.begin(); it != pending_.end();) {
      if (it->first.owner != owner) {
         owner = it->first.owner;
         under = all || within(owner, entity.id_);
      }
      if (!under) {
         ++it;
         continue;
      }
      writeMember(it->first, it->second);
      it = pending_.erase(it);
   }
   dropGoneNodes();
   ++counters_.flushes;
   map_.flush();
   if (task) task();
}

void PikeWriter::flushAll() {
   for (const auto& [key, record] : pending_) writeMember(key, record);
   pending_.clear();
   dropGoneNodes();
   ++counters_.flushes;
   map_.flush();
}

void PikeWriter::dropGoneNodes() {
   for (auto it = gone_.begin(); it != gone_.end();) {
      if (hasPending(*it)) {
         ++it;
      } else {
         nodes_.erase(*it);
         it = gone_.erase(it);
      }
   }
}

size_t PikeWriter::pendingMembers() const noexcept {
   return pending_.size();
}

void PikeWriter::writeMember(const PikeKey& key, const std::optional<PikeRecord>& record) {
   try {
      if (record) {
         map_.writer()->write(*record);
         ++counters_.recordsWritten;
      } else if (map_.writer()->remove(key)) {
         ++counters_.recordsRemoved;
      }
   } catch (const Loom::CorruptionException& e) {
      corruptionDetected(key.owner, key.collection, e.what());
   }
}

void PikeWriter::corruptionDetected(uint64_t owner, uint32_t collection,
                                    const std::string& message) {
   auto node = nodes_.find(owner);
   if (node != nodes_.end() && node->second.entity) {
      PikeCollection* c = node->second.entity->collection(Vela::AttributeId{collection});
      if (c && c->corruptionHandler()) {
         c->corruptionHandler()(message);
         return;
      }
   }
   map_.doCorruptionDetected(message);
}

}  // namespace Pike
