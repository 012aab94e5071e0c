// ReaderHashMap: a plain reader's search of the writer's shared hash chains.
//
// A lookup hashes the key with the table's seed, takes bucket keyHash & (numBuckets - 1), and walks
// the chain from the bucket head through each slot's `next` word, copying every slot consistently
// (SlotCopy) and the value of a slot whose keyHash matches. The walk is trusted only when the
// bucket file's sizeWord is unchanged after it: the walk runs under a SeqRead of that word
// (format/SeqRead.h).
//
// While the resize counter is odd a rehash is under way, or was left half done by a writer killed
// during one (the word then stays odd until a writer returns). The published count N is then the
// larger of the two (a grow publishes the doubled count, a shrink keeps the old one until it ends),
// and a key is chained in its bucket under N or in its bucket under N/2 (BucketWriter,
// WriterHashMap): a grow hangs a chain's tail on the upper bucket before cutting it from the lower
// one, a shrink appends the upper chain to the lower one before emptying the upper head. A lookup
// walks the lower candidate, the upper one, and the lower one again: whichever way the one move
// under way goes, a key missed in one walk is in the next. It never waits for the counter.
// Iteration under an odd counter walks all N buckets and skips, in a lower bucket, the keys of the
// upper bucket while the upper head is set (it holds them then): exact on a stable file, and
// against a live rehash as good as iteration across any concurrent write.
//
// A writer relinking chains concurrently can lead a walk through a stale link, so an anomaly is
// re-checked before it is reported: the walk is retried (yielding in between) and only an anomaly
// seen kCorruptRetries times in a row raises Loom::CorruptionException with its text:
//   "hash chain cycle detected, slotCount:{} capacity:{}"  more slots visited than the table holds
//   "slot:{} not marked as occupied key:{}"               a chained slot without OCCUPIED
//   "corrupt key detected. key:{} bucketIndex {}"          a slot whose hash is not of this bucket
//
// Iteration (first/next with an IterHint) goes bucket by bucket, each chain in order. next()
// continues from the hinted slot's `next` word while the slot's flags word still equals the hint's
// version; otherwise it restarts from the hinted bucket ("{} next bucket {} using {}"), resuming
// after the hinted slot if it is still in that chain, and saves the slot it lands on ("{} success
// {} using {}, saving new slot hint {}").
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Loom/CorruptionException.h"
#include "Spoor/Trace.h"
#include "store/KeyTraits.h"
#include "store/reader/BucketReader.h"
#include "store/reader/IterHint.h"
#include "store/reader/SlotCopy.h"

namespace Dock {

// A key as printed in traces and errors: its stream form when it has one, else its bytes in hex.
template <class K>
std::string keyText(const K& key) {
   if constexpr (requires(std::ostream & os, const K& k) { os << k; }) {
      std::ostringstream os;
      os << key;
      return os.str();
   } else {
      unsigned char bytes[sizeof(K)];
      std::memcpy(bytes, &key, sizeof(K));
      std::string out = "0x";
      for (size_t i = sizeof(K); i-- > 0;) out += fmt::format("{:02x}", bytes[i]);
      return out;
   }
}

inline std::string hintText(const IterHint& h) {
   return fmt::format("IterHint{{ version: {:#x} slot: {} bucket: {} }}", h.version, h.slot,
                      h.bucket);
}

// The slot-table side a ReaderHashMap walks: the mapped slots and a consistent value copy.
// Supplied by DockReader.
template <class V>
struct ReaderSlots {
   std::function<uint32_t()> capacity;                       // numSlots
   std::function<const Slot*(uint32_t)> slot;                // nullptr beyond the mapping
   std::function<bool(uint32_t, SlotImage&)> copy;           // consistent slot copy
   std::function<bool(uint32_t, SlotImage&, V&)> copyValue;  // false: not occupied
};

template <class K, class V, class KeyOf>
class ReaderHashMap {
  public:
   static constexpr uint32_t kCorruptRetries = 8;

   ReaderHashMap(std::string name, BucketReader& buckets, ReaderSlots<V> slots)
       : name_(std::move(name)), buckets_(buckets), slots_(std::move(slots)) {}

   void hashSeedIs(uint32_t seed) { seed_ = seed; }

   // The key's slot and value, or nothing.
   std::optional<uint32_t> find(const K& key, V& out) {
      const uint32_t hash = KeyTraits<K>::hash(key, seed_);
      std::string anomaly;
      for (uint32_t attempt = 0;; ++attempt) {
         BucketSpan span;
         const SeqRead<uint64_t> guard = guardBuckets(span);
         std::optional<uint32_t> found;
         bool clean = true;
         const auto search = [&](uint32_t bucket) {
            clean = walk(
                bucket, span,
                [&](uint32_t s, SlotImage& image) {
                   if (image.keyHash != hash) return false;
                   if (!slots_.copyValue(s, image, out)) return false;
                   if (!(KeyOf()(out) == key)) return false;
                   found = s;
                   return true;
                },
                keyText(key), anomaly);
            return found.has_value() || !clean;
         };
         const uint32_t upper = hash & (span.count - 1);
         const uint32_t lower = span.resizing ? hash & (span.count / 2 - 1) : upper;
         if (lower == upper) {
            search(upper);
         } else {
            if (!search(lower) && !search(upper)) search(lower);
         }
         if (!guard.unchanged()) continue;  // a rehash began or ended: walk again
         if (clean) return found;
         if (attempt + 1 >= kCorruptRetries) throw Loom::CorruptionException(anomaly);
         std::this_thread::yield();
      }
   }

