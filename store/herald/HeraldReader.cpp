// HeraldReader: reading the notification ring; attaching binds the reader's wake socket.
#include "store/herald/HeraldReader.h"

#include <atomic>

#include "Region/Error.h"
#include "Region/MappedFile.h"
#include "Spoor/Trace.h"
#include "Vela/Exception.h"
#include "store/format/SeqRead.h"
#include "store/herald/Herald.h"

namespace Dock {

namespace {
Spoor::Handle& trace() {
   return Spoor::handle("Herald");
}
}  // namespace

const Notification& HeraldReader::HeraldNotifications::at(uint32_t index) const {
   if (index >= size_) {
      throw Vela::Exception(fmt::format("out-of-range index:{} max:{}", index, size_));
   }
   return base_[index];
}

HeraldReader::HeraldReader() = default;
HeraldReader::~HeraldReader() {
   detach();
}

bool HeraldReader::attach(const std::string& dir, uint32_t relume, std::string& reason) {
   detach();
   const std::string path = Herald::path(dir);
   Region::MappedFile file;
   try {
      file = Region::MappedFile::openReadOnly(path);
   } catch (const Vela::Exception& e) {
      reason = e.what();
      return false;
   }
   const auto* header = reinterpret_cast<const HeraldHeader*>(file.data());
   // The magic never changes in a published file (a new herald is renamed into place).
   if (file.size() < kHeraldHeaderSize || header->magic != kHeraldMagic) {
      reason = fmt::format("herald {} is not formatted", path);
      return false;
   }
   if (!Herald::validate(*header, file.size(), relume, reason)) return false;
   file_ = std::make_unique<Region::MappedFile>(std::move(file));
   header_ = header;
   ring_ = reinterpret_cast<const Notification*>(file_->data() + kHeraldHeaderSize);
   mask_ = header_->capacity - 1;
   half_ = header_->capacity / 2;
   tables_[0] = HeraldNotifications(ring_, half_);
   tables_[1] = HeraldNotifications(ring_ + half_, half_);
   seqBase_ = header_->seqBase;
   // The socket before the position: once bound, the writer's next wake drains the event of its
   // name (WakeFanout::wakeAll). The fence pairs with the one there: either this load sees the
   // writer's latest position, or that wake, which follows it, sees the socket.
   if (!wake_.open(dir, reason)) {
      detach();
      return false;
   }
   std::atomic_thread_fence(std::memory_order_seq_cst);
   restartAt(writerPosition());
   return true;
}

void HeraldReader::detach() {
   wake_.close();
   file_.reset();
   header_ = nullptr;
   ring_ = nullptr;
   tables_[0] = tables_[1] = HeraldNotifications();
   mask_ = half_ = current_ = 0;
   pos_ = lastSeq_ = 0;
}

uint32_t HeraldReader::relume() const {
   return Herald::relumeOf(*header_);
}

void HeraldReader::restartAt(uint64_t position) {
   pos_ = position;
   lastSeq_ = position == 0 ? 0 : seqOf(position - 1);
   current_ = uint32_t((position & mask_) / half_);
}

bool HeraldReader::entryAt(uint64_t position, Entry& out) const {
   const uint32_t index = uint32_t(position & mask_);
   const Notification& n = tables_[index / half_].at(index % half_);
   const uint64_t expected = seqOf(position);
   // The entry's seq is its version word (format/SeqRead.h): a field the writer stored (release)
   // after its busy mark makes the mark visible to the re-check, which then fails.
   const SeqRead<uint64_t> read(n.seq);
   out.slot = read.load(n.slot);
   out.kind = read.load(n.kind);
   out.position = position;
   out.seq = read.begin();
   return read.begin() == expected && read.unchanged();
}

HeraldReader::Next HeraldReader::next(Entry& out) {
   const uint64_t writer = writerPosition();
   if (pos_ >= writer) return Next::kEmpty;
   if (writer - pos_ > capacity()) return Next::kLapped;
   if (!entryAt(pos_, out)) return Next::kLapped;
   const uint32_t which = uint32_t((pos_ & mask_) / half_);
   if (which != current_) {
      current_ = which;
      SPOOR_TRACE(trace(), 7, "herald swapped to table {} at position {}", which, pos_);
   }
   lastSeq_ = out.seq;
   ++pos_;
   return Next::kEntry;
}

bool HeraldReader::quiesced(uint64_t shadowSeq) const {
   const uint64_t writer = writerPosition();
   if (pos_ != writer) return false;
   if (writer == 0) return shadowSeq == 0;
   Entry latest;
   if (!entryAt(writer - 1, latest)) {
      SPOOR_TRACE(trace(), 5, "latest notification out-of-range");
      return false;
   }
   SPOOR_TRACE(trace(), 9, "writerSeq:{} shadowSeq:{}", latest.seq, shadowSeq);
   return latest.seq == shadowSeq;
}

}  // namespace Dock
