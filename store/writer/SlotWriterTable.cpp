// The mapped slot file of the writer: creation, the free list, growth and shrinking.
#include "store/writer/SlotWriterTable.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "Region/MappedFile.h"
#include "Vela/Assert.h"
#include "store/format/SlotTable.h"

namespace Dock {

SlotFile::SlotFile() = default;
SlotFile::~SlotFile() = default;
SlotFile::SlotFile(SlotFile&&) noexcept = default;
SlotFile& SlotFile::operator=(SlotFile&&) noexcept = default;

void SlotFile::remapPointers() {
   header_ = reinterpret_cast<SlotTableHeader*>(file_->data());
   slots_ = SlotTable::slots(header_);
   // The writer is the only one that changes sizeWord; relaxed reads its own store.
   numSlots_ = sizeWordNumSlots(header_->sizeWord.load(std::memory_order_relaxed));
}

void SlotFile::create(const std::string& path, const DockConfig& config, uint32_t relume,
                      uint32_t hashSeed) {
   const uint32_t n = std::max<uint32_t>(1, std::min(config.minSlots, config.maxSlots));
   auto file = std::make_unique<Region::MappedFile>(
       Region::MappedFile::create(path, SlotTable::fileSizeFor(n)));
   auto* h = reinterpret_cast<SlotTableHeader*>(file->data());
   SlotTable::format(h, config.typeName, config.valueSize, config.maxSlots, config.constFlags,
                     relume, hashSeed, n);
   Slot* s = SlotTable::slots(h);
   for (uint32_t i = 0; i < n; ++i) {
      s[i].next.store(i + 1 < n ? i + 1 : kNone, std::memory_order_relaxed);
   }
   h->freeSlots.store(0, std::memory_order_relaxed);
   file_ = std::move(file);
   path_ = path;
   minSlots_ = n;
   remapPointers();
}

void SlotFile::attach(const std::string& path) {
   file_ = std::make_unique<Region::MappedFile>(Region::MappedFile::openReadWrite(path));
   path_ = path;
   if (file_->size() < kSlotHeaderSize) {
      header_ = nullptr;
      slots_ = nullptr;
      numSlots_ = 0;
      return;
   }
   remapPointers();
}

void SlotFile::detach() {
   file_.reset();
   header_ = nullptr;
   slots_ = nullptr;
   numSlots_ = 0;
}

size_t SlotFile::fileSize() const {
   return file_ ? file_->fileSize() : 0;
}

void SlotFile::publishSize(uint32_t numSlots) {
   const uint64_t old = header_->sizeWord.load(std::memory_order_relaxed);
   // Release: a reader that acquires the new size sees the slots initialized before it.
   header_->sizeWord.store(makeSizeWord(sizeWordCounter(old) + 1, numSlots),
                           std::memory_order_release);
   numSlots_ = numSlots;
   if (header_->mostSlots.load(std::memory_order_relaxed) < numSlots) {
      header_->mostSlots.store(numSlots, std::memory_order_relaxed);
   }
}

uint32_t SlotFile::allocSlot(const std::string& name, CriticalYield* yield) {
   uint32_t s = header_->freeSlots.load(std::memory_order_relaxed);
   if (s == kNone) {
      const uint32_t occupied = header_->occupiedSlots.load(std::memory_order_relaxed);
      if (occupied != numSlots_) {
         VELA_FAIL("the slot table is full but numSlots: {} and occupiedSlots: {} are not equal",
                   numSlots_, occupied);
      }
      const uint32_t max = header_->maxSlots;
      if (numSlots_ >= max) {
         throw TableFullError(fmt::format("Dock table full (occupancy:{} tableSize:{}) {}",
                                          occupied, numSlots_, name));
      }
      const uint64_t wanted = std::max<uint64_t>(uint64_t(numSlots_) * 2, numSlots_ + minSlots_);
      grow(uint32_t(std::min<uint64_t>(wanted, max)), yield);
      s = header_->freeSlots.load(std::memory_order_relaxed);
   }
   header_->freeSlots.store(slots_[s].next.load(std::memory_order_relaxed),
                            std::memory_order_relaxed);
   slots_[s].next.store(kNone, std::memory_order_relaxed);
   return s;
}

void SlotFile::freeSlot(uint32_t index) {
   slots_[index].next.store(header_->freeSlots.load(std::memory_order_relaxed),
                            std::memory_order_relaxed);
   header_->freeSlots.store(index, std::memory_order_relaxed);
}

void SlotFile::grow(uint32_t newNumSlots, CriticalYield* yield) {
   VELA_ASSERT(newNumSlots > numSlots_);
   const size_t needed = SlotTable::fileSizeFor(newNumSlots);
   if (file_->size() < needed) {
      file_->resize(needed);
      if (yield) yield->runNow();
   }
   const uint32_t old = numSlots_;
   header_ = reinterpret_cast<SlotTableHeader*>(file_->data());
   slots_ = SlotTable::slots(header_);
   // The new slots may be left over from before a shrink (only whole pages were punched out):
   // reset every word, flags included, before the new size is published. Readers do not look
   // past numSlots, so the work can pause for critical tasks every few pages.
   constexpr uint32_t kStep = 1024;
   const uint32_t freeHead = header_->freeSlots.load(std::memory_order_relaxed);
   for (uint32_t i = old; i < newNumSlots; ++i) {
      Slot& s = slots_[i];
      s.keyHash.store(0, std::memory_order_relaxed);
      s.flags.store(0, std::memory_order_relaxed);
      s.heraldPos.store(0, std::memory_order_relaxed);
      s.offset.store(0, std::memory_order_relaxed);
      s.length.store(0, std::memory_order_relaxed);
      s.next.store(i + 1 < newNumSlots ? i + 1 : freeHead, std::memory_order_relaxed);
      if (yield && (i - old) % kStep == kStep - 1) yield->check();
   }
   header_->freeSlots.store(old, std::memory_order_relaxed);
   publishSize(newNumSlots);
}

void SlotFile::purgeFreeSlots(uint32_t threshold) {
   if (threshold == 0 || threshold > numSlots_) {
      VELA_FAIL("bad threshold: {} numSlots:{}", threshold, numSlots_);
   }
   uint32_t head = kNone;
   std::vector<uint32_t> kept;
   for (uint32_t s = header_->freeSlots.load(std::memory_order_relaxed); s != kNone;
        s = slots_[s].next.load(std::memory_order_relaxed)) {
      if (s < threshold) kept.push_back(s);
   }
   for (auto it = kept.rbegin(); it != kept.rend(); ++it) {
      slots_[*it].next.store(head, std::memory_order_relaxed);
      head = *it;
   }
   header_->freeSlots.store(head, std::memory_order_relaxed);
}

void SlotFile::shrinkTo(uint32_t newNumSlots) {
   VELA_ASSERT(newNumSlots <= numSlots_);
   publishSize(newNumSlots);
   // Keeps the file's length (readers may map it) and punches out the whole pages past the end.
   file_->resize(SlotTable::fileSizeFor(newNumSlots));
}

void SlotFile::rebuildFreeList() {
   uint32_t head = kNone;
   uint32_t occupied = 0;
   for (uint32_t i = numSlots_; i-- > 0;) {
      if (slots_[i].flags.load(std::memory_order_relaxed) & kOccupied) {
         ++occupied;
      } else {
         slots_[i].next.store(head, std::memory_order_relaxed);
         head = i;
      }
   }
   header_->freeSlots.store(head, std::memory_order_relaxed);
   header_->occupiedSlots.store(occupied, std::memory_order_relaxed);
}

uint32_t SlotFile::freeListLength() const {
   std::vector<bool> seen(numSlots_);
   uint32_t n = 0;
   for (uint32_t s = header_->freeSlots.load(std::memory_order_relaxed); s != kNone;
        s = slots_[s].next.load(std::memory_order_relaxed)) {
      if (s >= numSlots_) {
         throw Vela::Exception(
             fmt::format("corrupted free slot detected with out of bound index: {}", s));
      }
      if (seen[s]) throw Vela::Exception(fmt::format("duplicate freeSlot detected: {}", s));
      seen[s] = true;
      ++n;
   }
   return n;
}

}  // namespace Dock
