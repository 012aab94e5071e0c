// TunnelResolver: flattens tunnels that ride on other tunnels. A FIB entry's primary via whose
// interface is a dynamic tunnel interface (Wirekit::DynamicTunnelIntfId) names an inner tunnel
// instead of a real interface; updateFlattenedInfo(T) walks T's vias down through such inner
// tunnels to vias with real next hops and interfaces, joins the label stacks met on the way (outer
// operation smush inner operation), and records the result as T's ConsolidatedEntry.
//
// updateFlattenedInfo(T):
//   - no FIB entry for T: traced, nothing recorded;
//   - T in renderedTunnelId: "Cycle Detected for this tunnel" traced, nothing recorded;
//   - T already has a consolidated entry: nothing (it is not recomputed);
//   - otherwise T joins renderedTunnelId and its primary vias are taken in index order (backup
//     vias, arePrimaryViasUsable and flags are not looked at). Each via's label operation is the
//     LabelStackEncap named by its EncapId (the empty operation when there is none). A final via
//     (real interface) adds one MplsVia. A via riding on inner tunnel U resolves U first when U
//     has no result; if U still has none the walk stops at once - deliberately, the rest of T's
//     vias are not looked at and T keeps what its earlier vias gave. Otherwise every via of U
//     is added with the label operations joined; a result left empty by that is removed.
// Failures pass out uncaught: a joined or converted label stack beyond the bounded operation
// (Wirekit::LabelStackOverflow) and an inner tunnel id above TunnelId::maxValue (the TunnelId
// range exception). Whatever the interrupted calls had recorded stays; interruptedTunnelId()
// names those calls so that a client can remove their partial results.
//
// The resolver never watches the FIB and never clears renderedTunnelId: a client that wants a
// fresh result deletes the stale ones (consolidatedEntryDel, renderedTunnelIdDel) and calls again
// (TunnelResolutionClient does this as the FIB changes).
//
// Traces: module "TunnelFib" (tunnelFibTrace), level 0, each line opening with
// kUpdateFlattenedInfoSignature and a blank, except the second line of a final via, "Intf: ...".
//
// Recursion depth is bounded by the cycle guard only; each level keeps its vias in a buffer of
// the resolver (reused from call to call), so a level costs a small stack frame, not a copy of a
// FIB entry. One thread, the client's; the FIB is only read.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "TunnelFib/ConsolidatedEntry.h"
#include "TunnelFib/TunnelFib.h"
#include "Vela/Entity.h"

namespace Tunnel::TunnelFib {

using TunnelTable::TunnelVia;

// IdMap<Key, V>: a hash map from an identifier (TunnelId, EncapId) to V, for the resolver and
// its client, which touch a few records per tunnel for up to millions of tunnels. Open addressing
// in one array (no node per record), linear probing from a Fibonacci hash of the identifier's
// word, a power-of-two capacity kept at most half full, and backward-shift deletion (no
// tombstones):
//
//    struct Slot { uint64_t key; V value; };   // key kEmpty: a free slot
//
// kEmpty is no identifier's word (a TunnelId is at most 49 bits, an EncapId 32). Inserting may
// move every record and erasing may move records after the erased one: pointers from find and
// insert are valid only until the next insert or erase. Iteration order is the array's.
inline uint64_t idWord(const TunnelId& id) noexcept {
   return id.value();
}
inline uint64_t idWord(const EncapId& id) noexcept {
   return id.rawValue();
}
template <class Key>
Key idOfWord(uint64_t word);
template <>
inline TunnelId idOfWord<TunnelId>(uint64_t word) {
   return TunnelId(word);
}
template <>
inline EncapId idOfWord<EncapId>(uint64_t word) {
   return EncapId::fromRawValue(static_cast<uint32_t>(word));
}

template <class Key, class V>
class IdMap {
  public:
   size_t size() const noexcept { return size_; }
   bool empty() const noexcept { return size_ == 0; }

