// ShadowCore: attaching, the queue, flushes, restarts and byte copies of the key-shadowing reader.
#include "store/reader/ShadowCore.h"

#include <sys/epoll.h>

#include <algorithm>

#include "Loom/Clock.h"
#include "Loom/CorruptionException.h"
#include "Region/RelumeFile.h"
#include "store/format/SeqRead.h"
#include "store/format/SlotTable.h"

namespace Dock {

const char* readerStateName(ReaderState state) {
   switch (state) {
      case ReaderState::kDetached:
         return "detached";
      case ReaderState::kAttached:
         return "attached";
      case ReaderState::kSynchronizing:
         return "synchronizing";
      case ReaderState::kSynchronized:
         return "synchronized";
      case ReaderState::kQuiesced:
         return "quiesced";
   }
   return "unknown";
}

namespace ShadowDetail {
Spoor::Handle& trace() {
   return Spoor::handle("DockShadow");
}
}  // namespace ShadowDetail

using ShadowDetail::trace;

ShadowCore::ShadowCore(std::string name, std::string dir, Loom::EventLoop& loop)
    : name_(std::move(name)), dir_(std::move(dir)), loop_(loop) {}

ShadowCore::~ShadowCore() {
   alive_->store(false);
   detachFiles();
}

void ShadowCore::shutdown() {
   alive_->store(false);
   detach();
}

bool ShadowCore::initialize() {
   if (!attachFiles()) return false;
   startFlush(false);
   continueFlush();
   return true;
}

bool ShadowCore::initializeOrRetry() {
   if (initialize()) return true;
   reattachDelay_ = std::chrono::milliseconds(10);
   retryAttach(false);
   return false;
}

void ShadowCore::detach() {
   if (header_) SPOOR_TRACE(trace(), 5, "{} delegating to SlotTable::detach()", name_);
   detachFiles();
   dropShadow();
   synced_ = false;
}

ReaderState ShadowCore::state() const {
   if (!header_) return ReaderState::kDetached;
   if (flushing_) return synced_ ? ReaderState::kSynchronized : ReaderState::kSynchronizing;
   if (!synced_) return ReaderState::kAttached;
   return herald_.quiesced(seq_) ? ReaderState::kQuiesced : ReaderState::kSynchronized;
}

bool ShadowCore::quiesced() const {
   return header_ && synced_ && !flushing_ &&
          !writerRestarted(relume_, *header_, herald_.header()) && herald_.quiesced(seq_);
}

uint32_t ShadowCore::capacity() const {
   return header_ ? numSlots() : 0;
}

uint32_t ShadowCore::numSlots() const {
   return SlotTable::numSlots(*header_);
}

bool ShadowCore::validateVersionAnchor() {
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

void ShadowCore::doSlot(uint32_t slot, uint64_t sequence, SlotFlag flag) {
   if (sequence > seq_) seq_ = sequence;
   applySlot(slot, flag);
}

void ShadowCore::flushComplete() {
   flushing_ = false;
   resolvePendingRemovals();
   SPOOR_TRACE(trace(), 7, "{} flush complete members:{}", name_, members());
}

void ShadowCore::syncComplete() {
   SPOOR_TRACE(trace(), 5, "Synchronization complete, seq:{}", seq_);
   if (!synced_) {
      synced_ = true;
      if (!syncedOnce_) {
         // From here on the steady callbacks are the table's: announce with them.
         syncedOnce_ = true;
         announceSyncComplete();
      }
   }
   processQueue(false, false);
   handleQuiesced(quiesced());
}

void ShadowCore::handleQuiesced(bool q) {
   reportedQuiesced_ = q;
   SPOOR_TRACE(trace(), 5, "{} quiesced:{} seq:{}", name_, q, seq_);
   announceQuiesced(q);
}

void ShadowCore::handleDisconnect() {
   SPOOR_TRACE(trace(), 5, "{} writer disconnected relume:{}", name_, relume_);
   ++counters_.reattaches;
   detachFiles();
   reattachDelay_ = std::chrono::milliseconds(10);
   retryAttach(true);
}

void ShadowCore::resize() {
   const auto copy =
       safeHeaderCopy(header_, header_->sizeWord, [this] { return slotsFile_->size(); });
   const uint32_t n = sizeWordNumSlots(copy.version);
   if (SlotTable::fileSizeFor(n) > slotsFile_->size()) {
      const uint8_t* before = slotsFile_->data();
      slotsFile_->remap();
      mapSlots();
      if (slotsFile_->data() != before) {
         SPOOR_TRACE(trace(), 7, "{} base address moved from {} to {}", name_,
                     static_cast<const void*>(before),
                     static_cast<const void*>(slotsFile_->data()));
      }
   }
   shadowSlotsAtLeast(n);
   anchor_ = Region::VersionAnchor::of(*slotsFile_, relume_, sizeWordCounter(copy.version));
}

std::string ShadowCore::dumpHeaders() const {
   if (!header_) return fmt::format("{} detached", name_);
   const auto copy =
       safeHeaderCopy(header_, header_->sizeWord, [this] { return slotsFile_->size(); });
   const HeraldHeader& h = *herald_.header();
   return fmt::format("{}\nherald capacity:{} relume:{} writerPos:{} readerPos:{} seqBase:{}",
                      SlotTable::headerString(*copy.header), h.capacity, herald_.relume(),
                      herald_.writerPosition(), herald_.position(), h.seqBase);
}

void ShadowCore::corruptionDetected(const std::string& reason) {
   SPOOR_TRACE(trace(), 0, "{} corruption detected: {}", name_, reason);
   if (corruptionHandler_) corruptionHandler_(reason);
   throw Loom::CorruptionException(reason);
}

bool ShadowCore::validateAgainstHerald(std::string& reason) {
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

void ShadowCore::processQueue(bool yield, bool report) {
   followingRestart([&] { processQueueTurn(yield, report); });
}

void ShadowCore::restartDuringTurn(const WriterRestarted& e) {
   SPOOR_TRACE(trace(), 5, "{} {}; re-attaching", name_, e.what());
   if (header_) handleDisconnect();
}

void ShadowCore::restartDuringRead(const WriterRestarted& e) {
   SPOOR_TRACE(trace(), 5, "{} {} during a read; re-attaching", name_, e.what());
   std::weak_ptr<std::atomic<bool>> alive = alive_;
   loop_.post([this, alive] {
      if (auto a = alive.lock(); a && *a && header_) handleDisconnect();
   });
}

void ShadowCore::processQueueTurn(bool yield, bool report) {
   if (!header_) return;
   if (writerRestarted(relume_, *header_, herald_.header())) {
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
         SPOOR_TRACE(trace(), 3, "{} lapped at position:{} writer position:{}, resynchronizing",
                     name_, herald_.position(), herald_.writerPosition());
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
         SPOOR_TRACE(trace(), 7, "{} shrink {} at position:{}", name_,
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

bool ShadowCore::attachFiles() {
   const std::string path = dir_ + "/" + kSlotsFile;
   size_t size = 0;
   auto fail = [&](const std::string& reason) {
      attachError_ = fmt::format("{}::attach() cannot attach to shmem {} size:{}: {}", name_, path,
                                 size, reason);
      SPOOR_TRACE(trace(), 3, "{}", attachError_);
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
   const auto copy =
       safeHeaderCopy(header_, header_->sizeWord, [this] { return slotsFile_->fileSize(); });
   if (!SlotTable::validateHeader(*copy.header, copy.size, relume, reason)) return fail(reason);
   if (!herald_.attach(dir_, relume, reason)) return fail(reason);
   relume_ = relume;
   if (copy.header->hashSeed != hashSeed_) {
      hashSeed_ = copy.header->hashSeed;
      hashSeedChanged();
   }
   allocator_ = std::make_unique<Tessel::ReaderAllocator>(dir_, relume);
   mapSlots();
   resize();
   const int fd = herald_.eventFd();
   std::weak_ptr<std::atomic<bool>> alive = alive_;
   loop_.fdHandlerIs(fd, EPOLLIN, [this, alive, fd](uint32_t) {
      if (auto a = alive.lock(); !a || !*a) return;
      ++counters_.wakes;
      // The queue first, the datagrams after: reading them is not on the way to the callbacks.
      // The drain's fence orders it before the second look at the queue, so whatever the writer
      // posted before sending a datagram this drain takes is applied by that look (or by the
      // continuation the first look left, when it ran out of time).
      const uint64_t yields = counters_.yields;
      processQueue();
      if (!herald_.attached() || herald_.eventFd() != fd) return;  // re-attached meanwhile
      herald_.drainWake();
      if (counters_.yields == yields) processQueue();
   });
   attachError_.clear();
   SPOOR_TRACE(trace(), 5, "{} attached {} relume:{} slots:{}", name_, dir_, relume_,
               SlotTable::numSlots(*header_));
   return true;
}

void ShadowCore::detachFiles() {
   ++attaches_;
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

void ShadowCore::mapSlots() {
   header_ = reinterpret_cast<const SlotTableHeader*>(slotsFile_->data());
   slots_ = SlotTable::slots(header_);
   mappedSlots_ = uint32_t((slotsFile_->size() - kSlotHeaderSize) / kSlotSize);
}

void ShadowCore::retryAttach(bool wholeTable) {
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
   reattachDelay_ = std::min(reattachDelay_ * 2, std::chrono::nanoseconds(std::chrono::seconds(1)));
}

void ShadowCore::postContinuation() {
   std::weak_ptr<std::atomic<bool>> alive = alive_;
   loop_.post([this, alive] {
      if (auto a = alive.lock(); a && *a) processQueue();
   });
}

void ShadowCore::startFlush(bool wholeTable) {
   ++counters_.flushes;
   herald_.restartAt(herald_.writerPosition());
   seq_ = herald_.lastSeq();
   flushing_ = true;
   flushNext_ = 0;
   if (wholeTable) announceWholeTable();
}

void ShadowCore::continueFlush() {
   followingRestart([&] { continueFlushTurn(); });
}

void ShadowCore::continueFlushTurn() {
   resize();
   const uint64_t budget = uint64_t(yieldTime_ * Loom::Clock::ticksPerSecond());
   const uint64_t start = Loom::Clock::ticks();
   const uint32_t end = shadowSlots();
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

bool ShadowCore::copyBytes(uint32_t slot) {
   if (slot >= mappedSlots_) resize();
   if (slot >= mappedSlots_) return false;
   SlotImage image;
   ++counters_.slotsCopied;
   lastCopy_ = CopyStamp{};
   const uint64_t sizeWord = header_->sizeWord.load(std::memory_order_acquire);
   const uint64_t writerPos = herald_.writerPosition();
   if (!copySlotValue(*header_, slots_, slot, *allocator_, image, bytes_)) return false;
   lastCopy_ = CopyStamp{slot, image.flags, sizeWord, writerPos, attaches_};
   return true;
}

// Every write of a slot moves its flags word on (by kWriteStep, or twice by kLookaside) before it
// touches the slot's value words or frees its entry, so while the word reads as it did during a
// consistent copy, the slot holds the copied bytes. Two ways the word could come back to an old
// value: a resize re-initializes the slots it adds (flags 0) after a shrink took them away - the
// size word, loaded before the copy and after the flags here, rules out any resize in between;
// and wrapping around 2^32, which takes 2^30 writes of the slot, each posting a notification
// after its flags store - the writer position, loaded last, bounds the writes since the copy.
bool ShadowCore::stillCurrent(const CopyStamp& stamp) const {
   constexpr uint64_t kFewerThanAWrap = uint64_t(1) << 29;
   if (!header_ || stamp.attach != attaches_ || stamp.slot >= mappedSlots_) return false;
   if (slotFlags(stamp.slot) != stamp.flags) return false;
   if (header_->sizeWord.load(std::memory_order_acquire) != stamp.sizeWord) return false;
   return herald_.writerPosition() - stamp.writerPos < kFewerThanAWrap;
}

}  // namespace Dock
