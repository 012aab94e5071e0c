// Bounded index types: an unsigned integer that can only hold values in [Min, Max].
//
// The index types of the fixed-capacity collections (ViaIndex 0-599, TepIndex 0-15, ...) are
// instances of BoundedIndex. Building one from an integer, incrementing it or adding to it checks
// the bounds and throws the runtime's range exception naming the type:
//    "<Tag::typeName>::value < <Tag::typeName>::min or > <Tag::typeName>::max not allowed"
// Conversion from any integer type is implicit (and checked), so `vias.is(3, via)` reads naturally.
//
//    struct ViaIndexTag { static constexpr const char* typeName = "Tunnel::TunnelTable::ViaIndex";
//    }; using ViaIndex = Vela::BoundedIndex<ViaIndexTag, uint16_t, 0, 599>;
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <ostream>
#include <utility>

#include "Vela/Exception.h"

namespace Vela {

using Id64 = uint64_t;

constexpr uint8_t maxU8() noexcept {
   return std::numeric_limits<uint8_t>::max();
}
constexpr uint16_t maxU16() noexcept {
   return std::numeric_limits<uint16_t>::max();
}
constexpr uint32_t maxU32() noexcept {
   return std::numeric_limits<uint32_t>::max();
}
constexpr uint64_t maxU64() noexcept {
   return std::numeric_limits<uint64_t>::max();
}

template <typename Tag, typename Rep, Rep Min, Rep Max>
class BoundedIndex {
   static_assert(std::unsigned_integral<Rep>, "a bounded index is unsigned");
   static_assert(Min <= Max, "empty range");

  public:
   using RepType = Rep;
   using TagType = Tag;
   static constexpr size_t capacity = static_cast<size_t>(Max) - static_cast<size_t>(Min) + 1;

   static constexpr BoundedIndex min() noexcept { return BoundedIndex(Unchecked{}, Min); }
   static constexpr BoundedIndex max() noexcept { return BoundedIndex(Unchecked{}, Max); }

   constexpr BoundedIndex() noexcept : value_(Min) {}

   // Checked: throws RangeException when v is outside [Min, Max]. Accepts any integer type, signed
   // or wider than Rep, and compares it exactly (no truncation before the check).
   template <std::integral I>
   requires(!std::same_as<I, bool>) constexpr BoundedIndex(I v)
       : value_(check(v)) {}  // NOLINT: implicit by design

   constexpr Rep value() const noexcept { return value_; }

   constexpr BoundedIndex& operator++() {
      if (value_ == Max) throw rangeError();
      ++value_;
      return *this;
   }
   constexpr BoundedIndex operator++(int) {
      BoundedIndex old = *this;
      ++*this;
      return old;
   }
   template <std::integral I>
   constexpr BoundedIndex& operator+=(I n) {
      // Widened to the largest type so the sum cannot wrap before the check.
      if constexpr (std::is_signed_v<I>) {
         value_ = check(static_cast<intmax_t>(value_) + static_cast<intmax_t>(n));
      } else {
         if (static_cast<uintmax_t>(n) > static_cast<uintmax_t>(Max - value_)) throw rangeError();
         value_ = static_cast<Rep>(value_ + n);
      }
      return *this;
   }

   friend constexpr bool operator==(BoundedIndex a, BoundedIndex b) noexcept {
      return a.value_ == b.value_;
   }
   friend constexpr std::strong_ordering operator<=>(BoundedIndex a, BoundedIndex b) noexcept {
      return a.value_ <=> b.value_;
   }

   // Text form: the decimal number (an 8-bit index prints as a number, not a character).
   friend std::ostream& operator<<(std::ostream& os, BoundedIndex i) {
      return os << static_cast<uintmax_t>(i.value_);
   }

  private:
   struct Unchecked {};
   constexpr BoundedIndex(Unchecked, Rep v) noexcept : value_(v) {}

   static RangeException rangeError() { return RangeException::forType(Tag::typeName); }

   template <std::integral I>
   static constexpr Rep check(I v) {
      if (std::cmp_less(v, Min) || std::cmp_greater(v, Max)) throw rangeError();
      return static_cast<Rep>(v);
   }

   Rep value_;
};

// True for every BoundedIndex instance; lets containers accept bounded and plain integer indices.
template <typename T>
concept BoundedIndexType = requires {
   typename T::TagType;
   typename T::RepType;
   { T::capacity } -> std::convertible_to<size_t>;
   { T::min().value() } -> std::convertible_to<typename T::RepType>;
};

}  // namespace Vela
