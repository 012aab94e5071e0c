// The records a Pike store keeps in its shared-memory table: one per member of an entity's
// collection.
//
// A member is keyed by (owner entity id, collection attribute, the member key's bytes); the key is
// 48 bytes of plain integers so the store hashes its object bytes. A member that is an entity
// (a child) carries the child's entity id, framework type name and entity name; a member of a set
// of plain values carries nothing more. The owner id 0 holds the roots, keyed by their names.
//
// Byte form (little-endian, the in-memory order of a Pike's single machine):
//   PikeKey key (48) | uint64 child | uint16 typeLen | uint16 nameLen | type | name
// deserialize() rejects any length that does not add up, so a foreign or torn copy is an error,
// never a misread.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "Vela/AttributeId.h"
#include "Vela/Exception.h"
#include "Vela/String.h"

namespace Pike {

struct PikeKey {
   static constexpr uint32_t kMaxKeyBytes = 32;

   uint64_t owner = 0;       // entity id of the collection's owner; 0 for the roots
   uint32_t collection = 0;  // the collection's attribute id
   uint32_t keyLen = 0;      // bytes of `key` in use; the rest stays zero
   uint8_t key[kMaxKeyBytes] = {};

   friend bool operator==(const PikeKey& a, const PikeKey& b) noexcept {
      return std::memcmp(&a, &b, sizeof(PikeKey)) == 0;
   }
   friend bool operator<(const PikeKey& a, const PikeKey& b) noexcept {
      return std::memcmp(&a, &b, sizeof(PikeKey)) < 0;
   }
};
static_assert(sizeof(PikeKey) == 48 && std::has_unique_object_representations_v<PikeKey>);

// Names and type names are bounded so that every record fits the store's largest value.
constexpr uint32_t kMaxNameLen = 256;

struct PikeRecord {
   static constexpr uint32_t kFixedLen = sizeof(PikeKey) + 8 + 2 + 2;
   static constexpr uint32_t kMaxLen = kFixedLen + 2 * kMaxNameLen;

   PikeKey key;
   uint64_t child = 0;  // entity id of a child; 0 for a member of a set
   Vela::String typeName;
   Vela::String name;

   uint32_t serializeLen() const noexcept {
      return kFixedLen + uint32_t(typeName.size() + name.size());
   }
   void serialize(void* buffer) const noexcept;
   // The record's length when `available` bytes hold a whole one, else 0.
   static uint32_t deserializeLen(const void* buffer, uint32_t available) noexcept;
   // Throws Vela::Exception when the bytes are not one whole record.
   void deserialize(const void* buffer, uint32_t length);

   friend bool operator==(const PikeRecord&, const PikeRecord&) = default;
};

struct PikeRecordKeyOf {
   const PikeKey& operator()(const PikeRecord& r) const noexcept { return r.key; }
};

// How a collection's key type becomes the bytes of PikeKey::key. Types with a fixed byte form
// (kSerializedSize, serialize, static deserialize) use it; plain integer-like types without
// padding use their object bytes; others specialize KeyCodec.
template <class K>
struct KeyCodec {
   static uint32_t encode(const K& k, uint8_t* out) {
      if constexpr (requires { K::kSerializedSize; }) {
         static_assert(K::kSerializedSize <= PikeKey::kMaxKeyBytes);
         k.serialize(out);
         return K::kSerializedSize;
      } else {
         static_assert(
             std::is_trivially_copyable_v<K> && std::has_unique_object_representations_v<K>,
             "a Pike key type without a byte form must specialize Pike::KeyCodec");
         static_assert(sizeof(K) <= PikeKey::kMaxKeyBytes);
         std::memcpy(out, &k, sizeof(K));
         return sizeof(K);
      }
   }
   // Throws Vela::Exception when the bytes are not a K.
   static K decode(const uint8_t* in, uint32_t len) {
      if constexpr (requires { K::kSerializedSize; }) {
         if (len != K::kSerializedSize) throw Vela::Exception("Pike key of the wrong length");
         return K::deserialize(in);
      } else {
         if (len != sizeof(K)) throw Vela::Exception("Pike key of the wrong length");
         K k;
         std::memcpy(&k, in, sizeof(K));
         return k;
      }
   }
};

template <class K>
PikeKey pikeKeyOf(uint64_t owner, Vela::AttributeId collection, const K& key) {
   PikeKey p;
   p.owner = owner;
   p.collection = collection.value;
   p.keyLen = KeyCodec<K>::encode(key, p.key);
   return p;
}

}  // namespace Pike
