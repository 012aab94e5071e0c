// ShadowCore: the part of the key-shadowing reader that knows neither the key nor the value type.
//
// It attaches read-only to a table's files, follows the writer's notification queue, compares
// slots with the shadow in turns of at most yieldTime (a "flush"), follows the writer through
// restarts, and copies a slot's value bytes consistently. What a slot means - its key, its value,
// the shadow index and the callbacks - belongs to the typed reader above it (DockShadow), which
// the core reaches through the virtual hooks at the end of the class. See DockShadow.h for the
// states, the flush and the invariant that keeps the table's view equal to the writer's.
//
// Writer restart: the herald's relume is re-stamped by a restarted writer (see HeraldWriter), which
// also wakes readers; a reader that sees a relume other than its own (writerRestarted(), the one
// test) detaches its files, keeps its shadow, re-attaches under the new relume and flushes. When
// the new files are not ready yet it retries on a timer (10 ms doubling to 1 s); the first attach
// of a reader mounted before its writer published waits the same way (initializeOrRetry).
//
// Wake-up: the handler of the herald's wake socket reads the queue before it drains the socket's
// datagrams, then looks at the queue once more; the drain's system call stays off the way from the
// writer's datagram to the callbacks.
//
// Yield time default: 5 ms per event-loop turn, so that a reader catching up on a large table
// stays responsive to its own process's other work.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Loom/EventLoop.h"
#include "Region/MappedFile.h"
#include "Region/VersionAnchor.h"
#include "Spoor/Trace.h"
#include "store/format/Layout.h"
#include "store/herald/HeraldReader.h"
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

// What a copy of a slot's value was taken under, so that the reader can tell later, without
// copying again, that the slot still holds those very bytes (ShadowCore::stillCurrent).
struct CopyStamp {
   uint32_t slot = kNone;
   uint32_t flags = 0;      // the slot's flags word the copy was consistent under
   uint64_t sizeWord = 0;   // the slot table's size word, loaded before the copy
   uint64_t writerPos = 0;  // the herald's writer position, loaded before the copy
   uint64_t attach = 0;     // the reader's attach the copy was taken in
};

class ShadowCore {
  public:
   enum class SlotFlag { kNotified, kFlushed };

   ShadowCore(const ShadowCore&) = delete;
   ShadowCore& operator=(const ShadowCore&) = delete;

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
   bool initialize();
   // As initialize(); when the files are not usable yet, keeps trying on the loop until they are,
   // with the back-off of a re-attach (a table mounted before its writer has published).
   bool initializeOrRetry();
   const std::string& attachError() const { return attachError_; }
   // Unmaps everything and drops the shadow (no callbacks).
   void detach();

   // ---- state ----
   ReaderState state() const;
   ReaderState mountStatus() const { return state(); }
   bool connected() const { return header_ != nullptr; }
   // Synchronized and caught up; never while the herald names another writer generation.
   bool quiesced() const;
   uint64_t sequence() const { return seq_; }
   // The queue position the reader has consumed up to (the writer's sequence() when caught up).
   uint64_t position() const { return herald_.position(); }
   uint32_t capacity() const;
   uint32_t relumeId() const { return relume_; }
   // Keys the shadow holds.
   virtual uint32_t members() const = 0;
   const ReaderCounters& readerCounters() const { return counters_; }
   const std::string& name() const { return name_; }
   HeraldReader& herald() { return herald_; }

   Region::VersionAnchor getCacheVersionAnchor() const { return anchor_; }
   // True when the cached view still describes the writer's files; follows a resize; a replaced
   // file or writer generation re-attaches (and returns false).
   bool validateVersionAnchor();

   // ---- work ----
   // Applies one notified slot: compare with the shadow, update the index, call back.
   void doSlot(uint32_t slot, uint64_t sequence, SlotFlag flag);
   void doFlushSlot(uint32_t slot) { applySlot(slot, SlotFlag::kFlushed); }
   // Ends a flush: reports the keys that left their slot and are held by no other slot.
   void flushComplete();
   // The first completion reports onSyncComplete; then the queue is worked and quiesced reported.
   void syncComplete();
   void handleQuiesced(bool q);
   // The writer went away or restarted: keep the shadow, re-attach, flush.
   void handleDisconnect();
   // Follows a slot file the writer grew (or shrank: the file keeps its length).
   void resize();
   // Slot table and herald headers in their human-readable forms.
   std::string dumpHeaders() const;
   // Runs the corruption handler and throws Loom::CorruptionException.
   [[noreturn]] void corruptionDetected(const std::string& reason);
   // Checks the occupied slots against the notification queue (run while the writer is idle).
   bool validateAgainstHerald(std::string& reason);
   // Works through the queue (the wake handler calls this). `yield`: stop after yieldTime and
   // continue in a posted task. `report`: report reaching quiesced (syncComplete reports itself).
   void processQueue(bool yield = true, bool report = true);

