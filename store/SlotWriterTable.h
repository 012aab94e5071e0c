// SlotWriterTable: the writer's hold on a table's slot file, plus its private per-slot records.
//
// The shared file (SlotTableHeader, then numSlots Slots; see store/Layout.h) is what readers copy.
// The writer alone stores to it. Next to it the writer keeps one private Record per slot - the
// chain link and the key - so that its own lookups never deserialize a value from a slab. The
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

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Vela/Exception.h"
#include "store/DockConfig.h"
#include "store/Layout.h"

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
   uint32_t allocSlot(const std::string& name);
   // Pushes a slot whose OCCUPIED bit the caller has cleared back on the free list.
   void freeSlot(uint32_t index);
   // Grows the file to newNumSlots (> numSlots), chaining the new slots onto the free list.
   void grow(uint32_t newNumSlots);
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
      uint32_t next = kNone;  // next slot in the bucket chain, kNone ends it
      uint32_t hash = 0;      // the key's bucket hash
      K key{};
   };

   // One record per slot; at() checks the index.
   class Slots {
     public:
      Record& at(uint32_t index) {
         if (index >= records_.size()) [[unlikely]] {
            throw Vela::Exception(
                fmt::format("out-of-range index: {} max:{}", index, records_.size()));
         }
         return records_[index];
      }
      Record& operator[](uint32_t index) { return records_[index]; }
      const Record& operator[](uint32_t index) const { return records_[index]; }
      uint32_t size() const { return uint32_t(records_.size()); }
      void resize(uint32_t n) { records_.resize(n); }

     private:
      std::vector<Record> records_;
   };

   Slots& records() { return records_; }
   const Slots& records() const { return records_; }

   // Keeps the records as long as the file (call after create/attach/growth).
   void syncRecords() {
      if (records_.size() < numSlots()) records_.resize(numSlots());
   }

   uint32_t allocSlot(const std::string& name) {
      const uint32_t s = SlotFile::allocSlot(name);
      syncRecords();
      return s;
   }

  private:
   Slots records_;
};

}  // namespace Dock
