// WriterHashMap: the writer's index from key to slot.
//
// Chains live in the shared bucket file (heads) and in the slots' `next` words, mirrored in the
// writer's private records (SlotWriterTable::Record), which also hold each slot's key and hash;
// the writer walks only its private records and stores every link change to both, so plain
// readers can walk the same chains in shared memory.
//
// Load: at most one entry per bucket on average. The caller grows the buckets (doubling) when
// occupiedSlots exceeds the bucket count, and shrinks them (halving) when occupancy falls below a
// quarter of the count - the gap between the two thresholds keeps a table that hovers around a
// power of two from rehashing on every insert/remove pair. Neither goes below kInitialBuckets.
//
// Rehashing can touch a million slots. Between slots (not per bucket: one long chain must not
// defeat the budget) it checks the processor clock and, every 10 ms, runs the process's pending
// critical-priority tasks, when the critical-task check is on.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "Loom/Clock.h"
#include "Loom/EventLoop.h"
#include "Spoor/Trace.h"
#include "store/BucketWriter.h"
#include "store/KeyTraits.h"
#include "store/SlotWriterTable.h"

namespace Dock {

template <class K>
bool sameKey(const K& a, const K& b) {
   if constexpr (std::equality_comparable<K>) {
      return a == b;
   } else {
      return std::memcmp(&a, &b, sizeof(K)) == 0;
   }
}

// Runs the pending critical tasks every `budget` ticks of work; one per long operation.
class CriticalYield {
  public:
   explicit CriticalYield(bool enabled) : enabled_(enabled) {
      if (enabled_) {
         budget_ = uint64_t(0.01 * Loom::Clock::ticksPerSecond());
         start_ = Loom::Clock::ticks();
      }
   }
   // Between two units of work.
   void check() {
      if (!enabled_) return;
      const uint64_t now = Loom::Clock::ticks();
      if (now - start_ >= budget_) {
         Loom::runPendingCriticalTasks();
         ++yields_;
         start_ = Loom::Clock::ticks();
      }
   }
   uint64_t yields() const { return yields_; }

  private:
   bool enabled_;
   uint64_t budget_ = 0;
   uint64_t start_ = 0;
   uint64_t yields_ = 0;
};

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
      auto& rec = table_.records();
      for (uint32_t s = buckets_.head(buckets_.bucketOf(hash)); s != kNone; s = rec[s].next) {
         if (rec[s].hash == hash && sameKey(rec[s].key, key)) return s;
      }
      return kNone;
   }
   uint32_t lookup(const K& key) const { return lookup(key, hashOf(key)); }

   // Links `slot` (holding key, hash) at the head of its bucket's chain.
   // REQUIRES: the key is not in the index; the slot's shared words other than next are stored.
   void link(uint32_t slot, uint32_t hash, const K& key) {
      auto& r = table_.records()[slot];
      r.hash = hash;
      r.key = key;
      const uint32_t b = buckets_.bucketOf(hash);
      r.next = buckets_.head(b);
      table_.slot(slot).next.store(r.next, std::memory_order_relaxed);
      table_.slot(slot).keyHash.store(hash, std::memory_order_relaxed);
      buckets_.headIs(b, slot);
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

   // Doubles the bucket count and moves every slot whose hash now maps elsewhere.
   void growBuckets(bool criticalCheck, Spoor::Handle& trace) {
      resize(buckets_.numBuckets() * 2, criticalCheck, trace);
   }

   // Halves the bucket count (not below kInitialBuckets); chains of the upper half are appended
   // to their lower partners.
   void shrinkBuckets(bool criticalCheck, Spoor::Handle& trace) {
      if (buckets_.numBuckets() > kInitialBuckets) {
         resize(buckets_.numBuckets() / 2, criticalCheck, trace);
      }
   }

   // Relinks every chain for a new bucket count (growth or shrink, any power of two).
   void resize(uint32_t newCount, bool criticalCheck, Spoor::Handle& trace) {
      const uint32_t oldCount = buckets_.numBuckets();
      SPOOR_TRACE(trace, 5, "growing from: {} to: {}", oldCount, newCount);
      auto& rec = table_.records();
      CriticalYield yield(criticalCheck);
      buckets_.beginResize(std::max(oldCount, newCount));
      if (newCount < oldCount) {
         // Shrink: everything moves into the lower half. Collect each upper chain onto its
         // partner's head, one slot at a time.
         for (uint32_t b = newCount; b < oldCount; ++b) {
            uint32_t s = buckets_.head(b);
            while (s != kNone) {
               const uint32_t next = rec[s].next;
               const uint32_t to = rec[s].hash & (newCount - 1);
               rec[s].next = buckets_.head(to);
               table_.slot(s).next.store(rec[s].next, std::memory_order_relaxed);
               buckets_.headIs(to, s);
               buckets_.headIs(b, next);
               s = next;
               yield.check();
            }
         }
         finishResize(newCount);
         return;
      }
      for (uint32_t b = 0; b < oldCount; ++b) {
         uint32_t prev = kNone;
         uint32_t s = buckets_.head(b);
         while (s != kNone) {
            const uint32_t next = rec[s].next;
            const uint32_t to = rec[s].hash & (newCount - 1);
            if (to != b) {
               setNext(prev, b, next);
               rec[s].next = buckets_.head(to);
               table_.slot(s).next.store(rec[s].next, std::memory_order_relaxed);
               buckets_.headIs(to, s);
            } else {
               prev = s;
            }
            s = next;
            yield.check();
         }
      }
      finishResize(newCount);
   }

   // Rebuilds every chain from the records of the occupied slots (after a restart).
   void rebuild(uint32_t numBuckets) {
      auto& rec = table_.records();
      for (uint32_t s = 0; s < table_.numSlots(); ++s) {
         if (table_.slot(s).flags.load(std::memory_order_relaxed) & kOccupied) {
            const uint32_t b = rec[s].hash & (numBuckets - 1);
            rec[s].next = buckets_.head(b);
            table_.slot(s).next.store(rec[s].next, std::memory_order_relaxed);
            buckets_.headIs(b, s);
         }
      }
   }

   // Iteration in bucket order: the first occupied slot at or after bucket `bucket`.
   uint32_t firstFrom(uint32_t bucket) const {
      for (uint32_t b = bucket; b < buckets_.numBuckets(); ++b) {
         if (buckets_.head(b) != kNone) return buckets_.head(b);
      }
      return kNone;
   }

   uint32_t numBuckets() const { return buckets_.numBuckets(); }

  private:
   void setNext(uint32_t prev, uint32_t bucket, uint32_t next) {
      if (prev == kNone) {
         buckets_.headIs(bucket, next);
      } else {
         table_.records()[prev].next = next;
         table_.slot(prev).next.store(next, std::memory_order_release);
      }
   }
   void finishResize(uint32_t newCount) { buckets_.endResize(newCount); }

   Table& table_;
   BucketWriter& buckets_;
};

}  // namespace Dock
