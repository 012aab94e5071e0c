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

// Copies `len` bytes into shared memory (dst), handing fold() each 8-byte little-endian word of
// the bytes in order, the last one zero-padded: a checksum computed in the same pass as the copy
// (slab/EntryCheck.h).
template <class Fold>
inline void copyToSharedFolding(uint8_t* dst, const uint8_t* src, size_t len, Fold&& fold) {
   size_t i = 0;
   if ((reinterpret_cast<uintptr_t>(dst) & 7) == 0) {
      for (; i + 8 <= len; i += 8) {
         uint64_t w;
         std::memcpy(&w, src + i, 8);
         std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(dst + i))
             .store(w, std::memory_order_relaxed);
         fold(w);
      }
   }
   uint64_t w = 0;
   unsigned n = 0;
   for (; i < len; ++i) {
      std::atomic_ref<uint8_t>(dst[i]).store(src[i], std::memory_order_relaxed);
      w |= uint64_t(src[i]) << (8 * n);
      if (++n == 8) {
         fold(w);
         w = 0;
         n = 0;
      }
   }
   if (n != 0) fold(w);
}

// The same out of shared memory (src, possibly mapped read-only: atomic loads of lock-free types
// do not write).
template <class Fold>
inline void copyFromSharedFolding(uint8_t* dst, const uint8_t* src, size_t len, Fold&& fold) {
   auto* s = const_cast<uint8_t*>(src);
   size_t i = 0;
   if ((reinterpret_cast<uintptr_t>(src) & 7) == 0) {
      for (; i + 8 <= len; i += 8) {
         const uint64_t w = std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(s + i))
                                .load(std::memory_order_relaxed);
         std::memcpy(dst + i, &w, 8);
         fold(w);
      }
   }
   uint64_t w = 0;
   unsigned n = 0;
   for (; i < len; ++i) {
      dst[i] = std::atomic_ref<uint8_t>(s[i]).load(std::memory_order_relaxed);
      w |= uint64_t(dst[i]) << (8 * n);
      if (++n == 8) {
         fold(w);
         w = 0;
         n = 0;
      }
   }
   if (n != 0) fold(w);
}

// dst is shared memory.
inline void copyToShared(uint8_t* dst, const uint8_t* src, size_t len) {
   copyToSharedFolding(dst, src, len, [](uint64_t) {});
}

// src is shared memory.
inline void copyFromShared(uint8_t* dst, const uint8_t* src, size_t len) {
   copyFromSharedFolding(dst, src, len, [](uint64_t) {});
}

}  // namespace Dock
