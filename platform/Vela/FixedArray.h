// FixedArray: a collection of at most Capacity values stored in place (no heap) with an explicit
// count, the shape of every via and tunnel-id collection of the entries. It lives inside records
// that are copied byte for byte into shared memory, so it is a plain aggregate of its storage:
//
//    struct FixedArray<T, Index, Capacity> {
//       T        items[Capacity];   // places 0..count-1 are live; places past count keep old
//       contents uint32_t count;
//    };
//
// Places are written with is(i, v), which grows the count to i + 1 when needed. Deletion keeps the
// live range free of a trailing hole:
//   - i at or past the count: nothing changes, T{} is returned;
//   - i is the last live place: the count drops to i, then further over every trailing place that
//     holds T{}; the contents of the dropped places are left as they were;
//   - otherwise place i becomes T{} (a hole) and the count stays.
// Because a shrinking count leaves old contents behind, a later is() past the count revives the
// places in between with whatever they held. That is the collection's designed behaviour.
#pragma once

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "Vela/ArraySizeError.h"
#include "Vela/Assert.h"
#include "Vela/BoundedIndex.h"

namespace Vela {

template <typename T, typename Index, size_t Capacity>
class FixedArray {
   static_assert(Capacity > 0 && Capacity <= UINT32_MAX);

   template <bool Const>
   class Iter;

  public:
   using value_type = T;
   using index_type = Index;
   using iterator = Iter<false>;
   using const_iterator = Iter<true>;

   static constexpr size_t capacity() noexcept { return Capacity; }

   // Stores v at place i; returns the stored value.
   const T& is(Index i, const T& v) {
      const size_t p = position(i);
      items_[p] = v;
      count_ = std::max<uint32_t>(count_, static_cast<uint32_t>(p + 1));
      return items_[p];
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

   // Empties the array. Like del(), leaves the places' contents behind.
   void delAll() noexcept { count_ = 0; }

   uint32_t count() const noexcept { return count_; }
   bool empty() const noexcept { return count_ == 0; }

   // The value at place i if it is live, T{} otherwise. Writes go through is().
   const T& operator[](Index i) const {
      const size_t p = position(i);
      return p < count_ ? items_[p] : emptyValue();
   }

   // Raw place access by number, live or not (byte-form readers and writers).
   // REQUIRES: i < Capacity.
   const T& at(uint32_t i) const {
      VELA_ASSERT(i < Capacity);
      return items_[i];
   }
   T& at(uint32_t i) {
      VELA_ASSERT(i < Capacity);
      return items_[i];
   }
   T* data() noexcept { return items_; }
   const T* data() const noexcept { return items_; }

   // Sets the count without looking at the places: for deserialization, which copies the places
   // and the count and then calls validateSize().
   void setCountUnchecked(uint32_t count) noexcept { count_ = count; }

   // Throws ArraySizeError if the count exceeds the capacity, dumping `buffer` (the bytes the
   // array was read from) or, without one, the array's own bytes.
   void validateSize() const { validateSize(this, sizeof(*this)); }
   void validateSize(const void* buffer, size_t bufferLen) const {
      if (count_ > Capacity) throw ArraySizeError::make(Capacity, count_, buffer, bufferLen);
   }

   iterator begin() noexcept { return iterator(items_); }
   iterator end() noexcept { return iterator(items_ + liveCount()); }
   const_iterator begin() const noexcept { return const_iterator(items_); }
   const_iterator end() const noexcept { return const_iterator(items_ + liveCount()); }

   // Equal counts and equal live places; what lies past the count does not matter.
   friend bool operator==(const FixedArray& a, const FixedArray& b) {
      return a.count_ == b.count_ && std::equal(a.begin(), a.end(), b.begin());
   }

  private:
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
      if (p >= count_) return T{};
      T removed = items_[p];
      if (p + 1 == count_) {
         count_ = static_cast<uint32_t>(p);
         while (count_ > 0 && items_[count_ - 1] == T{}) --count_;
      } else {
         items_[p] = T{};
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

   T items_[Capacity]{};
   uint32_t count_ = 0;
};

}  // namespace Vela
