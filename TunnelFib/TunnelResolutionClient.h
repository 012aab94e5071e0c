// TunnelResolutionClient: keeps the TunnelResolver's results current as the FIB changes. It
// observes a TunnelFib (the writer's, or a reader's copy in another process) for changes of
// "entry" and "labelStackEncap", and on each change clears and re-resolves exactly the tunnels
// whose result may have changed.
//
// Index: for every FIB entry, the inner tunnels its primary vias ride on (interface a dynamic
// tunnel interface; ids outside the TunnelId range are left out) and the EncapIds its primary
// vias name; from these, per tunnel the tunnels that ride on it, and per EncapId its users. All
// primary vias are indexed, also those past a via where the walk would stop: a superset of the
// edges the walk follows is enough, and it does not depend on results.
//
// Affected tunnels: the changed tunnels and the users of the changed encapsulations, and every
// tunnel that rides on them, transitively. Any other tunnel's walk reaches none of these, so its
// result stands. Each affected tunnel is cleared (consolidatedEntryDel, renderedTunnelIdDel, its
// error) before any of them is resolved again.
//
// Order rule: affected tunnels are resolved inner-first - a topological order of the ride-on
// relation restricted to the affected set, its cycles (strongly connected groups) each resolved
// together in ascending TunnelId order. So when a tunnel is called, every tunnel below it that
// is outside its own cycle has its final result (or none), the call does not recurse (bar cycles),
// and a failure in the call is the called tunnel's own. The result of every tunnel depends only
// on the FIB, never on which changes led there: resolving only the affected set gives what
// resolving everything from scratch in this order gives.
//
// Failures: a label stack deeper than the bounded label operation holds, joined or as an
// encapsulation stores it (Wirekit::LabelStackOverflow), or an inner tunnel id out of range (the
// TunnelId range exception) fails the call of that tunnel. The tunnel gets an error text naming it
// and the limit, and its partial result is removed: never a truncated result, never an exception
// out of the client. Inside a cycle the call may fail in a tunnel it entered: every call the
// failure interrupted (TunnelResolver::interruptedTunnelId) loses its partial result and gets the
// error. A tunnel riding on a failed one gets no result (the walk stops there) and no error of its
// own.
//
// Loops: a loop resolves to no result for its members (unless a final via comes before the
// looping one). A loop later broken resolves by itself: the breaking change is a change of one
// member, and every other member rides on it, so all of them are affected and re-resolved.
//
// Batching: changes are collected and applied once per event-loop turn (a task posted on the
// loop), so a burst of writes re-resolves each tunnel once; flush() applies at once. At
// construction a full pass (resolveAll) is scheduled.
//
// One thread, the loop's; the FIB is only read.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Loom/EventLoop.h"
#include "TunnelFib/TunnelFib.h"
#include "TunnelFib/TunnelResolver.h"

namespace Tunnel::TunnelFib {

class TunnelResolutionClient {
  public:
   struct Counters {
      uint64_t changesSeen = 0;    // notifications of entry and labelStackEncap heard
      uint64_t applies = 0;        // batches applied (full passes included)
      uint64_t lastResolved = 0;   // tunnels re-resolved by the last apply
      uint64_t totalResolved = 0;  // tunnels re-resolved in all
      uint64_t failures = 0;       // calls that failed
   };
   // Called after each apply with the affected tunnels, in the order they were resolved.
   using Observer = std::function<void(const std::vector<TunnelId>& affected)>;

   // Observes `fib` from now on; changes are applied on `loop`.
   // REQUIRES: fib is not null; the loop outlives the client.
   TunnelResolutionClient(Vela::Ptr<TunnelFib> fib, Loom::EventLoop& loop);
   ~TunnelResolutionClient();
   TunnelResolutionClient(const TunnelResolutionClient&) = delete;
   TunnelResolutionClient& operator=(const TunnelResolutionClient&) = delete;

   const Vela::Ptr<TunnelFib>& tunnelFib() const noexcept { return fib_; }
   const Vela::Ptr<TunnelResolver>& resolver() const noexcept { return resolver_; }

   // The tunnel's flattened result, or null (no entry, no final via reached, a loop, a failure).
   Vela::Ptr<ConsolidatedEntry> result(const TunnelId& tunnelId) const {
      return resolver_->consolidatedEntry(tunnelId);
   }
   // The failure of the tunnel's last resolution, if it failed.
   std::optional<Vela::String> error(const TunnelId& tunnelId) const;
   const std::unordered_map<TunnelId, Vela::String>& errors() const noexcept { return errors_; }
   // The tunnels whose primary vias ride on `tunnelId` directly, ascending.
   std::vector<TunnelId> riders(const TunnelId& tunnelId) const;

   const Counters& counters() const noexcept { return counters_; }
   void observerIs(Observer observer) { observer_ = std::move(observer); }

   // True while changes wait to be applied.
   bool pending() const noexcept {
      return fullPending_ || !changedTunnels_.empty() || !changedEncaps_.empty();
   }
   // Applies the changes collected so far now (nothing when there are none).
   void flush();
   // Indexes every FIB entry again and resolves every tunnel from scratch; pending changes are
   // taken in.
   void resolveAll();

  private:
   // One edge of the index: an inner tunnel (TunnelId word) or an encapsulation (EncapId word)
   // named by a tunnel's primary vias, with the tunnel's place in that inner tunnel's riders or
   // that encapsulation's users, so that unlinking is a swap with the last of them.
   struct Link {
      bool encap;
      uint64_t key;
      uint32_t slot;
   };
   struct Node {
      bool hasEntry = false;
      std::vector<Link> links;       // inner tunnels ascending, then encapsulations ascending
      std::vector<TunnelId> riders;  // unordered
   };
   class Watch;

   void onChange(Vela::AttributeId attr, const void* key);
   void scheduleApply();
   void apply();
   // Reads the tunnel's entry and updates the index: links that went are unlinked, new ones
   // linked, the others kept.
   void reindex(const TunnelId& tunnelId);
   uint32_t link(const TunnelId& tunnelId, const Link& link);
   void unlink(const TunnelId& tunnelId, const Link& link);
   void dropIfUnused(const TunnelId& tunnelId);
   // The seeds and everything that rides on them, transitively (distinct, unordered).
   std::vector<TunnelId> closure(const std::vector<TunnelId>& seeds) const;
   // `tunnels` (distinct) in the order rule's order.
   std::vector<TunnelId> innerFirst(std::vector<TunnelId> tunnels) const;
   // Clears and resolves `order`, recording failures; then counts and tells the observer.
   void resolve(const std::vector<TunnelId>& order);
   void fail(const TunnelId& called, const std::exception& e, bool overflow);

   Vela::Ptr<TunnelFib> fib_;
   Loom::EventLoop& loop_;
   Vela::Ptr<TunnelResolver> resolver_;
   std::unique_ptr<Watch> watch_;

   TunnelIdMap<Node> nodes_;
   IdMap<EncapId, std::vector<TunnelId>> encapUsers_;  // unordered
   std::unordered_map<TunnelId, Vela::String> errors_;

   std::unordered_set<TunnelId, TunnelTable::TunnelIdMixHash> changedTunnels_;
   std::unordered_set<EncapId> changedEncaps_;
   bool fullPending_ = true;
   bool applyScheduled_ = false;
   Counters counters_;
   Observer observer_;
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Tunnel::TunnelFib
