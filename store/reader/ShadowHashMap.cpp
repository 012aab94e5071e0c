// ShadowHashMap: sorted, split-ordered chains over a power-of-two bucket array (see the header).
#include "store/reader/ShadowHashMap.h"

#include <exception>

#include "Spoor/Trace.h"
#include "Vela/Assert.h"
#include "Vela/Exception.h"

namespace Dock {

namespace {
Spoor::Handle& trace() {
   return Spoor::handle("ShadowHashMap");
}
}  // namespace

ShadowHashMap::ShadowHashMap(std::string name, uint32_t maxBits)
    : name_(std::move(name)), heads_(1, nullptr), maxBits_(maxBits) {}

ShadowHashMap::WriteResult ShadowHashMap::write(uint32_t slot, ShadowRecord& record,
                                                ShadowRecord** replaced) {
   if (replaced) *replaced = nullptr;
   record.slot = slot;
   const uint32_t bucket = bucketOf(record.hash);
   ShadowRecord** link = &heads_[bucket];
   if (*link == nullptr) {
      VELA_ASSERT(!record.linked());
      record.next = nullptr;
      record.prevLink = link;
      *link = &record;
      ++count_;
      SPOOR_TRACE(trace(), 9, "{} slot:{} bucket:{} value inserted in fresh bucket", name_, slot,
                  bucket);
   } else {
      while (*link && below(**link, record.hash, record.secondary)) link = &(*link)->next;
      ShadowRecord* at = *link;
      if (at && at->hash == record.hash && at->secondary == record.secondary) {
         if (at == &record) {
            SPOOR_TRACE(trace(), 9, "{} slot:{} bucket:{} no index update needed", name_, slot,
                        bucket);
            return WriteResult::unchanged;
         }
         VELA_ASSERT(!record.linked());
         // Same key, another slot: the new record takes the old one's place in the chain.
         record.next = at->next;
         record.prevLink = link;
         if (at->next) at->next->prevLink = &record.next;
         *link = &record;
         at->next = nullptr;
         at->prevLink = nullptr;
         if (replaced) *replaced = at;
         SPOOR_TRACE(trace(), 9, "{} slot:{} bucket:{} replaces slot:{} value updated", name_, slot,
                     bucket, at->slot);
         return WriteResult::updated;
      }
      VELA_ASSERT(!record.linked());
      record.next = at;
      record.prevLink = link;
      if (at) at->prevLink = &record.next;
      *link = &record;
      ++count_;
      SPOOR_TRACE(trace(), 9, "{} slot:{} bucket:{} value inserted", name_, slot, bucket);
   }
   if (count_ > (uint64_t(heads_.size()) << kLoadShift) && bits_ < maxBits_) grow();
   return WriteResult::inserted;
}

void ShadowHashMap::remove(ShadowRecord& record) {
   VELA_ASSERT(record.linked());
   *record.prevLink = record.next;
   if (record.next) record.next->prevLink = record.prevLink;
   record.next = nullptr;
   record.prevLink = nullptr;
   --count_;
}

ShadowRecord* ShadowHashMap::find(uint32_t hash, uint64_t secondary) const {
   for (ShadowRecord* r = heads_[bucketOf(hash)]; r; r = r->next) {
      if (below(*r, hash, secondary)) continue;
      return r->hash == hash && r->secondary == secondary ? r : nullptr;
   }
   return nullptr;
}

void ShadowHashMap::clear() {
   for (ShadowRecord*& head : heads_) {
      for (ShadowRecord* r = head; r;) {
         ShadowRecord* next = r->next;
         r->next = nullptr;
         r->prevLink = nullptr;
         r = next;
      }
   }
   heads_.assign(1, nullptr);
   bits_ = 0;
   count_ = 0;
}

void ShadowHashMap::grow() {
   const size_t from = heads_.size();
   const size_t to = from * 2;
   SPOOR_TRACE(trace(), 5, "{} buckets growing from:{} to:{}", name_, from, to);
   try {
      if (bits_ + 1 > maxBits_) {
         throw std::length_error(fmt::format("more than {} buckets", size_t(1) << maxBits_));
      }
      heads_.resize(to, nullptr);
   } catch (const std::exception& e) {
      throw Vela::Exception(
          fmt::format("failed to resize {} from {} to {} buckets : {}", name_, from, to, e.what()));
   }
   ++bits_;
   const uint32_t splitBit = 1u << (32 - bits_);  // the hash bit that picks 2i or 2i+1
   // From the last old bucket down: targets 2i and 2i+1 are never below i, and every old bucket
   // above i has already been moved out, so nothing is overwritten before it is read.
   for (size_t i = from; i-- > 0;) {
      ShadowRecord* chain = heads_[i];
      heads_[i] = nullptr;
      ShadowRecord** low = &heads_[2 * i];
      ShadowRecord** high = &heads_[2 * i + 1];
      *low = nullptr;
      *high = nullptr;
      if (!chain) continue;
      SPOOR_TRACE(trace(), 9, "{} splitting bucket {} to buckets {} and {}", name_, i, 2 * i,
                  2 * i + 1);
      ShadowRecord** link = low;
      *link = chain;
      chain->prevLink = link;
      while (*link && ((*link)->hash & splitBit) == 0) link = &(*link)->next;
      if (*link) {
         *high = *link;
         (*high)->prevLink = high;
         *link = nullptr;
      }
   }
}

}  // namespace Dock
