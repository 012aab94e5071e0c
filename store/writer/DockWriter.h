// DockWriter<K, V, KeyOf>: the single writer of a shared-memory table, the thin typed part over
// WriterCore (store/writer/WriterCore.h), which owns the files, the publishing protocol, recovery,
// shrinking and the counters for every table type.
//
// What depends on the key or value type is here: serializing a value into the core's scratch
// buffer, the key (KeyOf()(value)) and its hash, finding its slot through the typed index
// (WriterHashMap over the private records of SlotWriterTable, which hold each slot's key), and
// the writer's own reads of values (DynamicSlotAllocator). The core reaches the typed index
// through WriterIndex, which this class implements.
//
// The replacement of an existing key (write) stays inline here up to one call into the core,
// which publishes the serialized bytes.
//
// Threads: one writer thread; nothing here is thread-safe.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Loom/CorruptionException.h"
#include "Spoor/Trace.h"
#include "Vela/Assert.h"
#include "store/DeepValidate.h"
#include "store/DockConfig.h"
#include "store/KeyTraits.h"
#include "store/format/Layout.h"
#include "store/slab/DynamicSlotAllocator.h"
#include "store/writer/SlotWriterTable.h"
#include "store/writer/WriterCore.h"
#include "store/writer/WriterHashMap.h"
#include "store/writer/WriterIndex.h"

namespace Dock {

// Formats a key for messages: with fmt when it can, else its bytes in hex.
template <class T>
std::string describe(const T& x) {
   if constexpr (fmt::is_formattable<T>::value) {
      return fmt::format("{}", x);
   } else {
      const auto* p = reinterpret_cast<const unsigned char*>(&x);
      std::string s = "0x";
      for (size_t i = sizeof(T); i-- > 0;) s += fmt::format("{:02x}", p[i]);
      return s;
   }
}

template <class K, class V, class KeyOf>
class DockWriter final : public WriterCore, private WriterIndex {
  public:
   using Table = SlotWriterTable<K>;

   // The core keeps references to table_ and to this index; it uses neither before initialize().
   explicit DockWriter(DockConfig config) : WriterCore(std::move(config), table_, *this) {}
   DockWriter(const DockWriter&) = delete;
   DockWriter& operator=(const DockWriter&) = delete;

   // ---------------------------------------------------------------------------------------
   // Writes.

   // Inserts or replaces the value of KeyOf()(value). Throws TableFullError.
   void write(const V& value) {
      const K key = KeyOf()(value);
      const uint32_t hash = hash_->hashOf(key);
      // Nine keys in ten are first or second in their chain (load <= 1). The chain start names
      // both with their key hashes, so the walk starts at the second slot when the hash is not
      // the head's, and the record, the slot line and the old slab entry (by the hint kept with
      // it) of the slot the hash matches are prefetched together: the misses, two with page
      // walks in the shared mappings, overlap instead of following the chain record by record.
      const BucketWriter::ChainStart start = bucketFile().chainStart(bucketFile().bucketOf(hash));
      const uint32_t from = hash_->walkStart(start, hash);
      if (from != kNone) {
         if (from == start.first) {
            prefetchSlotOf(from, start.firstHint);
         } else if (start.secondHash == hash) {
            prefetchSlotOf(from, start.secondHint);
         } else {
            __builtin_prefetch(&table_.records()[from], 0);  // the walk goes on from there
         }
      }
      // The value is serialized (private work, often the larger part of a replacement) while
      // those misses are in flight; the records are touched only after it.
      const uint32_t length = serializeToScratch(value);
      const uint32_t s = hash_->lookupFrom(from, key, hash);
      if (s != kNone && s != from) prefetchSlot(s);
      openDirect(s, key, hash);
      publish(length);
   }

