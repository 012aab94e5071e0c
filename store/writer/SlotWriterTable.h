// SlotWriterTable: the writer's hold on a table's slot file, plus its private per-slot records.
//
// The shared file (SlotTableHeader, then numSlots Slots; see store/format/Layout.h) is what readers
// copy. The writer alone stores to it. Next to it the writer keeps one private Record per slot -
// the chain link and the key - so that its own lookups never deserialize a value from a slab. The
// shared slot's `next` word mirrors Record::next so that plain readers can walk the same chains.
//
// Free slots form a list through the shared `next` words, headed by header.freeSlots. Allocation
// pops the head. When the list is empty and numSlots < maxSlots the file grows: the slot count
// doubles (at least by minSlots), capped at maxSlots - doubling keeps the amortized cost of growth
// per insertion constant while the file never exceeds twice the occupancy it ever reached.
//
// Resizing publishes numSlots together with an incremented resize counter in the header's single
// 8-byte sizeWord (release), so readers see both or neither. Shrinking never truncates the file:
// readers may still map the old length; the tail pages are released with
// fallocate(PUNCH_HOLE | KEEP_SIZE), which makes them read back as zeros.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "Vela/Exception.h"
#include "store/DockConfig.h"
#include "store/format/Layout.h"
#include "store/writer/CriticalYield.h"
#include "store/writer/HugePageBuffer.h"

namespace Region {
class MappedFile;
}

namespace Dock {

// A write needed a slot and none could be had.
class TableFullError : public Vela::Exception {
  public:
   using Vela::Exception::Exception;
};

// The untyped part: the mapped slot file, the free list, growth and shrinking.
class SlotFile {
  public:
   SlotFile();
   ~SlotFile();
   SlotFile(SlotFile&&) noexcept;
   SlotFile& operator=(SlotFile&&) noexcept;

   // Creates (truncating) and formats <path> with numSlots = config.minSlots, every slot free and
   // chained in ascending order. Throws Region::Error or Vela::Exception.
   void create(const std::string& path, const DockConfig& config, uint32_t relume,
               uint32_t hashSeed);
   // Maps an existing file read-write; the caller validates it.
   void attach(const std::string& path);
   void detach();
   bool attached() const { return header_ != nullptr; }

   SlotTableHeader* header() const { return header_; }
   Slot& slot(uint32_t index) const { return slots_[index]; }
   uint32_t numSlots() const { return numSlots_; }
   uint32_t maxSlots() const { return header_->maxSlots; }
   uint32_t minSlots() const { return minSlots_; }
   void minSlotsIs(uint32_t n) { minSlots_ = n; }
   size_t fileSize() const;
   const std::string& path() const { return path_; }

   // Pops a free slot, growing the file if the list is empty. Throws TableFullError with
   // "Dock table full (occupancy:{} tableSize:{}) {}" when numSlots == maxSlots. The returned
   // slot is neither free-listed nor occupied until the caller publishes it.
   // The growth checks `yield` between steps when one is given.
   uint32_t allocSlot(const std::string& name, CriticalYield* yield = nullptr);
   // Pushes a slot whose OCCUPIED bit the caller has cleared back on the free list.
   void freeSlot(uint32_t index);
   // Grows the file to newNumSlots (> numSlots), chaining the new slots onto the free list. The
   // new slots are laid down in steps between which `yield` runs critical tasks.
   void grow(uint32_t newNumSlots, CriticalYield* yield = nullptr);
   // Drops every free slot at or above `threshold` from the free list.
   void purgeFreeSlots(uint32_t threshold);
   // Publishes newNumSlots (< numSlots) with the resize counter and releases the file's tail.
   void shrinkTo(uint32_t newNumSlots);
   // Rebuilds the free list from the OCCUPIED bits (ascending order) and recounts occupiedSlots.
   // Used after a restart, where a crash may have left a slot neither free nor occupied.
   void rebuildFreeList();

   // Length of the free list; throws Vela::Exception on an out-of-range or repeated index.
   uint32_t freeListLength() const;

