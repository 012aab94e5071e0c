// HeraldWriter: formats, re-attaches and wakes the notification queue (see the header).
#include "store/herald/HeraldWriter.h"

#include <unistd.h>

#include <cstdio>

#include "Loom/EventLoop.h"
#include "Region/Error.h"
#include "Region/MappedFile.h"
#include "Spoor/Trace.h"
#include "Vela/Assert.h"
#include "store/herald/Herald.h"

namespace Dock {

namespace {
Spoor::Handle& trace() {
   return Spoor::handle("Herald");
}
}  // namespace

HeraldWriter::HeraldWriter() = default;
HeraldWriter::~HeraldWriter() = default;

void HeraldWriter::create(const std::string& dir, uint32_t relume, uint32_t capacity) {
   if (capacity == 0) capacity = kDefaultHeraldCapacity;
   VELA_ASSERT(capacity >= 2 && (capacity & (capacity - 1)) == 0);
   detach();
   fanout_.open(dir);
   const std::string path = Herald::path(dir);
   // Readers may still map the file being replaced: keep it to tell them, once the new one is in
   // place, that this writer generation is gone.
   Region::MappedFile previous;
   if (::access(path.c_str(), F_OK) == 0) {
      try {
         previous = Region::MappedFile::openReadWrite(path);
      } catch (const Region::Error&) {
      }
   }
   const std::string tmp = fmt::format("{}.{}.tmp", path, ::getpid());
   Region::MappedFile file = Region::MappedFile::create(tmp, Herald::fileSizeFor(capacity));
   auto* header = reinterpret_cast<HeraldHeader*>(file.data());
   header->version = kHeraldVersion;
   header->relume.store(relume, std::memory_order_relaxed);
   header->capacity = capacity;
   header->wakeWord.store(0, std::memory_order_relaxed);
   // A fresh sequence space per writer generation: no sequence of an earlier file can match.
   header->seqBase = uint64_t(relume) << 32;
   header->writerPos.store(0, std::memory_order_relaxed);
   header->shrinkStart.store(kNoShrinkMark, std::memory_order_relaxed);
   header->shrinkEnd.store(kNoShrinkMark, std::memory_order_relaxed);
   auto* ring = reinterpret_cast<Notification*>(file.data() + kHeraldHeaderSize);
   for (uint32_t i = 0; i < capacity; ++i) {
      ring[i].seq.store(kHeraldSeqBusy, std::memory_order_relaxed);
      ring[i].slot.store(kNone, std::memory_order_relaxed);
      ring[i].kind.store(kSlotChanged, std::memory_order_relaxed);
   }
   // The magic last. The file is not visible to readers before the rename below, which
   // publishes the whole file (a reader that opens the new name maps what was written).
   header->magic = kHeraldMagic;
   if (::rename(tmp.c_str(), path.c_str()) != 0) {
      const int err = errno;
      ::unlink(tmp.c_str());
      throw Region::Error::fromErrno("cannot rename herald into place", path, err);
   }
   file_ = std::make_unique<Region::MappedFile>(std::move(file));
   mapFile(path);
   relume_ = relume;
   if (previous && previous.size() >= kHeraldHeaderSize) {
      auto* old = reinterpret_cast<HeraldHeader*>(previous.data());
      Herald::relumeIs(*old, relume);
      wakeReaders(old);
   }
   SPOOR_TRACE(trace(), 5, "created {} capacity:{} relume:{}", path, capacity, relume);
}

void HeraldWriter::attach(const std::string& dir, uint32_t relume) {
   detach();
   const std::string path = Herald::path(dir);
   Region::MappedFile file = Region::MappedFile::openReadWrite(path);
   std::string reason;
   if (!Herald::validate(*reinterpret_cast<const HeraldHeader*>(file.data()), file.size(), 0,
                         reason)) {
      throw Vela::Exception(fmt::format("cannot attach to herald {}: {}", path, reason));
   }
   fanout_.open(dir);
   file_ = std::make_unique<Region::MappedFile>(std::move(file));
   mapFile(path);
   relume_ = relume;
   pos_ = header_->writerPos.load(std::memory_order_relaxed);
   wokenPos_ = pos_;
   // Re-stamp and wake: readers compare the herald's relume with the one they attached under and
   // resynchronize with the restarted writer.
   Herald::relumeIs(*header_, relume);
   wakeReaders(header_);
   SPOOR_TRACE(trace(), 5, "attached {} position:{} relume:{}", path, pos_, relume);
}

void HeraldWriter::mapFile(const std::string&) {
   header_ = reinterpret_cast<HeraldHeader*>(file_->data());
   ring_ = reinterpret_cast<Notification*>(file_->data() + kHeraldHeaderSize);
   mask_ = header_->capacity - 1;
   seqBase_ = header_->seqBase;
   pos_ = header_->writerPos.load(std::memory_order_relaxed);
   wokenPos_ = pos_;
}

void HeraldWriter::detach() {
   fanout_.close();
   file_.reset();
   header_ = nullptr;
   ring_ = nullptr;
   mask_ = 0;
   pos_ = 0;
   wokenPos_ = 0;
}

void HeraldWriter::shrinkStart() {
   const uint64_t pos = post(kNone, kShrinkStart);
   header_->shrinkStart.store(pos, std::memory_order_release);
}

void HeraldWriter::shrinkEnd() {
   const uint64_t pos = post(kNone, kShrinkEnd);
   header_->shrinkEnd.store(pos, std::memory_order_release);
}

void HeraldWriter::scheduleFlush() {
   if (Loom::EventLoop* loop = Loom::EventLoop::current()) {
      flushPosted_ = true;
      loop->post([this, alive = std::weak_ptr<char>(alive_)] {
         if (!alive.expired()) flush();
      });
   }
}

void HeraldWriter::wakeSoon() {
   if (!Loom::EventLoop::current()) flush();
}

void HeraldWriter::flush() {
   flushPosted_ = false;
   wake();
}

void HeraldWriter::wake() {
   // Detached, pos_ and wokenPos_ are both 0: nothing to wake.
   if (pos_ == wokenPos_) return;
   wokenPos_ = pos_;
   wakeReaders(header_);
   ++wakes_;
}

void HeraldWriter::wakeReaders(HeraldHeader* header) {
   // The count only records wakes (tests and dumps read it); nobody waits on it. Relaxed: the
   // readers learn of notifications from writerPos, release-stored by post(). A load and a store,
   // not a read-modify-write: the writer is the only one that stores it.
   header->wakeWord.store(header->wakeWord.load(std::memory_order_relaxed) + 1,
                          std::memory_order_relaxed);
   fanout_.wakeAll();
}

}  // namespace Dock
