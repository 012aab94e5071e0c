// BucketWriter: the heads of the key hash chains, kept in the table's shared bucket file so that
// plain readers can search the writer's chains.
//
//   struct BucketFile {            // see BucketHeader in store/format/Layout.h
//      BucketHeader header;        // magic, version, relume, sizeWord, hashSeed, check
//      atomic<uint32_t> heads[];   // numBuckets slot indices, kNone for an empty chain
//   };
//
// A key's bucket is keyHash % numBuckets. The count starts at kInitialBuckets and is always a
// power of two. Changing the count (the writer's rehash) brackets the relinking with two
// increments of the resize counter in sizeWord: the counter is odd while chains are being moved,
// so a plain reader that sees an odd counter, or a counter that changed across its walk, retries.
// The file only grows; a smaller count leaves the tail unused.
//
// The writer reads heads from a private mirror (a HugePageBuffer) and stores every change to both:
// the lookup of a replacement reads one head at random, and the shared mapping, on 4 KiB pages,
// added a TLB miss to that cache miss. The mirror keeps more than the file: the first two slots of
// each chain (at a load of one, about a third of the keys are second in their chain, a tenth
// further down), each with its key hash and its value Offset word as a prefetch hint. A
// replacement picks the one its hash matches and starts on that slot, its record and its old slab
// entry (a page walk and a miss of their own) all at once, instead of finding the second key only
// after the first key's record arrives. Readers still see every head through the file, with the
// same release stores as before; the mirror is never read by anyone else, and its hints are only
// ever prefetched.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "store/format/Layout.h"
#include "store/writer/CriticalYield.h"
#include "store/writer/HugePageBuffer.h"

namespace Region {
class MappedFile;
}

namespace Dock {

// A release fence. ThreadSanitizer does not model fences (GCC warns with -Wtsan); every shared
// word is an atomic, so under it the fence only loses ordering TSan would not check anyway.
inline void releaseFence() {
#if defined(__SANITIZE_THREAD__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wtsan"
#endif
   std::atomic_thread_fence(std::memory_order_release);
#if defined(__SANITIZE_THREAD__)
#pragma GCC diagnostic pop
#endif
}

// Initial number of buckets of a new table: small, since the count doubles with occupancy.
constexpr uint32_t kInitialBuckets = 16;

class BucketWriter {
  public:
   BucketWriter();
   ~BucketWriter();

   // Creates <path> (or reuses the file in place, never shrinking it, so that readers mapping it
   // are not cut short) with numBuckets empty heads.
   void create(const std::string& path, uint32_t relume, uint32_t hashSeed, uint32_t numBuckets);
   void detach();
   bool attached() const { return header_ != nullptr; }

   uint32_t numBuckets() const { return numBuckets_; }

   // The writer's own view of the start of a chain: its head (the same as the file's) and the
   // slot after it (kNone: none), each with its key hash and its value Offset word when last told
   // (kNone when not known). 32 bytes, so that no chain start straddles two cache lines.
   struct alignas(32) ChainStart {
      uint32_t first = kNone;
      uint32_t firstHint = kNone;
      uint32_t firstHash = 0;
      uint32_t second = kNone;
      uint32_t secondHint = kNone;
      uint32_t secondHash = 0;
   };
   const ChainStart& chainStart(uint32_t bucket) const { return mirror_[bucket]; }
   uint32_t head(uint32_t bucket) const { return mirror_[bucket].first; }
   // The mirror alone, for a change behind an unchanged head (the slot after it, which the file
   // holds in the head slot's next word).
   void chainStartIs(uint32_t bucket, const ChainStart& start) { mirror_[bucket] = start; }
   // `slot` has a new value Offset word: kept when it is one of the bucket's first two.
   void hintIs(uint32_t bucket, uint32_t slot, uint32_t hint) {
      ChainStart& c = mirror_[bucket];
      if (c.first == slot) {
         c.firstHint = hint;
      } else if (c.second == slot) {
         c.secondHint = hint;
      }
   }
   // The head as readers see it in the file.
   uint32_t sharedHead(uint32_t bucket) const {
      return heads_[bucket].load(std::memory_order_relaxed);
   }
   // Release: the slot's words, stored before it is linked, are visible to a reader that
   // acquires the head.
   void headIs(uint32_t bucket, const ChainStart& start) {
      mirror_[bucket] = start;
      heads_[bucket].store(start.first, std::memory_order_release);
   }
   uint32_t bucketOf(uint32_t keyHash) const { return keyHash & (numBuckets_ - 1); }

   // Starts a change of the bucket count: grows the file to hold `count` heads if needed, empties
   // the heads beyond the current count, publishes `count` with an odd counter. The caller
   // relinks, then calls endResize with the final count (smaller than `count` for a shrink).
   // `yield` is checked while new heads are laid down (fresh pages of the file and the mirror).
   void beginResize(uint32_t count, CriticalYield* yield = nullptr);
   void endResize(uint32_t finalCount);

   // Checks the header against the relume and seed; returns false with a reason.
   bool validate(uint32_t relume, uint32_t hashSeed, std::string& reason) const;
   const BucketHeader* header() const { return header_; }

  private:
   void map();
   // Makes the mirror hold at least `count` heads, keeping the first numBuckets_.
   void reserveMirror(uint32_t count, CriticalYield* yield = nullptr);
   static uint32_t checkOf(const BucketHeader& h);

   std::unique_ptr<Region::MappedFile> file_;
   BucketHeader* header_ = nullptr;
   std::atomic<uint32_t>* heads_ = nullptr;
   uint32_t numBuckets_ = 0;
   HugePageBuffer mirrorBuffer_;
   ChainStart* mirror_ = nullptr;  // numBuckets_ chain starts
   uint32_t mirrorCapacity_ = 0;
};

}  // namespace Dock