   // First entry in bucket order; the hint is saved for next().
   bool first(IterHint& hint, V& value) {
      hint = IterHint{};
      return scanFrom(0, kNone, hint, value);
   }
   bool next(IterHint& hint, V& value) {
      if (!hint.valid()) return false;
      const Slot* s = slots_.slot(hint.slot);
      if (s && s->flags.load(std::memory_order_acquire) == hint.version &&
          (sizeWordCounter(buckets_.sizeWord()) & 1) == 0) {
         // The hinted slot is unchanged and no rehash is under way: continue along its chain.
         SlotImage image;
         if (slots_.copy(hint.slot, image) && image.flags == hint.version) {
            for (uint32_t n = image.next; n != kNone;) {
               SlotImage at;
               if (!slots_.copy(n, at) || !at.occupied()) break;
               if (slots_.copyValue(n, at, value)) {
                  hint = IterHint{at.flags, n, hint.bucket};
                  return true;
               }
               n = at.next;
            }
            return scanFrom(hint.bucket + 1, kNone, hint, value);
         }
      }
      SPOOR_TRACE(trace(), 9, "{} next bucket {} using {}", name_, hint.bucket, hintText(hint));
      const IterHint old = hint;
      if (!scanFrom(hint.bucket, hint.slot, hint, value)) return false;
      SPOOR_TRACE(trace(), 9, "{} success {} using {}, saving new slot hint {}", name_,
                  keyText(KeyOf()(value)), hintText(old), hint.slot);
      return true;
   }

   const std::string& name() const { return name_; }

  private:
   static Spoor::Handle& trace() { return Spoor::handle("DockReader"); }

   // The buckets a walk uses (see the top): the published count, and whether a rehash is under
   // way so that a key may also sit in its bucket under count / 2.
   struct BucketSpan {
      uint32_t count = 0;
      bool resizing = false;
      // Whether a key with this hash belongs in `bucket`'s chain.
      bool holds(uint32_t bucket, uint32_t hash) const {
         return (hash & (count - 1)) == bucket || (resizing && (hash & (count / 2 - 1)) == bucket);
      }
   };

   // A walk's guard: a SeqRead of the bucket file's sizeWord, with the bucket count followed
   // first (following may re-map the file, so the guard is taken on the new mapping and must see
   // the same word). Retries only while the word changes, which a live writer's rehash does twice.
   SeqRead<uint64_t> guardBuckets(BucketSpan& span) {
      for (uint32_t tries = 1;; ++tries) {
         const uint64_t seen = buckets_.sizeWord();
         buckets_.follow(sizeWordNumSlots(seen));
         SeqRead<uint64_t> read(buckets_.header()->sizeWord);
         if (read.begin() == seen) {
            span.count = buckets_.numBuckets();
            span.resizing = (sizeWordCounter(seen) & 1) != 0 && span.count >= 2;
            return read;
         }
         if (tries % SlotCopyPolicy::kYieldAfter == 0) std::this_thread::yield();
      }
   }

   // Walks one chain, calling visit(slot, image) for each occupied slot until it returns true.
   // Returns false with `anomaly` set when the chain is inconsistent.
   template <class Visit>
   bool walk(uint32_t bucket, const BucketSpan& span, Visit&& visit, const std::string& key,
             std::string& anomaly) {
      const uint32_t capacity = slots_.capacity();
      uint32_t count = 0;
      for (uint32_t s = buckets_.head(bucket); s != kNone;) {
         if (++count > capacity) {
            anomaly =
                fmt::format("hash chain cycle detected, slotCount:{} capacity:{}", count, capacity);
            return false;
         }
         SlotImage image;
         if (!slots_.copy(s, image) || !image.occupied()) {
            anomaly = fmt::format("slot:{} not marked as occupied key:{}", s, key);
            return false;
         }
         if (!span.holds(bucket, image.keyHash)) {
            anomaly = fmt::format("corrupt key detected. key:{} bucketIndex {}", key, bucket);
            return false;
         }
         if (visit(s, image)) return true;
         s = image.next;
      }
      return true;
   }

   // First occupied slot from bucket `bucket` on; in that bucket, after slot `after` when it is
   // still in the chain.
   bool scanFrom(uint32_t bucket, uint32_t after, IterHint& hint, V& value) {
      for (uint32_t attempt = 0;; ++attempt) {
         BucketSpan span;
         const SeqRead<uint64_t> guard = guardBuckets(span);
         const uint32_t half = span.count / 2;
         bool found = false;
         std::string anomaly;
         bool clean = true;
         for (uint32_t b = bucket; b < span.count && !found && clean; ++b) {
            bool skipping = (b == bucket && after != kNone);
            if (skipping) {
               // Resume after `after` only if it is still chained here.
               bool present = false;
               walk(
                   b, span, [&](uint32_t s, SlotImage&) { return present = (s == after); }, "",
                   anomaly);
               skipping = present;
            }
            // Under a rehash, an upper bucket's keys still chained here are visited there while
            // its head is set.
            const bool upperHolds = span.resizing && b < half && buckets_.head(b + half) != kNone;
            clean = walk(
                b, span,
                [&](uint32_t s, SlotImage& image) {
                   if (skipping) {
                      if (s == after) skipping = false;
                      return false;
                   }
                   if (upperHolds && (image.keyHash & (span.count - 1)) != b) return false;
                   if (!slots_.copyValue(s, image, value)) return false;
                   hint = IterHint{image.flags, s, b};
                   found = true;
                   return true;
                },
                "", anomaly);
         }
         if (!guard.unchanged()) continue;
         if (clean) {
            if (!found) hint = IterHint{};
            return found;
         }
         if (attempt + 1 >= kCorruptRetries) throw Loom::CorruptionException(anomaly);
         std::this_thread::yield();
      }
   }

   std::string name_;
   BucketReader& buckets_;
   ReaderSlots<V> slots_;
   uint32_t seed_ = 0;
};

}  // namespace Dock
