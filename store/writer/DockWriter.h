// DockWriter<K, V, KeyOf>: the single writer of a shared-memory table.
//
// It owns every file of the table directory (see store/format/Layout.h): the slot table
// (SlotWriterTable), the bucket file (BucketWriter, searched through WriterHashMap), the slabs
// (Tessel allocator), the notification queue (HeraldWriter), the relume and owner files. Values are
// whole V; the key is KeyOf()(value).
//
// Publishing a slot (directCommit), the protocol readers copy under:
//   replacement (slot OCCUPIED):               insertion (slot free):
//     lookaside = {savedWord, slot, new words}   slot words = new words, key hash
//     flags += 2      (LOOKASIDE set)            flags = old + 4 | OCCUPIED   (one store)
//     slot words = lookaside words               link the slot into its bucket chain
//     flags += 2      (LOOKASIDE clear, +4)
// then: direct mode closed, buckets grown if occupiedSlots > buckets, the slot posted to the
// herald, runtimeFlags bit 0 cleared. The new value always goes into a NEW slab entry that names
// the slot; the old entry is freed only after the slot names the new one, so a reader's payload
// copy can be torn only when the flags word changed, which its re-check sees.
//
// Readers are woken once per batch: flush() does one wake for everything posted since the
// last one. When an event loop runs on the writer's thread, the first write of a loop turn posts a
// task that flushes at the end of the turn; without a loop the caller flushes.
//
// Restart: initialize() on existing files re-attaches, replays what a crash may have left half
// done (an open direct write, a LOOKASIDE slot, a slot taken from the free list but not published,
// slab entries no slot names), rebuilds the private index from the slot table and runs the deep
// validation; any failure re-formats the table with the system's messages. Every start takes a new
// relume, stamped into every file and then into the relume file, which tells readers to resync.
//
// Threads: one writer thread; nothing here is thread-safe.
#pragma once

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Loom/CorruptionException.h"
#include "Loom/EventLoop.h"
#include "Region/Error.h"
#include "Region/MappedFile.h"
#include "Region/OwnerFile.h"
#include "Region/RelumeFile.h"
#include "Region/StoreRoot.h"
#include "Region/VersionAnchor.h"
#include "Spoor/Trace.h"
#include "Vela/Assert.h"
#include "store/DeepValidate.h"
#include "store/DockConfig.h"
#include "store/KeyTraits.h"
#include "store/format/Layout.h"
#include "store/format/SlotTable.h"
#include "store/herald/HeraldWriter.h"
#include "store/slab/DynamicSlotAllocator.h"
#include "store/slab/WriterAllocator.h"
#include "store/writer/BucketWriter.h"
#include "store/writer/SlotWriterTable.h"
#include "store/writer/WriterHashMap.h"

namespace Dock {

// How the writer holds its table.
enum class MountStatus : uint32_t {
   kUnmounted = 0,    // initialize() not called or failed
   kCreated = 1,      // fresh files
   kReattached = 2,   // existing files kept after a restart
   kReformatted = 3,  // existing files failed and were replaced by empty ones
};

struct WriterCounters {
   uint64_t inserts = 0;
   uint64_t replaces = 0;
   uint64_t removes = 0;
   uint64_t removeMisses = 0;
   uint64_t slotGrowths = 0;
   uint64_t bucketGrowths = 0;
   uint64_t bucketShrinks = 0;
   uint64_t slotShrinks = 0;
   uint64_t slotMoves = 0;
   uint64_t wakes = 0;
   uint64_t criticalYields = 0;
   uint64_t reclaimedEntries = 0;  // leaked slab entries freed after a restart
};

// Trace handle of the store's writer.
Spoor::Handle& writerTrace();

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
class DockWriter {
  public:
   using Table = SlotWriterTable<K>;

   explicit DockWriter(DockConfig config) : config_(std::move(config)) {}
   ~DockWriter() {
      if (alive_) *alive_ = false;
      if (herald_.attached()) herald_.wake();
   }
   DockWriter(const DockWriter&) = delete;
   DockWriter& operator=(const DockWriter&) = delete;