   // Removes `key`; returns whether it was there (and its value in *removed when given).
   bool remove(const K& key, V* removed = nullptr) {
      const uint32_t hash = hash_->hashOf(key);
      const uint32_t s = hash_->lookup(key, hash);
      const uint32_t bucket = bucketFile().bucketOf(hash);
      if (s == kNone) {
         SPOOR_TRACE(writerTrace(), 8, "{} bucket:{} not found", dockName(), bucket);
         ++counters().removeMisses;
         return false;
      }
      SPOOR_TRACE(writerTrace(), 8, "{} bucket:{} slot:{}", dockName(), bucket, s);
      if (removed) *removed = dynamic_->getValue(offsetOf(s));
      hash_->unlink(s);
      removeSlot(s);
      return true;
   }

   // Opens the slot of `key` for a direct write, taking a free slot for a new key.
   void directWrite(const K& key) {
      const uint32_t hash = hash_->hashOf(key);
      uint32_t s = hash_->lookup(key, hash);
      openDirect(s, key, hash);
   }
   // Opens the slot of an existing key; returns false (and opens nothing) when it is absent.
   bool directUpdate(const K& key) {
      const uint32_t hash = hash_->hashOf(key);
      const uint32_t s = hash_->lookup(key, hash);
      if (s == kNone) {
         checkNotOpen(key);
         return false;
      }
      openDirect(s, key, hash);
      return true;
   }

   // Publishes `value` into the open slot. REQUIRES: a direct write is open, for value's key.
   void directCommit(const V& value) {
      if (directSlot() == kNone) {
         VELA_FAIL("not in direct mode! Make sure the DirectIs/Commit are properly paired!");
      }
      VELA_ASSERT(sameKey(KeyOf()(value), directKey_) && "direct commit of another key");
      uint32_t length;
      try {
         length = serializeToScratch(value);
      } catch (...) {
         abandonDirect();
         throw;
      }
      publish(length);
   }

   // ---------------------------------------------------------------------------------------
   // The writer's own reads.

   std::optional<V> lookup(const K& key) {
      const uint32_t s = hash_->lookup(key);
      if (s == kNone) return std::nullopt;
      return dynamic_->getValue(offsetOf(s));
   }
   bool contains(const K& key) const { return hash_->lookup(key) != kNone; }
   // The slot of `key`, or kNone.
   uint32_t slotOf(const K& key) const { return hash_->lookup(key); }
   V valueAt(uint32_t slot) { return dynamic_->getValue(offsetOf(slot)); }
   const K& keyAt(uint32_t slot) const { return table_.records()[slot].key; }

   // Iteration in the index's order (see WriterHashMap). A position is (slot, flags word when
   // saved) plus the key: next() continues from the slot when it still carries that word (the
   // fast path), else from the first key after the position's key (the slow path), which also
   // holds when that key was removed or the buckets were resized meanwhile. Returns kNone at the
   // end.
   uint32_t firstSlot() const { return hash_->first(); }
   uint32_t nextSlot(const K& key, uint32_t slot, uint32_t version) {
      try {
         auto& r = table_.records().at(slot);
         if (table_.slot(slot).flags.load(std::memory_order_relaxed) == version &&
             (version & kOccupied) && sameKey(r.key, key)) {
            return hash_->successor(slot);
         }
      } catch (const std::exception& e) {
         SPOOR_TRACE(writerTrace(), 5,
                     "saw exception in fast path: {}. This might be okay, dropping to slow path "
                     "to find out",
                     e.what());
      }
      return hash_->after(hash_->hashOf(key), key);
   }

   Table& table() { return table_; }

  private:
   // Serializes `value` into the core's scratch buffer; returns its length. Throws
   // ValueTooLargeError, before anything is written, for a value the slabs cannot hold.
   uint32_t serializeToScratch(const V& value) {
      const uint32_t length = value.serializeLen();
      checkValueLength(length);
      value.serialize(scratch(length));
      return length;
   }

   void checkNotOpen(const K& key) {
      if (directSlot() != kNone) {
         VELA_FAIL(
             "unbalanced directSlot:{} containing value:{} when writing value:{} - Make sure the "
             "DirectIs/Commit are properly paired!",
             directSlot(), describe(directKey_), describe(key));
      }
   }

