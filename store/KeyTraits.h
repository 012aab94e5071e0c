// How the store hashes a key.
//
// hash() places a key in a bucket chain: the one-at-a-time hash over the key's object bytes,
// started from the table's hashSeed (stored in the slot table header). One-at-a-time is the
// library's key hash everywhere; it is cheap on the short keys tables use, mixes every byte, and a
// per-table seed keeps two tables from sharing collision patterns. Every process that maps a table
// computes the same value, so readers may walk the writer's chains.
//
// secondary() is a second, independent 64-bit fingerprint that a reader's shadow index stores next
// to a slot to reject most non-matching slots without copying them: the key itself (zero-extended)
// when the key fits in 8 bytes - then it is exact - else 64-bit FNV-1a over the key's bytes.
//
// The defaults read the key's object representation, so they require a key type without padding
// or other non-unique representations; any other key type specializes KeyTraits.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "Vela/Hash.h"

namespace Dock {

template <class K>
struct KeyTraits {
   static_assert(std::is_trivially_copyable_v<K>, "a store key must be trivially copyable");
   static_assert(std::has_unique_object_representations_v<K>,
                 "a key with padding or floating point members must specialize Dock::KeyTraits");

   // The same value as Vela::oneAtATime(&key, sizeof(K), seed), inlined: the length is a
   // constant here, so the byte loop unrolls into the writer's lookup instead of a library call.
   static uint32_t hash(const K& key, uint32_t seed) noexcept {
      unsigned char bytes[sizeof(K)];
      std::memcpy(bytes, &key, sizeof(K));
      uint32_t h = seed;
      for (size_t i = 0; i < sizeof(K); ++i) h = Vela::oneAtATimeStep(h, bytes[i]);
      return Vela::oneAtATimeFinish(h);
   }

   static uint64_t secondary(const K& key) noexcept {
      if constexpr (sizeof(K) <= sizeof(uint64_t)) {
         uint64_t v = 0;
         std::memcpy(&v, &key, sizeof(K));
         return v;
      } else {
         // FNV-1a, 64-bit: independent of the one-at-a-time hash used for buckets.
         const auto* p = reinterpret_cast<const unsigned char*>(&key);
         uint64_t h = 0xcbf29ce484222325ull;
         for (size_t i = 0; i < sizeof(K); ++i) {
            h ^= p[i];
            h *= 0x100000001b3ull;
         }
         return h;
      }
   }
};

}  // namespace Dock
