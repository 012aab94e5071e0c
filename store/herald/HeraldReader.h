// HeraldReader: a reader's position in the writer's notification queue, and its wake-up.
//
// The ring (see Herald.h) is seen as two notification tables, its lower and upper halves; the
// reader works in the current one and "herald swapped" is traced when its position crosses into
// the other. An entry is read under its seq word as a SeqRead (load seq, load slot and kind,
// acquire fence, load seq again) and is valid only when both loads give seqBase + position.
//
// Lapping: the ring is finite. When the writer is more than a capacity ahead of the reader, or
// the entry at the reader's position carries another sequence (already overwritten), next()
// reports kLapped; the reader then resynchronizes from the slot table (restartAt the writer's
// position, then compare every slot) and loses no key - only the per-slot history, which it never
// needed. Lapping is counted by the caller.
//
// Wake-up without polling: attach() binds the reader's socket in the table's wake directory
// (WakeSocket); the writer sends it a datagram per batch, and the reader's Loom::EventLoop watches
// it directly: one wake-up per notification batch, no thread. detach() removes the socket.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "store/format/Layout.h"
#include "store/herald/WakeSocket.h"

namespace Region {
class MappedFile;
}

namespace Dock {

class HeraldReader {
  public:
   // One half of the ring, read-only. Index beyond the half throws Vela::Exception
   // "out-of-range index:{} max:{}".
   class HeraldNotifications {
     public:
      HeraldNotifications() = default;
      HeraldNotifications(const Notification* base, uint32_t size) : base_(base), size_(size) {}
      const Notification& at(uint32_t index) const;
      uint32_t size() const { return size_; }

     private:
      const Notification* base_ = nullptr;
      uint32_t size_ = 0;
   };

   enum class Next { kEntry, kEmpty, kLapped };
   struct Entry {
      uint64_t position = 0;
      uint64_t seq = 0;
      uint32_t slot = kNone;
      uint32_t kind = kSlotChanged;
   };

   HeraldReader();
   ~HeraldReader();
   HeraldReader(const HeraldReader&) = delete;
   HeraldReader& operator=(const HeraldReader&) = delete;

   // Maps <dir>/herald read-only and checks it against `relume` (0: any). The position starts at
   // the writer's current position. False with the reason when the file is missing or invalid.
   bool attach(const std::string& dir, uint32_t relume, std::string& reason);
   void detach();
   bool attached() const { return header_ != nullptr; }

   // Reads the notification at the reader's position and advances past it (kEntry), or reports
   // that the reader has caught up (kEmpty) or was lapped (kLapped; the position is unchanged).
   Next next(Entry& out);
   // Moves the position (after a resynchronization) and treats everything before it as read.
   void restartAt(uint64_t position);

   uint64_t position() const { return pos_; }
   uint64_t writerPosition() const { return header_->writerPos.load(std::memory_order_acquire); }
   // Sequence of the last notification consumed (or skipped by restartAt), 0 before any.
   uint64_t lastSeq() const { return lastSeq_; }
   uint64_t seqOf(uint64_t position) const { return seqBase_ + position; }
   uint32_t capacity() const { return mask_ + 1; }
   // The header's relume, which a restarted writer re-stamps.
   uint32_t relume() const;
   const HeraldHeader* header() const { return header_; }
   // Which of the two tables holds the reader's position, and the tables themselves.
   uint32_t current() const { return current_; }
   const HeraldNotifications& table(uint32_t which) const { return tables_[which]; }

   // The notification at `position` if it is still in the ring and consistent.
   bool entryAt(uint64_t position, Entry& out) const;

   // Caught up: the position equals the writer's and the latest notification's sequence is
   // `shadowSeq` ("writerSeq:{} shadowSeq:{}"); "latest notification out-of-range" when the
   // latest notification cannot be read.
   bool quiesced(uint64_t shadowSeq) const;

   // The descriptor that becomes readable when the writer wakes readers (valid while attached).
   int eventFd() const { return wake_.fd(); }
   // Empties it. The queue must be read after it (its fence orders the two): everything posted
   // before a datagram it took is then seen.
   void drainWake() { wake_.drain(); }
   // The reader's socket name in the wake directory.
   const std::string& wakeName() const { return wake_.name(); }

  private:
   std::unique_ptr<Region::MappedFile> file_;
   const HeraldHeader* header_ = nullptr;
   const Notification* ring_ = nullptr;
   HeraldNotifications tables_[2];
   uint32_t mask_ = 0;
   uint32_t half_ = 0;
   uint32_t current_ = 0;
   uint64_t seqBase_ = 0;
   uint64_t pos_ = 0;
   uint64_t lastSeq_ = 0;
   WakeSocket wake_;
};

}  // namespace Dock
