// Size classes of the slab allocator: the class of an allocation size and each class's entry size.
#include "store/slab/LinearSizeConfig.h"

#include "Vela/Assert.h"
#include "store/format/Layout.h"

namespace Tessel {

static_assert(kEntryOverhead == Dock::kSlabEntryHeaderSize);

LinearSizeConfig::LinearSizeConfig(uint32_t maxAllocSize)
    : max_(maxAllocSize), width_(maxAllocSize / kNumClasses + 1) {
   VELA_ASSERT(maxAllocSize >= 1 && maxAllocSize <= kMaxAllocSizeLimit);
}

uint32_t LinearSizeConfig::entrySize(uint32_t cls) const {
   VELA_ASSERT(cls < kNumClasses);
   return (Dock::kSlabEntryHeaderSize + (cls + 1) * width_ + 7) / 8 * 8;
}

uint32_t LinearSizeConfig::maxPayload(uint32_t cls) const {
   return entrySize(cls) - Dock::kSlabEntryHeaderSize;
}

}  // namespace Tessel
