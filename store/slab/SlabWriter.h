// SlabWriter: the writer's side of one slab file (one size class). It formats the file, hands out
// and takes back entries through the free list in the header, grows the file when the list runs
// dry, and validates the file.
//
// Publication to readers. Entry headers and payloads are written before the slot that names the
// entry is published (the slot's flags word is the release point). When the slab grows, the new
// entries are formatted and numEntries stored before the resize counter is advanced with release
// order, so a reader that sees the new counter (acquire) maps a file whose entries are all valid.
//
// Interrupted operations. alloc, free, resize and shrink each store several bookkeeping words;
// they record themselves in the slab's intent word first and clear it last (SlabIntent.h), and
// repair() rebuilds the bookkeeping of a slab whose operation was interrupted.
//
// Errors: lookups and validation throw Loom::CorruptionException with a text that begins with the
// slab's name (its file name, "slab.07"); file-level reports name the full path.
#pragma once

#include <cstdint>
#include <string>

#include "Region/MappedFile.h"
#include "store/slab/Slab.h"
#include "store/slab/SlabIntent.h"

namespace Tessel {

class SlabWriter {
  public:
   // REQUIRES: entrySize is a multiple of 8 and > kSlabEntryHeaderSize.
   SlabWriter(std::string path, uint32_t entrySize, uint32_t relume);

   // Creates (truncating) the file with initialEntries(entrySize) free entries.
   void create();
   // Maps the existing file read-write, validates its header (any relume) and stamps this
   // writer's relume. Throws Loom::CorruptionException with the validation reason, or
   // Region::Error when the file cannot be mapped.
   void attach();
   // Maps the existing file read-only for inspection (validate, lookup); nothing is written.
   void attachReadOnly();
   void detach();
   bool attached() const { return bool(file_); }

   // Where this slab records the operation under way (the table's intent file), and its number
   // in the record. Without it the slab records into a word of its own.
   void intentIs(std::atomic<uint32_t>* word, uint32_t slab) {
      intent_.word = word ? word : &ownIntent_;
      slabNumber_ = slab;
   }
   // Maps the existing file read-write after an interrupted operation and rebuilds freeList and
   // numOccupied from the entries' payloadSize words over [0, numEntries), then attaches as
   // attach() does. Only the fields an operation never changes are checked before the rebuild
   // (magic, version, checksum, entrySize, numEntries against the file); a failure there throws
   // as attach() does and nothing is written. Returns whether freeList or numOccupied changed.
   bool repair();

   // The entry at `index`. Throws "{}::getEntry() index: {} is beyond farthest possible index: {}"
   // when index >= numEntries (farthest possible index is numEntries - 1).
   // Inline: three lookups on every replacement; the bound is the cached mapping size, so no
   // division on the way.
   SlabEntryHeader* getEntry(uint32_t index) {
      // The mapping bound protects against a header whose numEntries outgrew the file.
      if (index >= numEntries() || index >= mappedEntries_) [[unlikely]]
         beyond(index);
      return entry(index);
   }
   // getEntry plus the occupancy checks: "{}::lookup() entry at index: {} is marked unoccupied",
   // "{}::lookup() encountered payloadSize: {}, but max payloadSize:{} at index: {}".
   SlabEntryHeader* lookup(uint32_t index);
   uint8_t* payload(SlabEntryHeader* entry) {
      return reinterpret_cast<uint8_t*>(entry) + Dock::kSlabEntryHeaderSize;
   }

   // Pops the free list, growing the slab first when it is empty. The entry comes back with
   // payloadSize 0 and clientData kNone; the caller fills the payload, then sets clientData and
   // payloadSize. REQUIRES: attached read-write.
   uint32_t alloc();
   // Marks the entry free (payloadSize -1) and pushes it on the free list.
   // REQUIRES: the entry is occupied (asserted: "freeing unoccupied entry {} of {}").
   void free(uint32_t index);

   // Grows the file to newNumEntries entries and adds the new ones to the free list.
   // REQUIRES: newNumEntries > numEntries(), free list empty.
   void resize(uint32_t newNumEntries);
   // Releases the free tail when the prefix up to the last occupied entry is at most a quarter of
   // the slab: numEntries drops to twice that prefix (never below the initial count), the list is
   // rebuilt from the remaining free entries, and the tail's pages are punched out (the file keeps
   // its length, so a reader still copying from the tail reads zeros, never SIGBUS). Returns true
   // when it shrank. The writer calls it when it shrinks the slot file (WriterCore).
   bool shrink();
   // Relinks the free list in ascending index order, so that the next allocations take the
   // lowest free entries and a later shrink() can release the tail.
   void relinkFreeList();
   // Pushes entries [start, end) on the free list in ascending order.
   // REQUIRES: the free list is empty ("{}::addFreeEntries() free-list isn't empty").
   void addFreeEntries(uint32_t start, uint32_t end);

   // Header checks, then a walk of the free list and of every entry. Throws on the first finding.
   void validate();

   SlabHeader* header() const { return reinterpret_cast<SlabHeader*>(file_.data()); }
   uint32_t entrySize() const { return entrySize_; }
   uint32_t maxPayload() const { return entrySize_ - Dock::kSlabEntryHeaderSize; }
   uint32_t numEntries() const { return header()->numEntries.load(std::memory_order_relaxed); }
   uint32_t numOccupied() const { return header()->numOccupied.load(std::memory_order_relaxed); }
   uint32_t relume() const { return relume_; }
   const std::string& name() const { return name_; }
   const std::string& path() const { return path_; }
   bool readOnly() const { return file_.readOnly(); }
   const Region::MappedFile& file() const { return file_; }

  private:
   // Starts the cache misses of the next allocation's stores into entry `e`, just freed, which
   // held `payload` bytes.
   void prefetchForReuse(const SlabEntryHeader* e, uint32_t payload) const;
   SlabEntryHeader* entry(uint32_t index) const {
      return reinterpret_cast<SlabEntryHeader*>(entryAt(file_.data(), entrySize_, index));
   }
   // Links every free entry below `end` in ascending order; returns the first (kNone if none).
   // Writes the entries' clientData only: the caller stores the head.
   uint32_t linkFreeBelow(uint32_t end);
   // Re-reads the mapping's size into mappedEntries_ (after every map, unmap and resize).
   void mapped();
   // Runs `check`; if it throws, closes the file before the error goes on.
   template <class F>
   void closeIfThrows(F&& check);
   // Throws the getEntry() range error.
   [[noreturn]] void beyond(uint32_t index) const;
   void checkHeader(uint32_t wantedRelume);
   void open(bool readOnly);

   std::string path_;
   std::string name_;
   uint32_t entrySize_;
   uint32_t relume_;
   std::atomic<uint32_t> ownIntent_{0};
   SlabIntent intent_{&ownIntent_};
   uint32_t slabNumber_ = 0;
   Region::MappedFile file_;
   uint32_t mappedEntries_ = 0;  // entries the mapping holds completely
};

// Validates a slab file that no SlabWriter holds (mapped read-only for the check):
// "{}::validateUnattached() cannot attach to shmem {} size:{}: {}" when it cannot be mapped,
// "{}::validateUnattached, validation failed on an empty slab, reason: {}" when a slab with no
// occupied entries fails; other failures as SlabWriter::validate. Throws Loom::CorruptionException.
void validateUnattached(const std::string& path, uint32_t entrySize);

}  // namespace Tessel
