// TunnelResolutionClient: the ride-on index, the affected set, the inner-first order and the
// batched apply.
#include "TunnelFib/TunnelResolutionClient.h"

#include <fmt/format.h>

#include <algorithm>

#include "Vela/Assert.h"
#include "Wirekit/Errors.h"
#include "Wirekit/IntfId.h"
#include "Wirekit/MplsLabelOperation.h"

namespace Tunnel::TunnelFib {

namespace {

// What the index keeps of an entry's primary vias: the inner tunnels and encapsulations they name,
// inner tunnels ascending, then encapsulations ascending, each once.
struct Links {
   bool hasEntry = false;
   std::vector<std::pair<bool, uint64_t>> keys;  // (encapsulation?, word)
};

// Out of line: the entry copy (about 38 KB at capacity) stays on this frame.
[[gnu::noinline]] Links linksOf(const TunnelFib& fib, const TunnelId& tunnelId) {
   Links links;
   std::optional<TunnelFibEntry> entry = fib.entryIf(tunnelId);
   if (!entry) return links;
   links.hasEntry = true;
   for (const TunnelVia& via : entry->tunnelVia()) {
      links.keys.emplace_back(true, via.encapId().rawValue());
      const Wirekit::IntfId intf = via.intfId();
      if (!Wirekit::DynamicTunnelIntfId::isDynamicTunnelIntfId(intf)) continue;
      // An id beyond the range names no tunnel; the call of this tunnel reports it.
      const uint64_t inner = Wirekit::DynamicTunnelIntfId::tunnelId(intf);
      if (inner <= TunnelId::maxValue) links.keys.emplace_back(false, inner);
   }
   std::sort(links.keys.begin(), links.keys.end());
   links.keys.erase(std::unique(links.keys.begin(), links.keys.end()), links.keys.end());
   return links;
}

Vela::String tunnelText(const TunnelId& tunnelId) {
   return fmt::format("tunnel {} {}", tunnelId.typeCliStr(), tunnelId.tunnelIndex());
}

}  // namespace

class TunnelResolutionClient::Watch final : public Vela::Entity::Notifiee {
  public:
   explicit Watch(TunnelResolutionClient& client) : client_(client) {}
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      client_.onChange(attr, key);
   }

  private:
   TunnelResolutionClient& client_;
};

TunnelResolutionClient::TunnelResolutionClient(Vela::Ptr<TunnelFib> fib, Loom::EventLoop& loop)
    : fib_(std::move(fib)), loop_(loop) {
   VELA_ASSERT(fib_ && "a TunnelResolutionClient needs a TunnelFib");
   resolver_ = TunnelResolverIs(fib_);
   watch_ = std::make_unique<Watch>(*this);
   fib_->notifieeAdd(watch_.get());
   scheduleApply();
}

TunnelResolutionClient::~TunnelResolutionClient() {
   *alive_ = false;
   fib_->notifieeDel(watch_.get());
}

std::optional<Vela::String> TunnelResolutionClient::error(const TunnelId& tunnelId) const {
   auto it = errors_.find(tunnelId);
   if (it == errors_.end()) return std::nullopt;
   return it->second;
}

std::vector<TunnelId> TunnelResolutionClient::riders(const TunnelId& tunnelId) const {
   const Node* node = nodes_.find(tunnelId);
   if (!node) return {};
   std::vector<TunnelId> out = node->riders;
   std::sort(out.begin(), out.end());
   return out;
}

void TunnelResolutionClient::onChange(Vela::AttributeId attr, const void* key) {
   if (attr == attrFibEntry) {
      // A change without a key stands for the whole table.
      if (key) {
         changedTunnels_.insert(*static_cast<const TunnelId*>(key));
      } else {
         fullPending_ = true;
      }
   } else if (attr == attrLabelStackEncap) {
      if (key) {
         changedEncaps_.insert(*static_cast<const EncapId*>(key));
      } else {
         fullPending_ = true;
      }
   } else {
      return;
   }
   ++counters_.changesSeen;
   scheduleApply();
}

void TunnelResolutionClient::scheduleApply() {
   if (applyScheduled_) return;
   applyScheduled_ = true;
   std::weak_ptr<bool> alive = alive_;
   loop_.post([this, alive] {
      // A flush() since posting has applied already and cleared the flag.
      if (auto a = alive.lock(); a && *a && applyScheduled_) apply();
   });
}

void TunnelResolutionClient::flush() {
   if (pending()) apply();
}

