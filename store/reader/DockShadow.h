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
// new seed, and re-attaching re-keys the records the shadow keeps (rehashIndex).
//
// Writer restart: the herald's relume is re-stamped by a restarted writer (see HeraldWriter), which
// also wakes readers; a reader that sees a relume other than its own detaches its files, keeps its
// shadow, re-attaches under the new relume and flushes. When the new files are not ready yet it
// retries on a timer (10 ms doubling to 1 s) - only while reconnecting, never for notifications.
//
// Yield time default: 5 ms per event-loop turn, so that a reader catching up on a large table
// stays responsive to its own process's other work.
//
// Values are copied out of shared memory (SlotCopy) and deserialized before any callback runs;
// callbacks never see pointers into a mapping. Inconsistencies call corruptionDetected(reason),
// which runs the corruption handler and throws Loom::CorruptionException.
#pragma once

#include <sys/epoll.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Loom/Clock.h"
#include "Loom/CorruptionException.h"
#include "Loom/EventLoop.h"
#include "Region/MappedFile.h"
#include "Region/Notify.h"
#include "Region/RelumeFile.h"
#include "Region/VersionAnchor.h"
#include "Spoor/Trace.h"
#include "store/KeyTraits.h"
#include "store/format/SlotTable.h"
#include "store/herald/HeraldReader.h"
#include "store/reader/IterHint.h"
#include "store/reader/ReaderHashMap.h"
#include "store/reader/ShadowHashMap.h"
#include "store/reader/ShadowStore.h"
#include "store/reader/SlotCopy.h"
#include "store/slab/ReaderAllocator.h"

namespace Dock {

enum class ReaderState { kDetached, kAttached, kSynchronizing, kSynchronized, kQuiesced };
const char* readerStateName(ReaderState state);

struct ReaderCounters {
   uint64_t wakes = 0;          // wake-ups handled
   uint64_t notifications = 0;  // queue entries applied
   uint64_t slotsCopied = 0;    // consistent slot copies taken
   uint64_t lapped = 0;         // times the writer overwrote notifications not yet read
   uint64_t flushes = 0;        // whole-table comparisons (attach, lapped, re-attach)
   uint64_t reattaches = 0;     // writer restarts followed
   uint64_t yields = 0;         // turns cut short by the yield time
};

namespace ShadowDetail {
Spoor::Handle& trace();
}

template <class K, class V, class KeyOf,
          template <class, class> class ShadowSlotT = ValueShadowSlot>
class DockShadow {
  public:
   using Notify = Region::Notify<K, V>;
   using ShadowSlot = ShadowSlotT<K, V>;
   enum class SlotFlag { kNotified, kFlushed };

   // `name` names the reader in traces and errors; `dir` is the table directory.
   DockShadow(std::string name, std::string dir, Loom::EventLoop& loop)
       : name_(std::move(name)), dir_(std::move(dir)), loop_(loop), index_(name_) {}
   ~DockShadow() {
      alive_->store(false);
      detach();
   }
   DockShadow(const DockShadow&) = delete;
   DockShadow& operator=(const DockShadow&) = delete;

   // Steady callbacks, and optionally another set used until synchronization completes.
   void notifyIs(Notify steady, std::optional<Notify> initial = std::nullopt) {
      steady_ = std::move(steady);
      initial_ = std::move(initial);
   }
   void corruptionHandlerIs(std::function<void(const std::string&)> handler) {
      corruptionHandler_ = std::move(handler);
   }
   // REQUIRES: seconds > 0.
   void yieldTimeIs(double seconds) { yieldTime_ = seconds; }
   double yieldTime() const { return yieldTime_; }
   void notifyingIs(bool on) { notifying_ = on; }
   bool notifying() const { return notifying_; }

   // Maps and validates the files under the writer's relume and starts synchronizing (the first
   // turn runs now: an empty or small table is synchronized on return). False with attachError()
   // set ("{}::attach() cannot attach to shmem {} size:{}: {}") when the files are not usable.
   bool initialize() {
      if (!attachFiles()) return false;
      startFlush(false);
      continueFlush();
      return true;
   }
   // As initialize(); when the files are not usable yet, keeps trying on the loop until they are,
   // with the back-off of a re-attach (a table mounted before its writer has published).
   bool initializeOrRetry() {
      if (initialize()) return true;
      reattachDelay_ = std::chrono::milliseconds(10);
      retryAttach(false);
      return false;
   }
   const std::string& attachError() const { return attachError_; }

