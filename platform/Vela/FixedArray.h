// FixedArray: a collection of at most Capacity values stored in place (no heap) with an explicit
// count, the shape of every via and tunnel-id collection of the entries. Entries hold arrays of
// 600 vias (about 45 KB), so construction and copying cost what the array holds, not its capacity:
// the places are raw storage, constructed lazily up to a high-water mark.
//
//    struct FixedArray<T, Index, Capacity> {
//       T        items[Capacity];  // raw storage: places 0..initialized-1 are constructed,
//                                  // places from there on are never touched
//       uint32_t count;            // places 0..count-1 are live
//       uint32_t initialized;      // high-water mark, >= min(count, Capacity)
//    };
//
// A place at or past the mark is the empty value T{} by definition; it is constructed as T{}
// only when something reaches past it (is(), a writable at()). Places between the count and the
// mark keep old contents.
//
// Places are written with is(i, v), which grows the count to i + 1 when needed. Deletion keeps the
// live range free of a trailing hole:
//   - i at or past the count: nothing changes, T{} is returned;
//   - i is the last live place: the count drops to i, then further over every trailing place that
//     holds T{}; the contents of the dropped places are left as they were;
//   - otherwise place i becomes T{} (a hole) and the count stays.
// Because a shrinking count leaves old contents behind, a later is() past the count revives the
// places in between with whatever they held (T{} for those at or past the mark). That is the
// collection's designed behaviour. A copy takes only the live places and sets its mark to its
// count, so it carries no stale place: growing a copy shows T{} where the original revives.
//
// T must be trivially copyable and trivially destructible: places are copied as bytes and never
// destroyed, and deserializers may fill them through data().
#pragma once

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <new>
#include <type_traits>

#include "Vela/ArraySizeError.h"
#include "Vela/Assert.h"
#include "Vela/BoundedIndex.h"

namespace Vela {

template <typename T, typename Index, size_t Capacity>
class FixedArray {
   static_assert(Capacity > 0 && Capacity <= UINT32_MAX);
   static_assert(std::is_trivially_copyable_v<T>, "FixedArray places are copied as bytes");
   static_assert(std::is_trivially_destructible_v<T>, "FixedArray places are never destroyed");

   template <bool Const>
   class Iter;

  public:
   using value_type = T;
   using index_type = Index;
   using iterator = Iter<false>;
   using const_iterator = Iter<true>;

   static constexpr size_t capacity() noexcept { return Capacity; }

   // Empty, with no place constructed. User-provided, so that value-initialising an array does
   // not zero its storage either.
   FixedArray() noexcept {}

   // Copies the live places only; the copy's mark is its count (it carries no stale place).
   FixedArray(const FixedArray& other) noexcept { copyLive(other); }
   FixedArray& operator=(const FixedArray& other) noexcept {
      if (this != &other) copyLive(other);
      return *this;
   }

   // Stores v at place i; returns the stored value. Places between the mark and i become T{}.
   const T& is(Index i, const T& v) {
      const size_t p = position(i);
      if (p < initialized_) {
         items()[p] = v;
      } else {
         constructEmpty(p);
         ::new (static_cast<void*>(items() + p)) T(v);
         initialized_ = static_cast<uint32_t>(p + 1);
      }
      count_ = std::max<uint32_t>(count_, static_cast<uint32_t>(p + 1));
      return items()[p];
   }

   // Removes place i by the deletion rule above; returns the value it held, or T{} if none.
   T del(Index i) { return delAt(position(i)); }

   // Removes the place `it` points at; returns an iterator to the place after it (end() if the
   // count shrank to or below it).
   // REQUIRES: begin() <= it < end().
   iterator del(iterator it) {
      const size_t p = static_cast<size_t>(it - begin());
      VELA_ASSERT(p < count_);
      delAt(p);
      return begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(p + 1, count_));
   }

   // Empties the array. Like del(), leaves the places' contents (and the mark) behind.
   void delAll() noexcept { count_ = 0; }

   uint32_t count() const noexcept { return count_; }
   bool empty() const noexcept { return count_ == 0; }

   // The value at place i if it is live, T{} otherwise. Writes go through is().
   const T& operator[](Index i) const {
      const size_t p = position(i);
      return p < count_ ? items()[p] : emptyValue();
   }

   // Raw place access by number, live or not (byte-form readers and writers): a place at or past
   // the mark reads as T{}. The writable form first constructs T{} in every place up to and
   // including i, so the caller may write the place partly.
   // REQUIRES: i < Capacity.
   const T& at(uint32_t i) const {
      VELA_ASSERT(i < Capacity);
      return i < initialized_ ? items()[i] : emptyValue();
   }
   T& at(uint32_t i) {
      VELA_ASSERT(i < Capacity);
      if (i >= initialized_) {
         constructEmpty(size_t{i} + 1);
         initialized_ = i + 1;
      }
      return items()[i];
   }

   // The storage, for bulk writers: places at or past the mark hold no value until written, and
   // setCountUnchecked() then declares them. Reading through data() is valid below the mark only.
   T* data() noexcept { return items(); }
   const T* data() const noexcept { return items(); }