  protected:
   // `name` names the reader in traces and errors; `dir` is the table directory.
   ShadowCore(std::string name, std::string dir, Loom::EventLoop& loop);
   // The typed reader's destructor calls shutdown() while its hooks still exist.
   virtual ~ShadowCore();
   void shutdown();

   // ---- what the typed reader does for the core ----
   // Compares slot `slot` (copied with copyBytes) with the shadow; updates the index; calls back.
   virtual void applySlot(uint32_t slot, SlotFlag flag) = 0;
   // The shadow holds `count` slots (at least: it only grows), or drops everything.
   virtual uint32_t shadowSlots() const = 0;
   virtual void shadowSlotsAtLeast(uint32_t count) = 0;
   virtual void dropShadow() = 0;
   // The table chose another hash seed (it was re-formatted): re-key the shadow index.
   virtual void hashSeedChanged() = 0;
   // Reports the keys a flush dropped that no slot holds any more.
   virtual void resolvePendingRemovals() = 0;
   // The table's callbacks: whole table, first synchronization, quiesced.
   virtual void announceWholeTable() = 0;
   virtual void announceSyncComplete() = 0;
   virtual void announceQuiesced(bool q) = 0;

   // ---- what the core offers the typed reader ----
   // Copies slot `slot`'s value bytes into bytes(); false when it is not occupied. Stamps the
   // copy (lastCopy()).
   bool copyBytes(uint32_t slot);
   const std::vector<uint8_t>& bytes() const { return bytes_; }
   const CopyStamp& lastCopy() const { return lastCopy_; }
   // True when slot `stamp.slot` still holds, right now, the bytes of the copy `stamp` describes:
   // the same attach, no resize since, the same flags word, and too few writes since for that
   // word to have wrapped (see ShadowCore.cpp).
   bool stillCurrent(const CopyStamp& stamp) const;
   uint32_t numSlots() const;
   uint32_t hashSeed() const { return hashSeed_; }
   bool syncedOnce() const { return syncedOnce_; }
   // The slot's flags word as it stands (an iteration hint's version).
   uint32_t slotFlags(uint32_t slot) const {
      return slots_[slot].flags.load(std::memory_order_acquire);
   }

   // A copy that found the files re-stamped by a restarted writer unwinds the whole turn to here:
   // nothing of the turn was applied past the failed copy, and the reader re-attaches and
   // re-compares every slot with its shadow, so no key is lost or reported removed.
   template <class Turn>
   void followingRestart(Turn&& turn) {
      try {
         turn();
      } catch (const WriterRestarted& e) {
         restartDuringTurn(e);
      }
   }
   // A read made by the table (lookup, iteration) during a writer restart answers "nothing" and
   // leaves the re-attach to the loop, outside the caller's walk.
   template <class Read>
   bool readingThroughRestart(Read&& read) {
      try {
         return read();
      } catch (const WriterRestarted& e) {
         restartDuringRead(e);
         return false;
      }
   }

  private:
   void restartDuringTurn(const WriterRestarted& e);
   void restartDuringRead(const WriterRestarted& e);
   void processQueueTurn(bool yield, bool report);
   bool attachFiles();
   void detachFiles();
   void mapSlots();
   // Attaches now or on a timer (10 ms doubling to 1 s), then compares every slot with the
   // shadow; `wholeTable` for a re-attach, which announces onWholeTable.
   void retryAttach(bool wholeTable);
   void postContinuation();
   // Starts comparing every slot with the shadow; positions the queue at the writer's position
   // first, so every change after the comparison's start is in the queue.
   void startFlush(bool wholeTable);
   void continueFlush();
   void continueFlushTurn();

   std::string name_;
   std::string dir_;
   Loom::EventLoop& loop_;
   std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);
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
   std::vector<uint8_t> bytes_;
   CopyStamp lastCopy_;
   uint64_t attaches_ = 0;  // advanced by every detach: stamps of earlier attaches are stale

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
