// Little-endian loads and stores for the fixed byte forms, independent of the host's byte order
// and of alignment: every multi-byte integer in a Wirekit byte form goes through these.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Wirekit::ByteForm {

// On a little-endian host the byte form is the integer's own image, so the copy is one move;
// elsewhere the bytes are assembled one by one.
template <typename T>
inline void storeLe(uint8_t* out, T value) noexcept {
   static_assert(std::is_integral_v<T>);
   if constexpr (std::endian::native == std::endian::little) {
      std::memcpy(out, &value, sizeof(T));
   } else {
      for (size_t i = 0; i < sizeof(T); ++i) {
         out[i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
      }
   }
}

template <typename T>
inline T loadLe(const uint8_t* in) noexcept {
   static_assert(std::is_integral_v<T>);
   if constexpr (std::endian::native == std::endian::little) {
      T v;
      std::memcpy(&v, in, sizeof(T));
      return v;
   } else {
      uint64_t v = 0;
      for (size_t i = 0; i < sizeof(T); ++i) {
         v |= static_cast<uint64_t>(in[i]) << (8 * i);
      }
      return static_cast<T>(v);
   }
}

// True when all `len` bytes are zero (padding and unused places must be).
inline bool allZero(const uint8_t* in, size_t len) noexcept {
   for (size_t i = 0; i < len; ++i) {
      if (in[i] != 0) return false;
   }
   return true;
}

}  // namespace Wirekit::ByteForm