   // Creates or re-attaches the table at <storeRoot>/<name> (or at `name` when it is absolute).
   // Throws Region::OwnerError when another live writer holds the table, Region::Error or
   // Vela::Exception when not even fresh files can be made ("failed to attach to and validate
   // new files").
   void initialize(const std::string& name) {
      name_ = name;
      rootPath_ = Region::storeRoot();
      dir_ = Region::tableDirectory(rootPath_, name);
      Region::makeDirectories(dir_);
      owner_ = Region::OwnerFile::acquire(dir_);
      relume_ = Region::RelumeFile::next(Region::RelumeFile::read(dir_));
      struct stat st;
      const bool existing = ::stat((dir_ + "/" + kSlotsFile).c_str(), &st) == 0;
      bool kept = false;
      if (existing) {
         kept = attachAndValidate();
         if (!kept) {
            SPOOR_TRACE(writerTrace(), 0, "all entries from {} will be lost", name_);
            cleanup();
         }
      }
      if (!kept) {
         try {
            createFiles();
            std::string reason;
            if (!validateFiles(reason)) throw Loom::CorruptionException(reason);
         } catch (const std::exception& e) {
            SPOOR_TRACE(writerTrace(), 0, "failed to attach to and validate new files");
            cleanup();
            mountStatus_ = MountStatus::kUnmounted;
            throw Vela::Exception(
                fmt::format("failed to attach to and validate new files: {}", e.what()));
         }
         if (existing) SPOOR_TRACE(writerTrace(), 0, "re-formatted successfully");
         mountStatus_ = existing ? MountStatus::kReformatted : MountStatus::kCreated;
      } else {
         mountStatus_ = MountStatus::kReattached;
      }
      Region::RelumeFile::write(dir_, relume_);
      anchor_ = currentAnchor();
      herald_.wake();
   }

   // Maps the existing files, replays an interrupted write, rebuilds the index and validates.
   // Returns false (with the messages traced) when the files cannot be kept.
   bool attachAndValidate() {
      try {
         attach();
      } catch (const std::exception& e) {
         SPOOR_TRACE(writerTrace(), 0, "failed to attach to existing files: {}", e.what());
         reformatReason_ = fmt::format("failed to attach to existing files: {}", e.what());
         return false;
      }
      std::string reason;
      if (!validateHeaderAgainstConfig(reason)) {
         SPOOR_TRACE(writerTrace(), 0, "failed to validate existing files: {}", reason);
         reformatReason_ = fmt::format("failed to validate existing files: {}", reason);
         return false;
      }
      try {
         recover();
      } catch (const std::exception& e) {
         SPOOR_TRACE(writerTrace(), 0, "Dock {} validation failed: {}", name_, e.what());
         SPOOR_TRACE(writerTrace(), 0, "failed initial validation of {} after re-attaching", name_);
         reformatReason_ = fmt::format("Dock {} validation failed: {}", name_, e.what());
         return false;
      }
      if (!validate()) {
         SPOOR_TRACE(writerTrace(), 0, "failed initial validation of {} after re-attaching", name_);
         reformatReason_ = fmt::format("failed initial validation of {} after re-attaching", name_);
         return false;
      }
      return true;
   }

   // Maps the existing slot table and slabs read-write under the new relume.
   void attach() {
      // The herald first: its re-stamped relume and wake tell readers of the restart before the
      // slab headers below change generation under them.
      try {
         herald_.attach(dir_, relume_);
      } catch (const std::exception& e) {
         SPOOR_TRACE(writerTrace(), 1, "herald not kept: {}", e.what());
      }
      table_.attach(dir_ + "/" + kSlotsFile);
      if (!table_.attached()) throw Vela::Exception("slot table shorter than its header");
      // The slot table next, before any slab: from here until the relume file names this
      // generation, readers fail the slot header's relume check and wait, instead of attaching
      // under the old relume to slabs that already carry the new one (a writer killed in between
      // would leave them unable to read any entry while the slots look stable).
      table_.header()->relume.store(relume_, std::memory_order_release);
      allocator_ = std::make_unique<Tessel::WriterAllocator>(
          dir_, Tessel::LinearSizeConfig(config_.maxValueSize), relume_);
      allocator_->attach();
      dynamic_ = std::make_unique<Tessel::DynamicSlotAllocator<V>>(*allocator_);
   }

   // Unmaps everything; the owner file stays held.
   void detach() {
      herald_.detach();
      buckets_.detach();
      dynamic_.reset();
      allocator_.reset();
      table_.detach();
      table_.records().resize(0);
      hash_.reset();
   }

