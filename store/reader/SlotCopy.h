// SlotCopy: the consistent copies every reader read of shared memory goes through.
//
// Slot copy. The writer's publishing order makes a slot's flags word a sequence lock:
//    replacement:  lookaside = new words; flags += 2 (LOOKASIDE); slot words = new; flags += 2
//    insertion:    slot words = new; flags = old + 4 | OCCUPIED
// so a reader loads flags (acquire), takes the value words from the header's lookaside area when
// LOOKASIDE is set (and the lookaside names this slot) or from the slot otherwise, with acquire
// loads, and loads flags again: the words are consistent when both loads agree. (Acquire loads
// rather than a fence: they cost nothing more on x86 and ThreadSanitizer models them.) The value
// bytes themselves are copied out of the slab before the re-check, so the same two loads also
// cover the payload (a replacement always writes a new slab entry before it publishes and frees
// the old one only after). The copied entry must name the slot in its clientData and hold exactly
// the slot's length, else the copy is retried.
//
// Retry policy: a copy whose flags word changed under it is retried without limit - the writer is
// making progress, and each write is a handful of stores - yielding the processor every
// kYieldAfter tries so that a writer preempted mid-write on the same core can finish. A copy that
// fails its checks while the flags word stays the same cannot be explained by a concurrent write
// (a stale slab mapping is followed inside ReaderAllocator::copy); after kCorruptAfter such tries
// the copy raises Loom::CorruptionException with the reason.
//
// Header copy (safeHeaderCopy): load the header's version word, copy the header bytes and read the
// mapping size, load the version word again; repeat until both loads agree. No retry limit: the
// writer changes a version word only when it resizes, which is rare.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Vela/Exception.h"
#include "store/format/Layout.h"
#include "store/slab/SlabBytes.h"

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
   static constexpr uint32_t kCorruptAfter = 100000;
};

// One attempt: false when the flags word changed across the copy.
inline bool trySlotCopy(const SlotTableHeader& header, const Slot& slot, uint32_t index,
                        SlotImage& out) {
   // Acquire pairs with the writer's release store of flags: the words it published before are
   // visible.
   const uint32_t before = slot.flags.load(std::memory_order_acquire);
   out.flags = before;
   // The word loads are acquire so that the re-check below cannot be satisfied early: a word the
   // writer stored (release) after changing flags makes that change visible to the second load.
   out.next = slot.next.load(std::memory_order_acquire);
   out.keyHash = slot.keyHash.load(std::memory_order_acquire);
   out.heraldPos = slot.heraldPos.load(std::memory_order_acquire);
   if (before & kLookaside) {
      if (header.lookaside.slot.load(std::memory_order_acquire) != index) return false;
      out.offset = header.lookaside.offset.load(std::memory_order_acquire);
      out.length = header.lookaside.length.load(std::memory_order_acquire);
   } else {
      out.offset = slot.offset.load(std::memory_order_acquire);
      out.length = slot.length.load(std::memory_order_acquire);
   }
   return slot.flags.load(std::memory_order_acquire) == before;
}

// Copies `len` bytes out of shared memory with acquire loads (8-byte words while aligned), so
// that a later load of a version word is ordered after every byte of the copy.
inline void copyAcquire(uint8_t* dst, const uint8_t* src, size_t len) {
   auto* s = const_cast<uint8_t*>(src);
   size_t i = 0;
   if ((reinterpret_cast<uintptr_t>(src) & 7) == 0) {
      for (; i + 8 <= len; i += 8) {
         const uint64_t w = std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(s + i))
                                .load(std::memory_order_acquire);
         std::memcpy(dst + i, &w, 8);
      }
   }
   for (; i < len; ++i) dst[i] = std::atomic_ref<uint8_t>(s[i]).load(std::memory_order_acquire);
}

// Copies slot `index` until consistent (unbounded retries, see above).
void copySlot(const SlotTableHeader& header, const Slot* slots, uint32_t index, SlotImage& out);

// Copies slot `index` and, when it is occupied, its value bytes into `bytes` (resized to the
// value's length). Returns false for a slot that is not occupied. Throws WriterRestarted when a
// failing copy finds the slot table re-stamped by a restarted writer, and
// Loom::CorruptionException when the slot keeps pointing at an entry that does not belong to it.
bool copySlotValue(const SlotTableHeader& header, const Slot* slots, uint32_t index,
                   Tessel::ReaderAllocator& allocator, SlotImage& image,
                   std::vector<uint8_t>& bytes);

// A byte copy of a header that lives in shared memory; read its atomics with relaxed loads.
template <class H>
struct HeaderCopy {
   alignas(H) unsigned char bytes[sizeof(H)];
   const H& operator*() const { return *reinterpret_cast<const H*>(bytes); }
   const H* operator->() const { return reinterpret_cast<const H*>(bytes); }
};

template <class H>
struct SafeHeader {
   HeaderCopy<H> header;
   size_t size = 0;       // the mapping size read inside the copy
   uint64_t version = 0;  // the stable version word
   uint32_t tries = 0;    // attempts it took
};

// REQUIRES: version(const H&) loads the header's version word with acquire order; size() reads
// the mapping size.
template <class H, class VersionFn, class SizeFn>
SafeHeader<H> safeHeaderCopy(const H* shared, VersionFn&& version, SizeFn&& size) {
   SafeHeader<H> out;
   for (;;) {
      ++out.tries;
      const uint64_t before = version(*shared);
      // Acquire loads keep the re-check below after every byte copied.
      copyAcquire(out.header.bytes, reinterpret_cast<const uint8_t*>(shared), sizeof(H));
      out.size = size();
      const uint64_t after = version(*shared);
      if (before == after) {
         out.version = before;
         return out;
      }
   }
}

}  // namespace Dock
