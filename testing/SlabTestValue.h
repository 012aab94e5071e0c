// A value type for the slab allocator's tests: a key and 1 to 600 "vias" of 76 bytes, with a
// trailing checksum so that a torn or misplaced copy is detected on deserialize.
//
//   offset  width      field
//        0      8      key
//        8      4      via count n
//       12      76*n   vias (each byte derived from key, via index and a generation)
//   12+76n      4      one-at-a-time hash of the preceding bytes
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "store/slab/WriterAllocator.h"

namespace Tessel::Testing {

struct ViaValue {
   static constexpr uint32_t kViaSize = 76;
   uint64_t key = 0;
   std::vector<uint8_t> vias;  // n * kViaSize bytes

   ViaValue() = default;
   ViaValue(uint64_t k, uint32_t n, uint32_t generation = 0) : key(k), vias(n * kViaSize) {
      for (size_t i = 0; i < vias.size(); ++i) vias[i] = uint8_t(k * 31 + i * 7 + generation);
   }
   uint32_t count() const { return uint32_t(vias.size() / kViaSize); }

   uint32_t serializeLen() const { return 12 + uint32_t(vias.size()) + 4; }
   void serialize(void* buffer) const {
      auto* p = static_cast<uint8_t*>(buffer);
      const uint32_t n = count();
      std::memcpy(p, &key, 8);
      std::memcpy(p + 8, &n, 4);
      if (!vias.empty()) std::memcpy(p + 12, vias.data(), vias.size());
      const uint32_t h = Vela::oneAtATime(p, 12 + vias.size());
      std::memcpy(p + 12 + vias.size(), &h, 4);
   }
   static uint32_t deserializeLen(const void* buffer, uint32_t available) noexcept {
      if (available < 12) return 0;
      uint32_t n;
      std::memcpy(&n, static_cast<const uint8_t*>(buffer) + 8, 4);
      const uint64_t len = 16 + uint64_t(n) * kViaSize;
      return len <= available ? uint32_t(len) : 0;
   }
   void deserialize(const void* buffer, uint32_t length) {
      const auto* p = static_cast<const uint8_t*>(buffer);
      if (deserializeLen(buffer, length) != length) throw Vela::Exception("ViaValue: bad length");
      uint32_t n, h;
      std::memcpy(&n, p + 8, 4);
      std::memcpy(&h, p + 12 + size_t(n) * kViaSize, 4);
      if (h != Vela::oneAtATime(p, 12 + size_t(n) * kViaSize)) {
         throw Vela::Exception("ViaValue: bad checksum");
      }
      std::memcpy(&key, p, 8);
      vias.assign(p + 12, p + 12 + size_t(n) * kViaSize);
   }
   bool operator==(const ViaValue&) const = default;
};

// Serializes `value` into a new entry of `allocator` naming `slot` (as the table's writer does).
inline SlabValue storeValue(WriterAllocator& allocator, uint32_t slot, const ViaValue& value) {
   std::vector<uint8_t> bytes(value.serializeLen());
   value.serialize(bytes.data());
   return allocator.store(slot, bytes.data(), uint32_t(bytes.size()));
}

}  // namespace Tessel::Testing
