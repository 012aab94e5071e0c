// TunnelResolver: the walk of updateFlattenedInfo and the two collections it keeps.
#include "TunnelFib/TunnelResolver.h"

#include <algorithm>
#include <exception>
#include <optional>

#include "Vela/Assert.h"
#include "Wirekit/IntfId.h"
#include "Wirekit/MplsLabelOperation.h"

namespace Tunnel::TunnelFib {

namespace {

constexpr int kTraceLevel = 0;

// Copies the primary vias of the tunnel's FIB entry into `out`; false when there is no entry.
// Out of line on purpose: the entry (about 38 KB with both via arrays at capacity) lives on this
// frame only, never on a level of the recursion.
[[gnu::noinline]] bool readPrimaryVias(const TunnelFib& fib, const TunnelId& tunnelId,
                                       std::vector<TunnelVia>& out) {
   std::optional<TunnelFibEntry> entry = fib.entryIf(tunnelId);
   if (!entry) return false;
   const TunnelViaArray& vias = entry->tunnelVia();
   out.assign(vias.begin(), vias.end());
   return true;
}

// The label operation of a via: its LabelStackEncap's stack made bounded, or the empty operation
// when the FIB holds no such encapsulation. Throws LabelStackOverflow for a stack too deep.
Wirekit::MplsLabelOperation labelsOf(const TunnelFib& fib, const TunnelTable::EncapId& encapId) {
   std::optional<LabelStackEncap> encap = fib.labelStackEncapIf(encapId);
   return encap ? encap->labelStack().toBounded() : Wirekit::MplsLabelOperation();
}

}  // namespace

// One entered level of the walk: counts the depth, and names the tunnel in interrupted_ when an
// exception leaves the level.
class TunnelResolver::Level {
  public:
   Level(TunnelResolver& resolver, const TunnelId& tunnelId)
       : resolver_(resolver), tunnelId_(tunnelId), exceptions_(std::uncaught_exceptions()) {
      ++resolver_.depth_;
   }
   ~Level() {
      --resolver_.depth_;
      if (std::uncaught_exceptions() > exceptions_) resolver_.interrupted_.push_back(tunnelId_);
   }
   Level(const Level&) = delete;
   Level& operator=(const Level&) = delete;

