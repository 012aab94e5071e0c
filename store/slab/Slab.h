// A slab file's header: formatting, the checksum of entrySize, validation, the human-readable form
// and the consistent header copy readers take. The byte layout is in Layout.h (SlabHeader,
// SlabEntryHeader).
//
// Sizing policy (one slab per size class):
//   initial entries  enough to fill 16 KiB, at least 8;
//   growth step      the current entry count (the slab doubles), at least the initial count and
//                    at most 512 KiB worth of entries per step: a step formats every new entry,
//                    faulting in each fresh page, inside one write (see kMaxStepBytes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "store/format/Layout.h"

namespace Tessel {

using Dock::SlabEntryHeader;
using Dock::SlabHeader;

uint32_t initialEntries(uint32_t entrySize);
uint32_t growthStep(uint32_t numEntries, uint32_t entrySize);

// The runtime's 4-byte hash (one-at-a-time) of entrySize's little-endian bytes.
uint32_t slabChecksum(uint32_t entrySize);

// Lays down a header for `numEntries` entries with an empty free list; the magic is stored last
// with release order. Entries are not touched (see SlabWriter::addFreeEntries).
void formatSlabHeader(SlabHeader* header, uint32_t relume, uint32_t entrySize, uint32_t numEntries);

// Checks in the fixed order and stops at the first failure, with its text in `reason`.
bool validateSlabHeader(const SlabHeader& header, size_t fileSize, uint32_t wantedRelume,
                        std::string& reason);

// "magic:{:x} version:{} relume:{} numEntries:{} entrySize:{} freeList:{}"
std::string slabHeaderString(const SlabHeader& header);

// Relume stamping of a mapped header (a restarted writer re-stamps the files it keeps).
uint32_t slabRelume(const SlabHeader& header);
void stampSlabRelume(SlabHeader* header, uint32_t relume);

// Address of entry `index` in a slab mapped at `base`.
inline uint8_t* entryAt(uint8_t* base, uint32_t entrySize, uint32_t index) {
   return base + Dock::kSlabHeaderSize + size_t(entrySize) * index;
}
// Entries a mapping of `mapped` bytes holds completely.
inline uint64_t entriesIn(size_t mapped, uint32_t entrySize) {
   return mapped < Dock::kSlabHeaderSize || entrySize == 0
              ? 0
              : (mapped - Dock::kSlabHeaderSize) / entrySize;
}

}  // namespace Tessel
