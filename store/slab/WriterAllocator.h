// WriterAllocator: the writer's slab allocator over the 32 slab files of a table, one SlabWriter
// per size class (LinearSizeConfig). Slab files are created on the first allocation in their
// class; existing files are attached and validated on first use.
//
//   create()          a fresh table: removes any slab files and temporary files left in the
//                     directory and starts an idle intent file.
//   attach()          a restarted writer keeping its entries: removes the temporary files a killed
//                     writer left half-created (removeStrayFiles), repairs the slab named by
//                     the intent file (an operation interrupted between two bookkeeping stores,
//                     see SlabIntent.h), then checks every existing slab file's header (any
//                     relume) and re-stamps it with this writer's relume now, so readers of the
//                     new generation accept it; the full walk runs on first use.
//   attachReadOnly()  inspection (deep validation by a tool): nothing is written; alloc and free
//                     are then programming errors.
//
// Errors: allocation sizes out of range are assertions; a slab that fails validation when first
// used raises Loom::CorruptionException "corrupted slab: {} was detected when lazily attaching"
// (the slab's path); lookups raise the SlabWriter texts.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "store/format/Offset.h"
#include "store/slab/LinearSizeConfig.h"
#include "store/slab/SlabIntent.h"
#include "store/slab/SlabWriter.h"

namespace Tessel {

// Where a stored value is: its entry and its serialized length.
struct SlabValue {
   Offset offset;
   uint32_t length = 0;
};

class WriterAllocator {
  public:
   WriterAllocator(std::string dir, LinearSizeConfig config, uint32_t relume);

   void create();
   void attach();
   void attachReadOnly();
   void detach();

   // An entry whose payload can hold size - kEntryOverhead bytes (the entry's capacity is
   // maxPayload(offset) >= size). The entry is reserved: payloadSize 0, clientData kNone.
   // REQUIRES: 1 <= size <= maxAllocSize ("doing an allocation of size 0 is forbidden",
   // "Unhandled allocation size: {}").
   Offset alloc(uint32_t size);
   // REQUIRES: the entry is occupied.
   void free(Offset offset);
   // Moves bytes[0, length) into a NEW entry that names `client` (the slot that will name it).
   // The caller publishes the returned words in the slot, and frees the entry the slot named
   // before only after that. REQUIRES: as alloc(length + kEntryOverhead).
   SlabValue store(uint32_t client, const uint8_t* bytes, uint32_t length);

   SlabEntryHeader* lookup(Offset offset);  // throws, see SlabWriter::lookup
   uint8_t* payload(Offset offset);         // payload of an entry that lookup accepts
   uint32_t maxPayload(Offset offset) const { return config_.maxPayload(offset.slab()); }

   // Validates every attached slab, and every unattached slab file present (validateUnattached).
   void validate();
   // Relinks, in ascending order, the free list of every attached slab that shrink() could
   // release most of (at most a quarter of its entries occupied), so that the values a slot-file
   // shrink moves are stored in the lowest entries. O(entries) of those slabs.
   void prepareShrink();
   // Shrinks every attached slab (SlabWriter::shrink); returns the number that shrank.
   uint32_t shrink();
   // Sum of numOccupied over every slab file present (attaching them as needed).
   uint64_t numOccupied();

   // Removes every slab file of `dir`, the intent file and half-created files (best effort:
   // the table is being given up).
   static void removeFiles(const std::string& dir);

   // What the last attach() repaired: the interrupted operation (kIdle when none) and its slab.
   SlabOp repairedOp() const { return repairedOp_; }
   uint32_t repairedSlab() const { return repairedSlab_; }
   // Half-created files the last create() or attach() removed (removeStrayFiles).
   uint32_t strayFilesRemoved() const { return strayRemoved_; }

   const LinearSizeConfig& config() const { return config_; }
   const std::string& dir() const { return dir_; }
   uint32_t relume() const { return relume_; }
   std::string slabPath(uint32_t slab) const;
   // The slab's writer if it is attached, else nullptr.
   SlabWriter* attachedSlab(uint32_t slab) const { return slabs_[slab].get(); }

  private:
   enum class Mode { kDetached, kCreated, kAttached, kReadOnly };
   // The slab's writer, attaching (and validating) or creating it on first use; nullptr when the
   // file does not exist and `create` is false. Inline for the validated slab (every call after
   // the first): alloc, lookup and free each take this path on every replacement.
   SlabWriter* slab(uint32_t slab, bool create) {
      if ((validated_ & (1u << slab)) && slabs_[slab]) [[likely]]
         return slabs_[slab].get();
      return firstUse(slab, create);
   }
   SlabWriter* firstUse(uint32_t slab, bool create);
   std::unique_ptr<SlabWriter> makeSlab(uint32_t slab) const;
   void repairInterrupted();

   std::string dir_;
   LinearSizeConfig config_;
   uint32_t relume_;
   Mode mode_ = Mode::kDetached;
   uint32_t validated_ = 0;  // bit per slab: its full walk has passed since it was attached
   std::array<std::unique_ptr<SlabWriter>, kNumClasses> slabs_;
   IntentFile intent_;  // open while attached for writing
   SlabOp repairedOp_ = SlabOp::kIdle;
   uint32_t repairedSlab_ = 0;
   uint32_t strayRemoved_ = 0;
};

}  // namespace Tessel
