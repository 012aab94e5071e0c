// The deep check of a table's files: the slot table's free list, every occupied slot and the slab
// entry it names, the counts, and every slab's own walk. Run by the writer after re-attaching to
// existing files and on demand (`tunnelctl validate`). It throws Loom::CorruptionException with its
// first finding; the caller reports it ("Dock {} validation failed: {}").
//
// Walk, in order:
//   1. the free list from freeSlots: an index >= numSlots, or a slot reached twice;
//   2. every slot not on the free list is occupied: OCCUPIED must be set and LOOKASIDE clear; an
//      occupied slot that is also on the free list has been reached twice ("duplicate slot");
//   3. each occupied slot's entry: the lookup texts, then the clientData check;
//   4. free-list length + occupiedSlots must equal numSlots;
//   5. every slab's validation, then the count of entries that slots name against the slabs'
//      numOccupied.
#pragma once

#include <cstdint>
#include <string>

#include "store/format/Layout.h"
#include "store/slab/WriterAllocator.h"

namespace Dock {

struct DeepValidateCounts {
   uint32_t freeSlots = 0;
   uint32_t occupiedSlots = 0;
   uint64_t slabEntries = 0;
};

// REQUIRES: header's validateHeader passed for the mapping that holds `header` and the slots.
DeepValidateCounts deepValidate(const SlotTableHeader& header, Tessel::WriterAllocator& slabs);

// The whole check of a table directory, read-only: maps the slot table, validates its header
// (any relume) and runs deepValidate over the slabs attached read-only. Throws
// Loom::CorruptionException with the header's reason or the first finding, Region::Error when the
// slot table cannot be mapped. `maxAllocSize` is the table's LinearSizeConfig bound.
DeepValidateCounts validateTableFiles(const std::string& dir, uint32_t maxAllocSize);

}  // namespace Dock
