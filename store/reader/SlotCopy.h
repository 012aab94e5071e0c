// SlotCopy: the consistent copies of slots every reader read of the slot table goes through.
//
// The writer's publishing order makes a slot's flags word the version word of the slot (SeqRead):
//    replacement:  lookaside = new words; flags += 2 (LOOKASIDE); slot words = new; flags += 2
//    insertion:    slot words = new; flags = old + 4 | OCCUPIED
// so a reader takes the value words from the header's lookaside area when LOOKASIDE is set (and the
// lookaside names this slot) or from the slot otherwise, all under one SeqRead of the flags word.
// The value bytes themselves are copied out of the slab under the same SeqRead, before its
// re-check, so it covers the payload too: a replacement always writes a new slab entry before it
// publishes and frees the old one only after. The copied entry must name the slot in its
// clientData, hold exactly the slot's length and match its check (slab/EntryCheck.h), else the
// copy is retried.
//
// Retry policy: a copy whose flags word changed under it is retried without limit - the writer is
// making progress, and each write is a handful of stores - yielding the processor every
// kYieldAfter tries so that a writer preempted mid-write on the same core can finish. A copy that
// fails its checks while the flags word stays the same (the LOOKASIDE bit set while the lookaside
// names another slot, an entry that cannot be read, names another slot, holds another length or
// fails its check) cannot be explained by a concurrent write: every intermediate state of the
// writer's protocol reads consistently (a stale slab mapping is followed inside
// ReaderAllocator::copy, a restart is told apart by the relume). After kCorruptAfter such tries
// the copy raises Loom::CorruptionException with the reason.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Vela/Exception.h"
#include "store/format/Layout.h"
#include "store/format/SeqRead.h"

namespace Tessel {
class ReaderAllocator;
}

namespace Dock {

// Raised by a copy that keeps failing because the writer restarted under it: the slot table now
// carries another relume than the one the reader attached under (a restarted writer re-stamps the
// slot table before any slab). The reader re-attaches; it is not corruption.
class WriterRestarted : public Vela::Exception {
  public:
   using Vela::Exception::Exception;
};

// A private copy of a slot's words, the value words resolved through the lookaside area.
struct SlotImage {
   uint32_t next = kNone;
   uint32_t keyHash = 0;
   uint32_t flags = 0;
   uint32_t heraldPos = 0;
   uint32_t offset = kNone;
   uint32_t length = 0;

   bool occupied() const { return (flags & kOccupied) != 0; }
};

struct SlotCopyPolicy {
   static constexpr uint32_t kYieldAfter = 64;
   // Stable failures are never a concurrent write (above), so this bound is a margin, not a wait
   // for the writer: 1024 tries, 16 of them yielding, cost well under a millisecond for a small
   // entry and a few milliseconds for the largest, where a bound in the hundred thousands held a
   // reader at full CPU for seconds on a damaged file.
   static constexpr uint32_t kCorruptAfter = 1024;
};

// The slot's words under `read` (begun on slot.flags), the value words from the lookaside area
// when LOOKASIDE is set. False when the lookaside names another slot (then `named` holds it): no
// state to copy yet, or a damaged file when the flags word stays the same.
inline bool readSlotWords(const SeqRead<uint32_t>& read, const SlotTableHeader& header,
                          const Slot& slot, uint32_t index, SlotImage& out, uint32_t& named) {
   out.flags = read.begin();
   out.next = read.load(slot.next);
   out.keyHash = read.load(slot.keyHash);
   out.heraldPos = read.load(slot.heraldPos);
   if (out.flags & kLookaside) {
      named = read.load(header.lookaside.slot);
      if (named != index) return false;
      out.offset = read.load(header.lookaside.offset);
      out.length = read.load(header.lookaside.length);
   } else {
      out.offset = read.load(slot.offset);
      out.length = read.load(slot.length);
   }
   return true;
}

// One attempt: false when the copy overlapped a write of the slot.
inline bool trySlotCopy(const SlotTableHeader& header, const Slot& slot, uint32_t index,
                        SlotImage& out) {
   const SeqRead<uint32_t> read(slot.flags);
   uint32_t named = kNone;
   return readSlotWords(read, header, slot, index, out, named) && read.unchanged();
}

// The one test of a writer restart, for a reader attached under `relume`: a restarting writer
// re-stamps the herald first, then the slot table, before any slab (DockWriter::attach), so
// either stamp differing is the restart. `herald` is null for a reader without a queue.
bool writerRestarted(uint32_t relume, const SlotTableHeader& slots, const HeraldHeader* herald);

// Copies slot `index` until consistent (retries as above). Throws Loom::CorruptionException
// ("slot:{} LOOKASIDE set but lookaside names slot:{}") when the copy keeps failing while the
// flags word stays the same.
void copySlot(const SlotTableHeader& header, const Slot* slots, uint32_t index, SlotImage& out);

// Copies slot `index` and, when it is occupied, its value bytes into `bytes` (resized to the
// value's length). Returns false for a slot that is not occupied. Throws WriterRestarted when a
// failing copy finds the slot table re-stamped by a restarted writer, and
// Loom::CorruptionException when the slot keeps pointing at an entry that does not belong to it
// or whose check fails: a value whose bytes were damaged is never handed out.
bool copySlotValue(const SlotTableHeader& header, const Slot* slots, uint32_t index,
                   Tessel::ReaderAllocator& allocator, SlotImage& image,
                   std::vector<uint8_t>& bytes);

}  // namespace Dock