   // Removes the table's data files (not the owner and relume files) and unmaps them.
   void cleanup() {
      detach();
      ::unlink((dir_ + "/" + kSlotsFile).c_str());
      ::unlink((dir_ + "/" + kBucketsFile).c_str());
      Tessel::WriterAllocator::removeFiles(dir_);
   }

   // The deep walk of the slot table and slabs. Traces "Dock {} validation failed: {}" and
   // returns false on the first finding.
   bool validate() {
      std::string reason;
      if (!validateFiles(reason)) {
         SPOOR_TRACE(writerTrace(), 0, "Dock {} validation failed: {}", name_, reason);
         return false;
      }
      return true;
   }
   bool validateFiles(std::string& reason) {
      try {
         if (!SlotTable::validateHeader(*table_.header(), table_.fileSize(), relume_, reason)) {
            return false;
         }
         deepValidate(*table_.header(), *allocator_);
         if (!buckets_.validate(relume_, table_.header()->hashSeed, reason)) return false;
         return true;
      } catch (const std::exception& e) {
         reason = e.what();
         return false;
      }
   }

   std::string dumpHeaders() const {
      return table_.attached() ? SlotTable::headerString(*table_.header()) : std::string();
   }

   // ---------------------------------------------------------------------------------------
   // Writes.

   // Inserts or replaces the value of KeyOf()(value). Throws TableFullError.
   void write(const V& value) {
      const K key = KeyOf()(value);
      const uint32_t hash = hash_->hashOf(key);
      // Most keys head their chain (load <= 1): the head's record, its slot line and its old slab
      // entry (by the hint kept with the head) are prefetched together, so that the three misses,
      // two of them with page walks in the shared mappings, overlap.
      const uint32_t bucket = buckets_.bucketOf(hash);
      const uint32_t first = buckets_.head(bucket);
      if (first != kNone) {
         __builtin_prefetch(&table_.slot(first), 1);
         prefetchEntry(buckets_.headHint(bucket));
         __builtin_prefetch(&table_.records()[first], 0);
      }
      // The value is serialized (private work, often the larger part of a replacement) while
      // those misses are in flight; the record is touched only after it.
      const uint32_t length = serializeToScratch(value);
      const uint32_t s = hash_->lookupFrom(first, key, hash);
      if (s != kNone && s != first) prefetchSlot(s);
      openDirect(s, key, hash);
      publish(length);
   }

