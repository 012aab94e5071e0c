// ReaderAllocator: a reader's access to the slab files of a table. Slabs are mapped read-only on
// first use and re-mapped when the writer resizes them; a slab that is missing or fails header
// validation is tried again on the next copy (the writer may be creating it right now).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "store/format/Offset.h"
#include "store/slab/LinearSizeConfig.h"
#include "store/slab/SlabReader.h"

namespace Tessel {

class ReaderAllocator {
  public:
   ReaderAllocator(std::string dir, uint32_t relume);

   // An entry's header words as copied, and the check of the bytes copied (EntryCheck.h).
   struct Copied {
      uint32_t clientData = 0;
      uint64_t stored = 0;    // the entry's check word
      uint64_t computed = 0;  // the check of the header words and the bytes copied
      bool intact() const { return stored == computed; }
   };

   // Copies the payload of `offset` into `out` (at most maxLen bytes), folding its check in the
   // same pass, fills `entry` and returns the payload's size, or -1 when the entry cannot be read
   // right now: the slab is missing or invalid, the index lies beyond the slab even after
   // following a resize, or the entry is free or claims more than its class holds. The check is
   // of the whole payload only when its size is at most maxLen. The copy may be torn by a
   // concurrent reuse of the entry: the caller copies under the flags word of the slot that
   // names it (SeqRead), whose re-check then fails, and judges the check only after that.
   int64_t copy(Offset offset, uint8_t* out, uint32_t maxLen, Copied& entry);
   // The same, -1 also when the whole payload was copied and fails its check.
   int64_t copy(Offset offset, uint8_t* out, uint32_t maxLen) {
      Copied entry;
      const int64_t size = copy(offset, out, maxLen, entry);
      return size >= 0 && size <= int64_t(maxLen) && !entry.intact() ? -1 : size;
   }

   void detach();
   uint32_t relume() const { return relume_; }
   const std::string& dir() const { return dir_; }

  private:
   SlabReader* slab(uint32_t slab);

   std::string dir_;
   uint32_t relume_;
   std::array<std::unique_ptr<SlabReader>, kNumClasses> slabs_;
};

}  // namespace Tessel
