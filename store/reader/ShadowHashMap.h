// ShadowHashMap: a reader's private index from key to slot.
//
// Records are intrusive (they live in the reader's ShadowStore, one per slot) and the map only
// links them. Each record carries the bucket hash (the key's 32-bit hash with its bits reversed)
// and a 64-bit secondary key. With 2^bits buckets, a record's bucket is the top `bits` bits of its
// bucket hash, and every chain is sorted ascending by (bucket hash, secondary key). Two records
// with equal hash and secondary key stand for the same key: the map holds at most one of them.
//
// Sorting by reversed hash is what makes growth cheap: when the bucket count doubles, bucket i's
// chain becomes buckets 2i and 2i+1, and since the next hash bit is the most significant bit that
// was not yet used, the chain splits at exactly one point - no record is re-hashed or re-sorted.
//
//   buckets_[b] -> rec -> rec -> rec -> null      rec.prevLink points at the pointer that points
//                  ^prevLink == &buckets_[b]      at rec (a bucket head or the previous rec.next),
//                                                 so any record unlinks itself in O(1)
//
// Load: the map grows when it holds more than buckets << kLoadShift records (kLoadShift = 1: two
// records per bucket on average, which keeps chains short while the bucket array stays half the
// size of a one-per-bucket index; a shadow is mostly walked on lookups that hit).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Dock {

struct ShadowRecord {
   uint32_t slot = 0;
   uint32_t hash = 0;  // bucket hash: the key hash, bits reversed
   uint64_t secondary = 0;
   ShadowRecord* next = nullptr;
   ShadowRecord** prevLink = nullptr;  // null while the record is not linked

   bool linked() const { return prevLink != nullptr; }
};

// The bucket hash of a key hash.
constexpr uint32_t reverseHash(uint32_t v) {
   v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
   v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
   v = ((v >> 4) & 0x0F0F0F0Fu) | ((v & 0x0F0F0F0Fu) << 4);
   v = ((v >> 8) & 0x00FF00FFu) | ((v & 0x00FF00FFu) << 8);
   return (v >> 16) | (v << 16);
}

class ShadowHashMap {
  public:
   static constexpr uint32_t kLoadShift = 1;
   static constexpr uint32_t kMaxBits = 31;

   enum class WriteResult { inserted, updated, unchanged };

   // `name` appears in traces and errors; the map never grows beyond 2^maxBits buckets.
   explicit ShadowHashMap(std::string name, uint32_t maxBits = kMaxBits);
   ShadowHashMap(const ShadowHashMap&) = delete;
   ShadowHashMap& operator=(const ShadowHashMap&) = delete;

   // Inserts `record` (slot, hash and secondary filled in, not linked), or lets it take the place
   // of the record already indexed for the same key, which is unlinked and returned in *replaced.
   // Writing the record that is already indexed changes nothing. May grow the map.
   WriteResult write(uint32_t slot, ShadowRecord& record, ShadowRecord** replaced = nullptr);
   // Unlinks a linked record. REQUIRES: record.linked().
   void remove(ShadowRecord& record);
   // The record indexed for (hash, secondary), or nullptr.
   ShadowRecord* find(uint32_t hash, uint64_t secondary) const;
   // Drops every record (each is marked unlinked) and returns to one bucket.
   void clear();

   // Doubles the bucket count. Throws Vela::Exception "failed to resize ..." when the bucket array
   // cannot be enlarged.
   void grow();

   uint32_t bits() const { return bits_; }
   uint32_t buckets() const { return uint32_t(heads_.size()); }
   uint32_t size() const { return count_; }
   uint32_t bucketOf(uint32_t hash) const { return bits_ == 0 ? 0 : hash >> (32 - bits_); }
   ShadowRecord* bucketHead(uint32_t bucket) const { return heads_[bucket]; }
   const std::string& name() const { return name_; }

  private:
   static bool below(const ShadowRecord& a, uint32_t hash, uint64_t secondary) {
      return a.hash < hash || (a.hash == hash && a.secondary < secondary);
   }

   std::string name_;
   std::vector<ShadowRecord*> heads_;
   uint32_t maxBits_;
   uint32_t bits_ = 0;
   uint32_t count_ = 0;
};

}  // namespace Dock
