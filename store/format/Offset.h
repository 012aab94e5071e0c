// Tessel::Offset: where a value lives in the slabs. One 32-bit word (the slot's value word at
// offset 16): slab number (the size class) in bits 0..4, entry index within the slab in bits 5..31.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <ostream>
#include <string>

namespace Tessel {

struct Offset {
   static constexpr uint32_t kSlabBits = 5;
   static constexpr uint32_t kSlabMask = (1u << kSlabBits) - 1;
   static constexpr uint32_t kMaxIndex = (1u << (32 - kSlabBits)) - 1;

   uint32_t value = 0xFFFFFFFFu;

   constexpr uint32_t slab() const { return value & kSlabMask; }
   constexpr uint32_t index() const { return value >> kSlabBits; }
   // REQUIRES: slab < 32, index <= kMaxIndex.
   static constexpr Offset make(uint32_t slab, uint32_t index) {
      return Offset{(index << kSlabBits) | (slab & kSlabMask)};
   }
   static constexpr Offset fromWord(uint32_t word) { return Offset{word}; }
   constexpr bool operator==(const Offset&) const = default;
   // "Offset{ slab: <slab> index: <index> }"
   std::string toString() const {
      return fmt::format("Offset{{ slab: {} index: {} }}", slab(), index());
   }
};

inline std::ostream& operator<<(std::ostream& os, const Offset& o) {
   return os << o.toString();
}

}  // namespace Tessel

template <>
struct fmt::formatter<Tessel::Offset> : fmt::formatter<std::string> {
   template <typename FormatContext>
   auto format(const Tessel::Offset& o, FormatContext& ctx) const -> decltype(ctx.out()) {
      return fmt::formatter<std::string>::format(o.toString(), ctx);
   }
};
