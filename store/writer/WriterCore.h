// WriterCore: the untyped, compiled part of a table's single writer; DockWriter<K, V, KeyOf> is
// the thin typed part above it (it serializes values, computes keys and keeps the typed index).
//
// It owns the table directory and every file in it (see store/format/Layout.h): the owner and
// relume files, the slot file (the SlotFile of the typed part's SlotWriterTable, whose private
// records hold the keys), the bucket file (BucketWriter, searched through the typed WriterHashMap),
// the slabs (Tessel allocator) and the notification queue (HeraldWriter). Whatever needs a key or a
// value it asks of the typed index through WriterIndex.
//
// Publishing a slot (publish), the protocol readers copy under:
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
// Readers are woken once per batch; when is the herald's decision (see HeraldWriter): every slot
// published, freed or moved is posted with HeraldWriter::postChange; flush() and wakeSoon() pass
// on the caller's requests.
//
// Restart: initialize() on existing files re-attaches, replays what a crash may have left half
// done (an open direct write, a LOOKASIDE slot, a slot taken from the free list but not published,
// slab entries no slot names), rebuilds the private index from the slot table and runs the deep
// validation; any failure re-formats the table with the system's messages. Every start takes a new
// relume, stamped into every file and then into the relume file, which tells readers to resync.
//
// Threads: one writer thread; nothing here is thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Region/Error.h"
#include "Region/OwnerFile.h"
#include "Region/VersionAnchor.h"
#include "Spoor/Trace.h"
#include "Vela/Exception.h"
#include "store/DockConfig.h"
#include "store/format/Layout.h"
#include "store/herald/HeraldWriter.h"
#include "store/slab/WriterAllocator.h"
#include "store/writer/BucketWriter.h"
#include "store/writer/SlotWriterTable.h"
#include "store/writer/WriterIndex.h"

namespace Dock {

// A value whose serialized length is above the table's largest (DockConfig::maxValueSize less the
// slab entry's own header). Raised before anything of the table changes: the slab allocator would
// otherwise end the process on an allocation size it does not serve.
class ValueTooLargeError : public Vela::Exception {
  public:
   ValueTooLargeError(uint32_t length, uint32_t limit);
   uint32_t length() const { return length_; }
   uint32_t limit() const { return limit_; }

  private:
   uint32_t length_;
   uint32_t limit_;
};

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
   uint64_t wakes = 0;  // the herald's count (HeraldWriter::wakes), filled in by writerCounters()
   uint64_t criticalYields = 0;
   uint64_t reclaimedEntries = 0;  // leaked slab entries freed after a restart
};

// Trace handle of the store's writer.
Spoor::Handle& writerTrace();

class WriterCore {
  public:
   WriterCore(const WriterCore&) = delete;
   WriterCore& operator=(const WriterCore&) = delete;

   // Creates or re-attaches the table at <storeRoot>/<name> (or at `name` when it is absolute).
   // Throws Region::OwnerError when another live writer holds the table, Region::Error or
   // Vela::Exception when not even fresh files can be made ("failed to attach to and validate
   // new files").
   void initialize(const std::string& name);
   // Maps the existing files, replays an interrupted write, rebuilds the index and validates.
   // Returns false (with the messages traced) when the files cannot be kept.
   bool attachAndValidate();
   // Maps the existing slot table and slabs read-write under the new relume.
   void attach();
   // Unmaps everything; the owner file stays held.
   void detach();
   // Removes the table's data files (not the owner and relume files) and unmaps them.
   void cleanup();
   // The deep walk of the slot table and slabs. Traces "Dock {} validation failed: {}" and
   // returns false on the first finding.
   bool validate();
   bool validateFiles(std::string& reason);
   std::string dumpHeaders() const;

   bool directOpen() const { return directSlot_ != kNone; }
   uint32_t flagsOf(uint32_t slot) const {
      return table_.slot(slot).flags.load(std::memory_order_relaxed);
   }

   // ---------------------------------------------------------------------------------------
   // Shrinking the slot table.

