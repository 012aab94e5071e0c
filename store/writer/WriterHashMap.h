// WriterHashMap: the writer's index from key to slot.
//
// Chains live in the shared bucket file (heads) and in the slots' `next` words, mirrored in the
// writer's private records (SlotWriterTable::Record), which also hold each slot's key and hash;
// the writer walks only its private records and stores every link change to both, so plain
// readers can walk the same chains in shared memory.
//
// Order. A key's bucket is hash & (numBuckets - 1). Every chain is kept sorted by the key's
// bit-reversed hash (ties: by key bytes), and iteration visits the buckets in bit-reversed index
// order, so the whole index is one sequence sorted by (reversed hash, key) whatever the bucket
// count. That makes a position in the iteration a key, not a slot: the step after a key that was
// removed (entryDelAll removes as it iterates), or after a rehash, is the first key above it, and
// no key is skipped or repeated. It also makes rehashing cheap: doubling splits each chain at one
// point (the keys whose new hash bit is 1 are its tail) and halving appends a chain to its
// partner's tail.
//
// Load: at most one entry per bucket on average. The caller grows the buckets (doubling) when
// occupiedSlots exceeds the bucket count, and shrinks them (halving) when occupancy falls below a
// quarter of the count - the gap between the two thresholds keeps a table that hovers around a
// power of two from rehashing on every insert/remove pair. Neither goes below kInitialBuckets.
//
// Rehashing walks up to a million slots. Between slots (not per bucket: one long chain must not
// defeat the budget) it checks the processor clock and, every 10 ms, runs the process's pending
// critical-priority tasks, when the critical-task check is on.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "Spoor/Trace.h"
#include "store/KeyTraits.h"
#include "store/writer/BucketWriter.h"
#include "store/writer/SlotWriterTable.h"

namespace Dock {

template <class K>
bool sameKey(const K& a, const K& b) {
   if constexpr (std::equality_comparable<K>) {
      return a == b;
   } else {
      return std::memcmp(&a, &b, sizeof(K)) == 0;
   }
}

// Reverses the bits of a 32-bit word.
inline uint32_t bitReversed(uint32_t x) {
   x = ((x >> 1) & 0x55555555u) | ((x & 0x55555555u) << 1);
   x = ((x >> 2) & 0x33333333u) | ((x & 0x33333333u) << 2);
   x = ((x >> 4) & 0x0f0f0f0fu) | ((x & 0x0f0f0f0fu) << 4);
   return __builtin_bswap32(x);
}

template <class K>
class WriterHashMap {
  public:
   using Table = SlotWriterTable<K>;

   WriterHashMap(Table& table, BucketWriter& buckets) : table_(table), buckets_(buckets) {}

   uint32_t hashOf(const K& key) const {
      return KeyTraits<K>::hash(key, table_.header()->hashSeed);
   }

   // The slot holding `key`, or kNone.
   uint32_t lookup(const K& key, uint32_t hash) const {
      return lookupFrom(walkStart(buckets_.chainStart(buckets_.bucketOf(hash)), hash), key, hash);
   }
   // Where the walk for `hash` starts in a chain: a key whose hash is not the head's is not the
   // head, so its walk starts at the second slot, without reading the head's record.
   static uint32_t walkStart(const BucketWriter::ChainStart& c, uint32_t hash) {
      return c.first != kNone && c.firstHash != hash ? c.second : c.first;
   }
   // The same as lookup, from the walkStart already found (a caller that prefetches by it).
   uint32_t lookupFrom(uint32_t first, const K& key, uint32_t hash) const {
      auto& rec = table_.records();
      for (uint32_t s = first; s != kNone; s = rec[s].next) {
         if (rec[s].hash == hash && sameKey(rec[s].key, key)) return s;
      }
      return kNone;
   }
   uint32_t lookup(const K& key) const { return lookup(key, hashOf(key)); }

