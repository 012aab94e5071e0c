// The one-at-a-time hash, the hash of every key in the library, and an incremental mixer.
//
// oneAtATime is bit-exact with the published algorithm: per byte h += b; h += h << 10; h ^= h >> 6;
// then h += h << 3; h ^= h >> 11; h += h << 15, in unsigned 32-bit arithmetic. Integers are fed
// least significant byte first, whatever the host order, so shared-memory tables and in-process
// maps agree across processes.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>

namespace Vela {

constexpr uint32_t oneAtATimeStep(uint32_t h, uint8_t byte) noexcept {
   h += byte;
   h += h << 10;
   h ^= h >> 6;
   return h;
}

constexpr uint32_t oneAtATimeFinish(uint32_t h) noexcept {
   h += h << 3;
   h ^= h >> 11;
   h += h << 15;
   return h;
}

// Hash of `len` bytes, continuing from `seed` (0 for a fresh hash).
uint32_t oneAtATime(const void* data, size_t len, uint32_t seed = 0) noexcept;

// Hash of an integer's bytes, least significant first.
template <std::unsigned_integral T>
constexpr uint32_t oneAtATimeOf(T value, uint32_t seed = 0) noexcept {
   uint32_t h = seed;
   for (size_t i = 0; i < sizeof(T); ++i) {
      h = oneAtATimeStep(h, static_cast<uint8_t>(value >> (8 * i)));
   }
   return oneAtATimeFinish(h);
}

// Incremental form: feed bytes and integers in any number of steps, then finish once.
// HashMixer().add(a).add(b).finish() equals oneAtATime over the bytes of a then b.
class HashMixer {
  public:
   explicit constexpr HashMixer(uint32_t seed = 0) noexcept : h_(seed) {}
   HashMixer& addBytes(const void* data, size_t len) noexcept;
   template <std::unsigned_integral T>
   constexpr HashMixer& add(T value) noexcept {
      for (size_t i = 0; i < sizeof(T); ++i) {
         h_ = oneAtATimeStep(h_, static_cast<uint8_t>(value >> (8 * i)));
      }
      return *this;
   }
   constexpr uint32_t finish() const noexcept { return oneAtATimeFinish(h_); }

  private:
   uint32_t h_;
};

}  // namespace Vela
