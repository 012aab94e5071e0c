// The check of one occupied slot against the slab entry its Offset names, shared by the deep
// validation of a table and the writer's own slot check: the entry names the slot back
// (clientData), holds exactly the slot's recorded length (payloadSize), which is what every
// reader copies, and its bytes match the entry's check word. The entry's occupancy and size bound
// are the lookup's own checks (SlabWriter).
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>

#include "Loom/CorruptionException.h"
#include "store/format/Layout.h"
#include "store/format/Offset.h"
#include "store/slab/EntryCheck.h"

namespace Tessel {

// The one text for a slot whose entry names another slot.
inline std::string clientDataMismatch(uint32_t slot, Offset offset, uint32_t client) {
   return fmt::format(
       "Clientdata mismatch, slot {} contains offset: {} but slabEntry references slot: {}", slot,
       offset.toString(), client);
}

// Throws Loom::CorruptionException with the first finding: clientDataMismatch, the readers' text
// for a recorded length that differs from the entry's payloadSize, or the entry check's.
// REQUIRES: `entry` passed the lookup's checks for `offset` (its payloadSize is within
// `maxPayload`, the capacity of its size class).
inline void checkSlotEntry(uint32_t slot, Offset offset, uint32_t length,
                           const Dock::SlabEntryHeader& entry, uint32_t maxPayload) {
   const uint32_t client = entry.clientData.load(std::memory_order_relaxed);
   if (client != slot) throw Loom::CorruptionException(clientDataMismatch(slot, offset, client));
   const int32_t size = entry.payloadSize.load(std::memory_order_relaxed);
   if (int64_t(size) != int64_t(length)) {
      throw Loom::CorruptionException(fmt::format(
          "slot:{} offset:{} payloadSize:{} but slot length:{}", slot, offset, size, length));
   }
   if (!entryIntact(entry, maxPayload)) {
      throw Loom::CorruptionException(
          fmt::format("slot:{} offset:{} entry check mismatch: stored:{:#018x}", slot, offset,
                      entry.check.load(std::memory_order_relaxed)));
   }
}

}  // namespace Tessel
