#include "Pike/PikeReader.h"

#include "Pike/PikeEntity.h"
#include "Spoor/Trace.h"
#include "Vela/Assert.h"
#include "Vela/Exception.h"

namespace Pike {

namespace {

Spoor::Handle& trace() {
   static Spoor::Handle handle("Pike");
   return handle;
}

}  // namespace

PikeReader::PikeReader(const std::string& name, Loom::EventLoop& loop) {
   Region::Notify<PikeKey, PikeRecord> notify;
   notify.onKey = [this](const PikeKey& key) { keyChanged(key); };
   notify.onKeyRemoved = [this](const PikeKey& key) { keyRemoved(key); };
   // Not usable yet (no writer has published): the reader keeps trying on the loop.
   if (!map_.initReader(name, std::move(notify), loop)) {
      SPOOR_TRACE(trace(), 5, "Pike {}: {}; retrying", name, map_.reader()->attachError());
   }
}

PikeReader::~PikeReader() {
   for (auto& [id, copy] : entities_) copy->reader_ = nullptr;
   for (auto& [name, root] : roots_) root->reader_ = nullptr;
}

bool PikeReader::synchronized() const {
   const auto state = Dock::ReaderState(map_.mountStatus());
   return state == Dock::ReaderState::kSynchronized || state == Dock::ReaderState::kQuiesced;
}

void PikeReader::rootIs(PikeEntity& root) {
   VELA_ASSERT(root.writer_ == nullptr && root.reader_ == nullptr &&
               "a Pike root copy must be unbound");
   roots_[root.name()] = &root;
   root.reader_ = this;
   root.sourceKey_ = rootKey(root.name());
   if (auto r = record(root.sourceKey_)) root.depike(*r, *this);
}

void PikeReader::rootDel(PikeEntity& root) {
   auto it = roots_.find(root.name());
   if (it == roots_.end() || it->second != &root) return;
   roots_.erase(it);
   if (root.id_) entityDel(root.id_, root);
   root.reader_ = nullptr;
}

std::vector<PikeKey> PikeReader::membersOf(uint64_t owner, Vela::AttributeId collection) const {
   std::vector<PikeKey> out;
   auto it = index_.find(owner);
   if (it == index_.end()) return out;
   for (const PikeKey& key : it->second) {
      if (key.collection == collection.value) out.push_back(key);
   }
   return out;
}

std::optional<PikeRecord> PikeReader::record(const PikeKey& key) {
   return map_.lookup(key);
}

void PikeReader::entityIs(uint64_t id, PikeEntity& copy) {
   entities_[id] = &copy;
}

void PikeReader::entityDel(uint64_t id, const PikeEntity& copy) {
   auto it = entities_.find(id);
   if (it != entities_.end() && it->second == &copy) entities_.erase(it);
}

void PikeReader::copyGone(const PikeEntity& copy) {
   if (copy.id_) entityDel(copy.id_, copy);
   auto root = roots_.find(copy.name());
   if (root != roots_.end() && root->second == &copy) roots_.erase(root);
}

void PikeReader::keyChanged(const PikeKey& key) {
   std::optional<PikeRecord> r = map_.lookup(key);
   if (!r) {
      keyRemoved(key);
      return;
   }
   index_[key.owner].insert(key);
   ++counters_.records;
   dispatch(key, &*r);
}

void PikeReader::keyRemoved(const PikeKey& key) {
   auto members = index_.find(key.owner);
   if (members != index_.end()) {
      members->second.erase(key);
      if (members->second.empty()) index_.erase(members);
   }
   ++counters_.removals;
   dispatch(key, nullptr);
}

void PikeReader::dispatch(const PikeKey& key, const PikeRecord* record) {
   if (key.owner == 0) {
      // A root record: its copy re-reads the image when the record names another (or none).
      if (key.collection != attrPikeRoot.value) return;
      auto root = roots_.find(std::string_view(reinterpret_cast<const char*>(key.key), key.keyLen));
      const uint64_t named = record ? record->child : 0;
      if (root != roots_.end() && root->second->id_ != named) {
         ++counters_.restarts;
         root->second->handleChildRestart();
      }
      return;
   }
   auto owner = entities_.find(key.owner);
   if (owner == entities_.end()) return;
   try {
      if (record) {
         owner->second->handleChild(*record);
      } else {
         owner->second->handleChildDel(key);
      }
   } catch (const Vela::Exception& e) {
      // A member whose key does not read as its collection's key type: skipped, not fatal.
      SPOOR_TRACE(trace(), 0, "Pike member of {} in collection {} skipped: {}", key.owner,
                  key.collection, e.what());
   }
}

}  // namespace Pike
