// MemoryFloor: the memory cost a writer's replacement cannot go below, measured over private copies
// of the regions it touches, with the same sizes, page kinds and geometry, doing no other work.
//
// A replacement of a key first or second in its bucket chain (load <= 1: nine keys in ten)
// misses the cache on four lines at random, every other line it touches being hot (headers, the
// lookaside, the intent word, the herald's ring position, and the new slab entry, which is the
// one the previous replacement freed):
//   1. the bucket's chain start in the writer's private mirror (32 bytes a bucket, 2 MiB pages),
//      whose slot index and prefetch hint name the three below;
//   2. the slot in the shared slot file (24 bytes, 4 KiB pages), stored to;
//   3. the slot's private record (key, hash, link, hint; 2 MiB pages), compared and stored to;
//   4. the header of the slab entry holding the old value (4 KiB pages), stored to when freed.
// The probe does the same: one load from a random mirror head, then the three lines it names,
// loaded and stored at the same offsets (so 24-byte slots and records straddle two lines as often
// as the real ones), the three independent of each other as the writer's prefetches make them.
// The value's bytes are then stored into the entry the previous operation touched: a replacement's
// new entry is the one the replacement before it freed (the free list is last in, first out), so
// that store costs what storing the bytes costs, and nothing for small values.
// "Chained" feeds each operation's loaded words into the next operation's random index, so that
// operations cannot overlap (the writer's replacement is long enough that they barely do); the
// "independent" variant lets the processor overlap consecutive operations and is printed too.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "Region/MappedFile.h"
#include "store/format/Layout.h"
#include "store/format/SlotTable.h"
#include "store/slab/LinearSizeConfig.h"
#include "store/slab/Slab.h"
#include "store/writer/BucketWriter.h"
#include "store/writer/HugePageBuffer.h"

namespace Bench {

// The sizes of the regions a replacement touches, read from a live writer.
struct FloorRegions {
   uint32_t buckets = 0;     // power of two
   uint32_t slots = 0;       // slot file and records
   uint32_t recordSize = 0;  // bytes of one private record
   uint32_t entrySize = 0;   // bytes of one entry of the slab the values live in
   uint32_t entries = 0;     // entries of that slab
   uint32_t payload = 0;     // bytes of the value, stored into the new entry

   // `w` is a DockWriter; `valueLength` the serialized length of the values replaced.
   template <class Writer>
   static FloorRegions of(Writer& w, uint32_t valueLength) {
      FloorRegions r;
      r.buckets = w.buckets();
      r.slots = w.capacity();
      r.recordSize = uint32_t(sizeof(typename Writer::Table::Record));
      auto& a = w.allocator();
      const auto* slab = a.attachedSlab(a.config().classOf(valueLength + Tessel::kEntryOverhead));
      r.entrySize = slab ? slab->entrySize() : 64;
      r.entries = slab ? slab->numEntries() : 1;
      r.payload = valueLength;
      return r;
   }
};

class MemoryFloor {
  public:
   static constexpr int kRandomLines = 4;  // per operation (plus straddles, as the real ones)

   // Lays the regions down (every page touched) with shared files under `dir`.
   MemoryFloor(const FloorRegions& r, const std::string& dir)
       : r_(r),
         mirror_(size_t(r.buckets) * sizeof(Head)),
         records_(recordChunks(r) * chunkBytes(r)),
         slotFile_(Region::MappedFile::create(dir + "/floor.slots",
                                              Dock::SlotTable::fileSizeFor(r.slots))),
         slabFile_(Region::MappedFile::create(
             dir + "/floor.slab", Dock::kSlabHeaderSize + size_t(r.entrySize) * r.entries)) {
      uint64_t x = 0x243f6a8885a308d3ull;
      Head* heads = mirror_.as<Head>();
      for (uint32_t b = 0; b < r.buckets; ++b) {
         x = next(x);
         heads[b].first = uint32_t((x >> 32) % r.slots);
         heads[b].firstHint = uint32_t(x % r.entries);
      }
      std::memset(records_.data(), 0, records_.size());
      std::memset(slotFile_.data(), 0, slotFile_.size());
      std::memset(slabFile_.data(), 0, slabFile_.size());
      ::unlink((dir + "/floor.slots").c_str());
      ::unlink((dir + "/floor.slab").c_str());
   }