void TunnelResolutionClient::apply() {
   applyScheduled_ = false;
   if (fullPending_) {
      resolveAll();
      return;
   }
   std::unordered_set<TunnelId, TunnelTable::TunnelIdMixHash> tunnels;
   std::unordered_set<EncapId> encaps;
   tunnels.swap(changedTunnels_);
   encaps.swap(changedEncaps_);
   // The index first, whole: the riders and users below are those of the FIB as it is now.
   std::vector<TunnelId> seeds(tunnels.begin(), tunnels.end());
   for (const TunnelId& t : seeds) reindex(t);
   for (const EncapId& e : encaps) {
      if (const auto* users = encapUsers_.find(e))
         seeds.insert(seeds.end(), users->begin(), users->end());
   }
   resolve(innerFirst(closure(seeds)));
}

void TunnelResolutionClient::resolveAll() {
   applyScheduled_ = false;
   fullPending_ = false;
   changedTunnels_.clear();
   changedEncaps_.clear();
   nodes_.clear();
   encapUsers_.clear();
   errors_.clear();
   resolver_->consolidatedEntryDelAll();
   resolver_->renderedTunnelIdDelAll();
   std::vector<TunnelId> all = fib_->entryKeys();
   nodes_.reserve(all.size());
   resolver_->reserve(all.size());
   for (const TunnelId& t : all) reindex(t);
   resolve(innerFirst(std::move(all)));
}

void TunnelResolutionClient::reindex(const TunnelId& tunnelId) {
   Links fresh = linksOf(*fib_, tunnelId);
   std::vector<Link> old;
   if (Node* node = nodes_.find(tunnelId)) old.swap(node->links);
   // Both lists are in the same order: one merge finds the links that went, stay and came.
   std::vector<Link> links;
   links.reserve(fresh.keys.size());
   size_t o = 0;
   for (const auto& freshKey : fresh.keys) {
      // Named copies, not structured bindings: a lambda may not capture those before C++20
      // compilers caught up (clang 14 refuses).
      const bool encap = freshKey.first;
      const uint64_t key = freshKey.second;
      const auto before = [&](const Link& l) {
         return std::pair(l.encap, l.key) < std::pair(encap, key);
      };
      for (; o < old.size() && before(old[o]); ++o) unlink(tunnelId, old[o]);
      if (o < old.size() && old[o].encap == encap && old[o].key == key) {
         links.push_back(old[o++]);
      } else {
         Link l{encap, key, 0};
         l.slot = link(tunnelId, l);
         links.push_back(l);
      }
   }
   for (; o < old.size(); ++o) unlink(tunnelId, old[o]);
   if (!fresh.hasEntry && links.empty()) {
      if (Node* node = nodes_.find(tunnelId)) node->hasEntry = false;
      dropIfUnused(tunnelId);
      return;
   }
   Node& node = *nodes_.insert(tunnelId).first;
   node.hasEntry = fresh.hasEntry;
   node.links = std::move(links);
}

uint32_t TunnelResolutionClient::link(const TunnelId& tunnelId, const Link& l) {
   std::vector<TunnelId>& list =
       l.encap ? *encapUsers_.insert(EncapId::fromRawValue(uint32_t(l.key))).first
               : nodes_.insert(TunnelId(l.key)).first->riders;
   list.push_back(tunnelId);
   return static_cast<uint32_t>(list.size() - 1);
}

void TunnelResolutionClient::unlink(const TunnelId& tunnelId, const Link& l) {
   const EncapId encap = l.encap ? EncapId::fromRawValue(uint32_t(l.key)) : EncapId();
   const TunnelId inner = l.encap ? TunnelId() : TunnelId(l.key);
   std::vector<TunnelId>* list = l.encap ? encapUsers_.find(encap) : &nodes_.find(inner)->riders;
   VELA_ASSERT(list && l.slot < list->size() && (*list)[l.slot] == tunnelId);
   // The last one takes the place; its link to this inner tunnel or encapsulation follows.
   const TunnelId moved = list->back();
   (*list)[l.slot] = moved;
   list->pop_back();
   if (moved != tunnelId) {
      std::vector<Link>& links = nodes_.find(moved)->links;
      auto it = std::lower_bound(links.begin(), links.end(), l, [](const Link& a, const Link& b) {
         return std::pair(a.encap, a.key) < std::pair(b.encap, b.key);
      });
      it->slot = l.slot;
   }
   if (l.encap) {
      if (list->empty()) encapUsers_.erase(encap);
   } else if (inner != tunnelId) {
      dropIfUnused(inner);
   }
}

void TunnelResolutionClient::dropIfUnused(const TunnelId& tunnelId) {
   const Node* node = nodes_.find(tunnelId);
   if (node && !node->hasEntry && node->riders.empty() && node->links.empty()) {
      nodes_.erase(tunnelId);
   }
}

