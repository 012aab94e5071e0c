// Size classes of the slab allocator: 32 classes of equal width over allocation sizes 1..M, where
// M (maxAllocSize) is fixed per value type. Width W = M / 32 + 1; a request of n bytes falls in
// class (n - 1) / W, so class k serves k*W + 1 .. (k+1)*W. Each class is one slab file.
//
// An allocation size is the value's serialized length plus kEntryOverhead (the slab entry's own
// header). An entry of class k is kSlabEntryHeaderSize + (k+1)*W bytes rounded up to 8, so its
// payload capacity (maxPayload) is at least (k+1)*W, and payloads stay 8-byte aligned.
#pragma once

#include <cstdint>

namespace Tessel {

constexpr uint32_t kNumClasses = 32;
// Fixed overhead added to a value's serialized length to form its allocation size.
constexpr uint32_t kEntryOverhead = 16;

class LinearSizeConfig {
  public:
   // REQUIRES: 1 <= maxAllocSize <= kMaxAllocSizeLimit.
   explicit LinearSizeConfig(uint32_t maxAllocSize);
   static constexpr uint32_t kMaxAllocSizeLimit = 1u << 26;

   uint32_t maxAllocSize() const { return max_; }
   uint32_t width() const { return width_; }
   // REQUIRES: 1 <= size <= maxAllocSize().
   uint32_t classOf(uint32_t size) const { return (size - 1) / width_; }
   // Bytes of one entry of class `cls` (header included). REQUIRES: cls < kNumClasses.
   uint32_t entrySize(uint32_t cls) const;
   uint32_t maxPayload(uint32_t cls) const;
   // Number of classes that sizes up to M reach: classOf(M) + 1.
   uint32_t classesInUse() const { return classOf(max_) + 1; }

  private:
   uint32_t max_;
   uint32_t width_;
};

}  // namespace Tessel