   // Shrinks the slot table as far as the occupancy rule allows.
   void shrink() { doMaybeShrinkSlots(table_.numSlots()); }
   // Moves the slots at or above the target down and cuts the table to the target: the target is
   // 2^(bits(occupiedSlots) + 1), or minSize when empty, never below minSize.
   void doMaybeShrinkSlots(uint32_t shrinkThreshold);
   // When removals leave the slot table at most 1/8 occupied, it shrinks (to 2..4x occupancy).
   void autoShrinkIs(bool on) { autoShrink_ = on; }

   // ---------------------------------------------------------------------------------------
   // Notification of readers (the herald decides; see HeraldWriter).

   // One herald wake for everything posted since the last one.
   void flush() { herald_.flush(); }
   // Readers are to learn promptly of what was posted: at the end of this loop turn when a loop
   // runs on this thread, else now.
   void wakeSoon() { herald_.wakeSoon(); }

   // ---------------------------------------------------------------------------------------
   // State.

   uint32_t capacity() const { return table_.numSlots(); }
   uint32_t maxSize() const { return table_.maxSlots(); }
   uint32_t minSize() const { return table_.minSlots(); }
   uint32_t members() const {
      return table_.header()->occupiedSlots.load(std::memory_order_relaxed);
   }
   uint32_t buckets() const { return buckets_.numBuckets(); }
   uint64_t sequence() const { return herald_.attached() ? herald_.position() : 0; }
   uint32_t relumeId() const { return relume_; }
   const std::string& type() const { return config_.typeName; }
   const std::string& rootPath() const { return rootPath_; }
   const std::string& dockName() const { return name_; }
   const std::string& directory() const { return dir_; }
   MountStatus mountStatus() const { return mountStatus_; }
   // Why the existing files were not kept (mountStatus() kReformatted); empty otherwise.
   const std::string& reformatReason() const { return reformatReason_; }
   WriterCounters writerCounters() const {
      WriterCounters c = counters_;
      c.wakes = herald_.wakes();
      return c;
   }
   const DockConfig& config() const { return config_; }

   // The writer is quiesced when every notification it posted has been signalled to readers.
   bool quiesced() const { return herald_.quiesced(); }
   void handleQuiesced(bool q) {
      if (onQuiesced_) onQuiesced_(q);
   }
   void quiescedHandlerIs(std::function<void(bool)> f) { onQuiesced_ = std::move(f); }
   void clientQuiesced(const std::string& client);

   void criticalTaskCheckIs(bool on) { criticalTaskCheck_ = on; }
   bool criticalTaskCheck() const { return criticalTaskCheck_; }

   // Whether the slot file is still the one initialize() set up, at the same size and
   // generation; calls the hook with the current anchor.
   bool validateVersionAnchor();
   void validateVersionAnchorHookIs(std::function<void(const Region::VersionAnchor&)> hook) {
      versionAnchorHook_ = std::move(hook);
   }
   // Re-takes the anchor (after a resize the writer made itself).
   void versionAnchorIs() { anchor_ = currentAnchor(); }

   const BucketWriter& bucketFile() const { return buckets_; }
   HeraldWriter& herald() { return herald_; }
   Tessel::WriterAllocator& allocator() { return *allocator_; }

  protected:
   // `table` is the slot file of the typed part's SlotWriterTable and `index` the typed index;
   // both belong to the typed part, which outlives the core's use of them. Neither is used here
   // before initialize().
   WriterCore(DockConfig config, SlotFile& table, WriterIndex& index);
   // Wakes the readers for anything posted and not yet woken.
   ~WriterCore();

   // What publish() stored: the slot, its new value Offset word, and whether the key is new
   // (its hint then already recorded by WriterIndex::slotInserted).
   struct Published {
      uint32_t slot;
      uint32_t offsetWord;
      bool inserted;
   };

   // The largest serialized value the table's slabs hold.
   uint32_t maxValueLength() const { return maxValueLength_; }
   // Throws ValueTooLargeError for a serialized length above maxValueLength().
   void checkValueLength(uint32_t length) const {
      if (length > maxValueLength_) [[unlikely]]
         throw ValueTooLargeError(length, maxValueLength_);
   }

   // The buffer a value is serialized into before publish(): at least `length` bytes.
   uint8_t* scratch(uint32_t length) {
      if (scratch_.size() < length) scratch_.resize(length);
      return scratch_.data();
   }

