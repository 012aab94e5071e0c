#include "TunnelRib/TunnelRibBuilder.h"

#include "TunnelTable/TableRegistry.h"
#include "Vela/Exception.h"
#include "store/DockShadow.h"

namespace Tunnel::TunnelTable {

// A protocol table the builder reads: its reader, how to read what its entries offer, and the
// notifiee that hears its per-key changes.
struct TunnelRibBuilder::Source : Vela::Entity::Notifiee {
   Source(TunnelRibBuilder& builder, uint32_t index, Vela::Ptr<TunnelTableBase> table,
          RibContributionReader reader)
       : builder(builder), index(index), table(std::move(table)), reader(std::move(reader)) {}

   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr == Vela::attrEntry && key) {
         builder.keyChanged(index, *static_cast<const TunnelId*>(key));
      }
   }

   // Ready: synchronized, or waiting for a writer that has not made the table yet (nothing to
   // wait for: its keys arrive as changes when it does).
   bool ready() const {
      const auto state = Dock::ReaderState(table->storeMountStatus());
      return state == Dock::ReaderState::kDetached || state == Dock::ReaderState::kSynchronized ||
             state == Dock::ReaderState::kQuiesced;
   }

   TunnelRibBuilder& builder;
   const uint32_t index;
   Vela::Ptr<TunnelTableBase> table;
   RibContributionReader reader;
   bool wasReady = false;
};

TunnelRibBuilder::TunnelRibBuilder(const TunnelTableMounter& mounter)
    : loop_(*mounter.eventLoop()) {
   rib_ = mounter.mountWriterOf<TunnelRib>();
   coloredRib_ = mounter.mountWriterOf<ColoredTunnelRib>();
   if (!rib_ || !coloredRib_) throw Vela::Exception("the tunnel RIBs are mounted as another type");
   std::vector<Vela::Ptr<TunnelTableBase>> sources;
   for (const TableRow& row : TableRegistry::rows()) {
      if (!row.type->mounted() || !isValidTunnelTableIdentifier(row.type->tableId)) continue;
      if (!ribContributionReader(row.type->typeName)) continue;
      sources.push_back(mounter.mountKeyshadow(row.type->tableId));
   }
   attach(sources);
}

TunnelRibBuilder::TunnelRibBuilder(const std::vector<Vela::Ptr<TunnelTableBase>>& sources,
                                   Vela::Ptr<TunnelRib> rib, Vela::Ptr<ColoredTunnelRib> coloredRib,
                                   Loom::EventLoop& loop)
    : loop_(loop), rib_(std::move(rib)), coloredRib_(std::move(coloredRib)) {
   attach(sources);
}

TunnelRibBuilder::~TunnelRibBuilder() {
   *alive_ = false;
   for (auto& s : sources_) {
      s->table->notifieeDel(s.get());
      if (const auto& control = s->table->entryControl()) control->reactorIs(nullptr);
   }
}

void TunnelRibBuilder::attach(const std::vector<Vela::Ptr<TunnelTableBase>>& sources) {
   for (const auto& table : sources) {
      if (!table) continue;
      RibContributionReader reader = ribContributionReader(table->fwkTypeName());
      if (!reader) continue;
      const auto index = uint32_t(sources_.size());
      auto source = std::make_unique<Source>(*this, index, table, std::move(reader));
      table->notifieeAdd(source.get());
      // The reader's state reaches the builder through its collection control: a change of
      // mount status is how a resynchronization shows.
      if (const auto& control = table->entryControl()) {
         std::weak_ptr<bool> alive = alive_;
         control->reactorIs([this, alive](const VelaDock::CollectionControl&,
                                          VelaDock::CollectionControl::Change) {
            if (auto a = alive.lock(); a && *a) readerStateChanged();
         });
      }
      sources_.push_back(std::move(source));
   }
   // What the readers already hold when the builder starts comes in as changes, key by key.
   for (const auto& s : sources_) {
      for (const TunnelId& key : s->table->entryKeys()) keyChanged(s->index, key);
   }
   readerStateChanged();
}

bool TunnelRibBuilder::readersReady() const {
   for (const auto& s : sources_) {
      if (!s->ready()) return false;
   }
   return true;
}

void TunnelRibBuilder::readerStateChanged() {
   // A reader that leaves the ready state is resynchronizing: reconcile once all are back.
   for (const auto& s : sources_) {
      const bool ready = s->ready();
      if (s->wasReady && !ready) reconcileNeeded_ = true;
      s->wasReady = ready;
   }
   if (reconcileNeeded_ && readersReady()) scheduleApply();
}

bool TunnelRibBuilder::settled() const {
   return readersReady() && !reconcileNeeded_ && pending_.empty() && dirty_.empty() &&
          !applyScheduled_;
}

void TunnelRibBuilder::keyChanged(uint32_t source, const TunnelId& key) {
   pending_.insert(TunnelKey{source, key.value()});
   scheduleApply();
}

void TunnelRibBuilder::scheduleApply() {
   if (applyScheduled_) return;
   applyScheduled_ = true;
   std::weak_ptr<bool> alive = alive_;
   loop_.post([this, alive] {
      if (auto a = alive.lock(); a && *a) apply();
   });
}