   V* find(const Key& id) noexcept {
      return const_cast<V*>(static_cast<const IdMap&>(*this).find(id));
   }
   const V* find(const Key& id) const noexcept {
      if (slots_.empty()) return nullptr;
      const uint64_t key = idWord(id);
      for (size_t i = home(key);; i = (i + 1) & mask_) {
         const Slot& s = slots_[i];
         if (s.key == key) return &s.value;
         if (s.key == kEmpty) return nullptr;
      }
   }
   // The record of `id`, value-initialized when new; second is true when it was inserted.
   std::pair<V*, bool> insert(const Key& id) {
      if (2 * (size_ + 1) > slots_.size()) grow(2 * (size_ + 1));
      const uint64_t key = idWord(id);
      size_t i = home(key);
      for (; slots_[i].key != kEmpty; i = (i + 1) & mask_) {
         if (slots_[i].key == key) return {&slots_[i].value, false};
      }
      slots_[i].key = key;
      ++size_;
      return {&slots_[i].value, true};
   }
   // Removes the record of `id`; false when there was none.
   bool erase(const Key& id) {
      if (slots_.empty()) return false;
      const uint64_t key = idWord(id);
      size_t i = home(key);
      for (; slots_[i].key != key; i = (i + 1) & mask_) {
         if (slots_[i].key == kEmpty) return false;
      }
      // Each later record of the run moves into the hole unless its home lies cyclically in
      // (hole, its place], where moving it would put it before its home.
      for (size_t j = (i + 1) & mask_; slots_[j].key != kEmpty; j = (j + 1) & mask_) {
         const size_t h = home(slots_[j].key);
         const bool stays = i <= j ? (i < h && h <= j) : (i < h || h <= j);
         if (stays) continue;
         slots_[i] = std::move(slots_[j]);
         i = j;
      }
      slots_[i] = Slot();
      --size_;
      return true;
   }
   void clear() noexcept {
      slots_.clear();
      mask_ = 0;
      size_ = 0;
   }
   // Room for `n` records without growing.
   void reserve(size_t n) {
      if (2 * n > slots_.size()) grow(2 * n);
   }
   // Calls f(id, value) for every record.
   template <class F>
   void forEach(F&& f) const {
      for (const Slot& s : slots_) {
         if (s.key != kEmpty) f(idOfWord<Key>(s.key), s.value);
      }
   }

  private:
   static constexpr uint64_t kEmpty = ~uint64_t{0};
   struct Slot {
      uint64_t key = kEmpty;
      V value{};
   };

   // REQUIRES: a capacity (slots_ not empty).
   size_t home(uint64_t key) const noexcept {
      return static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> shift_);
   }
   void grow(size_t atLeast) {
      size_t capacity = 16;
      while (capacity < atLeast) capacity *= 2;
      std::vector<Slot> old(capacity);
      old.swap(slots_);
      mask_ = capacity - 1;
      shift_ = 64 - static_cast<unsigned>(std::countr_zero(capacity));
      for (Slot& s : old) {
         if (s.key == kEmpty) continue;
         size_t i = home(s.key);
         while (slots_[i].key != kEmpty) i = (i + 1) & mask_;
         slots_[i] = std::move(s);
      }
   }

   std::vector<Slot> slots_;
   size_t mask_ = 0;
   unsigned shift_ = 63;
   size_t size_ = 0;
};
template <class V>
using TunnelIdMap = IdMap<TunnelId, V>;

class TunnelResolver : public Vela::Entity {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelFib::TunnelResolver";
   static constexpr const char* kUpdateFlattenedInfoSignature =
       "void Tunnel::TunnelFib::TunnelResolver::updateFlattenedInfo(const "
       "Tunnel::TunnelTable::TunnelId&)";

   // REQUIRES: tunnelFib is not null.
   explicit TunnelResolver(Vela::Ptr<const TunnelFib> tunnelFib);
   std::string_view fwkTypeName() const override { return kTypeName; }

