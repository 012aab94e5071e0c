// SlabIntent: the writer's record of the slab operation it is in the middle of, so that a writer
// killed between two bookkeeping stores costs a repair of one slab instead of the whole table.
//
// A slab's bookkeeping is several words stored one after another: the header's freeList,
// numOccupied and numEntries, and each entry's payloadSize and clientData (the free-list link).
// A SIGKILL between two of them leaves a slab whose walk fails validation ("found N occupied
// entries, but header's numOccupied: M"), which in an untouched file is corruption. The writer
// therefore records which slab it is changing before the first of those stores and clears the
// record after the last; on attach, a recorded operation is repaired and only then is the slab
// validated. A mismatch without a record is still reported as corruption.
//
// Repair (SlabWriter::repair). Each entry's payloadSize word is the truth about that entry: it is
// stored once per operation, so an interrupted operation has either stored it or not. The repair
// keeps every entry as its payloadSize says and rebuilds the rest from it: the free list (every
// entry in [0, numEntries) with a negative size, ascending) and numOccupied (the others). That
// finishes or rolls back each operation at every store boundary:
//   alloc   size still negative: rolled back (the entry is free again); size 0: finished, and the
//           entry, which no slot names, is reclaimed by the table's own recovery.
//   free    size negative: finished; else rolled back (the slot no longer names the entry, so the
//           table's recovery frees it).
//   grow    numEntries is stored after the new entries are formatted: until then the grown tail
//           is ignored (rolled back; the longer file is harmless); after it, finished.
//   shrink  numEntries is either the old or the new count; both prefixes are consistent. (The
//           free list relinked in ascending order, SlabWriter::relinkFreeList, is a shrink that
//           keeps numEntries.)
// Repair is idempotent: a writer killed while repairing leaves the record set and the next one
// repairs again.
//
// Invariant, at every instruction of the writer: either the record is idle and every slab's
// bookkeeping agrees with its entries' payloadSize words (numOccupied counts the non-negative
// ones, the free list links exactly the negative ones within numEntries), or the record names
// the one slab where that may not hold. The stores outside a record keep the first case: an
// entry's clientData and payloadSize >= 0 set by a store into an allocated entry (an occupied
// entry no slot names is the table's recovery's to free), the relume stamp, the resize counter.
// Files a slab is created in are formatted under a temporary name (removeStrayFiles), and a
// slot-file shrink's move, which briefly leaves a key in two slots, is finished by the table's
// recovery (WriterCore::dropInterruptedMove).
//
// Store order, per operation: record.op = (kind << 8 | slab); the operation's stores; record.op
// = 0. A process stopped by a signal has executed exactly a prefix of its instructions and the
// kernel keeps every store of that prefix in the shared pages, so only the compiler may reorder;
// the signal fences at begin() and end() forbid it (they emit no instruction). Readers never
// open this file.
//
// File <table dir>/slabs.intent, mode 0644 like every table file, written by the writer only:
// IntentRecord in format/Layout.h.
//
// Cost on the hot path: two plain stores to one line that every allocation and free touches.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Region/MappedFile.h"
#include "store/format/Layout.h"

namespace Tessel {

using Dock::IntentRecord;
using Dock::kIntentFile;
using Dock::kIntentMagic;
using Dock::kIntentSize;
using Dock::kIntentVersion;

enum class SlabOp : uint32_t { kIdle = 0, kAlloc = 1, kFree = 2, kGrow = 3, kShrink = 4 };
const char* slabOpName(SlabOp op);

// The operation a slab writer records. A SlabWriter without a table (tests, tools) records into
// a private word, so the stores are the same on every path.
struct SlabIntent {
   std::atomic<uint32_t>* word;

   void begin(SlabOp op, uint32_t slab) {
      word->store(uint32_t(op) << 8 | slab, std::memory_order_relaxed);
      // Compiler-only: the record precedes every bookkeeping store of the operation.
      std::atomic_signal_fence(std::memory_order_seq_cst);
   }
   void end() {
      // Compiler-only: every bookkeeping store of the operation precedes the clear.
      std::atomic_signal_fence(std::memory_order_seq_cst);
      word->store(0, std::memory_order_relaxed);
   }
};

// The table's intent file.
class IntentFile {
  public:
   // Opens <dir>/slabs.intent, making (or re-making, when it is not a valid record) an idle one.
   // Throws Region::Error.
   void open(const std::string& dir);
   void close() { file_.close(); }
   bool isOpen() const { return bool(file_); }
   std::atomic<uint32_t>* word() const { return &record()->op; }
   // The recorded operation and its slab; kIdle when none.
   SlabOp op() const { return SlabOp(word()->load(std::memory_order_relaxed) >> 8); }
   uint32_t slab() const { return word()->load(std::memory_order_relaxed) & 0xff; }
   void clear() { SlabIntent{word()}.end(); }

  private:
   IntentRecord* record() const { return reinterpret_cast<IntentRecord*>(file_.data()); }
   Region::MappedFile file_;
};

// Test hook: the points between the bookkeeping stores of each operation, where a test can end
// the process to leave exactly what a SIGKILL there leaves. Null in production: one predictable
// branch per point.
enum class StorePoint {
   kAllocPopped,        // alloc: freeList advanced
   kAllocUnlinked,      // alloc: the entry's clientData cleared
   kAllocSized,         // alloc: the entry's payloadSize 0
   kAllocCounted,       // alloc: numOccupied incremented (record still set)
   kFreeMarked,         // free: payloadSize -1
   kFreeLinked,         // free: clientData links to the old head
   kFreeHeaded,         // free: freeList names the entry
   kFreeCounted,        // free: numOccupied decremented (record still set)
   kGrowExtended,       // grow: the file is longer, nothing formatted
   kGrowHalfFormatted,  // grow: half of the new entries formatted
   kGrowListed,         // grow: freeList names the first new entry
   kGrowCounted,        // grow: numEntries stored
   kGrowVersioned,      // grow: resize counter advanced (record still set)
   kShrinkRelinked,     // shrink: free entries below the target relinked
   kShrinkHeaded,       // shrink: freeList stored
   kShrinkCounted,      // shrink: numEntries stored
   kMovePublished,      // slot-file shrink: a moved value's new slot published, the old one not
                        // yet cleared (WriterCore::moveSlot)
};
using StoreHook = void (*)(StorePoint);
extern StoreHook storeHook;
inline void storePoint(StorePoint p) {
   if (storeHook) [[unlikely]]
      storeHook(p);
}

// Removes the table files a writer killed while creating them left under a temporary name:
// "slab.NN.<pid>.tmp", "herald.<pid>.tmp" and "relume.tmp.<pid>". Only the table's writer (the
// owner file's lock holder) may call it: the names are the writer's own until renamed into place.
// Returns how many it removed.
uint32_t removeStrayFiles(const std::string& dir);

}  // namespace Tessel