   // Unmaps everything and drops the shadow (no callbacks).
   void detach() {
      if (header_) {
         SPOOR_TRACE(ShadowDetail::trace(), 5, "{} delegating to SlotTable::detach()", name_);
      }
      detachFiles();
      for (uint32_t i = 0; i < store_.size(); ++i) store_[i].record = ShadowRecord{};
      index_.clear();
      store_.reset();
      pendingRemovals_.clear();
      synced_ = false;
   }

   // ---- reads ----
   // The key's value copied out of shared memory, or nothing.
   std::optional<V> lookup(const K& key) {
      V value;
      if (directLookup(key, value)) return value;
      return std::nullopt;
   }
   bool directLookup(const K& key, V& out) {
      if (!header_) return false;
      const ShadowRecord* r = index_.find(bucketHash(key), KeyTraits<K>::secondary(key));
      if (!r) return false;
      return readingThroughRestart([&] { return copyValue(r->slot, out) && KeyOf()(out) == key; });
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

   // ---- state ----
   ReaderState state() const {
      if (!header_) return ReaderState::kDetached;
      if (flushing_) return synced_ ? ReaderState::kSynchronized : ReaderState::kSynchronizing;
      if (!synced_) return ReaderState::kAttached;
      return herald_.quiesced(seq_) ? ReaderState::kQuiesced : ReaderState::kSynchronized;
   }
   ReaderState mountStatus() const { return state(); }
   bool connected() const { return header_ != nullptr; }
   // Not quiesced while the herald names another writer generation: a restart is pending.
   bool quiesced() const {
      return header_ && synced_ && !flushing_ && herald_.relume() == relume_ &&
             herald_.quiesced(seq_);
   }
   uint64_t sequence() const { return seq_; }
   // The queue position the reader has consumed up to (the writer's sequence() when caught up).
   uint64_t position() const { return herald_.position(); }
   uint32_t capacity() const { return header_ ? SlotTable::numSlots(*header_) : 0; }
   uint32_t members() const { return index_.size(); }
   uint32_t buckets() const { return index_.buckets(); }
   uint32_t relumeId() const { return relume_; }
   const ReaderCounters& readerCounters() const { return counters_; }
   const std::string& name() const { return name_; }
   const ShadowHashMap& index() const { return index_; }
   HeraldReader& herald() { return herald_; }

   Region::VersionAnchor getCacheVersionAnchor() const { return anchor_; }
   // True when the cached view still describes the writer's files; follows a resize; a replaced
   // file or writer generation re-attaches (and returns false).
   bool validateVersionAnchor() {
      if (!header_) return false;
      const auto now =
          Region::VersionAnchor::of(*slotsFile_, relume_, SlotTable::resizeCounter(*header_));
      switch (anchor_.compare(now)) {
         case Region::AnchorChange::kNone:
            // The file may have been replaced under its name (a re-formatted table).
            if (anchor_.samePath(slotsFile_->path())) return true;
            handleDisconnect();
            return false;
         case Region::AnchorChange::kResized:
            resize();
            return true;
         case Region::AnchorChange::kReplaced:
            handleDisconnect();
            return false;
      }
      return false;
   }

   // ---- work ----
   // Applies one notified slot: compare with the shadow, update the index, call back.
   void doSlot(uint32_t slot, uint64_t sequence, SlotFlag flag) {
      if (sequence > seq_) seq_ = sequence;
      applySlot(slot, flag);
   }
   void doFlushSlot(uint32_t slot) { applySlot(slot, SlotFlag::kFlushed); }
   // Ends a flush: reports the keys that left their slot and are held by no other slot.
   void flushComplete() {
      flushing_ = false;
      auto removed = std::move(pendingRemovals_);
      pendingRemovals_.clear();
      for (const auto& [fingerprint, key] : removed) {
         if (!index_.find(bucketHash(key), fingerprint)) notifyRemoved(key);
      }
      SPOOR_TRACE(ShadowDetail::trace(), 7, "{} flush complete members:{}", name_, members());
   }
   // See the file comment for the order.
   void syncComplete() {
      SPOOR_TRACE(ShadowDetail::trace(), 5, "Synchronization complete, seq:{}", seq_);
      if (!synced_) {
         synced_ = true;
         if (!syncedOnce_) {
            syncedOnce_ = true;
            if (current().onSyncComplete) current().onSyncComplete();
         }
      }
      processQueue(false, false);
      const bool q = quiesced();
      handleQuiesced(q);
   }
   void handleQuiesced(bool q) {
      reportedQuiesced_ = q;
      SPOOR_TRACE(ShadowDetail::trace(), 5, "{} quiesced:{} seq:{}", name_, q, seq_);
      if (current().onQuiesced) current().onQuiesced(q);
   }
   // The writer went away or restarted: keep the shadow, re-attach, flush.
   void handleDisconnect() {
      SPOOR_TRACE(ShadowDetail::trace(), 5, "{} writer disconnected relume:{}", name_, relume_);
      ++counters_.reattaches;
      detachFiles();
      reattachDelay_ = std::chrono::milliseconds(10);
      retryAttach(true);
   }
   // Follows a slot file the writer grew (or shrank: the file keeps its length).
   void resize() {
      const auto copy = safeHeaderCopy(
          header_,
          [](const SlotTableHeader& h) { return h.sizeWord.load(std::memory_order_acquire); },
          [this] { return slotsFile_->size(); });
      const uint32_t n = sizeWordNumSlots(copy.version);
      if (SlotTable::fileSizeFor(n) > slotsFile_->size()) {
         const uint8_t* before = slotsFile_->data();
         slotsFile_->remap();
         mapSlots();
         if (slotsFile_->data() != before) {
            SPOOR_TRACE(ShadowDetail::trace(), 7, "{} base address moved from {} to {}", name_,
                        static_cast<const void*>(before),
                        static_cast<const void*>(slotsFile_->data()));
         }
      }
      if (n > store_.size()) store_.resize(n);
      anchor_ = Region::VersionAnchor::of(*slotsFile_, relume_, sizeWordCounter(copy.version));
   }
   // Slot table and herald headers in their human-readable forms.
   std::string dumpHeaders() const {
      if (!header_) return fmt::format("{} detached", name_);
      const auto copy = safeHeaderCopy(
          header_,
          [](const SlotTableHeader& h) { return h.sizeWord.load(std::memory_order_acquire); },
          [this] { return slotsFile_->size(); });
      const HeraldHeader& h = *herald_.header();
      return fmt::format("{}\nherald capacity:{} relume:{} writerPos:{} readerPos:{} seqBase:{}",
                         SlotTable::headerString(*copy.header), h.capacity, herald_.relume(),
                         herald_.writerPosition(), herald_.position(), h.seqBase);
   }
   [[noreturn]] void corruptionDetected(const std::string& reason) {
      SPOOR_TRACE(ShadowDetail::trace(), 0, "{} corruption detected: {}", name_, reason);
      if (corruptionHandler_) corruptionHandler_(reason);
      throw Loom::CorruptionException(reason);
   }

   // Checks the occupied slots against the notification queue (run while the writer is idle).
   bool validateAgainstHerald(std::string& reason) {
      if (!header_) {
         reason = "detached";
         return false;
      }
      const uint32_t n = std::min(SlotTable::numSlots(*header_), mappedSlots_);
      const uint64_t writer = herald_.writerPosition();
      const uint64_t cap = herald_.capacity();
      const uint64_t oldest = writer > cap ? writer - cap : 0;
      for (uint64_t p = oldest; p < writer; ++p) {
         HeraldReader::Entry e;
         if (!herald_.entryAt(p, e)) continue;
         if ((e.kind == kSlotChanged || e.kind == kTombstone) && e.slot >= mappedSlots_) {
            reason = fmt::format("slot index:{} has out of range herald slot: {}", p, e.slot);
            return false;
         }
      }
      std::vector<std::pair<uint64_t, uint32_t>> seen;
      for (uint32_t s = 0; s < n; ++s) {
         SlotImage image;
         copySlot(*header_, slots_, s, image);
         if (!image.occupied()) continue;
         // heraldPos holds the low 32 bits of the position: widen it to the latest position at or
         // below the writer's that has those low bits.
         uint64_t pos = (writer & ~uint64_t(0xFFFFFFFF)) | image.heraldPos;
         if (pos >= writer && pos >= (uint64_t(1) << 32)) pos -= uint64_t(1) << 32;
         if (pos >= writer) {
            reason = fmt::format("slot:{} bad herald index:{} size:{}", s, image.heraldPos, writer);
            return false;
         }
         if (pos < oldest) continue;  // overwritten since: the ring is finite
         HeraldReader::Entry e;
         if (!herald_.entryAt(pos, e)) {
            reason = fmt::format("no notification in herald queue for occupied slotId:{}", s);
            return false;
         }
         if (e.slot != s) {
            reason = fmt::format("slot:{} bad notification:{} slot:{}", s, pos, e.slot);
            return false;
         }
         seen.emplace_back(pos, s);
      }
      std::sort(seen.begin(), seen.end());
      for (size_t i = 1; i < seen.size(); ++i) {
         if (seen[i].first == seen[i - 1].first) {
            reason =
                fmt::format("slot:{} duplicate herald position:{}", seen[i].second, seen[i].first);
            return false;
         }
      }
      return true;
   }

   // Works through the queue (the eventfd handler calls this). `yield`: stop after yieldTime and
   // continue in a posted task. `report`: report reaching quiesced (syncComplete reports itself).
   void processQueue(bool yield = true, bool report = true) {
      followingRestart([&] { processQueueTurn(yield, report); });
   }

  private:
   // A copy that found the files re-stamped by a restarted writer unwinds the whole turn to here:
   // nothing of the turn was applied past the failed copy, and the reader re-attaches and
   // re-compares every slot with its shadow, so no key is lost or reported removed.
   template <class Turn>
   void followingRestart(Turn&& turn) {
      try {
         turn();
      } catch (const WriterRestarted& e) {
         SPOOR_TRACE(ShadowDetail::trace(), 5, "{} {}; re-attaching", name_, e.what());
         if (header_) handleDisconnect();
      }
   }
   // A read made by the table (lookup, iteration) during a writer restart answers "nothing" and
   // leaves the re-attach to the loop, outside the caller's walk.
   template <class Read>
   bool readingThroughRestart(Read&& read) {
      try {
         return read();
      } catch (const WriterRestarted& e) {
         SPOOR_TRACE(ShadowDetail::trace(), 5, "{} {} during a read; re-attaching", name_,
                     e.what());
         std::weak_ptr<std::atomic<bool>> alive = alive_;
         loop_.post([this, alive] {
            if (auto a = alive.lock(); a && *a && header_) handleDisconnect();
         });
         return false;
      }
   }
   void processQueueTurn(bool yield, bool report) {
      if (!header_) return;
      if (herald_.relume() != relume_) {
         handleDisconnect();
         return;
      }
      if (flushing_) {
         continueFlush();
         return;
      }
      const uint64_t budget = uint64_t(yieldTime_ * Loom::Clock::ticksPerSecond());
      const uint64_t start = Loom::Clock::ticks();
      bool worked = false;
      for (uint32_t n = 1;; ++n) {
         HeraldReader::Entry e;
         const auto r = herald_.next(e);
         if (r == HeraldReader::Next::kEmpty) break;
         if (r == HeraldReader::Next::kLapped) {
            ++counters_.lapped;
            SPOOR_TRACE(ShadowDetail::trace(), 3,
                        "{} lapped at position:{} writer position:{}, resynchronizing", name_,
                        herald_.position(), herald_.writerPosition());
            startFlush(true);
            continueFlush();
            return;
         }
         if (!worked && reportedQuiesced_ && synced_) handleQuiesced(false);
         worked = true;
         ++counters_.notifications;
         if (e.kind == kSlotChanged || e.kind == kTombstone) {
            doSlot(e.slot, e.seq, SlotFlag::kNotified);
         } else {
            seq_ = e.seq;
            SPOOR_TRACE(ShadowDetail::trace(), 7, "{} shrink {} at position:{}", name_,
                        e.kind == kShrinkStart ? "start" : "end", e.position);
         }
         if (yield && n % 64 == 0 && Loom::Clock::ticks() - start >= budget) {
            ++counters_.yields;
            postContinuation();
            return;
         }
      }
      if (report && synced_ && !reportedQuiesced_ && quiesced()) handleQuiesced(true);
   }

  private:
   const Notify& current() const { return (!syncedOnce_ && initial_) ? *initial_ : steady_; }
   uint32_t bucketHash(const K& key) const {
      return reverseHash(KeyTraits<K>::hash(key, hashSeed_));
   }

   bool attachFiles() {
      const std::string path = dir_ + "/" + kSlotsFile;
      size_t size = 0;
      auto fail = [&](const std::string& reason) {
         attachError_ = fmt::format("{}::attach() cannot attach to shmem {} size:{}: {}", name_,
                                    path, size, reason);
         SPOOR_TRACE(ShadowDetail::trace(), 3, "{}", attachError_);
         detachFiles();
         return false;
      };
      const uint32_t relume = Region::RelumeFile::read(dir_);
      if (relume == 0) return fail("no relume");
      try {
         slotsFile_ = std::make_unique<Region::MappedFile>(Region::MappedFile::openReadOnly(path));
      } catch (const Vela::Exception& e) {
         return fail(e.what());
      }
      size = slotsFile_->size();
      header_ = reinterpret_cast<const SlotTableHeader*>(slotsFile_->data());
      std::string reason;
      if (size < kSlotHeaderSize) return fail(fmt::format("bad header file size: {}", size));
      const auto copy = safeHeaderCopy(
          header_,
          [](const SlotTableHeader& h) { return h.sizeWord.load(std::memory_order_acquire); },
          [this] { return slotsFile_->fileSize(); });
      if (!SlotTable::validateHeader(*copy.header, copy.size, relume, reason)) return fail(reason);
      if (!herald_.attach(dir_, relume, reason)) return fail(reason);
      relume_ = relume;
      if (copy.header->hashSeed != hashSeed_) {
         hashSeed_ = copy.header->hashSeed;
         rehashIndex();
      }
      allocator_ = std::make_unique<Tessel::ReaderAllocator>(dir_, relume);
      mapSlots();
      resize();
      const int fd = herald_.eventFd();
      std::weak_ptr<std::atomic<bool>> alive = alive_;
      loop_.fdHandlerIs(fd, EPOLLIN, [this, alive](uint32_t) {
         if (auto a = alive.lock(); !a || !*a) return;
         ++counters_.wakes;
         herald_.drainWake();
         processQueue();
      });
      attachError_.clear();
      SPOOR_TRACE(ShadowDetail::trace(), 5, "{} attached {} relume:{} slots:{}", name_, dir_,
                  relume_, SlotTable::numSlots(*header_));
      return true;
   }
   void detachFiles() {
      if (herald_.attached() && loop_.fdHandlerHas(herald_.eventFd())) {
         loop_.fdHandlerDel(herald_.eventFd());
      }
      herald_.detach();
      allocator_.reset();
      slotsFile_.reset();
      header_ = nullptr;
      slots_ = nullptr;
      mappedSlots_ = 0;
      flushing_ = false;
   }
   void mapSlots() {
      header_ = reinterpret_cast<const SlotTableHeader*>(slotsFile_->data());
      slots_ = SlotTable::slots(header_);
      mappedSlots_ = uint32_t((slotsFile_->size() - kSlotHeaderSize) / kSlotSize);
   }
   // Attaches now or on a timer (10 ms doubling to 1 s), then compares every slot with the shadow;
   // `wholeTable` for a re-attach, which announces onWholeTable.
   void retryAttach(bool wholeTable) {
      if (header_) return;
      if (attachFiles()) {
         startFlush(wholeTable);
         continueFlush();
         return;
      }
      std::weak_ptr<std::atomic<bool>> alive = alive_;
      loop_.timerIs(reattachDelay_, [this, alive, wholeTable] {
         if (auto a = alive.lock(); a && *a) retryAttach(wholeTable);
      });
      reattachDelay_ =
          std::min(reattachDelay_ * 2, std::chrono::nanoseconds(std::chrono::seconds(1)));
   }
   void postContinuation() {
      std::weak_ptr<std::atomic<bool>> alive = alive_;
      loop_.post([this, alive] {
         if (auto a = alive.lock(); a && *a) processQueue();
      });
   }

   // Re-keys the indexed records under hashSeed_ (a re-formatted table chose a new seed). The
   // records are unlinked first so that no chain ever holds records hashed under two seeds.
   void rehashIndex() {
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
      SPOOR_TRACE(ShadowDetail::trace(), 5, "{} re-keyed {} records under hashSeed:{}", name_,
                  kept.size(), hashSeed_);
   }

   // Starts comparing every slot with the shadow; positions the queue at the writer's position
   // first, so every change after the comparison's start is in the queue. Removals still pending
   // from a flush that was cut short stay pending (see the invariant in the file comment).
   void startFlush(bool wholeTable) {
      ++counters_.flushes;
      herald_.restartAt(herald_.writerPosition());
      seq_ = herald_.lastSeq();
      flushing_ = true;
      flushNext_ = 0;
      if (wholeTable && current().onWholeTable) current().onWholeTable();
   }
   void continueFlush() {
      followingRestart([&] { continueFlushTurn(); });
   }
   void continueFlushTurn() {
      resize();
      const uint64_t budget = uint64_t(yieldTime_ * Loom::Clock::ticksPerSecond());
      const uint64_t start = Loom::Clock::ticks();
      const uint32_t end = store_.size();
      while (flushNext_ < end) {
         doFlushSlot(flushNext_++);
         if (flushNext_ % 256 == 0 && Loom::Clock::ticks() - start >= budget) {
            ++counters_.yields;
            postContinuation();
            return;
         }
      }
      flushComplete();
      if (!synced_) {
         syncComplete();
      } else {
         processQueue();
      }
   }

   // Copies a slot's value; false when the slot is not occupied.
   bool copyValue(uint32_t slot, V& out) {
      if (slot >= mappedSlots_) resize();
      if (slot >= mappedSlots_) return false;
      SlotImage image;
      ++counters_.slotsCopied;
      if (!copySlotValue(*header_, slots_, slot, *allocator_, image, bytes_)) return false;
      try {
         out.deserialize(bytes_.data(), uint32_t(bytes_.size()));
      } catch (const Vela::Exception& e) {
         corruptionDetected(fmt::format("slot:{} value cannot be read: {}", slot, e.what()));
      }
      return true;
   }

   void applySlot(uint32_t slot, SlotFlag flag) {
      if (slot >= store_.size()) resize();
      if (slot >= store_.size()) {
         corruptionDetected(fmt::format("slot index:{} has out of range herald slot: {}",
                                        herald_.position(), slot));
      }
      V value;
      const bool occupied = slot < SlotTable::numSlots(*header_) && copyValue(slot, value);
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
      if (!notifying_) return;
      const Notify& n = current();
      if (n.onValue) n.onValue(value);
      if (n.onKey) n.onKey(key);
   }
   void notifyRemoved(const K& key) {
      if (!notifying_) return;
      const Notify& n = current();
      if (n.onKeyRemoved) n.onKeyRemoved(key);
   }
   bool step(uint32_t from, IterHint& hint, V& value) {
      for (uint32_t s = from; s < store_.size(); ++s) {
         const ShadowSlot& ss = store_[s];
         if (!ss.present || !ss.record.linked()) continue;
         if (!copyValue(s, value) || !(KeyOf()(value) == ss.key)) continue;
         hint.slot = s;
         hint.version = slots_[s].flags.load(std::memory_order_acquire);
         hint.bucket = index_.bucketOf(ss.record.hash);
         return true;
      }
      hint = IterHint{};
      return false;
   }

   std::string name_;
   std::string dir_;
   Loom::EventLoop& loop_;
   std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);
   Notify steady_;
   std::optional<Notify> initial_;
   std::function<void(const std::string&)> corruptionHandler_;
   double yieldTime_ = 0.005;
   bool notifying_ = true;

   std::unique_ptr<Region::MappedFile> slotsFile_;
   const SlotTableHeader* header_ = nullptr;
   const Slot* slots_ = nullptr;
   uint32_t mappedSlots_ = 0;
   std::unique_ptr<Tessel::ReaderAllocator> allocator_;
   HeraldReader herald_;
   Region::VersionAnchor anchor_;
   uint32_t relume_ = 0;
   uint32_t hashSeed_ = 0;
   std::string attachError_;

   ShadowHashMap index_;
   ShadowStore<ShadowSlot> store_;
   std::vector<uint8_t> bytes_;
   // Keys dropped from their slot by a flush and not yet known to be gone or moved, by their
   // seed-independent fingerprint (KeyTraits::secondary).
   std::unordered_multimap<uint64_t, K> pendingRemovals_;
   bool flushing_ = false;
   uint32_t flushNext_ = 0;
   bool synced_ = false;
   bool syncedOnce_ = false;
   bool reportedQuiesced_ = false;
   uint64_t seq_ = 0;
   std::chrono::nanoseconds reattachDelay_{std::chrono::milliseconds(10)};
   ReaderCounters counters_;
};

}  // namespace Dock
