// EntryCheck: the 64-bit check a slab entry carries over its payload (Layout.h, SlabEntryHeader).
//
//   s = kSeed ^ (payloadSize << 32 | clientData)
//   q = [s, s + K, s + 2K, s + 3K]                                 K odd; a queue of four lanes
//   for each 8-byte little-endian word w of the payload, the last one zero-padded:
//      pop the front lane h, push mix(h, w)        mix(h, w) = rotl((h ^ w) * K, 29)
//   check = fmix64(mix(mix(mix(q[0], q[1]), q[2]), q[3]))
//                                                  fmix64: the 64-bit finalizer of MurmurHash3
//
// The seed packs both header words into one 64-bit word (an injection); mix is a bijection of h
// for a fixed w and of w for a fixed h; the finalizer is a bijection. A changed payload word
// changes its own lane and no other, and the combination is a bijection of each lane for fixed
// others: so any change of one header word or of one payload word (any single flipped byte) always
// changes the check, for a payload of the same length. The rotation carries high bits down, so
// damage spread over several words is caught too, though not provably. Word i lands in lane i % 4:
// four independent multiply chains, so the check keeps up with the copy instead of costing a
// multiply's latency per word; and as a queue (not an array indexed by i % 4) the lanes stay in
// registers through the copy loops.
//
// The writer computes it in the pass that copies the payload in (WriterAllocator::store), the
// reader in the pass that copies it out (ReaderAllocator::copy): one pass over the bytes each.
#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "store/format/Layout.h"
#include "store/format/SharedBytes.h"

namespace Tessel {

class EntryCheck {
  public:
   static constexpr uint64_t kMultiplier = 0x9e3779b97f4a7c15ull;  // odd
   static constexpr uint64_t kSeed = 0x314b434559525445ull;        // "ETRYECK1"

   EntryCheck(int32_t payloadSize, uint32_t clientData) {
      const uint64_t seed = kSeed ^ (uint64_t(uint32_t(payloadSize)) << 32 | clientData);
      q0_ = seed, q1_ = seed + kMultiplier, q2_ = seed + 2 * kMultiplier,
      q3_ = seed + 3 * kMultiplier;
   }

   void fold(uint64_t word) {
      const uint64_t h = mix(q0_, word);
      q0_ = q1_, q1_ = q2_, q2_ = q3_, q3_ = h;
   }

   // Four consecutive words: the four folds, spelled so that the queue does not move.
   void fold4(uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
      q0_ = mix(q0_, a);
      q1_ = mix(q1_, b);
      q2_ = mix(q2_, c);
      q3_ = mix(q3_, d);
   }

   uint64_t value() const {
      uint64_t h = mix(mix(mix(q0_, q1_), q2_), q3_);
      h ^= h >> 33;
      h *= 0xff51afd7ed558ccdull;
      h ^= h >> 33;
      h *= 0xc4ceb9fe1a85ec53ull;
      h ^= h >> 33;
      return h;
   }

  private:
   static uint64_t mix(uint64_t h, uint64_t w) { return std::rotl((h ^ w) * kMultiplier, 29); }

   uint64_t q0_, q1_, q2_, q3_;  // the queue, front first
};

// The check of `size` payload bytes in private memory stored for slot `clientData`.
inline uint64_t entryCheck(const uint8_t* payload, uint32_t size, uint32_t clientData) {
   EntryCheck c(int32_t(size), clientData);
   uint32_t i = 0;
   for (; i < size; i += 8) {
      uint64_t w = 0;
      for (uint32_t b = 0; b < 8 && i + b < size; ++b) w |= uint64_t(payload[i + b]) << (8 * b);
      c.fold(w);
   }
   return c.value();
}

// The payload that follows an entry header in its slab.
inline const uint8_t* payloadOf(const Dock::SlabEntryHeader& entry) {
   return reinterpret_cast<const uint8_t*>(&entry) + Dock::kSlabEntryHeaderSize;
}

// Whether an occupied entry's stored check matches its header words and payload, read in place
// (relaxed loads: the caller holds the entry still, or re-checks its version word after). False
// for a free entry or one whose payloadSize exceeds `maxPayload`, its class's capacity.
inline bool entryIntact(const Dock::SlabEntryHeader& entry, uint32_t maxPayload) {
   const int32_t size = entry.payloadSize.load(std::memory_order_relaxed);
   if (size < 0 || uint32_t(size) > maxPayload) return false;
   EntryCheck c(size, entry.clientData.load(std::memory_order_relaxed));
   uint8_t scratch[64];
   for (uint32_t at = 0; at < uint32_t(size); at += sizeof scratch) {
      // Whole words per piece, so the pieces fold as one pass would.
      const uint32_t n = std::min<uint32_t>(sizeof scratch, uint32_t(size) - at);
      Dock::copyFromSharedFolding(scratch, payloadOf(entry) + at, n, c);
   }
   return c.value() == entry.check.load(std::memory_order_relaxed);
}

}  // namespace Tessel
