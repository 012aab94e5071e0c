// ShadowStore: a reader's own copy, per slot, of what the slot held when the reader last looked.
//
// On a notification the reader compares the slot's current content with its shadow to tell an
// added key from a changed value, a moved key (a shrink relocates keys) or a removed one. Two
// kinds of shadow slot:
//   ValueShadowSlot<K, V>  keeps the whole value: unchanged values are not re-announced (lookups
//                          still copy the value out of shared memory);
//   KeyShadowSlot<K, V>    keeps only the key: less memory, every notification is announced.
// Each shadow slot embeds the ShadowRecord that links it into the ShadowHashMap, so shadow slots
// never move: the store is a list of fixed-size chunks and grows by adding chunks.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "store/reader/ShadowHashMap.h"

namespace Dock {

template <class K, class V>
struct ValueShadowSlot {
   static constexpr bool kKeepsValue = true;
   ShadowRecord record;
   bool present = false;
   K key{};
   V value{};

   // True when storing `v` would change nothing a table can observe.
   bool same(const K& k, const V& v) const { return present && key == k && value == v; }
   void set(const K& k, const V& v) {
      present = true;
      key = k;
      value = v;
   }
   void clear() {
      // Assigned from one default value made once: `V{}` would zero-fill a large fixed-capacity
      // value on every clear, while assignment copies only the live part.
      static const V kEmpty{};
      present = false;
      value = kEmpty;
   }
};

template <class K, class V>
struct KeyShadowSlot {
   static constexpr bool kKeepsValue = false;
   ShadowRecord record;
   bool present = false;
   K key{};

   // Without the value, a change cannot be ruled out.
   bool same(const K&, const V&) const { return false; }
   void set(const K& k, const V&) {
      present = true;
      key = k;
   }
   void clear() { present = false; }
};

template <class ShadowSlot>
class ShadowStore {
  public:
   static constexpr uint32_t kChunk = 1024;

   uint32_t size() const { return size_; }
   // Makes slots [0, n) available; never shrinks, never moves existing slots.
   void resize(uint32_t n) {
      while (uint64_t(chunks_.size()) * kChunk < n) {
         chunks_.push_back(std::make_unique<ShadowSlot[]>(kChunk));
      }
      if (n > size_) size_ = n;
   }
   // REQUIRES: index < size().
   ShadowSlot& operator[](uint32_t index) { return chunks_[index / kChunk][index % kChunk]; }
   const ShadowSlot& operator[](uint32_t index) const {
      return chunks_[index / kChunk][index % kChunk];
   }
   void reset() {
      chunks_.clear();
      size_ = 0;
   }

  private:
   std::vector<std::unique_ptr<ShadowSlot[]>> chunks_;
   uint32_t size_ = 0;
};

}  // namespace Dock
