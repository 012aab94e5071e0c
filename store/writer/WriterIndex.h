// WriterIndex: what the writer's untyped core (WriterCore) asks of the typed index - the key hash
// chains (WriterHashMap) and the private per-slot records that hold the keys.
//
// The core owns the files and the publishing protocol; whatever needs a key or a value goes
// through here. Every call is off the path of a replacement (the writer's hot path), so these are
// plain virtual calls.
#pragma once

#include <cstdint>

#include "store/writer/CriticalYield.h"

namespace Dock {

class WriterIndex {
  public:
   // The slot and bucket files were just laid down (fresh, or the buckets re-made by recovery)
   // and the slab allocator is mapped: sizes the records to the slot file, starts an empty index
   // over the buckets and reads values through the allocator from now on.
   virtual void indexStarted() = 0;
   // The files are being unmapped: drops the records, the index and the value reader.
   virtual void indexDropped() = 0;
   // The slot file grew: records for the new slots, `yield` checked between steps.
   virtual void slotsGrown(CriticalYield& yield) = 0;
   // Recovery: adds occupied `slot` to the index from the value it holds. Throws
   // Loom::CorruptionException when its entry does not name it back or its key is already in the
   // index.
   virtual void slotRecovered(uint32_t slot) = 0;
   // Publishing the open direct write's new key into `slot` (its words and OCCUPIED already
   // stored): records the offset word as the slot's hint and links the key at its place.
   virtual void slotInserted(uint32_t slot, uint32_t hash, uint32_t offsetWord) = 0;
   // The hash of the key recorded for `slot`, and whether the index finds that key in `slot`.
   virtual uint32_t hashAt(uint32_t slot) const = 0;
   virtual bool findsOwnKey(uint32_t slot) const = 0;
   // A move: `to` takes `from`'s key and place in its chain, `offsetWord` as its hint. Returns
   // false when `from` is not linked.
   virtual bool slotMoved(uint32_t from, uint32_t to, uint32_t offsetWord) = 0;
   // Doubles or halves the bucket count, relinking the chains (see WriterHashMap).
   virtual void growBuckets(bool criticalCheck) = 0;
   virtual void shrinkBuckets(bool criticalCheck) = 0;

  protected:
   ~WriterIndex() = default;
};

}  // namespace Dock