void TunnelRibBuilder::detach(const RibContribution& c, uint32_t source) {
   auto e = endpoints_.find(c.endpoint);
   if (e == endpoints_.end()) return;
   auto k = e->second.find(c.candidate);
   if (k != e->second.end()) {
      k->second.erase({c.tunnelId.value(), source});
      if (k->second.empty()) e->second.erase(k);
   }
   dirty_.insert(c.endpoint);
   if (e->second.empty()) endpoints_.erase(e);
}

void TunnelRibBuilder::join(const RibContribution& c, uint32_t source) {
   endpoints_[c.endpoint][c.candidate][{c.tunnelId.value(), source}] = &c;
   dirty_.insert(c.endpoint);
}

void TunnelRibBuilder::apply() {
   applyScheduled_ = false;
   // Tunnels first: every changed key re-read once, whatever number of notifications it had.
   std::set<TunnelKey> pending;
   pending.swap(pending_);
   for (const TunnelKey& k : pending) {
      const Source& s = *sources_[k.source];
      std::optional<RibContribution> now = s.reader(*s.table, TunnelId(k.tunnelId));
      auto it = tunnels_.find(k);
      if (it == tunnels_.end()) {
         if (!now) continue;
         ++counters_.tunnelChanges;
         auto [added, inserted] = tunnels_.emplace(k, *now);
         join(added->second, k.source);
         continue;
      }
      if (now && *now == it->second) continue;
      ++counters_.tunnelChanges;
      detach(it->second, k.source);
      if (!now) {
         tunnels_.erase(it);
         continue;
      }
      it->second = *now;
      join(it->second, k.source);
   }
   std::set<ColoredTunnelEndpoint> dirty;
   dirty.swap(dirty_);
   for (const ColoredTunnelEndpoint& endpoint : dirty) evaluate(endpoint);
   if (reconcileNeeded_ && readersReady()) reconcile();
   if (batchObserver_) batchObserver_();
}

void TunnelRibBuilder::evaluate(const ColoredTunnelEndpoint& endpoint) {
   ++counters_.endpointEvaluations;
   if (endpointObserver_) endpointObserver_(endpoint);
   TunnelRibBase& rib = endpoint.isColored() ? static_cast<TunnelRibBase&>(*coloredRib_)
                                             : static_cast<TunnelRibBase&>(*rib_);
   auto e = endpoints_.find(endpoint);
   if (e == endpoints_.end()) {
      if (rib.tunnelRibEntryHas(endpoint)) {
         rib.tunnelRibEntryDel(endpoint);
         ++counters_.ribDeletes;
      }
      return;
   }
   const auto& [classId, members] = *e->second.begin();
   const RibContribution& lead = *members.begin()->second;
   TunnelRibEntry entry(endpoint);
   entry.entryPrefIs(classId.entryPref());
   entry.entryMetricIs(classId.entryMetric());
   entry.metricIs(lead.metric);
   entry.metricTypeIs(lead.metricType);
   entry.metric2Is(lead.metric2);
   entry.prefIs(lead.pref);
   entry.pref2Is(lead.pref2);
   for (const auto& [key, c] : members) {
      // Tables of one type may name one tunnel twice (addTunnelWithBw keeps the first place).
      if (entry.tunnelId().count() == kTunnelIdCollCapacity && !entry.hasTunnelId(c->tunnelId))
         break;
      entry.addTunnelWithBw(c->tunnelId, c->bandwidth);
   }
   // The colored RIB's counted write does not compare; compare here so that an unchanged result
   // writes nothing in either RIB.
   if (rib.tunnelRibEntryHas(endpoint) && rib.tunnelRibEntry(endpoint) == entry) return;
   rib.tunnelRibEntryIs(entry);
   ++counters_.ribWrites;
}

void TunnelRibBuilder::reconcile() {
   reconcileNeeded_ = false;
   ++counters_.reconciles;
   std::set<ColoredTunnelEndpoint> stale;
   for (const auto& key : rib_->entryKeys()) {
      if (!endpoints_.count(ColoredTunnelEndpoint(key))) stale.insert(ColoredTunnelEndpoint(key));
   }
   for (const auto& key : coloredRib_->entryKeys()) {
      if (!endpoints_.count(key)) stale.insert(key);
   }
   for (const auto& endpoint : stale) evaluate(endpoint);
   for (const auto& [endpoint, classes] : endpoints_) evaluate(endpoint);
}

std::vector<TunnelRibBuilder::CandidateClass> TunnelRibBuilder::candidates(
    const ColoredTunnelEndpoint& endpoint) const {
   std::vector<CandidateClass> out;
   auto e = endpoints_.find(endpoint);
   if (e == endpoints_.end()) return out;
   for (const auto& [id, members] : e->second) {
      CandidateClass c{id, {}};
      for (const auto& [key, contribution] : members) c.tunnels.push_back(contribution->tunnelId);
      out.push_back(std::move(c));
   }
   return out;
}

std::vector<ColoredTunnelEndpoint> TunnelRibBuilder::endpoints() const {
   std::vector<ColoredTunnelEndpoint> out;
   out.reserve(endpoints_.size());
   for (const auto& [endpoint, classes] : endpoints_) out.push_back(endpoint);
   return out;
}

}  // namespace Tunnel::TunnelTable