  private:
   TunnelResolver& resolver_;
   const TunnelId tunnelId_;
   const int exceptions_;
};

TunnelResolver::TunnelResolver(Vela::Ptr<const TunnelFib> tunnelFib)
    : Vela::Entity("TunnelResolver"), fib_(std::move(tunnelFib)) {
   VELA_ASSERT(fib_ && "a TunnelResolver needs a TunnelFib");
}

std::vector<TunnelId> TunnelResolver::renderedTunnelIds() const {
   std::vector<TunnelId> out;
   out.reserve(renderedCount_);
   records_.forEach([&](const TunnelId& id, const Record& r) {
      if (r.rendered) out.push_back(id);
   });
   std::sort(out.begin(), out.end());
   return out;
}

void TunnelResolver::renderedTunnelIdIs(const TunnelId& tunnelId) {
   Record& r = *records_.insert(tunnelId).first;
   if (!r.rendered) ++renderedCount_;
   r.rendered = true;
}

TunnelId TunnelResolver::renderedTunnelIdDel(const TunnelId& tunnelId) {
   Record* r = records_.find(tunnelId);
   if (!r || !r->rendered) return TunnelId();
   r->rendered = false;
   --renderedCount_;
   dropIfUnused(tunnelId, *r);
   return tunnelId;
}

void TunnelResolver::renderedTunnelIdDelAll() {
   TunnelIdMap<Record> kept;
   kept.reserve(entryCount_);
   records_.forEach([&](const TunnelId& id, const Record& r) {
      if (r.entry) kept.insert(id).first->entry = r.entry;
   });
   records_ = std::move(kept);
   renderedCount_ = 0;
}

std::vector<Vela::Ptr<ConsolidatedEntry>> TunnelResolver::consolidatedEntries() const {
   std::vector<Vela::Ptr<ConsolidatedEntry>> out;
   out.reserve(entryCount_);
   records_.forEach([&](const TunnelId&, const Record& r) {
      if (r.entry) out.push_back(r.entry);
   });
   std::sort(out.begin(), out.end(),
             [](const auto& a, const auto& b) { return a->tunnelId() < b->tunnelId(); });
   return out;
}

Vela::Ptr<ConsolidatedEntry> TunnelResolver::consolidatedEntryDel(const TunnelId& tunnelId) {
   Record* r = records_.find(tunnelId);
   if (!r || !r->entry) return nullptr;
   Vela::Ptr<ConsolidatedEntry> removed = std::move(r->entry);
   r->entry = nullptr;
   --entryCount_;
   dropIfUnused(tunnelId, *r);
   return removed;
}

void TunnelResolver::consolidatedEntryDelAll() {
   TunnelIdMap<Record> kept;
   kept.reserve(renderedCount_);
   records_.forEach([&](const TunnelId& id, const Record& r) {
      if (r.rendered) kept.insert(id).first->rendered = true;
   });
   records_ = std::move(kept);
   entryCount_ = 0;
}

void TunnelResolver::dropIfUnused(const TunnelId& tunnelId, const Record& record) {
   if (!record.rendered && !record.entry) records_.erase(tunnelId);
}

ConsolidatedEntry& TunnelResolver::entryIs(const TunnelId& tunnelId) {
   Record& r = *records_.insert(tunnelId).first;
   if (!r.entry) {
      r.entry = Vela::makePtr<ConsolidatedEntry>(tunnelId);
      ++entryCount_;
   }
   return *r.entry;
}

TunnelResolver::Frame& TunnelResolver::frameAt(size_t depth) {
   while (frames_.size() <= depth) frames_.push_back(std::make_unique<Frame>());
   return *frames_[depth];
}

void TunnelResolver::updateFlattenedInfo(const TunnelId& tunnelId) {
   const char* const sig = kUpdateFlattenedInfoSignature;
   Spoor::Handle& trace = tunnelFibTrace();
   SPOOR_TRACE(trace, kTraceLevel, "{} Current tunnel Info, type: {} tunnel Index: {}", sig,
               tunnelId.typeCliStr(), tunnelId.tunnelIndex());
   if (depth_ == 0) interrupted_.clear();

   // frames_ holds unique_ptrs, so this reference survives the frames deeper calls add.
   Frame& frame = frameAt(depth_);
   if (!readPrimaryVias(*fib_, tunnelId, frame.vias)) {
      SPOOR_TRACE(trace, kTraceLevel, "{} No further tunnel entry found in tunnel fib", sig);
      return;
   }
   {
      auto [record, inserted] = records_.insert(tunnelId);
      if (record->rendered) {
         SPOOR_TRACE(trace, kTraceLevel, "{} Cycle Detected for this tunnel", sig);
         return;
      }
      if (record->entry) return;  // already flattened; not recomputed
      record->rendered = true;
      ++renderedCount_;
   }
   Level level(*this, tunnelId);

   // The tunnel's result while it exists: a heap object, so it stays where it is while the
   // records move; only this level removes it (deeper levels never enter this tunnel again).
   ConsolidatedEntry* entry = nullptr;
   // Consecutive vias usually name the same encapsulation: its operation is read once.
   std::optional<TunnelTable::EncapId> lastEncap;
   Wirekit::MplsLabelOperation labels;

   for (const TunnelVia& via : frame.vias) {
      if (!lastEncap || *lastEncap != via.encapId()) {
         lastEncap.reset();
         labels = labelsOf(*fib_, via.encapId());
         lastEncap = via.encapId();
      }
      const Wirekit::IntfId intf = via.intfId();
      if (!Wirekit::DynamicTunnelIntfId::isDynamicTunnelIntfId(intf)) {
         SPOOR_TRACE(trace, kTraceLevel,
                     "{} Final nexthop and interface found for  tunnel type: {} index:{}", sig,
                     tunnelId.typeCliStr(), tunnelId.tunnelIndex());
         SPOOR_TRACE(trace, kTraceLevel, "Intf: {} Nexthop: {}", intf.name(),
                     via.nextHop().stringValue());
         if (!entry) entry = &entryIs(tunnelId);
         entry->viaInfoIs(MplsVia(via.nextHop(), intf, labels));
         continue;
      }
      // Throws the TunnelId range exception above TunnelId::maxValue.
      const TunnelId inner(Wirekit::DynamicTunnelIntfId::tunnelId(intf));
      const ConsolidatedEntry* innerEntry = find(inner);
      if (!innerEntry) {
         updateFlattenedInfo(inner);
         innerEntry = find(inner);
      }
      // Deliberate: an inner tunnel without a result stops the walk, later vias unlooked at.
      if (!innerEntry) return;
      if (!entry) entry = &entryIs(tunnelId);
      // Joined first, then merged: the inner result may be this very entry (a via riding on its
      // own tunnel). A smush that throws leaves the vias joined before it added, as one-by-one
      // insertion would.
      frame.joined.clear();
      try {
         for (const MplsVia& w : innerEntry->viaInfo()) {
            frame.joined.emplace_back(w.nextHop(), w.intfId(), labels.smush(w.labels()));
         }
      } catch (...) {
         entry->viaInfoIsAll(frame.joined);
         throw;
      }
      entry->viaInfoIsAll(frame.joined);
      if (entry->viaInfo().empty()) {
         consolidatedEntryDel(tunnelId);
         entry = nullptr;
      }
   }
}

Vela::Ptr<TunnelResolver> TunnelResolverIs(const Vela::Ptr<const TunnelFib>& tunnelFib) {
   return Vela::makePtr<TunnelResolver>(tunnelFib);
}

}  // namespace Tunnel::TunnelFib
