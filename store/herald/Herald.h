// Herald: what the writer's and the readers' sides of the notification queue share: the file's
// header check and the relume word that a restarted writer re-stamps.
//
// Layout (see HeraldHeader and Notification in store/format/Layout.h):
//
//   struct HeraldFile {
//      HeraldHeader header;              // 64 bytes: magic .. writerPos, shrink marks
//      Notification ring[capacity];      // 16 bytes each: seq, slot, kind
//   };
//
// Wake mechanism: not in this file. The writer sends a datagram per batch to each reader's socket
// in the table's wake directory (WakeFanout, WakeSocket); the header's wakeWord only counts wakes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "store/format/Layout.h"

namespace Dock::Herald {

std::string path(const std::string& dir);
constexpr size_t fileSizeFor(uint32_t capacity) {
   return size_t(kHeraldHeaderSize) + size_t(capacity) * sizeof(Notification);
}

// Checks a mapped herald header: size, magic, version, capacity (a power of two >= 2 that fits
// the file) and, when wantedRelume != 0, the relume. Never throws; the reason names the failure.
bool validate(const HeraldHeader& header, size_t fileSize, uint32_t wantedRelume,
              std::string& reason);

// The header's relume: written once at format time, re-stamped by a restarted writer (attach(),
// or create() on the file it replaces). The release store pairs with the readers' acquire load:
// a reader that sees the new relume sees everything the restarted writer stored before it.
inline uint32_t relumeOf(const HeraldHeader& header) {
   return header.relume.load(std::memory_order_acquire);
}
inline void relumeIs(HeraldHeader& header, uint32_t relume) {
   header.relume.store(relume, std::memory_order_release);
}

}  // namespace Dock::Herald