   // Opens slot `s` (a free one taken when kNone) for a direct write of a key with `hash`.
   // Throws TableFullError. REQUIRES: no direct write open.
   void openDirect(uint32_t s, uint32_t hash) {
      if (s == kNone) s = allocSlot();
      directSlot_ = s;
      directHash_ = hash;
      auto* h = table_.header();
      h->lookaside.directSlot.store(s, std::memory_order_relaxed);
      h->runtimeFlags.store(h->runtimeFlags.load(std::memory_order_relaxed) | kRuntimeDirectOpen,
                            std::memory_order_relaxed);
   }
   uint32_t directSlot() const { return directSlot_; }
   // Nothing was published: gives a newly taken slot back and closes direct mode.
   void abandonDirect();
   // Publishes scratch[0, length) into the open slot (the commit sequence above); on a failure to
   // store the entry, abandons direct mode and rethrows. REQUIRES: a direct write is open.
   Published publish(uint32_t length);
   // Frees occupied slot `s`, already unlinked from the index: the slot's release, its
   // notification, its entry and its place on the free list; then the automatic shrinks.
   void removeSlot(uint32_t s);

   Tessel::Offset offsetOf(uint32_t s) const {
      return Tessel::Offset::fromWord(table_.slot(s).offset.load(std::memory_order_relaxed));
   }
   // Prefetches the header of the slab entry an Offset word names, when it is mapped.
   void prefetchEntry(uint32_t word) const {
      if (word == kNone) return;
      const Tessel::Offset o = Tessel::Offset::fromWord(word);
      if (Tessel::SlabWriter* slab = allocator_->attachedSlab(o.slab());
          slab && o.index() < slab->numEntries()) {
         __builtin_prefetch(Tessel::entryAt(slab->file().data(), slab->entrySize(), o.index()), 1);
      }
   }

   BucketWriter& bucketWriter() { return buckets_; }
   WriterCounters& counters() { return counters_; }
   // Recovery, for two occupied slots found with the same key: a move killed between publishing
   // its target `kept` and clearing its source `dropped`, when `kept` is below `dropped` and both
   // name the same bytes; then the move is finished (the source freed with its entry). Returns
   // false, changing nothing, for any other pair.
   bool dropInterruptedMove(uint32_t kept, uint32_t dropped);

  private:
   Region::VersionAnchor currentAnchor() const;
   // Pops a free slot, growing the file (and the typed records) when the list is empty.
   uint32_t allocSlot();
   void closeDirect();
   // Posts the slot to the herald and records the position in the slot.
   void notify(uint32_t s);
   void maybeShrinkBuckets();
   void maybeShrinkSlots();
   // Moves an occupied slot at or above the shrink target to a free slot below it: a new slab
   // entry naming the new slot, the chain relinked, both slots notified (a tombstone for the old).
   // Returns the old slot's entry, which the caller frees.
   Tessel::Offset moveSlot(uint32_t from);
   bool validateHeaderAgainstConfig(std::string& reason);
   void createFiles();
   // Replays what a killed writer may have left half done, then rebuilds the private index.
   void recover();

   DockConfig config_;
   std::string name_;
   std::string rootPath_;
   std::string dir_;
   Region::OwnerFile owner_;
   uint32_t relume_ = 0;
   SlotFile& table_;
   WriterIndex& index_;
   BucketWriter buckets_;
   std::unique_ptr<Tessel::WriterAllocator> allocator_;
   HeraldWriter herald_;
   MountStatus mountStatus_ = MountStatus::kUnmounted;
   std::string reformatReason_;
   WriterCounters counters_;
   Region::VersionAnchor anchor_;
   std::function<void(const Region::VersionAnchor&)> versionAnchorHook_;
   std::function<void(bool)> onQuiesced_;

   uint32_t maxValueLength_;
   std::vector<uint8_t> scratch_;  // the value being published, serialized
   uint32_t directSlot_ = kNone;
   uint32_t directHash_ = 0;
   bool criticalTaskCheck_ = true;
   bool shrinking_ = false;
   bool autoShrink_ = true;
};

}  // namespace Dock