   // Links `slot` (holding key, hash) at its place in its bucket's chain.
   // REQUIRES: the key is not in the index; the slot's shared words other than next are stored.
   void link(uint32_t slot, uint32_t hash, const K& key) {
      auto& rec = table_.records();
      auto& r = rec[slot];
      r.hash = hash;
      r.key = key;
      const uint32_t b = buckets_.bucketOf(hash);
      uint32_t prev = kNone;
      uint32_t s = buckets_.head(b);
      while (s != kNone && before(rec[s].hash, rec[s].key, hash, key)) {
         prev = s;
         s = rec[s].next;
      }
      r.next = s;
      table_.slot(slot).next.store(s, std::memory_order_relaxed);
      table_.slot(slot).keyHash.store(hash, std::memory_order_relaxed);
      // Release (in setNext): the slot's words are visible to a reader that follows the new link.
      setNext(prev, b, slot);
   }

   // Unlinks `slot` from its chain; returns the bucket, or kNone when the slot was not linked.
   uint32_t unlink(uint32_t slot) {
      auto& rec = table_.records();
      const uint32_t b = buckets_.bucketOf(rec[slot].hash);
      uint32_t prev = kNone;
      for (uint32_t s = buckets_.head(b); s != kNone; prev = s, s = rec[s].next) {
         if (s != slot) continue;
         setNext(prev, b, rec[s].next);
         rec[s].next = kNone;
         return b;
      }
      return kNone;
   }

   // Replaces `from` by `to` in its chain, keeping the position. `to` takes the key and hash.
   // Returns false when `from` is not linked.
   bool relink(uint32_t from, uint32_t to) {
      auto& rec = table_.records();
      const uint32_t b = buckets_.bucketOf(rec[from].hash);
      uint32_t prev = kNone;
      for (uint32_t s = buckets_.head(b); s != kNone; prev = s, s = rec[s].next) {
         if (s != from) continue;
         rec[to] = rec[from];
         table_.slot(to).next.store(rec[to].next, std::memory_order_relaxed);
         table_.slot(to).keyHash.store(rec[to].hash, std::memory_order_relaxed);
         setNext(prev, b, to);
         rec[from].next = kNone;
         return true;
      }
      return false;
   }

   // Doubles the bucket count: each chain's tail (the keys whose next hash bit is 1) moves to the
   // new partner bucket.
   void growBuckets(bool criticalCheck, Spoor::Handle& trace) {
      const uint32_t oldCount = buckets_.numBuckets();
      SPOOR_TRACE(trace, 5, "growing from: {} to: {}", oldCount, oldCount * 2);
      auto& rec = table_.records();
      CriticalYield yield(criticalCheck);
      buckets_.beginResize(oldCount * 2, &yield);
      for (uint32_t b = 0; b < oldCount; ++b) {
         uint32_t prev = kNone;
         uint32_t s = buckets_.head(b);
         while (s != kNone && !(rec[s].hash & oldCount)) {
            prev = s;
            s = rec[s].next;
            yield.check();
         }
         if (s == kNone) continue;
         // The partner is empty (beginResize): hang the tail there first, then cut it off, so a
         // writer-side walk never loses it.
         buckets_.headIs(b + oldCount, startingAt(s));
         setNext(prev, b, kNone);
         yield.check();
      }
      buckets_.endResize(oldCount * 2);
   }

   // Halves the bucket count (not below kInitialBuckets): each upper chain is appended to its
   // lower partner, whose keys all sort before it.
   void shrinkBuckets(bool criticalCheck, Spoor::Handle& trace) {
      const uint32_t oldCount = buckets_.numBuckets();
      if (oldCount <= kInitialBuckets) return;
      const uint32_t newCount = oldCount / 2;
      SPOOR_TRACE(trace, 5, "shrinking from: {} to: {}", oldCount, newCount);
      auto& rec = table_.records();
      CriticalYield yield(criticalCheck);
      buckets_.beginResize(oldCount, &yield);
      for (uint32_t b = newCount; b < oldCount; ++b) {
         const uint32_t upper = buckets_.head(b);
         if (upper == kNone) continue;
         const uint32_t lo = b - newCount;
         uint32_t tail = kNone;
         for (uint32_t s = buckets_.head(lo); s != kNone; s = rec[s].next) {
            tail = s;
            yield.check();
         }
         setNext(tail, lo, upper);
         buckets_.headIs(b, {});
         yield.check();
      }
      buckets_.endResize(newCount);
   }

