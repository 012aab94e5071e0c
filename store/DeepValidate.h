// The deep check of a table's files: the slot table's free list, every occupied slot and the slab
// entry it names, the counts, every slab's own walk, and (for a table directory) the relume,
// bucket, herald and intent files. Run by the writer after re-attaching to existing files and on
// demand (`tunnelctl validate`). It throws Loom::CorruptionException with its first finding; the
// caller reports it ("Dock {} validation failed: {}").
//
// Walk of the slots, in order:
//   1. the free list from freeSlots: an index >= numSlots, or a slot reached twice;
//   2. every slot not on the free list is occupied: OCCUPIED must be set and LOOKASIDE clear; an
//      occupied slot that is also on the free list has been reached twice ("duplicate slot");
//   3. each occupied slot's entry: the lookup texts, then Tessel::checkSlotEntry (clientData,
//      recorded length, entry check);
//   4. free-list length + occupiedSlots must equal numSlots;
//   5. every slab's validation, then the count of entries that slots name against the slabs'
//      numOccupied.
//
// Against a live writer (validateTableFiles). A walk reads words the writer is changing, so a
// finding may be a change seen half done. Each slot is copied under its flags word (SeqRead), and
// the whole walk is bracketed by the table's version state: every file's identity, size and
// header bytes (the slot table's sizeWord, counts and relume, the herald's writerPos, each slab's
// resize counter and counts, the bucket sizeWord, the relume and intent records). Every change
// the writer makes moves one of them: each publication, removal and move advances writerPos, and
// the stores it makes after posting (freeing the entry and the slot) move the slab and slot
// counts. A finding counts only when it is made again by two more walks, after pauses long enough
// for any change under way to end, with that state unchanged from the first walk's start to the
// last one's end; any other finding starts the whole walk again, a bounded number of times, and
// then the answer is TableBusy, never corruption.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Vela/Exception.h"
#include "store/format/Layout.h"
#include "store/slab/WriterAllocator.h"

namespace Dock {

struct DeepValidateCounts {
   uint32_t freeSlots = 0;
   uint32_t occupiedSlots = 0;
   uint64_t slabEntries = 0;
   uint32_t walks = 0;  // whole walks validateTableFiles took
};

// The table changed under every walk: nothing is known about it. Not corruption; try again.
class TableBusy : public Vela::Exception {
  public:
   using Vela::Exception::Exception;
};

// The hash under `hashSeed` of the key of the value whose byte form is value[0, length), as the
// table's KeyTraits computes it (it throws for bytes that are no value). The store is untyped;
// whoever knows the table's value type passes it, so that the walk can check the keyHash word
// readers compare before anything else: a damaged one hides its key from every lookup.
using KeyHashOf = std::function<uint32_t(const uint8_t* value, uint32_t length, uint32_t hashSeed)>;

// The finding for a slot whose keyHash word is not its key's hash.
std::string keyHashMismatch(uint32_t slot, uint32_t stored, uint32_t computed);

// REQUIRES: header's validateHeader passed for the mapping that holds `header` and the slots,
// and no other process changes the table (the writer's own check; the writer checks each slot's
// keyHash as it rebuilds its index).
DeepValidateCounts deepValidate(const SlotTableHeader& header, Tessel::WriterAllocator& slabs);

// How long validateTableFiles keeps trying against a table that changes.
struct ValidatePatience {
   uint32_t walks = 20;  // whole walks before the answer is TableBusy
   // The pauses before each walk that must find the same thing again; none for files nothing
   // changes (a tool's own copy, a test).
   std::vector<std::chrono::milliseconds> confirm = {std::chrono::milliseconds(5),
                                                     std::chrono::milliseconds(50)};
};

// The whole check of a table directory, read-only, against a live writer or none: the slot table
// header (read without mapping, so "bad file size:{}" for a file too large to map), the slots and
// slabs (attached read-only), the relume file and every slot and slab header's relume against
// it, the bucket file, the herald and the intent file. Throws Loom::CorruptionException with
// a confirmed finding, Region::Error when a file cannot be opened (the same confirmation), or
// TableBusy. `maxAllocSize` is the table's LinearSizeConfig bound; with `keyHash`, every occupied
// slot's keyHash word is checked against its value's key.
DeepValidateCounts validateTableFiles(const std::string& dir, uint32_t maxAllocSize,
                                      const ValidatePatience& patience = {},
                                      const KeyHashOf& keyHash = {});

}  // namespace Dock