   const Vela::Ptr<const TunnelFib>& tunnelFib() const noexcept { return fib_; }

   // Flattens one tunnel (see above). Throws Wirekit::LabelStackOverflow and the TunnelId range
   // exception; what the FIB's reads throw passes too.
   void updateFlattenedInfo(const TunnelId& tunnelId);

   // ---- renderedTunnelId: the tunnels entered so far, the cycle guard ----
   bool renderedTunnelIdHas(const TunnelId& tunnelId) const {
      const Record* r = records_.find(tunnelId);
      return r && r->rendered;
   }
   size_t renderedTunnelIdSize() const noexcept { return renderedCount_; }
   // Every rendered tunnel, ascending (for tools and tests).
   std::vector<TunnelId> renderedTunnelIds() const;
   void renderedTunnelIdIs(const TunnelId& tunnelId);
   // Removes the tunnel; returns it, or the default TunnelId when it was not there.
   TunnelId renderedTunnelIdDel(const TunnelId& tunnelId);
   void renderedTunnelIdDelAll();

   // ---- consolidatedEntry: the flattened results ----
   // The tunnel's result, or null.
   Vela::Ptr<ConsolidatedEntry> consolidatedEntry(const TunnelId& tunnelId) const {
      return find(tunnelId);
   }
   // The tunnel's result, made empty when there is none.
   Vela::Ptr<ConsolidatedEntry> consolidatedEntryIs(const TunnelId& tunnelId) {
      return &entryIs(tunnelId);
   }
   // Removes the tunnel's result and returns it; null when there was none.
   Vela::Ptr<ConsolidatedEntry> consolidatedEntryDel(const TunnelId& tunnelId);
   void consolidatedEntryDelAll();
   size_t consolidatedEntrySize() const noexcept { return entryCount_; }
   // Every result, by ascending TunnelId (for tools and tests).
   std::vector<Vela::Ptr<ConsolidatedEntry>> consolidatedEntries() const;

   // The calls the last exception out of updateFlattenedInfo interrupted, innermost first and
   // the tunnel called last; empty after a call that returned. Their results may be partial.
   const std::vector<TunnelId>& interruptedTunnelId() const noexcept { return interrupted_; }

   // Makes room for the records of `tunnels` tunnels (a hint).
   void reserve(size_t tunnels) { records_.reserve(tunnels); }

  private:
   // What the resolver knows of one tunnel: rendered and result share one record, so a step of
   // the walk costs one lookup. A record with neither is removed.
   struct Record {
      bool rendered = false;
      Vela::Ptr<ConsolidatedEntry> entry;
   };
   // One level of the walk: the entry's primary vias and the vias joined from an inner tunnel.
   struct Frame {
      std::vector<TunnelVia> vias;
      std::vector<MplsVia> joined;
   };
   class Level;

   ConsolidatedEntry* find(const TunnelId& tunnelId) const {
      const Record* r = records_.find(tunnelId);
      return r ? r->entry.get() : nullptr;
   }
   ConsolidatedEntry& entryIs(const TunnelId& tunnelId);
   void dropIfUnused(const TunnelId& tunnelId, const Record& record);
   Frame& frameAt(size_t depth);

   Vela::Ptr<const TunnelFib> fib_;
   TunnelIdMap<Record> records_;
   size_t renderedCount_ = 0;
   size_t entryCount_ = 0;
   std::vector<std::unique_ptr<Frame>> frames_;  // frames_[d]: the call at depth d
   size_t depth_ = 0;
   std::vector<TunnelId> interrupted_;
};

// A new resolver over `tunnelFib`. REQUIRES: tunnelFib is not null.
Vela::Ptr<TunnelResolver> TunnelResolverIs(const Vela::Ptr<const TunnelFib>& tunnelFib);

}  // namespace Tunnel::TunnelFib
