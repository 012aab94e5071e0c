// Little-endian loads and stores for the fixed byte forms, independent of the host's byte order
// and of alignment: every multi-byte integer in a Wirekit byte form goes through these.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Wirekit::ByteForm {

template <typename T>
inline void storeLe(uint8_t* out, T value) noexcept {
   for (size_t i = 0; i < sizeof(T); ++i) {
      out[i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
   }
}

template <typename T>
inline T loadLe(const uint8_t* in) noexcept {
   uint64_t v = 0;
   for (size_t i = 0; i < sizeof(T); ++i) {
      v |= static_cast<uint64_t>(in[i]) << (8 * i);
   }
   return static_cast<T>(v);
}

// True when all `len` bytes are zero (padding and unused places must be).
inline bool allZero(const uint8_t* in, size_t len) noexcept {
   for (size_t i = 0; i < len; ++i) {
      if (in[i] != 0) return false;
   }
   return true;
}

}  // namespace Wirekit::ByteForm
