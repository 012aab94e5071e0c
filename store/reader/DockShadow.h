// DockShadow: the key-shadowing reader of a shared-memory table.
//
// It attaches read-only to a table's files, keeps a private shadow (per slot: the key, or the key
// and value; and a ShadowHashMap from key to slot) and turns the writer's notifications into
// per-key callbacks (Region::Notify): added or changed key with its value, removed key, whole
// table, synchronization complete and quiesced. It runs on one Loom::EventLoop: the writer's
// datagram to the herald's wake socket wakes it (no polling), and long work is cut into turns of
// at most yieldTime.
//
// States:
//   detached        nothing mapped (before initialize, after detach, while re-attaching)
//   attached        files mapped and valid, the shadow not yet built
//   synchronizing   comparing every slot present at attach with the shadow (a "flush")
//   synchronized    syncComplete() has run; notifications are applied as they come
//   quiesced        synchronized and caught up with the writer
//
// Synchronizing: at attach the reader sets its queue position to the writer's and compares every
// slot with its shadow. The queue then only has to carry what changed after that point, so the
// ring may be much smaller than the table. The same flush resynchronizes a reader that the writer
// lapped, or one that re-attached to a restarted writer: it announces onWholeTable, compares every
// slot, and defers removals to flushComplete(), where a key is reported removed only if no slot
// holds it any more - a key that merely moved (shrink, or a re-formatted table) is not lost.
//
// Invariant (what keeps the table's view equal to the writer's across restarts): every key the
// table was told about and not since told removed is either indexed in the shadow or listed in
// pendingRemovals_. A flush takes a key out of the index before it knows whether the key is gone
// or only moved, so the pending list belongs to the shadow, not to one flush: only
// flushComplete() drains it, and a flush cut short (the writer restarted or re-formatted again
// mid-flush, the reader re-attached) hands it on to the next flush, which resolves it against
// the then current files. Only detach(), which drops the whole shadow without callbacks, clears
// it. The index is keyed by the hash under the table's hashSeed; a re-formatted table brings a
// new seed, and re-attaching re-keys the records the shadow keeps (hashSeedChanged).
//
// Untyped and typed: what does not depend on the key and value types - the files, the queue, the
// flush turns, writer restarts, consistent byte copies - is the compiled ShadowCore; this template
// adds only what does: the shadow slots, the index by key, the pending removals and the callbacks.
//
// Values are copied out of shared memory (SlotCopy) and deserialized before any callback runs;
// callbacks never see pointers into a mapping. Each change is copied and deserialized once: the
// value is kept with the stamp of its copy (RecentCopies), and a lookup of that key - the
// consumer reading the entry it was just told about - is served from it while the slot provably
// still holds those bytes (ShadowCore::stillCurrent), else copied afresh. Inconsistencies call
// corruptionDetected(reason), which runs the corruption handler and throws
// Loom::CorruptionException.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "Loom/EventLoop.h"
#include "Region/Notify.h"
#include "Vela/Exception.h"
#include "store/KeyTraits.h"
#include "store/reader/IterHint.h"
#include "store/reader/RecentCopies.h"
#include "store/reader/ShadowCore.h"
#include "store/reader/ShadowHashMap.h"
#include "store/reader/ShadowStore.h"

namespace Dock {

template <class K, class V, class KeyOf,
          template <class, class> class ShadowSlotT = ValueShadowSlot>
class DockShadow : public ShadowCore {
  public:
   using Notify = Region::Notify<K, V>;
   using ShadowSlot = ShadowSlotT<K, V>;

   // `name` names the reader in traces and errors; `dir` is the table directory.
   DockShadow(std::string name, std::string dir, Loom::EventLoop& loop)
       : ShadowCore(name, std::move(dir), loop), index_(std::move(name)) {}
   ~DockShadow() override { shutdown(); }

   // Steady callbacks, and optionally another set used until synchronization completes.
   void notifyIs(Notify steady, std::optional<Notify> initial = std::nullopt) {
      steady_ = std::move(steady);
      initial_ = std::move(initial);
   }

