// RecentCopies: the values a key-shadowing reader copied and deserialized last, each with the
// stamp of its copy, so that a consumer reading an entry it was just told about (in its callback,
// or later in the same batch) gets it without a second copy out of shared memory and a second
// deserialization.
//
// A kept value is handed out only while ShadowCore::stillCurrent(stamp) holds: the slot then holds
// exactly the copied bytes, so the answer is the one a fresh copy would give at that moment. A
// write after the copy fails the check and the read copies afresh: a newer value is never hidden.
//
// Bounded: kCapacity values, the oldest replaced first (a value kept for the same slot is reused).
// A value is made the first time its place is used and reused from then on, so a steady reader
// allocates nothing per change.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "store/reader/ShadowCore.h"

namespace Dock {

template <class V>
class RecentCopies {
  public:
   // Enough for a consumer that re-reads the keys of one batch a turn later; each place holds a
   // whole value (fixed-capacity entries are tens of kilobytes), so the count stays small.
   static constexpr uint32_t kCapacity = 16;

   struct Copy {
      CopyStamp stamp;
      V value{};
   };

   RecentCopies() { slots_.fill(kNone); }

   // The value to deserialize slot `slot` into: the place kept for the slot, else the oldest.
   // The place holds no kept value until keep().
   V& fill(uint32_t slot) {
      uint32_t i = find(slot);
      if (i == kCapacity) {
         i = next_;
         next_ = (next_ + 1) % kCapacity;
      }
      if (!places_[i]) places_[i] = std::make_unique<Copy>();
      slots_[i] = kNone;
      filling_ = i;
      return places_[i]->value;
   }
   // Keeps the value last filled, copied under `stamp`.
   void keep(const CopyStamp& stamp) {
      if (filling_ == kCapacity) return;
      places_[filling_]->stamp = stamp;
      slots_[filling_] = stamp.slot;
      filling_ = kCapacity;
   }
   // The value kept for `slot`, or nullptr.
   const Copy* kept(uint32_t slot) const {
      const uint32_t i = find(slot);
      return i == kCapacity ? nullptr : places_[i].get();
   }
   void clear() {
      slots_.fill(kNone);
      filling_ = kCapacity;
   }

  private:
   // The place kept for `slot`, or kCapacity. The slots sit together, apart from the values, so
   // that a search touches one cache line.
   uint32_t find(uint32_t slot) const {
      if (slot == kNone) return kCapacity;
      for (uint32_t i = 0; i < kCapacity; ++i) {
         if (slots_[i] == slot) return i;
      }
      return kCapacity;
   }

   std::array<uint32_t, kCapacity> slots_;  // kNone: the place keeps no value
   std::array<std::unique_ptr<Copy>, kCapacity> places_;
   uint32_t next_ = 0;
   uint32_t filling_ = kCapacity;
};

}  // namespace Dock
