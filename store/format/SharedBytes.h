// SharedBytes: copying bytes in and out of shared memory (slab payloads, headers).
//
// A reader may copy an entry while the writer reuses it for another value (the reader's re-check
// of the slot's flags word then discards the copy: SeqRead.h). Both sides therefore move payload
// bytes with relaxed atomic accesses: 8-byte words while both addresses allow it, single bytes
// otherwise. This is what the hardware does for a memcpy anyway; spelling it as atomics keeps the
// protocol a data-race-free program (and ThreadSanitizer quiet). Ordering comes from the fences and
// version words around the copy, never from these accesses.
//
// A copy into shared memory prefetches its destination kWriteAhead bytes ahead of its stores. A
// value that long goes into an entry usually last written long ago, so each line it overwrites is
// first read from memory, and 8-byte stores alone keep too few of those reads in flight (the store
// queue covers a few lines): 46 KB took about 4.7 us to cold memory, 2.9 with the prefetches. The
// writer prefetches the first kWriteAhead bytes of an entry when it frees it for reuse
// (SlabWriter::prefetchForReuse), so the copy finds them on the way and starts ahead of them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Dock {

// How far ahead of its stores a copy into shared memory prefetches (64 lines). A multiple of 64.
constexpr size_t kWriteAhead = 4096;

// A checksum folded in the same pass as a copy (slab/EntryCheck.h): handed each 8-byte
// little-endian word of the bytes in order, the last one zero-padded, one at a time (fold) or
// four consecutive ones at a time (fold4).
struct NoFold {
   void fold(uint64_t) {}
   void fold4(uint64_t, uint64_t, uint64_t, uint64_t) {}
};

namespace Detail {

// The accesses of one copy: relaxed atomics on the shared side, plain ones on the private side.
template <bool kShared>
inline uint64_t readWord(const uint8_t* src) {
   if constexpr (kShared) {
      return std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(const_cast<uint8_t*>(src)))
          .load(std::memory_order_relaxed);
   } else {
      uint64_t w;
      std::memcpy(&w, src, 8);
      return w;
   }
}
template <bool kShared>
inline void writeWord(uint8_t* dst, uint64_t w) {
   if constexpr (kShared) {
      std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(dst))
          .store(w, std::memory_order_relaxed);
   } else {
      std::memcpy(dst, &w, 8);
   }
}
template <bool kShared>
inline uint8_t readByte(const uint8_t* src) {
   if constexpr (kShared) {
      return std::atomic_ref<uint8_t>(*const_cast<uint8_t*>(src)).load(std::memory_order_relaxed);
   } else {
      return *src;
   }
}
template <bool kShared>
inline void writeByte(uint8_t* dst, uint8_t b) {
   if constexpr (kShared) {
      std::atomic_ref<uint8_t>(*dst).store(b, std::memory_order_relaxed);
   } else {
      *dst = b;
   }
}

// Copies and folds four words at `i`.
template <bool kToShared, class Fold>
inline void copyFour(uint8_t* dst, const uint8_t* src, size_t i, Fold& fold) {
   constexpr bool kFromShared = !kToShared;
   const uint64_t a = readWord<kFromShared>(src + i), b = readWord<kFromShared>(src + i + 8),
                  c = readWord<kFromShared>(src + i + 16), d = readWord<kFromShared>(src + i + 24);
   writeWord<kToShared>(dst + i, a);
   writeWord<kToShared>(dst + i + 8, b);
   writeWord<kToShared>(dst + i + 16, c);
   writeWord<kToShared>(dst + i + 24, d);
   fold.fold4(a, b, c, d);
}

// Copies `len` bytes into shared memory (kToShared: dst is shared) or out of it (src is shared),
// folding them into `fold`. Words while the shared address allows, four at a time (into shared
// memory with the destination prefetched kWriteAhead ahead while it lies within the copy), then
// bytes.
template <bool kToShared, class Fold>
inline void copyFolding(uint8_t* dst, const uint8_t* src, size_t len, Fold& fold) {
   constexpr bool kFromShared = !kToShared;
   const void* shared = kToShared ? static_cast<const void*>(dst) : src;
   size_t i = 0;
   if ((reinterpret_cast<uintptr_t>(shared) & 7) == 0) {
      if constexpr (kToShared) {
         for (; i + kWriteAhead + 64 <= len; i += 64) {
            __builtin_prefetch(dst + i + kWriteAhead, 1);
            copyFour<true>(dst, src, i, fold);
            copyFour<true>(dst, src, i + 32, fold);
         }
      }
      for (; i + 32 <= len; i += 32) copyFour<kToShared>(dst, src, i, fold);
      for (; i + 8 <= len; i += 8) {
         const uint64_t w = readWord<kFromShared>(src + i);
         writeWord<kToShared>(dst + i, w);
         fold.fold(w);
      }
   }
   uint64_t w = 0;
   unsigned n = 0;
   for (; i < len; ++i) {
      const uint8_t b = readByte<kFromShared>(src + i);
      writeByte<kToShared>(dst + i, b);
      w |= uint64_t(b) << (8 * n);
      if (++n == 8) {
         fold.fold(w);
         w = 0;
         n = 0;
      }
   }
   if (n != 0) fold.fold(w);
}

}  // namespace Detail

// Copies `len` bytes into shared memory (dst), folding them into `fold`.
template <class Fold>
inline void copyToSharedFolding(uint8_t* dst, const uint8_t* src, size_t len, Fold& fold) {
   Detail::copyFolding<true>(dst, src, len, fold);
}

// The same out of shared memory (src, possibly mapped read-only: atomic loads of lock-free types
// do not write).
template <class Fold>
inline void copyFromSharedFolding(uint8_t* dst, const uint8_t* src, size_t len, Fold& fold) {
   Detail::copyFolding<false>(dst, src, len, fold);
}

// dst is shared memory.
inline void copyToShared(uint8_t* dst, const uint8_t* src, size_t len) {
   NoFold none;
   copyToSharedFolding(dst, src, len, none);
}

// src is shared memory.
inline void copyFromShared(uint8_t* dst, const uint8_t* src, size_t len) {
   NoFold none;
   copyFromSharedFolding(dst, src, len, none);
}

}  // namespace Dock