   // ---- reads ----
   // The key's value copied out of shared memory, or nothing.
   std::optional<V> lookup(const K& key) {
      const uint32_t slot = slotOf(key);
      if (slot == kNone) return std::nullopt;
      if (const V* v = recentValue(slot, key)) return *v;
      V value;
      if (readingThroughRestart([&] { return copyValue(slot, value) && KeyOf()(value) == key; })) {
         return value;
      }
      return std::nullopt;
   }
   bool directLookup(const K& key, V& out) {
      const uint32_t slot = slotOf(key);
      if (slot == kNone) return false;
      if (const V* v = recentValue(slot, key)) {
         out = *v;
         return true;
      }
      return readingThroughRestart([&] { return copyValue(slot, out) && KeyOf()(out) == key; });
   }
   // Iteration in slot order over the keys the shadow holds; the value is copied out.
   bool first(IterHint& hint, V& value) {
      hint = IterHint{};
      return readingThroughRestart([&] { return step(0, hint, value); });
   }
   bool next(IterHint& hint, V& value) {
      if (!hint.valid()) return false;
      return readingThroughRestart([&] { return step(hint.slot + 1, hint, value); });
   }

   uint32_t members() const override { return index_.size(); }
   uint32_t buckets() const { return index_.buckets(); }
   const ShadowHashMap& index() const { return index_; }

  protected:
   void applySlot(uint32_t slot, SlotFlag flag) override {
      if (slot >= store_.size()) resize();
      if (slot >= store_.size()) {
         corruptionDetected(
             fmt::format("slot index:{} has out of range herald slot: {}", position(), slot));
      }
      // Deserialized into a kept place: a read of this key before the slot changes again (the
      // consumer's, from its callback) is served from it.
      V& value = recent_.fill(slot);
      const bool occupied = slot < numSlots() && copyValue(slot, value);
      if (occupied) recent_.keep(lastCopy());
      ShadowSlot& ss = store_[slot];
      if (!occupied) {
         dropSlotKey(ss, flag);
         return;
      }
      const K key = KeyOf()(value);
      if (ss.present && ss.record.linked() && ss.key == key) {
         if (ss.same(key, value)) return;
         ss.set(key, value);
         notifyValue(key, value);
         return;
      }
      dropSlotKey(ss, flag);
      ss.record.hash = bucketHash(key);
      ss.record.secondary = KeyTraits<K>::secondary(key);
      ShadowRecord* replaced = nullptr;
      try {
         index_.write(slot, ss.record, &replaced);
      } catch (const Vela::Exception& e) {
         corruptionDetected(e.what());
      }
      bool unchanged = false;
      if (replaced) {
         // The key moved here from another slot (a shrink, or a re-formatted table).
         ShadowSlot& old = store_[replaced->slot];
         unchanged = old.same(key, value);
         old.clear();
      }
      ss.set(key, value);
      if (!unchanged) notifyValue(key, value);
   }
   uint32_t shadowSlots() const override { return store_.size(); }
   void shadowSlotsAtLeast(uint32_t count) override {
      if (count > store_.size()) store_.resize(count);
   }
   void dropShadow() override {
      for (uint32_t i = 0; i < store_.size(); ++i) store_[i].record = ShadowRecord{};
      index_.clear();
      store_.reset();
      pendingRemovals_.clear();
      recent_.clear();
   }
   // Re-keys the indexed records under the new seed. The records are unlinked first so that no
   // chain ever holds records hashed under two seeds.
   void hashSeedChanged() override {
      if (index_.size() == 0) return;
      std::vector<ShadowSlot*> kept;
      kept.reserve(index_.size());
      for (uint32_t s = 0; s < store_.size(); ++s) {
         ShadowSlot& ss = store_[s];
         if (!ss.present || !ss.record.linked()) continue;
         index_.remove(ss.record);
         kept.push_back(&ss);
      }
      for (ShadowSlot* ss : kept) {
         ss->record.hash = bucketHash(ss->key);
         index_.write(ss->record.slot, ss->record);
      }
      SPOOR_TRACE(ShadowDetail::trace(), 5, "{} re-keyed {} records under hashSeed:{}", name(),
                  kept.size(), hashSeed());
   }
   void resolvePendingRemovals() override {
      auto removed = std::move(pendingRemovals_);
      pendingRemovals_.clear();
      for (const auto& [fingerprint, key] : removed) {
         if (!index_.find(bucketHash(key), fingerprint)) notifyRemoved(key);
      }
   }
   void announceWholeTable() override {
      if (current().onWholeTable) current().onWholeTable();
   }
   void announceSyncComplete() override {
      if (current().onSyncComplete) current().onSyncComplete();
   }
   void announceQuiesced(bool q) override {
      if (current().onQuiesced) current().onQuiesced(q);
   }

