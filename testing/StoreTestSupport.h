// What the store's writer and reader tests share: a table configuration for DockTest::Value, the
// writer's content as a map, the bit mixer the churn tests derive their operations from, and a
// Value stored into a slab entry.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "store/DockConfig.h"
#include "store/format/Layout.h"
#include "store/slab/WriterAllocator.h"
#include "testing/WriterTestValue.h"

namespace DockTest {

// A table of Value of minSlots..maxSlots slots and a ring of heraldCapacity notifications.
inline Dock::DockConfig tableConfig(uint32_t minSlots = 16, uint32_t maxSlots = 1u << 14,
                                    uint32_t heraldCapacity = 1024) {
   Dock::DockConfig c;
   c.typeName = "DockTest::Value";
   c.valueSize = sizeof(Value);
   c.minSlots = minSlots;
   c.maxSlots = maxSlots;
   c.maxValueSize = kMaxValueSize;
   c.heraldCapacity = heraldCapacity;
   return c;
}

// Every entry of writer `w` by key, found by the writer's own slot-order iteration.
template <class W>
std::map<uint64_t, Value> contents(W& w) {
   std::map<uint64_t, Value> out;
   for (uint32_t s = w.firstSlot(); s != Dock::kNone;) {
      const uint64_t k = w.keyAt(s);
      out[k] = w.valueAt(s);
      s = w.nextSlot(k, s, w.flagsOf(s));
   }
   return out;
}

// splitmix64's finalizer: churn operations as a pure function of (seed, op index).
inline uint64_t mix(uint64_t x) {
   x += 0x9e3779b97f4a7c15ull;
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
   return x ^ (x >> 31);
}

// Serializes `v` into a new entry of `allocator` naming `slot`, as the table's writer does.
inline Tessel::SlabValue storeValue(Tessel::WriterAllocator& allocator, uint32_t slot,
                                    const Value& v) {
   std::vector<uint8_t> bytes(v.serializeLen());
   v.serialize(bytes.data());
   return allocator.store(slot, bytes.data(), uint32_t(bytes.size()));
}

}  // namespace DockTest
