// SlabReader: a reader's read-only view of one slab file. It maps the file on first use, keeps a
// copy of the header taken consistently under the resize counter, and re-maps when the writer
// has resized the file. It never writes the file.
#pragma once

#include <cstdint>
#include <string>

#include "Region/MappedFile.h"
#include "store/format/SeqRead.h"
#include "store/slab/Slab.h"

namespace Tessel {

class SlabReader {
  public:
   SlabReader(std::string path, uint32_t relume);

   // Maps the file read-only and validates its header with this reader's relume. False (with the
   // reason) when the file is missing, cannot be mapped or fails validation; nothing stays mapped.
   bool attach(std::string& reason);
   void detach();
   bool attached() const { return bool(file_); }

   // Follows a resize: copies the header; when its resize counter differs from the one this
   // reader last saw, re-maps the file at its current size (tracing "base address moved from {}
   // to {}" when the mapping moves). False when the new header fails validation.
   bool doResize();

   // The entry at `index` within the current mapping, after one doResize() if the index lies
   // beyond it; nullptr when it is still beyond (or the slab is not attached).
   const SlabEntryHeader* getEntry(uint32_t index);

   uint32_t entrySize() const { return entrySize_; }
   uint32_t maxPayload() const { return entrySize_ - Dock::kSlabEntryHeaderSize; }
   uint32_t resizeCounter() const { return resizeCounter_; }
   const std::string& name() const { return path_; }
   const Region::MappedFile& file() const { return file_; }

  private:
   // The header and the file's size, copied under the resize counter (format/SeqRead.h).
   Dock::SafeHeader<SlabHeader, uint32_t> headerCopy() const;

   std::string path_;
   uint32_t relume_;
   uint32_t entrySize_ = 0;
   uint32_t resizeCounter_ = 0;
   uint64_t mappedEntries_ = 0;
   Region::MappedFile file_;
};

}  // namespace Tessel