  private:
   const Notify& current() const { return (!syncedOnce() && initial_) ? *initial_ : steady_; }
   uint32_t bucketHash(const K& key) const {
      return reverseHash(KeyTraits<K>::hash(key, hashSeed()));
   }

   // The slot the shadow holds `key` in, or kNone.
   uint32_t slotOf(const K& key) const {
      if (!connected()) return kNone;
      const ShadowRecord* r = index_.find(bucketHash(key), KeyTraits<K>::secondary(key));
      return r ? r->slot : kNone;
   }
   // The value of `key` kept from the last copy of `slot`, while the slot still holds it.
   const V* recentValue(uint32_t slot, const K& key) const {
      const auto* c = recent_.kept(slot);
      if (!c || !stillCurrent(c->stamp) || !(KeyOf()(c->value) == key)) return nullptr;
      return &c->value;
   }

   // Copies a slot's value; false when the slot is not occupied.
   bool copyValue(uint32_t slot, V& out) {
      if (!copyBytes(slot)) return false;
      try {
         out.deserialize(bytes().data(), uint32_t(bytes().size()));
      } catch (const Vela::Exception& e) {
         corruptionDetected(fmt::format("slot:{} value cannot be read: {}", slot, e.what()));
      }
      return true;
   }
   void dropSlotKey(ShadowSlot& ss, SlotFlag flag) {
      if (!ss.present) return;
      const K key = ss.key;
      const bool indexed = ss.record.linked();
      if (indexed) index_.remove(ss.record);
      ss.clear();
      if (!indexed) return;
      if (flag == SlotFlag::kFlushed) {
         addPendingRemoval(key);
      } else {
         notifyRemoved(key);
      }
   }
   // Listed once however often flushes drop it: the table hears of a removal once.
   void addPendingRemoval(const K& key) {
      const uint64_t fingerprint = KeyTraits<K>::secondary(key);
      auto [it, end] = pendingRemovals_.equal_range(fingerprint);
      for (; it != end; ++it) {
         if (it->second == key) return;
      }
      pendingRemovals_.emplace(fingerprint, key);
   }
   void notifyValue(const K& key, const V& value) {
      if (!notifying()) return;
      const Notify& n = current();
      if (n.onValue) n.onValue(value);
      if (n.onKey) n.onKey(key);
   }
   void notifyRemoved(const K& key) {
      if (!notifying()) return;
      const Notify& n = current();
      if (n.onKeyRemoved) n.onKeyRemoved(key);
   }
   bool step(uint32_t from, IterHint& hint, V& value) {
      for (uint32_t s = from; s < store_.size(); ++s) {
         const ShadowSlot& ss = store_[s];
         if (!ss.present || !ss.record.linked()) continue;
         if (!copyValue(s, value) || !(KeyOf()(value) == ss.key)) continue;
         hint.slot = s;
         hint.version = slotFlags(s);
         hint.bucket = index_.bucketOf(ss.record.hash);
         return true;
      }
      hint = IterHint{};
      return false;
   }

   Notify steady_;
   std::optional<Notify> initial_;
   ShadowHashMap index_;
   ShadowStore<ShadowSlot> store_;
   RecentCopies<V> recent_;
   // Keys dropped from their slot by a flush and not yet known to be gone or moved, by their
   // seed-independent fingerprint (KeyTraits::secondary).
   std::unordered_multimap<uint64_t, K> pendingRemovals_;
};

}  // namespace Dock