   // Sets the count without looking at the places: for deserialization, which writes the places
   // (through at() or data()) and the count and then calls validateSize(). Raises the mark to the
   // count (never lowers it), taking the places written through data() as constructed.
   // REQUIRES: every place below min(count, Capacity) at or past the mark has been written.
   void setCountUnchecked(uint32_t count) noexcept {
      count_ = count;
      initialized_ =
          std::max(initialized_, static_cast<uint32_t>(std::min<size_t>(count, Capacity)));
   }

   // Throws ArraySizeError if the count exceeds the capacity, dumping `buffer` (the bytes the
   // array was read from) or, without one, the array's own bytes.
   void validateSize() const { validateSize(this, sizeof(*this)); }
   void validateSize(const void* buffer, size_t bufferLen) const {
      if (count_ > Capacity) throw ArraySizeError::make(Capacity, count_, buffer, bufferLen);
   }

   iterator begin() noexcept { return iterator(items()); }
   iterator end() noexcept { return iterator(items() + liveCount()); }
   const_iterator begin() const noexcept { return const_iterator(items()); }
   const_iterator end() const noexcept { return const_iterator(items() + liveCount()); }

   // Equal counts and equal live places; what lies past the count does not matter.
   friend bool operator==(const FixedArray& a, const FixedArray& b) {
      return a.count_ == b.count_ && std::equal(a.begin(), a.end(), b.begin());
   }

  private:
   // Objects of a trivially copyable T in the byte storage begin their lifetime by placement new
   // or, for places copied or filled as bytes, by implicit creation.
   T* items() noexcept { return reinterpret_cast<T*>(storage_); }
   const T* items() const noexcept { return reinterpret_cast<const T*>(storage_); }

   // Constructs T{} in the places from the mark up to (not including) `end`; the caller moves
   // the mark.
   void constructEmpty(size_t end) {
      for (size_t p = initialized_; p < end; ++p) ::new (static_cast<void*>(items() + p)) T{};
   }

   // Bytes, not element assignment: the places at or past this array's mark are not objects yet.
   void copyLive(const FixedArray& other) noexcept {
      const size_t n = other.liveCount();
      if (n > 0) std::memcpy(storage_, other.storage_, n * sizeof(T));
      count_ = other.count_;
      initialized_ = static_cast<uint32_t>(n);
   }

   static const T& emptyValue() {
      static const T empty{};
      return empty;
   }

   // Iteration never runs past the storage, even over an unvalidated count.
   size_t liveCount() const noexcept { return std::min<size_t>(count_, Capacity); }

   static size_t position(Index i) {
      size_t p;
      if constexpr (BoundedIndexType<Index>) {
         p = static_cast<size_t>(i.value() - Index::min().value());
      } else {
         static_assert(std::is_integral_v<Index>, "index is a bounded index or an integer");
         if constexpr (std::is_signed_v<Index>) VELA_ASSERT(i >= 0);
         p = static_cast<size_t>(i);
      }
      VELA_ASSERT(p < Capacity);
      return p;
   }

   T delAt(size_t p) {
      if (p >= count_) return T{};  // from here p < min(count, Capacity) <= mark
      T removed = items()[p];
      if (p + 1 == count_) {
         count_ = static_cast<uint32_t>(p);
         while (count_ > 0 && items()[count_ - 1] == T{}) --count_;
      } else {
         items()[p] = T{};
      }
      return removed;
   }

   template <bool Const>
   class Iter {
     public:
      using iterator_concept = std::contiguous_iterator_tag;
      using iterator_category = std::random_access_iterator_tag;
      using value_type = T;
      using difference_type = std::ptrdiff_t;
      using pointer = std::conditional_t<Const, const T*, T*>;
      using reference = std::conditional_t<Const, const T&, T&>;

      Iter() = default;
      explicit Iter(pointer p) : p_(p) {}
      operator Iter<true>() const { return Iter<true>(p_); }  // NOLINT: iterator to const_iterator

      reference operator*() const { return *p_; }
      pointer operator->() const { return p_; }
      reference operator[](difference_type n) const { return p_[n]; }
      Iter& operator++() {
         ++p_;
         return *this;
      }
      Iter operator++(int) { return Iter(p_++); }
      Iter& operator--() {
         --p_;
         return *this;
      }
      Iter operator--(int) { return Iter(p_--); }
      Iter& operator+=(difference_type n) {
         p_ += n;
         return *this;
      }
      Iter& operator-=(difference_type n) {
         p_ -= n;
         return *this;
      }
      friend Iter operator+(Iter it, difference_type n) { return Iter(it.p_ + n); }
      friend Iter operator+(difference_type n, Iter it) { return Iter(it.p_ + n); }
      friend Iter operator-(Iter it, difference_type n) { return Iter(it.p_ - n); }
      friend difference_type operator-(Iter a, Iter b) { return a.p_ - b.p_; }
      friend bool operator==(Iter a, Iter b) { return a.p_ == b.p_; }
      friend auto operator<=>(Iter a, Iter b) { return a.p_ <=> b.p_; }

     private:
      pointer p_ = nullptr;
   };

   // Left uninitialised on purpose: that is what keeps construction O(1) and copies O(count).
   alignas(T) std::byte storage_[Capacity * sizeof(T)];
   uint32_t count_ = 0;
   uint32_t initialized_ = 0;  // the high-water mark
};

}  // namespace Vela