   // Runs `n` operations; returns a word that depends on every load.
   uint64_t chained(uint64_t n) { return run<true>(n); }
   uint64_t independent(uint64_t n) { return run<false>(n); }

   const FloorRegions& regions() const { return r_; }

  private:
   // The writer's chain start, of which the floor uses the first slot and its hint.
   using Head = Dock::BucketWriter::ChainStart;
   static uint64_t next(uint64_t x) { return x * 0x9e3779b97f4a7c15ull + 0x632be59bd9b4e019ull; }
   static size_t recordChunks(const FloorRegions& r) {
      // As SlotWriterTable::Slots: 2^16 records a chunk, each chunk its own 2 MiB-rounded buffer.
      return (size_t(r.slots) + 0xffff) >> 16;
   }
   static size_t chunkBytes(const FloorRegions& r) {
      return (size_t(r.recordSize) * 0x10000 + Dock::HugePageBuffer::kHugePage - 1) &
             ~(Dock::HugePageBuffer::kHugePage - 1);
   }
   uint8_t* record(uint32_t s) const {
      return records_.data() + (s >> 16) * chunkBytes(r_) + size_t(s & 0xffff) * r_.recordSize;
   }

   template <bool kChained>
   uint64_t run(uint64_t n) {
      const Head* heads = mirror_.as<Head>();
      auto* header = reinterpret_cast<Dock::SlotTableHeader*>(slotFile_.data());
      Dock::Slot* slots = Dock::SlotTable::slots(header);
      uint64_t x = x_, sink = 0, carry = 0;
      uint8_t* previous = Tessel::entryAt(slabFile_.data(), r_.entrySize, 0);
      const uint32_t mask = r_.buckets - 1;
      for (uint64_t i = 0; i < n; ++i) {
         x = next(x ^ carry);
         const Head h = heads[uint32_t(x >> 32) & mask];  // 1
         Dock::Slot& s = slots[h.first];                  // 2
         uint8_t* rec = record(h.first);                  // 3
         auto* e = reinterpret_cast<Dock::SlabEntryHeader*>(
             Tessel::entryAt(slabFile_.data(), r_.entrySize, h.firstHint));  // 4
         uint32_t recHash, recHint;
         std::memcpy(&recHash, rec + 4, 4);
         std::memcpy(&recHint, rec + r_.recordSize - 4, 4);
         const uint32_t flags = s.flags.load(std::memory_order_relaxed);
         const int32_t size = e->payloadSize.load(std::memory_order_relaxed);
         // The stores a replacement makes to the same words.
         s.flags.store(flags + 4, std::memory_order_relaxed);
         s.length.store(uint32_t(i), std::memory_order_relaxed);
         std::memcpy(rec + 8, &recHint, 4);
         e->payloadSize.store(size ^ 1, std::memory_order_relaxed);
         std::memset(previous + Dock::kSlabEntryHeaderSize, int(i), r_.payload);
         previous = reinterpret_cast<uint8_t*>(e);
         const uint64_t loaded = uint64_t(flags) ^ recHash ^ uint32_t(size);
         sink += loaded;
         if constexpr (kChained) carry = loaded;
      }
      x_ = x;  // the next run continues the sequence: no line is revisited on purpose
      return sink;
   }

   FloorRegions r_;
   uint64_t x_ = 0x13198a2e03707344ull;
   Dock::HugePageBuffer mirror_;
   Dock::HugePageBuffer records_;
   Region::MappedFile slotFile_;
   Region::MappedFile slabFile_;
};

}  // namespace Bench
