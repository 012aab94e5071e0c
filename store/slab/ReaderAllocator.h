// ReaderAllocator: a reader's access to the slab files of a table. Slabs are mapped read-only on
// first use and re-mapped when the writer resizes them; a slab that is missing or fails header
// validation is tried again on the next copy (the writer may be creating it right now).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "store/slab/LinearSizeConfig.h"
#include "store/format/Offset.h"
#include "store/slab/SlabReader.h"

namespace Tessel {

class ReaderAllocator {
  public:
   ReaderAllocator(std::string dir, uint32_t relume);

   // Copies the payload of `offset` into `out` (at most maxLen bytes) and returns the payload's
   // size, or -1 when the entry cannot be read consistently right now: the slab is missing or
   // invalid, the index lies beyond the slab even after following a resize, or the entry is free
   // or claims more than its class holds. The copy may still be torn by a concurrent reuse of the
   // entry; it ends with an acquire fence so that the caller's next load (its re-check of the
   // slot's flags word) is ordered after every byte copied.
   int64_t copy(Offset offset, uint8_t* out, uint32_t maxLen);
   // Also returns the entry's clientData (the slot the writer stored it for).
   int64_t copy(Offset offset, uint8_t* out, uint32_t maxLen, uint32_t& clientData);

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
