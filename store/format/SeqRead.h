// SeqRead: the one way a reader copies words that the writer rewrites in place.
//
// Each such group has a version word the writer changes around its stores (a slot's flags word
// around the slot's words and its value's slab entry, a header's resize counter around the header,
// a notification's sequence around its fields). A reader:
//
//    SeqRead read(versionWord);       acquire load of the version word
//    x = read.load(word); read.copy   relaxed loads of the guarded words
//    if (read.unchanged()) use the copy; else discard it and copy again
//
// Orders. The first load is acquire: it pairs with the writer's release store that ended the
// write it sees, so everything that write stored is visible to the copy. The copy's loads are
// relaxed: only the re-check decides whether they are used. unchanged() issues an acquire fence
// and then reloads the version word: if any load of the copy read a store the writer made after
// it changed the version word, the fence pairs with the writer's release ordering of that store
// (a release fence after its version store, or the store itself with release) and the reload sees
// the changed word, so a torn copy is never kept. The fence stands here, beside the re-check it
// protects, and nowhere else on the read side.
//
// ThreadSanitizer does not model fences (GCC warns with -Wtsan); every shared word is atomic, so
// under it the copy stays free of data races and only loses ordering TSan would not check.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "store/format/SharedBytes.h"

namespace Dock {

template <class W>
class SeqRead {
  public:
   // Acquire: pairs with the writer's release store that ended its last write of the group.
   explicit SeqRead(const std::atomic<W>& version) noexcept
       : version_(version), begin_(version.load(std::memory_order_acquire)) {}

   // The version word as the copy began.
   W begin() const noexcept { return begin_; }

   // Relaxed: a guarded word counts only if unchanged() holds after it.
   template <class T>
   T load(const std::atomic<T>& word) const noexcept {
      return word.load(std::memory_order_relaxed);
   }
   // Relaxed byte copy of guarded shared memory (SharedBytes.h).
   void copy(void* dst, const void* src, size_t len) const noexcept {
      copyFromShared(static_cast<uint8_t*>(dst), static_cast<const uint8_t*>(src), len);
   }

   // Acquire fence, then a relaxed reload: true when no write of the group overlapped the copy.
   bool unchanged() const noexcept {
      std::atomic_thread_fence(std::memory_order_acquire);
      return version_.load(std::memory_order_relaxed) == begin_;
   }

  private:
   const std::atomic<W>& version_;
   W begin_;
};

// A byte copy of a header that lives in shared memory; read its atomics with relaxed loads.
template <class H>
struct HeaderCopy {
   alignas(H) unsigned char bytes[sizeof(H)];
   const H& operator*() const { return *reinterpret_cast<const H*>(bytes); }
   const H* operator->() const { return reinterpret_cast<const H*>(bytes); }
};

template <class H, class W>
struct SafeHeader {
   HeaderCopy<H> header;
   size_t size = 0;  // the mapping size read inside the copy
   W version{};      // the stable version word
   uint32_t tries = 0;
};

// Copies a shared header under its version word until no write overlapped, reading the mapping
// size (size()) inside the copy. No retry limit: the writer changes a header's version word only
// when it resizes the file, which is rare and quick.
template <class H, class W, class SizeFn>
SafeHeader<H, W> safeHeaderCopy(const H* shared, const std::atomic<W>& version, SizeFn&& size) {
   SafeHeader<H, W> out;
   for (;;) {
      ++out.tries;
      const SeqRead<W> read(version);
      read.copy(out.header.bytes, shared, sizeof(H));
      out.size = size();
      if (read.unchanged()) {
         out.version = read.begin();
         return out;
      }
   }
}

}  // namespace Dock
