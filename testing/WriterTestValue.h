// A value type for the store's writer tests, so that deserialize() detects any torn or foreign
// copy: { uint64 key; uint32 version; uint32 count; uint8 vias[count][76]; uint32 check }, where
// check is checkOf() over all before it (by 8-byte words: cheap, and any change within one word
// changes it) and every via byte is a function of (key, version, index), compared one by one.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Vela/Exception.h"

namespace DockTest {

constexpr uint32_t kViaSize = 76;
constexpr uint32_t kMaxVias = 600;
// Largest serialized value plus the slab entry overhead fits this size-class bound.
constexpr uint32_t kMaxValueSize = 46168;

inline uint32_t checkOf(const uint8_t* b, size_t n) {
   uint64_t h = 0x9e3779b97f4a7c15ull ^ n;
   size_t i = 0;
   for (; i + 8 <= n; i += 8) {
      uint64_t w;
      std::memcpy(&w, b + i, 8);
      h = (h ^ w) * 0xff51afd7ed558ccdull;
      h ^= h >> 32;
   }
   uint64_t tail = 0;
   std::memcpy(&tail, b + i, n - i);
   h = (h ^ tail) * 0xc4ceb9fe1a85ec53ull;
   return uint32_t(h ^ (h >> 29));
}

struct Value {
   uint64_t key = 0;
   uint32_t version = 0;  // which write of the key this is
   uint32_t count = 0;    // vias

   Value() = default;
   Value(uint64_t k, uint32_t v, uint32_t n) : key(k), version(v), count(n) {}

   // Via bytes are a function of (key, version, index), so a reader can recompute them.
   static uint8_t viaByte(uint64_t key, uint32_t version, uint32_t i) {
      return uint8_t((key * 131 + version * 7 + i * 13) >> 1);
   }
   uint32_t serializeLen() const { return 8 + 4 + 4 + count * kViaSize + 4; }
   void serialize(void* buffer) const {
      auto* b = static_cast<uint8_t*>(buffer);
      // The fields in locals: a byte store through `b` may alias *this, which would make the
      // compiler reload them for every via byte (twenty instructions a byte instead of a few).
      const uint64_t k = key;
      const uint32_t v = version, n = count * kViaSize;
      std::memcpy(b, &k, 8);
      std::memcpy(b + 8, &v, 4);
      std::memcpy(b + 12, &count, 4);
      for (uint32_t i = 0; i < n; ++i) b[16 + i] = viaByte(k, v, i);
      const uint32_t check = checkOf(b, 16 + n);
      std::memcpy(b + 16 + n, &check, 4);
   }
   static uint32_t deserializeLen(const void* buffer, uint32_t available) noexcept {
      if (available < 16) return 0;
      uint32_t n;
      std::memcpy(&n, static_cast<const uint8_t*>(buffer) + 12, 4);
      const uint64_t len = 20ull + uint64_t(n) * kViaSize;
      return len <= available ? uint32_t(len) : 0;
   }
   void deserialize(const void* buffer, uint32_t length) {
      const auto* b = static_cast<const uint8_t*>(buffer);
      if (length < 20) throw Vela::Exception("value too short");
      uint32_t n;
      std::memcpy(&n, b + 12, 4);
      if (n > kMaxVias || length != 20 + n * kViaSize) {
         throw Vela::Exception("value length does not match its via count");
      }
      uint32_t check;
      std::memcpy(&check, b + 16 + n * kViaSize, 4);
      if (check != checkOf(b, 16 + n * kViaSize)) {
         throw Vela::Exception("value checksum mismatch");
      }
      std::memcpy(&key, b, 8);
      std::memcpy(&version, b + 8, 4);
      count = n;
      for (uint32_t i = 0; i < n * kViaSize; ++i) {
         if (b[16 + i] != viaByte(key, version, i)) throw Vela::Exception("via bytes mismatch");
      }
   }
   bool operator==(const Value&) const = default;
};

struct KeyOf {
   uint64_t operator()(const Value& v) const { return v.key; }
};

}  // namespace DockTest
