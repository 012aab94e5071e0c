// The collections of a PikeEntity: a hash map of child entities (EntityMap) and a hash set of
// plain values (ValueSet). Each is a member of its owner and registers with it under its
// attribute id, which is also the attribute its owner notifies with, the member's key as the
// notification's key.
//
// On a writer-bound owner every change is also recorded in the writer as pending (a member record
// written or removed); on a reader copy the collection is changed only by the reader's hooks
// (applyChild / applyChildDel), which notify the owner's observers just as a change on the writer
// side would.
#pragma once

#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Pike/PikeAllocator.h"
#include "Pike/PikeEntity.h"
#include "Pike/PikeReader.h"
#include "Pike/PikeWriter.h"

namespace Pike {

class PikeCollection {
  public:
   PikeCollection(PikeEntity& owner, Vela::AttributeId attr);
   virtual ~PikeCollection() = default;
   PikeCollection(const PikeCollection&) = delete;
   PikeCollection& operator=(const PikeCollection&) = delete;

   Vela::AttributeId attr() const noexcept { return attr_; }

   // Reader copy: a member record arrived, or went away.
   virtual void applyChild(const PikeRecord& record, PikeReader& reader) = 0;
   virtual void applyChildDel(const PikeKey& key) = 0;
   // Removes every member, one at a time, with their notifications.
   virtual void delAll() = 0;
   // Writer: the owner left the tree; children stop writing too.
   virtual void detachChildren() {}

   // Corruption the store finds while it writes a member of this collection; without a handler
   // the store's own ends the process.
   void corruptionHandlerIs(std::function<void(const std::string&)> handler) {
      corruptionHandler_ = std::move(handler);
   }
   const std::function<void(const std::string&)>& corruptionHandler() const noexcept {
      return corruptionHandler_;
   }

  protected:
   PikeWriter* writer() const noexcept { return owner_.writer_; }
   template <class K>
   PikeKey keyOf(const K& key) const {
      return pikeKeyOf(owner_.id_, attr_, key);
   }

   PikeEntity& owner_;
   Vela::AttributeId attr_;
   std::function<void(const std::string&)> corruptionHandler_;
};

// Children keyed by K. Child is a PikeEntity constructible as Child(name, key).
template <class K, class Child>
class EntityMap final : public PikeCollection {
  public:
   using Map = std::unordered_map<K, Vela::Ptr<Child>>;
   using PikeCollection::PikeCollection;

   Vela::Ptr<Child> find(const K& key) const {
      auto it = map_.find(key);
      return it == map_.end() ? nullptr : it->second;
   }
   size_t size() const noexcept { return map_.size(); }
   typename Map::const_iterator begin() const { return map_.begin(); }
   typename Map::const_iterator end() const { return map_.end(); }

   // Creates the child under `key` (the caller has looked it up): on a writer-bound owner it is
   // allocated with the writer's allocator current; then it is inserted, made the owner's child
   // and announced to the owner's observers.
   Vela::Ptr<Child> create(const K& key, const Vela::String& name) {
      Vela::Ptr<Child> child =
          writer() ? pikeNew<Child>(*writer(), name, key) : Vela::makePtr<Child>(name, key);
      child->parentIs(&owner_);
      map_.emplace(key, child);
      if (writer()) writer()->childIs(owner_, *child, keyOf(key));
      owner_.notify(attr_, &key);
      return child;
   }

   // Removes the child under `key` and its subtree; false when there is none.
   bool del(const K& key) {
      auto it = map_.find(key);
      if (it == map_.end()) return false;
      Vela::Ptr<Child> child = std::move(it->second);
      map_.erase(it);
      child->pikeDelAll();
      if (writer()) {
         writer()->memberDel(owner_, keyOf(key));
         child->pikeDetach();
      }
      child->parentIs(nullptr);
      owner_.notify(attr_, &key);
      return true;
   }

   void delAll() override {
      std::vector<K> keys;
      keys.reserve(map_.size());
      for (const auto& [k, c] : map_) keys.push_back(k);
      for (const K& k : keys) del(k);
   }

   void detachChildren() override {
      for (const auto& [k, c] : map_) c->pikeDetach();
   }

   void applyChild(const PikeRecord& record, PikeReader& reader) override {
      const K key = KeyCodec<K>::decode(record.key.key, record.key.keyLen);
      if (auto it = map_.find(key); it != map_.end()) {
         if (it->second->pikeId() != record.child) it->second->handleChildRestart();
         return;
      }
      Vela::Ptr<Child> child = Vela::makePtr<Child>(record.name, key);
      child->parentIs(&owner_);
      child->depike(record, reader);
      map_.emplace(key, child);
      owner_.notify(attr_, &key);
   }

   void applyChildDel(const PikeKey& pkey) override {
      const K key = KeyCodec<K>::decode(pkey.key, pkey.keyLen);
      auto it = map_.find(key);
      if (it == map_.end()) return;
      Vela::Ptr<Child> child = std::move(it->second);
      map_.erase(it);
      child->pikeDelAll();
      child->parentIs(nullptr);
      owner_.notify(attr_, &key);
   }

  private:
   Map map_;
};

// A set of plain values. Adding or removing does not notify: the owner's operation decides what
// it tells its observers. A reader copy notifies for every member that arrives or leaves.
template <class K>
class ValueSet final : public PikeCollection {
  public:
   using Set = std::unordered_set<K>;
   using PikeCollection::PikeCollection;

   bool contains(const K& v) const { return set_.count(v) != 0; }
   size_t size() const noexcept { return set_.size(); }
   typename Set::const_iterator begin() const { return set_.begin(); }
   typename Set::const_iterator end() const { return set_.end(); }

   // True when `v` was not in the set.
   bool insert(const K& v) {
      if (!set_.insert(v).second) return false;
      if (writer()) {
         PikeRecord record;
         record.key = keyOf(v);
         writer()->memberIs(owner_, std::move(record));
      }
      return true;
   }
   bool erase(const K& v) {
      if (set_.erase(v) == 0) return false;
      if (writer()) writer()->memberDel(owner_, keyOf(v));
      return true;
   }
   void delAll() override {
      std::vector<K> values(set_.begin(), set_.end());
      for (const K& v : values) {
         erase(v);
         owner_.notify(attr_, &v);
      }
   }

   void applyChild(const PikeRecord& record, PikeReader&) override {
      const K v = KeyCodec<K>::decode(record.key.key, record.key.keyLen);
      set_.insert(v);
      owner_.notify(attr_, &v);
   }
   void applyChildDel(const PikeKey& pkey) override {
      const K v = KeyCodec<K>::decode(pkey.key, pkey.keyLen);
      if (set_.erase(v)) owner_.notify(attr_, &v);
   }

  private:
   Set set_;
};

}  // namespace Pike
