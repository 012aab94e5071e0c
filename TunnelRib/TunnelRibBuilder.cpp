#include "TunnelRib/TunnelRibBuilder.h"

#include "Vela/Exception.h"

namespace Tunnel::TunnelTable {

TunnelRibBuilder::TunnelRibBuilder(const TunnelTableMounter& mounter)
    : watch_(*mounter.eventLoop(), [this](const auto& changes, bool r) { apply(changes, r); }) {
   rib_ = mounter.mountWriterOf<TunnelRib>();
   coloredRib_ = mounter.mountWriterOf<ColoredTunnelRib>();
   if (!rib_ || !coloredRib_) throw Vela::Exception("the tunnel RIBs are mounted as another type");
   attach(mountProtocolReaders(
       mounter, [](std::string_view type) { return bool(ribContributionReader(type)); }));
}

TunnelRibBuilder::TunnelRibBuilder(const std::vector<Vela::Ptr<TunnelTableBase>>& sources,
                                   Vela::Ptr<TunnelRib> rib, Vela::Ptr<ColoredTunnelRib> coloredRib,
                                   Loom::EventLoop& loop)
    : rib_(std::move(rib)),
      coloredRib_(std::move(coloredRib)),
      watch_(loop, [this](const auto& changes, bool r) { apply(changes, r); }) {
   attach(sources);
}

TunnelRibBuilder::~TunnelRibBuilder() = default;

void TunnelRibBuilder::attach(const std::vector<Vela::Ptr<TunnelTableBase>>& sources) {
   for (const auto& table : sources) {
      if (!table) continue;
      RibContributionReader reader = ribContributionReader(table->fwkTypeName());
      if (!reader) continue;
      watch_.add(table);
      readers_.push_back(std::move(reader));
   }
   watch_.start();
}

bool TunnelRibBuilder::settled() const {
   return watch_.settled() && dirty_.empty();
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

void TunnelRibBuilder::apply(const std::set<TableWatch::Change>& changes, bool reconcileNow) {
   // Tunnels first: every changed key re-read once, whatever number of notifications it had.
   for (const TableWatch::Change& change : changes) {
      const TunnelKey k{change.source, change.tunnelId};
      std::optional<RibContribution> now =
          readers_[k.source](*watch_.table(k.source), change.key());
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
   if (reconcileNow) reconcile();
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