   // Removes `key`; returns whether it was there (and its value in *removed when given).
   bool remove(const K& key, V* removed = nullptr) {
      const uint32_t hash = hash_->hashOf(key);
      const uint32_t s = hash_->lookup(key, hash);
      const uint32_t bucket = hash_->numBuckets() ? (hash & (hash_->numBuckets() - 1)) : 0;
      if (s == kNone) {
         SPOOR_TRACE(writerTrace(), 8, "{} bucket:{} not found", name_, bucket);
         ++counters_.removeMisses;
         return false;
      }
      SPOOR_TRACE(writerTrace(), 8, "{} bucket:{} slot:{}", name_, bucket, s);
      if (removed) *removed = dynamic_->getValue(offsetOf(s));
      hash_->unlink(s);
      Slot& slot = table_.slot(s);
      const uint32_t flags = slot.flags.load(std::memory_order_relaxed);
      // Release: pairs with the reader's acquire load of flags; the slot is free from here on.
      slot.flags.store((flags + kWriteStep) & ~kOccupied, std::memory_order_release);
      notify(s);
      dynamic_->release(offsetOf(s));
      table_.freeSlot(s);
      auto* h = table_.header();
      h->occupiedSlots.store(h->occupiedSlots.load(std::memory_order_relaxed) - 1,
                             std::memory_order_relaxed);
      ++counters_.removes;
      maybeShrinkBuckets();
      maybeShrinkSlots();
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
      const uint32_t s = directSlot_;
      if (s == kNone) {
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

   bool directOpen() const { return directSlot_ != kNone; }

  private:
   // Serializes `value` into scratch_; returns its length.
   uint32_t serializeToScratch(const V& value) {
      const uint32_t length = value.serializeLen();
      if (scratch_.size() < length) scratch_.resize(length);
      value.serialize(scratch_.data());
      return length;
   }

   // Nothing was published: gives a newly taken slot back and closes direct mode.
   void abandonDirect() {
      const uint32_t flags = table_.slot(directSlot_).flags.load(std::memory_order_relaxed);
      if (!(flags & kOccupied)) table_.freeSlot(directSlot_);
      closeDirect();
   }

   // Publishes scratch_[0, length) into the open slot (the commit sequence above).
   // REQUIRES: a direct write is open.
   void publish(uint32_t length) {
      const uint32_t s = directSlot_;
      auto* h = table_.header();
      Slot& slot = table_.slot(s);
      Tessel::SlabValue nv;
      const uint32_t flags = slot.flags.load(std::memory_order_relaxed);
      try {
         nv = storeEntry(s, length);
      } catch (...) {
         abandonDirect();
         throw;
      }
      if (flags & kOccupied) {
         hash_->offsetHintIs(s, nv.offset.value);
         const Tessel::Offset old = offsetOf(s);
         Lookaside& la = h->lookaside;
         // Release fence: a reader that sees any of these lookaside words (relaxed) and then
         // re-checks an earlier slot's flags after its acquire fence sees that slot's last store.
         releaseFence();
         la.savedWord.store(slot.heraldPos.load(std::memory_order_relaxed),
                            std::memory_order_relaxed);
         la.slot.store(s, std::memory_order_relaxed);
         la.offset.store(nv.offset.value, std::memory_order_relaxed);
         la.length.store(nv.length, std::memory_order_relaxed);
         // Release: a reader that acquires LOOKASIDE sees the lookaside words above.
         slot.flags.store(flags + kLookaside, std::memory_order_release);
         // Orders the LOOKASIDE store before the slot's value stores; pairs with the reader's
         // acquire fence before its second flags load (a torn copy then sees a changed word).
         releaseFence();
         slot.offset.store(la.offset.load(std::memory_order_relaxed), std::memory_order_relaxed);
         slot.length.store(la.length.load(std::memory_order_relaxed), std::memory_order_relaxed);
         // Release: the value words are stored before LOOKASIDE clears and the counter advances.
         slot.flags.store(flags + 2 * kLookaside, std::memory_order_release);
         dynamic_->release(old);
         ++counters_.replaces;
      } else {
         table_.records()[s].offsetHint = nv.offset.value;  // link() passes it to the head
         slot.offset.store(nv.offset.value, std::memory_order_relaxed);
         slot.length.store(nv.length, std::memory_order_relaxed);
         slot.keyHash.store(directHash_, std::memory_order_relaxed);
         // Release: value words before OCCUPIED (pairs with the reader's acquire flags load).
         slot.flags.store(((flags + kWriteStep) | kOccupied) & ~kLookaside,
                          std::memory_order_release);
         hash_->link(s, directHash_, directKey_);
         h->occupiedSlots.store(h->occupiedSlots.load(std::memory_order_relaxed) + 1,
                                std::memory_order_relaxed);
         ++counters_.inserts;
      }
      directSlot_ = kNone;
      h->lookaside.directSlot.store(kNone, std::memory_order_relaxed);
      if (h->occupiedSlots.load(std::memory_order_relaxed) > hash_->numBuckets()) {
         hash_->growBuckets(criticalTaskCheck_, writerTrace());
         ++counters_.bucketGrowths;
      }
      notify(s);
      h->runtimeFlags.store(h->runtimeFlags.load(std::memory_order_relaxed) & ~kRuntimeDirectOpen,
                            std::memory_order_release);
   }

  public:
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
   uint32_t flagsOf(uint32_t slot) const {
      return table_.slot(slot).flags.load(std::memory_order_relaxed);
   }

   // ---------------------------------------------------------------------------------------
   // Shrinking the slot table.

   // Shrinks the slot table as far as the occupancy rule allows.
   void shrink() { doMaybeShrinkSlots(table_.numSlots()); }

   // Moves the slots at or above the target down and cuts the table to the target: the target is
   // 2^(bits(occupiedSlots) + 1), or minSize when empty, never below minSize.
   void doMaybeShrinkSlots(uint32_t shrinkThreshold) {
      if (shrinkThreshold == 0) return;
      if (shrinking_) {
         SPOOR_TRACE(writerTrace(), 5, "shrink started, ignoring shrinkThreshold:{}",
                     shrinkThreshold);
         return;
      }
      auto* h = table_.header();
      const uint32_t occupied = h->occupiedSlots.load(std::memory_order_relaxed);
      uint64_t target = minSize();
      if (occupied != 0) {
         target = std::max<uint64_t>(uint64_t(1) << (std::bit_width(occupied) + 1), minSize());
      }
      const uint32_t threshold = uint32_t(std::min<uint64_t>(target, table_.numSlots()));
      SPOOR_TRACE(writerTrace(), 5, "threshold:{} shrinkThreshold:{}{}", threshold, shrinkThreshold,
                  shrinkThreshold > threshold ? " SUPER SHRINK!" : "");
      if (threshold >= table_.numSlots()) return;
      shrinking_ = true;
      table_.purgeFreeSlots(threshold);
      herald_.shrinkStart();
      CriticalYield yield(criticalTaskCheck_);
      const uint32_t numSlots = table_.numSlots();
      for (uint32_t from = threshold; from < numSlots; ++from) {
         Slot& fs = table_.slot(from);
         const uint32_t flags = fs.flags.load(std::memory_order_relaxed);
         if (!(flags & kOccupied)) {
            SPOOR_TRACE(writerTrace(), 9, "skipping not occupied slot:{}", from);
            continue;
         }
         moveSlot(from);
         yield.check();
      }
      counters_.criticalYields += yield.yields();
      herald_.shrinkEnd();
      SPOOR_TRACE(writerTrace(), 5, "newNumSlots:{}", threshold);
      const uint32_t before = table_.numSlots();
      table_.shrinkTo(threshold);
      SPOOR_TRACE(writerTrace(), 5, "{} from {} slots to {}", name_, before, threshold);
      SPOOR_TRACE(writerTrace(), 5, "at threshold:{} done", shrinkThreshold);
      ++counters_.slotShrinks;
      shrinking_ = false;
   }

   // When removals leave the slot table at most 1/8 occupied, it shrinks (to 2..4x occupancy).
   void autoShrinkIs(bool on) { autoShrink_ = on; }

   // ---------------------------------------------------------------------------------------
   // Notification of readers.

   // One herald wake for everything posted since the last one.
   void flush() {
      flushPosted_ = false;
      if (herald_.attached() && herald_.position() != wokenPos_) {
         herald_.wake();
         wokenPos_ = herald_.position();
         ++counters_.wakes;
      }
   }

   // ---------------------------------------------------------------------------------------
   // State.

   uint32_t capacity() const { return table_.numSlots(); }
   uint32_t maxSize() const { return table_.maxSlots(); }
   uint32_t minSize() const { return table_.minSlots(); }
   uint32_t members() const {
      return table_.header()->occupiedSlots.load(std::memory_order_relaxed);
   }
   uint32_t buckets() const { return hash_ ? hash_->numBuckets() : 0; }
   uint64_t sequence() const { return herald_.attached() ? herald_.position() : 0; }
   uint32_t relumeId() const { return relume_; }
   const std::string& type() const { return config_.typeName; }
   const std::string& rootPath() const { return rootPath_; }
   const std::string& dockName() const { return name_; }
   const std::string& directory() const { return dir_; }
   MountStatus mountStatus() const { return mountStatus_; }
   // Why the existing files were not kept (mountStatus() kReformatted); empty otherwise.
   const std::string& reformatReason() const { return reformatReason_; }
   const WriterCounters& writerCounters() const { return counters_; }
   const DockConfig& config() const { return config_; }

   // The writer is quiesced when every notification it posted has been signalled to readers.
   bool quiesced() const { return !herald_.attached() || herald_.position() == wokenPos_; }
   void handleQuiesced(bool q) {
      if (onQuiesced_) onQuiesced_(q);
   }
   void quiescedHandlerIs(std::function<void(bool)> f) { onQuiesced_ = std::move(f); }
   void clientQuiesced(const std::string& client) {
      SPOOR_TRACE(writerTrace(), 5, "client {} quiesced on {}", client, name_);
      handleQuiesced(quiesced());
   }

   void criticalTaskCheckIs(bool on) { criticalTaskCheck_ = on; }
   bool criticalTaskCheck() const { return criticalTaskCheck_; }

   // Whether the slot file is still the one initialize() set up, at the same size and
   // generation; calls the hook with the current anchor.
   bool validateVersionAnchor() {
      const Region::VersionAnchor now = currentAnchor();
      if (versionAnchorHook_) versionAnchorHook_(now);
      return anchor_.compare(now) == Region::AnchorChange::kNone;
   }
   void validateVersionAnchorHookIs(std::function<void(const Region::VersionAnchor&)> hook) {
      versionAnchorHook_ = std::move(hook);
   }
   // Re-takes the anchor (after a resize the writer made itself).
   void versionAnchorIs() { anchor_ = currentAnchor(); }

   Table& table() { return table_; }
   const BucketWriter& bucketFile() const { return buckets_; }
   HeraldWriter& herald() { return herald_; }
   Tessel::WriterAllocator& allocator() { return *allocator_; }

  private:
   Tessel::Offset offsetOf(uint32_t s) const {
      return Tessel::Offset::fromWord(table_.slot(s).offset.load(std::memory_order_relaxed));
   }

   Region::VersionAnchor currentAnchor() const {
      Region::MappedFile f = Region::MappedFile::openReadOnly(dir_ + "/" + kSlotsFile);
      return Region::VersionAnchor::of(
          f, relume_, sizeWordCounter(table_.header()->sizeWord.load(std::memory_order_relaxed)));
   }

   void checkNotOpen(const K& key) {
      if (directSlot_ != kNone) {
         VELA_FAIL(
             "unbalanced directSlot:{} containing value:{} when writing value:{} - Make sure the "
             "DirectIs/Commit are properly paired!",
             directSlot_, describe(directKey_), describe(key));
      }
   }

   void openDirect(uint32_t s, const K& key, uint32_t hash) {
      checkNotOpen(key);
      if (s == kNone) s = table_.allocSlot(name_, criticalTaskCheck_);
      directSlot_ = s;
      directKey_ = key;
      directHash_ = hash;
      auto* h = table_.header();
      h->lookaside.directSlot.store(s, std::memory_order_relaxed);
      h->runtimeFlags.store(h->runtimeFlags.load(std::memory_order_relaxed) | kRuntimeDirectOpen,
                            std::memory_order_relaxed);
   }

   void closeDirect() {
      auto* h = table_.header();
      directSlot_ = kNone;
      h->lookaside.directSlot.store(kNone, std::memory_order_relaxed);
      h->runtimeFlags.store(h->runtimeFlags.load(std::memory_order_relaxed) & ~kRuntimeDirectOpen,
                            std::memory_order_release);
   }

   // Moves scratch_[0, length) into a NEW slab entry that names slot `s`.
   Tessel::SlabValue storeEntry(uint32_t s, uint32_t length) {
      return allocator_->store(s, scratch_.data(), length);
   }

   // Starts the cache misses a replacement of slot `s` will take: its slot line (usually already
   // under way from the lookup) and the header of the entry its value is in (the private offset
   // hint; a stale hint costs one wasted prefetch, never a wrong result).
   void prefetchSlot(uint32_t s) {
      __builtin_prefetch(&table_.slot(s), 1);
      prefetchEntry(table_.records()[s].offsetHint);
   }
   // Prefetches the header of the slab entry an Offset word names, when it is mapped.
   void prefetchEntry(uint32_t word) {
      if (word == kNone) return;
      const Tessel::Offset o = Tessel::Offset::fromWord(word);
      if (Tessel::SlabWriter* slab = allocator_->attachedSlab(o.slab());
          slab && o.index() < slab->numEntries()) {
         __builtin_prefetch(Tessel::entryAt(slab->file().data(), slab->entrySize(), o.index()), 1);
      }
   }

   // Posts the slot to the herald, records the position in the slot, schedules the flush.
   void notify(uint32_t s) {
      const uint64_t pos = herald_.post(s);
      table_.slot(s).heraldPos.store(uint32_t(pos), std::memory_order_relaxed);
      scheduleFlush();
   }

   void scheduleFlush() {
      if (flushPosted_) return;
      if (Loom::EventLoop* loop = Loom::EventLoop::current()) {
         flushPosted_ = true;
         std::weak_ptr<bool> alive = alive_;
         loop->post([this, alive] {
            if (auto a = alive.lock(); a && *a) flush();
         });
      }
   }

   void maybeShrinkBuckets() {
      if (hash_->numBuckets() > kInitialBuckets && uint64_t(members()) * 4 < hash_->numBuckets()) {
         hash_->shrinkBuckets(criticalTaskCheck_, writerTrace());
         ++counters_.bucketShrinks;
      }
   }
   void maybeShrinkSlots() {
      if (autoShrink_ && table_.numSlots() > minSize() &&
          uint64_t(members()) * 8 <= table_.numSlots()) {
         doMaybeShrinkSlots(table_.numSlots());
      }
   }

   // Moves an occupied slot at or above the shrink target to a free slot below it: a new slab
   // entry naming the new slot, the chain relinked, both slots notified (a tombstone for the old).
   void moveSlot(uint32_t from) {
      auto& rec = table_.records();
      const uint32_t hash = rec[from].hash;
      if (hash_->lookup(rec[from].key, hash) != from) {
         VELA_FAIL("fromSlot:{} key not found", from);
      }
      const uint32_t to = table_.SlotFile::allocSlot(name_);
      SPOOR_TRACE(writerTrace(), 9, "moving fromSlot:{} toSlot:{}", from, to);
      Slot& fs = table_.slot(from);
      Slot& ts = table_.slot(to);
      // Release fence: as in directCommit, the stores below follow every earlier flags store.
      releaseFence();
      // The value's bytes as they are: nothing to deserialize and serialize again.
      const Tessel::Offset fromOffset = offsetOf(from);
      const uint32_t length =
          uint32_t(allocator_->lookup(fromOffset)->payloadSize.load(std::memory_order_relaxed));
      if (scratch_.size() < length) scratch_.resize(length);
      copyFromShared(scratch_.data(), allocator_->payload(fromOffset), length);
      const Tessel::SlabValue nv = storeEntry(to, length);
      ts.offset.store(nv.offset.value, std::memory_order_relaxed);
      ts.length.store(nv.length, std::memory_order_relaxed);
      ts.keyHash.store(hash, std::memory_order_relaxed);
      const uint32_t tflags = ts.flags.load(std::memory_order_relaxed);
      // Release: the new slot's words before OCCUPIED.
      ts.flags.store(((tflags + kWriteStep) | kOccupied) & ~kLookaside, std::memory_order_release);
      if (!hash_->relink(from, to)) VELA_FAIL("fromSlot:{} not referenced", from);
      hash_->offsetHintIs(to, nv.offset.value);
      notify(to);
      herald_.postTombstone(from);
      const uint32_t fflags = fs.flags.load(std::memory_order_relaxed);
      fs.flags.store((fflags + kWriteStep) & ~kOccupied, std::memory_order_release);
      notify(from);
      dynamic_->release(offsetOf(from));
      ++counters_.slotMoves;
   }

   bool validateHeaderAgainstConfig(std::string& reason) {
      const SlotTableHeader& h = *table_.header();
      if (!SlotTable::validateHeader(h, table_.fileSize(), 0, reason)) return false;
      if (std::string(h.valueType, strnlen(h.valueType, kValueTypeSize)) != config_.typeName ||
          h.valueSize != config_.valueSize || h.maxSlots != config_.maxSlots ||
          h.constFlags != config_.constFlags) {
         reason = fmt::format("table formatted for another type: {}", SlotTable::headerString(h));
         return false;
      }
      return true;
   }

   void createFiles() {
      detach();
      allocator_ = std::make_unique<Tessel::WriterAllocator>(
          dir_, Tessel::LinearSizeConfig(config_.maxValueSize), relume_);
      allocator_->create();
      dynamic_ = std::make_unique<Tessel::DynamicSlotAllocator<V>>(*allocator_);
      std::random_device rd;
      const uint32_t seed = rd();
      table_.create(dir_ + "/" + kSlotsFile, config_, relume_, seed);
      table_.syncRecords();
      buckets_.create(dir_ + "/" + kBucketsFile, relume_, seed, kInitialBuckets);
      hash_ = std::make_unique<WriterHashMap<K>>(table_, buckets_);
      herald_.create(dir_, relume_, config_.heraldCapacity);
      wokenPos_ = herald_.position();
      directSlot_ = kNone;
   }

   // Replays what a killed writer may have left half done, then rebuilds the private index.
   void recover() {
      auto* h = table_.header();
      table_.minSlotsIs(std::max<uint32_t>(1, std::min(config_.minSlots, config_.maxSlots)));
      const uint32_t n = table_.numSlots();
      Lookaside& la = h->lookaside;
      // An open direct write never committed: forget it (its slot is re-listed below).
      la.directSlot.store(kNone, std::memory_order_relaxed);
      h->runtimeFlags.store(h->runtimeFlags.load(std::memory_order_relaxed) & ~kRuntimeDirectOpen,
                            std::memory_order_relaxed);
      // A replacement interrupted between its two flags increments: finish it.
      for (uint32_t s = 0; s < n; ++s) {
         Slot& slot = table_.slot(s);
         const uint32_t flags = slot.flags.load(std::memory_order_relaxed);
         if (!(flags & kLookaside)) continue;
         if (la.slot.load(std::memory_order_relaxed) != s) {
            throw Loom::CorruptionException(fmt::format("stuck LOOKASIDE bit: {:#x}", flags));
         }
         slot.offset.store(la.offset.load(std::memory_order_relaxed), std::memory_order_relaxed);
         slot.length.store(la.length.load(std::memory_order_relaxed), std::memory_order_relaxed);
         slot.flags.store(flags + kLookaside, std::memory_order_release);
      }
      table_.rebuildFreeList();
      // Slab entries no slot names (allocated before a crash, or replaced and not yet freed).
      allocator_->numOccupied();  // attaches (and validates) every slab file present
      for (uint32_t c = 0; c < Tessel::kNumClasses; ++c) {
         Tessel::SlabWriter* slab = allocator_->attachedSlab(c);
         if (!slab) continue;
         const uint32_t entries = slab->numEntries();
         for (uint32_t i = 0; i < entries; ++i) {
            SlabEntryHeader* e = slab->getEntry(i);
            if (e->payloadSize.load(std::memory_order_relaxed) < 0) continue;
            const uint32_t client = e->clientData.load(std::memory_order_relaxed);
            const Tessel::Offset off = Tessel::Offset::make(c, i);
            const bool named =
                client < n &&
                (table_.slot(client).flags.load(std::memory_order_relaxed) & kOccupied) &&
                offsetOf(client) == off;
            if (!named) {
               slab->free(i);
               ++counters_.reclaimedEntries;
            }
         }
      }
      // The private records from the values themselves.
      table_.syncRecords();
      auto& rec = table_.records();
      const uint32_t occupied = h->occupiedSlots.load(std::memory_order_relaxed);
      uint32_t nb = kInitialBuckets;
      while (nb < occupied) nb *= 2;
      buckets_.create(dir_ + "/" + kBucketsFile, relume_, h->hashSeed, nb);
      hash_ = std::make_unique<WriterHashMap<K>>(table_, buckets_);
      for (uint32_t s = 0; s < n; ++s) {
         Slot& slot = table_.slot(s);
         if (!(slot.flags.load(std::memory_order_relaxed) & kOccupied)) continue;
         dynamic_->validateSlot(s, slot);
         const V value = dynamic_->getValue(offsetOf(s));
         const K key = KeyOf()(value);
         const uint32_t hash = hash_->hashOf(key);
         if (hash_->lookup(key, hash) != kNone) {
            throw Loom::CorruptionException(fmt::format("duplicate key in slot: {}", s));
         }
         rec[s].hash = hash;
         rec[s].offsetHint = slot.offset.load(std::memory_order_relaxed);
         hash_->link(s, hash, key);
      }
      // Re-stamp the generation; readers re-attach when the relume file changes.
      h->relume.store(relume_, std::memory_order_release);
      if (!herald_.attached()) herald_.create(dir_, relume_, config_.heraldCapacity);
      wokenPos_ = herald_.position();
      directSlot_ = kNone;
   }

   DockConfig config_;
   std::string name_;
   std::string rootPath_;
   std::string dir_;
   Region::OwnerFile owner_;
   uint32_t relume_ = 0;
   Table table_;
   BucketWriter buckets_;
   std::unique_ptr<WriterHashMap<K>> hash_;
   std::unique_ptr<Tessel::WriterAllocator> allocator_;
   std::unique_ptr<Tessel::DynamicSlotAllocator<V>> dynamic_;
   HeraldWriter herald_;
   MountStatus mountStatus_ = MountStatus::kUnmounted;
   std::string reformatReason_;
   WriterCounters counters_;
   Region::VersionAnchor anchor_;
   std::function<void(const Region::VersionAnchor&)> versionAnchorHook_;
   std::function<void(bool)> onQuiesced_;

   std::vector<uint8_t> scratch_;  // the value being published, serialized
   uint32_t directSlot_ = kNone;
   K directKey_{};
   uint32_t directHash_ = 0;
   bool criticalTaskCheck_ = true;
   bool shrinking_ = false;
   bool autoShrink_ = true;
   bool flushPosted_ = false;
   uint64_t wokenPos_ = 0;
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Dock