  private:
   void remapPointers();
   void publishSize(uint32_t numSlots);

   std::unique_ptr<Region::MappedFile> file_;
   std::string path_;
   SlotTableHeader* header_ = nullptr;
   Slot* slots_ = nullptr;
   uint32_t numSlots_ = 0;
   uint32_t minSlots_ = 1;
};

// The typed part: the private record of every slot.
template <class K>
class SlotWriterTable : public SlotFile {
  public:
   struct Record {
      uint32_t next = kNone;        // next slot in the bucket chain, kNone ends it
      uint32_t hash = 0;            // the key's bucket hash
      uint32_t offsetHint = kNone;  // the slot's value Offset word, only to prefetch its entry
      K key{};
   };

   // One record per slot; at() checks the index. Records live in fixed chunks so that growing
   // never copies the records already there (a vector doubling a million records would stall
   // the writer for as long as the copy takes); new chunks are added between critical-task
   // checks. Each chunk is a HugePageBuffer: a replacement reads one or two records at random,
   // and with 4 KiB pages every such read was also a TLB miss (the largest single cost of a
   // replacement in a million-key table). 2^16 records per chunk fill most of a 2 MiB page.
   class Slots {
     public:
      static constexpr uint32_t kChunkBits = 16;
      static constexpr uint32_t kChunk = 1u << kChunkBits;
      static_assert(std::is_trivially_destructible_v<Record>);

      Record& at(uint32_t index) {
         if (index >= size_) [[unlikely]] {
            throw Vela::Exception(fmt::format("out-of-range index: {} max:{}", index, size_));
         }
         return (*this)[index];
      }
      Record& operator[](uint32_t index) {
         return chunks_[index >> kChunkBits].template as<Record>()[index & (kChunk - 1)];
      }
      const Record& operator[](uint32_t index) const {
         return chunks_[index >> kChunkBits].template as<Record>()[index & (kChunk - 1)];
      }
      uint32_t size() const { return size_; }
      // Keeps at least n records (never drops chunks: the table may grow back); records beyond
      // the old size start out default. n == 0 releases everything.
      void resize(uint32_t n, CriticalYield* yield = nullptr) {
         if (n == 0) {
            chunks_.clear();
            size_ = 0;
            return;
         }
         // Chunks come zero-filled and untouched; only records [size_, n) are laid down, so a
         // small table touches a few pages. The first chunk takes huge pages only if the table
         // already needs half of it. Records kept from an earlier, larger size start out default
         // again. Under a budget the new records' pages are faulted in first, a huge page at a
         // time; then the budget is checked every 8192 records.
         while (uint64_t(chunks_.size()) * kChunk < n) {
            chunks_.emplace_back(sizeof(Record) * kChunk, !chunks_.empty() || n >= kChunk / 2);
         }
         if (yield && n > size_) {
            for (uint32_t c = size_ >> kChunkBits; c <= (n - 1) >> kChunkBits; ++c) {
               const uint32_t first = std::max(size_, c << kChunkBits) & (kChunk - 1);
               const uint32_t end = std::min<uint64_t>(n - (uint64_t(c) << kChunkBits), kChunk);
               chunks_[c].faultIn(sizeof(Record) * first, sizeof(Record) * end, *yield);
            }
         }
         for (uint32_t i = size_; i < n; ++i) {
            new (&(*this)[i]) Record{};
            if (yield && i % 8192 == 8191) yield->check();
         }
         size_ = n;
      }

     private:
      std::vector<HugePageBuffer> chunks_;
      uint32_t size_ = 0;
   };

   Slots& records() { return records_; }
   const Slots& records() const { return records_; }

   // Keeps the records as long as the file (call after create/attach/growth; the writer's
   // allocation of a slot that grows the file calls it within the growth's yield budget).
   void syncRecords(CriticalYield* yield = nullptr) {
      if (records_.size() < numSlots()) records_.resize(numSlots(), yield);
   }

  private:
   Slots records_;
};

}  // namespace Dock
