// HeraldWriter: the writer's side of a table's notification queue (the "herald" file).
//
// The queue is a ring of `capacity` notifications (see HeraldHeader and Notification in
// store/format/Layout.h). The writer appends one notification per published slot; a notification at
// queue position p lives at ring index p % capacity and carries sequence seqBase + p. Readers
// follow the ring at their own pace; one that falls more than `capacity` behind is lapped and
// resynchronizes from the slot table (it never loses a key, only the per-slot history).
//
// Cost model: post() is five atomic stores into the mapping (plain moves on x86), no system call.
// Readers are woken once per batch: wake() increments the header's wake count `wakeWord` and sends
// one datagram to each reader's socket in the table's wake directory (WakeFanout), then reads the
// process's inotify instance without blocking to learn of readers joining and leaving.
// A reader's event loop watches its socket directly, so a notification costs the reader one
// wake-up.
//
// When readers are woken is decided here and nowhere else; the position last woken is tracked
// only here. A change posted with postChange() is woken for: when an event loop runs on this
// thread, by a task that the first such post since the last flush posts to the loop and that
// flushes at the end of the turn (so one wake per turn); without a loop, at once when the caller
// asks for it (wakeSoon()), else at the caller's next explicit flush(). The writer is quiesced
// when everything posted was woken for.
//
// Restart: create() always lays down a fresh file (a new inode, renamed into place), so readers
// still mapping the previous one are not disturbed; before returning it stores the new relume into
// the previous file's header and wakes every reader in the wake directory (listed once when the
// writer opens it), which tells them the writer restarted. attach() keeps the existing file and
// its positions (a restarted writer that kept its entries), stores the new relume into its header
// and wakes the readers, who then resynchronize.
//
// Threads: one writer thread; none of these calls are thread-safe with each other.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "store/format/Layout.h"
#include "store/herald/WakeFanout.h"

namespace Region {
class MappedFile;
}

namespace Dock {

// 65536 notifications = 1 MiB of ring: a reader may fall 65536 writes behind before it is lapped.
constexpr uint32_t kDefaultHeraldCapacity = 1u << 16;
// The sequence a ring entry carries while the writer rewrites it; matches no queue position.
constexpr uint64_t kHeraldSeqBusy = ~uint64_t(0);
// shrinkStart/shrinkEnd header value when no shrink was ever marked.
constexpr uint64_t kNoShrinkMark = ~uint64_t(0);

class HeraldWriter {
  public:
   HeraldWriter();
   ~HeraldWriter();
   HeraldWriter(const HeraldWriter&) = delete;
   HeraldWriter& operator=(const HeraldWriter&) = delete;

   // Formats a new, empty herald file <dir>/herald and opens the wake directory. REQUIRES:
   // capacity is a power of two >= 2 (0 selects kDefaultHeraldCapacity). Throws Region::Error
   // when the file or the wake directory cannot be made.
   void create(const std::string& dir, uint32_t relume, uint32_t capacity = kDefaultHeraldCapacity);
   // Re-opens an existing herald file after a writer restart and continues at its position.
   // Throws Vela::Exception with the reason when the file is missing or fails its checks.
   void attach(const std::string& dir, uint32_t relume);
   // Unmaps the file (readers keep theirs) and stops watching the wake directory.
   void detach();
   bool attached() const { return header_ != nullptr; }

   // Appends a notification for `slot`; returns its queue position (the writer stores the low 32
   // bits in the slot's heraldPos word). REQUIRES: attached().
   uint64_t post(uint32_t slot, uint32_t kind = kSlotChanged) {
      const uint64_t pos = pos_;
      Notification& n = ring_[pos & mask_];
      // Sequence lock per entry: mark busy, fill, publish. The fields are stored with release so
      // that a reader whose copy sees a new field also sees, after the acquire fence of its
      // re-check (SeqRead::unchanged), the busy mark stored before it, and discards the copy.
      n.seq.store(kHeraldSeqBusy, std::memory_order_relaxed);
      n.slot.store(slot, std::memory_order_release);
      n.kind.store(kind, std::memory_order_release);
      n.seq.store(seqBase_ + pos, std::memory_order_release);
      pos_ = pos + 1;
      // Release: a reader that acquires writerPos sees every entry below it complete.
      header_->writerPos.store(pos_, std::memory_order_release);
      return pos;
   }
   // A notification for a slot vacated by a shrink.
   uint64_t postTombstone(uint32_t slot) { return post(slot, kTombstone); }
   // Bracket a shrink of the slot table (marks also recorded in the header).
   void shrinkStart();
   void shrinkEnd();

   // Appends a notification that `slot` changed (as post) and sees that readers are woken for
   // it: with an event loop on this thread, the first such post since the last flush posts the
   // task that flushes at the end of the turn.
   uint64_t postChange(uint32_t slot) {
      const uint64_t pos = post(slot);
      if (!flushPosted_) scheduleFlush();
      return pos;
   }
   // The caller wants readers to learn promptly of what was posted: when a loop runs on this
   // thread the end-of-turn task does it, else the wake happens now.
   void wakeSoon();
   // The explicit flush (and the end-of-turn task's): one wake for everything posted since the
   // last one, nothing when nothing was posted or the file is not attached.
   void flush();

   // One wake of every reader for everything posted since the last wake; nothing when nothing
   // was posted.
   void wake();
   // Whether every notification posted has been woken for (true while not attached).
   bool quiesced() const { return pos_ == wokenPos_; }
   // Wakes of readers by wake() and flush() since this object was made (restart wakes by
   // create() and attach() not counted).
   uint64_t wakes() const { return wakes_; }
   // The readers this writer wakes, as it last saw its wake directory.
   const WakeFanout& fanout() const { return fanout_; }

   // Next queue position to be written.
   uint64_t position() const { return pos_; }
   uint32_t capacity() const { return mask_ + 1; }
   uint64_t seqBase() const { return seqBase_; }
   uint32_t relume() const { return relume_; }
   const HeraldHeader* header() const { return header_; }

  private:
   void mapFile(const std::string& path);
   void wakeReaders(HeraldHeader* header);
   // With a loop on this thread, posts the end-of-turn flush to it.
   void scheduleFlush();

   std::unique_ptr<Region::MappedFile> file_;
   HeraldHeader* header_ = nullptr;
   Notification* ring_ = nullptr;
   uint32_t mask_ = 0;
   uint32_t relume_ = 0;
   uint64_t seqBase_ = 0;
   uint64_t pos_ = 0;
   uint64_t wokenPos_ = 0;  // pos_ at the last wake
   uint64_t wakes_ = 0;
   bool flushPosted_ = false;  // an end-of-turn flush task is queued on this thread's loop
   // Expires with this object: a queued flush task that outlives it does nothing.
   std::shared_ptr<char> alive_ = std::make_shared<char>();
   WakeFanout fanout_;
};

}  // namespace Dock
