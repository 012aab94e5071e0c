// SharedBytes: copying bytes in and out of shared memory (slab payloads, headers).
//
// A reader may copy an entry while the writer reuses it for another value (the reader's re-check
// of the slot's flags word then discards the copy: SeqRead.h). Both sides therefore move payload
// bytes with relaxed atomic accesses: 8-byte words while both addresses allow it, single bytes
// otherwise. This is what the hardware does for a memcpy anyway; spelling it as atomics keeps the
// protocol a data-race-free program (and ThreadSanitizer quiet). Ordering comes from the fences and
// version words around the copy, never from these accesses.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Dock {

// A checksum folded in the same pass as a copy (slab/EntryCheck.h): handed each 8-byte
// little-endian word of the bytes in order, the last one zero-padded, one at a time (fold) or
// four consecutive ones at a time (fold4).
struct NoFold {
   void fold(uint64_t) {}
   void fold4(uint64_t, uint64_t, uint64_t, uint64_t) {}
};

namespace Detail {

inline void storeWord(uint8_t* dst, uint64_t w) {
   std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(dst)).store(w, std::memory_order_relaxed);
}

inline uint64_t loadWord(const uint8_t* src) {
   return std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(const_cast<uint8_t*>(src)))
       .load(std::memory_order_relaxed);
}

inline uint64_t privateWord(const uint8_t* src) {
   uint64_t w;
   std::memcpy(&w, src, 8);
   return w;
}

}  // namespace Detail

// Copies `len` bytes into shared memory (dst), folding them into `fold`.
template <class Fold>
inline void copyToSharedFolding(uint8_t* dst, const uint8_t* src, size_t len, Fold& fold) {
   size_t i = 0;
   if ((reinterpret_cast<uintptr_t>(dst) & 7) == 0) {
      for (; i + 32 <= len; i += 32) {
         const uint64_t a = Detail::privateWord(src + i), b = Detail::privateWord(src + i + 8),
                        c = Detail::privateWord(src + i + 16),
                        d = Detail::privateWord(src + i + 24);
         Detail::storeWord(dst + i, a);
         Detail::storeWord(dst + i + 8, b);
         Detail::storeWord(dst + i + 16, c);
         Detail::storeWord(dst + i + 24, d);
         fold.fold4(a, b, c, d);
      }
      for (; i + 8 <= len; i += 8) {
         const uint64_t w = Detail::privateWord(src + i);
         Detail::storeWord(dst + i, w);
         fold.fold(w);
      }
   }
   uint64_t w = 0;
   unsigned n = 0;
   for (; i < len; ++i) {
      std::atomic_ref<uint8_t>(dst[i]).store(src[i], std::memory_order_relaxed);
      w |= uint64_t(src[i]) << (8 * n);
      if (++n == 8) {
         fold.fold(w);
         w = 0;
         n = 0;
      }
   }
   if (n != 0) fold.fold(w);
}

// The same out of shared memory (src, possibly mapped read-only: atomic loads of lock-free types
// do not write).
template <class Fold>
inline void copyFromSharedFolding(uint8_t* dst, const uint8_t* src, size_t len, Fold& fold) {
   auto* s = const_cast<uint8_t*>(src);
   size_t i = 0;
   if ((reinterpret_cast<uintptr_t>(src) & 7) == 0) {
      for (; i + 32 <= len; i += 32) {
         const uint64_t a = Detail::loadWord(src + i), b = Detail::loadWord(src + i + 8),
                        c = Detail::loadWord(src + i + 16), d = Detail::loadWord(src + i + 24);
         std::memcpy(dst + i, &a, 8);
         std::memcpy(dst + i + 8, &b, 8);
         std::memcpy(dst + i + 16, &c, 8);
         std::memcpy(dst + i + 24, &d, 8);
         fold.fold4(a, b, c, d);
      }
      for (; i + 8 <= len; i += 8) {
         const uint64_t w = Detail::loadWord(src + i);
         std::memcpy(dst + i, &w, 8);
         fold.fold(w);
      }
   }
   uint64_t w = 0;
   unsigned n = 0;
   for (; i < len; ++i) {
      dst[i] = std::atomic_ref<uint8_t>(s[i]).load(std::memory_order_relaxed);
      w |= uint64_t(dst[i]) << (8 * n);
      if (++n == 8) {
         fold.fold(w);
         w = 0;
         n = 0;
      }
   }
   if (n != 0) fold.fold(w);
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
