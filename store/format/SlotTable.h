// The slot table file's header: formatting, checksum, validation and the human-readable form.
// The byte layout itself is in Layout.h (SlotTableHeader, Slot).
//
// Header validation never throws: it returns false with the reason, and the caller decides
// (a reader detaches and retries, a writer re-formats). Formatting throws on an over-long type
// name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "store/format/Layout.h"
#include "store/format/SeqRead.h"

namespace Dock::SlotTable {

using Header = SlotTableHeader;

// Names of platform specifications as printed by validation ("bad platform specification: {}
// expecting: {}"): 1 is "linux-little-endian-64" (the only one this library writes or accepts);
// any other value prints as "unknown-platform-<n>".
std::string platformName(uint32_t platform);

// Lays down a fresh header (see Layout.h for the format-time values) for `numSlots` slots. The
// magic is stored last, with release order, so a reader that sees it sees every other field.
// Slots are not touched. Throws Vela::Exception "value typename {} exceeds {} characters".
// REQUIRES: header points at kSlotHeaderSize writable bytes.
void format(Header* header, const std::string& valueType, uint32_t valueSize, uint32_t maxSlots,
            uint16_t constFlags, uint32_t relume, uint32_t hashSeed, uint32_t numSlots);

// FNV-1a 32 over valueType[512], valueSize, slotSize, maxSlots, constFlags, hashSeed (each in its
// little-endian file bytes, in that order), from the offset basis 0x811c9dc5.
uint32_t checksum(const Header& header);

// Checks the header against the mapped file size and the wanted relume (0: any), in the fixed
// order, stopping at the first failure and putting its text in `reason`.
bool validateHeader(const Header& header, size_t fileSize, uint32_t wantedRelume,
                    std::string& reason);

// The header of the slot file at `path`, read with pread into a zeroed copy without mapping the
// file: a file shorter than the header reads as zeros past its end, and a file too large to map
// still has its header checked first. Validate it with validateHeader(*header, fileSize, ...).
// Throws Region::Error when the file cannot be opened, sized or read.
struct FileHeader {
   HeaderCopy<Header> header{};
   size_t fileSize = 0;
};
FileHeader readFileHeader(const std::string& path);

// "magic:{:#x} version:{} relume:{} platform:{} valueType:\"{}\" ..." (every field, file order).
std::string headerString(const Header& header);

inline Slot* slots(Header* header) {
   return reinterpret_cast<Slot*>(reinterpret_cast<uint8_t*>(header) + kSlotHeaderSize);
}
inline const Slot* slots(const Header* header) {
   return reinterpret_cast<const Slot*>(reinterpret_cast<const uint8_t*>(header) + kSlotHeaderSize);
}
constexpr size_t fileSizeFor(uint32_t numSlots) {
   return size_t(kSlotHeaderSize) + size_t(kSlotSize) * numSlots;
}

inline uint32_t numSlots(const Header& header) {
   return sizeWordNumSlots(header.sizeWord.load(std::memory_order_acquire));
}
inline uint32_t resizeCounter(const Header& header) {
   return sizeWordCounter(header.sizeWord.load(std::memory_order_acquire));
}

}  // namespace Dock::SlotTable