   void openDirect(uint32_t s, const K& key, uint32_t hash) {
      checkNotOpen(key);
      WriterCore::openDirect(s, hash);
      directKey_ = key;
   }

   void publish(uint32_t length) {
      const Published p = WriterCore::publish(length);
      // A replacement's new offset word becomes the slot's prefetch hint. The hint is the
      // writer's alone (never read by readers, only prefetched), so recording it after the
      // publishing changes nothing they see; an insertion recorded it when it linked the key.
      if (!p.inserted) hash_->offsetHintIs(p.slot, p.offsetWord);
   }

   // Starts the cache misses a replacement of slot `s` will take: its slot line (usually already
   // under way from the lookup) and the header of the entry its value is in (the private offset
   // hint; a stale hint costs one wasted prefetch, never a wrong result).
   void prefetchSlot(uint32_t s) {
      __builtin_prefetch(&table_.slot(s), 1);
      prefetchEntry(table_.records()[s].offsetHint);
   }
   // The same for a slot whose hint is known, and its record too.
   void prefetchSlotOf(uint32_t s, uint32_t hint) {
      __builtin_prefetch(&table_.records()[s], 0);
      __builtin_prefetch(&table_.slot(s), 1);
      prefetchEntry(hint);
   }

   // ---------------------------------------------------------------------------------------
   // WriterIndex: what the core asks of the typed index.

   void indexStarted() override {
      table_.syncRecords();
      hash_ = std::make_unique<WriterHashMap<K>>(table_, bucketWriter());
      dynamic_ = std::make_unique<Tessel::DynamicSlotAllocator<V>>(allocator());
   }
   void indexDropped() override {
      dynamic_.reset();
      table_.records().resize(0);
      hash_.reset();
   }
   void slotsGrown(CriticalYield& yield) override { table_.syncRecords(&yield); }
   void slotRecovered(uint32_t s) override {
      Slot& slot = table_.slot(s);
      dynamic_->validateSlot(s, slot);
      const V value = dynamic_->getValue(offsetOf(s));
      const K key = KeyOf()(value);
      const uint32_t hash = hash_->hashOf(key);
      // Readers compare this word before the key: a damaged one hides the key from them.
      if (const uint32_t stored = slot.keyHash.load(std::memory_order_relaxed); stored != hash) {
         throw Loom::CorruptionException(keyHashMismatch(s, stored, hash));
      }
      if (const uint32_t other = hash_->lookup(key, hash); other != kNone) {
         if (dropInterruptedMove(other, s)) return;
         throw Loom::CorruptionException(fmt::format("duplicate key in slot: {}", s));
      }
      auto& r = table_.records()[s];
      r.hash = hash;
      r.offsetHint = slot.offset.load(std::memory_order_relaxed);
      hash_->link(s, hash, key);
   }
   void slotInserted(uint32_t s, uint32_t hash, uint32_t offsetWord) override {
      table_.records()[s].offsetHint = offsetWord;  // link() passes it to the head
      hash_->link(s, hash, directKey_);
   }
   uint32_t hashAt(uint32_t s) const override { return table_.records()[s].hash; }
   bool findsOwnKey(uint32_t s) const override {
      const auto& r = table_.records()[s];
      return hash_->lookup(r.key, r.hash) == s;
   }
   bool slotMoved(uint32_t from, uint32_t to, uint32_t offsetWord) override {
      if (!hash_->relink(from, to)) return false;
      hash_->offsetHintIs(to, offsetWord);
      return true;
   }
   void growBuckets(bool criticalCheck) override {
      hash_->growBuckets(criticalCheck, writerTrace());
   }
   void shrinkBuckets(bool criticalCheck) override {
      hash_->shrinkBuckets(criticalCheck, writerTrace());
   }

   Table table_;
   std::unique_ptr<WriterHashMap<K>> hash_;
   std::unique_ptr<Tessel::DynamicSlotAllocator<V>> dynamic_;
   K directKey_{};  // the key of the open direct write (the core keeps its slot and hash)
};

}  // namespace Dock