std::vector<TunnelId> TunnelResolutionClient::closure(const std::vector<TunnelId>& seeds) const {
   TunnelIdMap<bool> seen;
   std::vector<TunnelId> out;
   for (const TunnelId& t : seeds) {
      if (seen.insert(t).second) out.push_back(t);
   }
   // `out` is also the work list: everything before `next` has had its riders added.
   for (size_t next = 0; next < out.size(); ++next) {
      const Node* node = nodes_.find(out[next]);
      if (!node) continue;
      for (const TunnelId& rider : node->riders) {
         if (seen.insert(rider).second) out.push_back(rider);
      }
   }
   return out;
}

std::vector<TunnelId> TunnelResolutionClient::innerFirst(std::vector<TunnelId> tunnels) const {
   // Tarjan's strongly connected components over "rides on", iteratively, roots and edges in
   // ascending TunnelId order. A component is complete only after every component it reaches,
   // so the components come out inner-first; each is ordered by ascending TunnelId.
   std::sort(tunnels.begin(), tunnels.end());
   const uint32_t n = static_cast<uint32_t>(tunnels.size());
   TunnelIdMap<uint32_t> position;
   position.reserve(n);
   for (uint32_t i = 0; i < n; ++i) *position.insert(tunnels[i]).first = i;
   std::vector<uint32_t> edgeStart(n + 1, 0);
   std::vector<uint32_t> edges;
   for (uint32_t i = 0; i < n; ++i) {
      edgeStart[i] = static_cast<uint32_t>(edges.size());
      const Node* node = nodes_.find(tunnels[i]);
      if (!node) continue;
      for (const Link& l : node->links) {
         if (l.encap) break;  // inner tunnels come first, ascending
         if (const uint32_t* p = position.find(TunnelId(l.key))) edges.push_back(*p);
      }
   }
   edgeStart[n] = static_cast<uint32_t>(edges.size());

   constexpr uint32_t kUnvisited = UINT32_MAX;
   std::vector<uint32_t> index(n, kUnvisited), low(n, 0), nextEdge(n, 0);
   std::vector<bool> onStack(n, false);
   std::vector<uint32_t> stack, calls, component;
   std::vector<TunnelId> order;
   order.reserve(n);
   uint32_t counter = 0;
   for (uint32_t root = 0; root < n; ++root) {
      if (index[root] != kUnvisited) continue;
      calls.push_back(root);
      while (!calls.empty()) {
         const uint32_t v = calls.back();
         if (index[v] == kUnvisited) {
            index[v] = low[v] = counter++;
            nextEdge[v] = edgeStart[v];
            stack.push_back(v);
            onStack[v] = true;
         }
         if (nextEdge[v] < edgeStart[v + 1]) {
            const uint32_t w = edges[nextEdge[v]++];
            if (index[w] == kUnvisited) {
               calls.push_back(w);
            } else if (onStack[w]) {
               low[v] = std::min(low[v], index[w]);
            }
            continue;
         }
         calls.pop_back();
         if (!calls.empty()) low[calls.back()] = std::min(low[calls.back()], low[v]);
         if (low[v] != index[v]) continue;
         component.clear();
         uint32_t w;
         do {
            w = stack.back();
            stack.pop_back();
            onStack[w] = false;
            component.push_back(w);
         } while (w != v);
         std::sort(component.begin(), component.end());  // positions ascend with the ids
         for (uint32_t c : component) order.push_back(tunnels[c]);
      }
   }
   return order;
}

void TunnelResolutionClient::resolve(const std::vector<TunnelId>& order) {
   for (const TunnelId& t : order) {
      resolver_->consolidatedEntryDel(t);
      resolver_->renderedTunnelIdDel(t);
      errors_.erase(t);
   }
   for (const TunnelId& t : order) {
      try {
         resolver_->updateFlattenedInfo(t);
      } catch (const Wirekit::LabelStackOverflow& e) {
         fail(t, e, true);
      } catch (const Vela::RangeException& e) {
         fail(t, e, false);
      }
   }
   ++counters_.applies;
   counters_.lastResolved = order.size();
   counters_.totalResolved += order.size();
   if (observer_) observer_(order);
}

void TunnelResolutionClient::fail(const TunnelId& called, const std::exception& e, bool overflow) {
   ++counters_.failures;
   const auto record = [&](const TunnelId& t) {
      resolver_->consolidatedEntryDel(t);
      errors_[t] = overflow ? fmt::format(
                                  "{}: label stack deeper than the {}-label limit of a label "
                                  "operation, no result: {}",
                                  tunnelText(t), Wirekit::MplsLabelOperation::kMaxLabels, e.what())
                            : fmt::format(
                                  "{}: inner tunnel id out of range (a TunnelId is at most {:#x}), "
                                  "no result: {}",
                                  tunnelText(t), TunnelId::maxValue, e.what());
   };
   record(called);
   for (const TunnelId& t : resolver_->interruptedTunnelId()) {
      if (t != called) record(t);
   }
}

}  // namespace Tunnel::TunnelFib