   // Records `slot`'s new value Offset word as its prefetch hint (and its bucket's, when it heads
   // the chain). REQUIRES: `slot` is linked.
   void offsetHintIs(uint32_t slot, uint32_t word) {
      auto& r = table_.records()[slot];
      r.offsetHint = word;
      buckets_.hintIs(buckets_.bucketOf(r.hash), slot, word);
   }

   // Iteration: the first slot in (reversed hash, key) order, or kNone.
   uint32_t first() const { return firstFromRank(0); }
   // The slot after `slot` in iteration order. REQUIRES: `slot` is linked.
   uint32_t successor(uint32_t slot) const {
      const auto& r = table_.records()[slot];
      if (r.next != kNone) return r.next;
      return firstFromRank(rankOf(buckets_.bucketOf(r.hash)) + 1);
   }
   // The first slot whose (reversed hash, key) sorts after (hash, key); the key need not be in
   // the index any more.
   uint32_t after(uint32_t hash, const K& key) const {
      auto& rec = table_.records();
      const uint32_t b = buckets_.bucketOf(hash);
      for (uint32_t s = buckets_.head(b); s != kNone; s = rec[s].next) {
         if (before(hash, key, rec[s].hash, rec[s].key)) return s;
      }
      return firstFromRank(rankOf(b) + 1);
   }

   uint32_t numBuckets() const { return buckets_.numBuckets(); }

  private:
   // Whether (ha, a) sorts before (hb, b).
   static bool before(uint32_t ha, const K& a, uint32_t hb, const K& b) {
      const uint32_t ra = bitReversed(ha), rb = bitReversed(hb);
      if (ra != rb) return ra < rb;
      return !sameKey(a, b) && std::memcmp(&a, &b, sizeof(K)) < 0;
   }
   // Position of bucket b in iteration order: its index bit-reversed within the count's bits
   // (an involution, so it also maps a position back to its bucket).
   uint32_t rankOf(uint32_t b) const {
      const uint32_t bits = uint32_t(std::countr_zero(buckets_.numBuckets()));
      return bits == 0 ? 0 : bitReversed(b) >> (32 - bits);
   }
   uint32_t firstFromRank(uint32_t rank) const {
      for (uint32_t r = rank; r < buckets_.numBuckets(); ++r) {
         const uint32_t h = buckets_.head(rankOf(r));
         if (h != kNone) return h;
      }
      return kNone;
   }
   // Makes `next` follow `prev` (or head the bucket, for prev == kNone), in the records, the
   // shared slots or bucket file, and the mirror's chain start.
   void setNext(uint32_t prev, uint32_t bucket, uint32_t next) {
      if (prev == kNone) {
         buckets_.headIs(bucket, startingAt(next));
         return;
      }
      table_.records()[prev].next = next;
      table_.slot(prev).next.store(next, std::memory_order_release);
      if (buckets_.head(bucket) == prev) buckets_.chainStartIs(bucket, startingAt(prev));
   }
   // The chain start of a chain whose head is `first` (kNone: empty), from the records.
   BucketWriter::ChainStart startingAt(uint32_t first) const {
      if (first == kNone) return {};
      const auto& rec = table_.records();
      BucketWriter::ChainStart c{first, rec[first].offsetHint, rec[first].hash};
      if (const uint32_t second = rec[first].next; second != kNone) {
         c.second = second;
         c.secondHint = rec[second].offsetHint;
         c.secondHash = rec[second].hash;
      }
      return c;
   }

   Table& table_;
   BucketWriter& buckets_;
};

}  // namespace Dock
