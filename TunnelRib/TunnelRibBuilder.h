// TunnelRibBuilder: keeps a TunnelRib and a ColoredTunnelRib current from the protocol tunnel
// tables, which other processes write. Any agent can run it on its event loop; `tunnelctl
// rib-builder` runs it as a process of its own.
//
// It mounts every protocol table the registry knows as a key-shadowing reader and is told per key
// what changed. Each tunnel offers the RIB a RibContribution (RibContribution.h): an endpoint and
// a candidate class (tunnel type, entryPref, entryMetric). For each endpoint the classes are
// ordered as InternalTunnelCandidateId orders them; the best class wins, and its tunnels make the
// endpoint's RIB entry:
//   - entryPref and entryMetric are the class's;
//   - tunnelId / tunnelBw: the class's tunnels in ascending TunnelId order with their bandwidths,
//     the first 600 of them (a RIB entry holds no more);
//   - metric, metricType, metric2, pref, pref2 come from the class's first tunnel in that order
//     (its lead), so they are those of one real tunnel, and stable while it stays.
// An endpoint with no candidate left is deleted from its RIB.
//
// Incremental: a change of one tunnel re-evaluates only the endpoints it left and joined. Changes
// are collected per event-loop turn and applied in one pass at its end, so a burst of writes to
// one endpoint evaluates it once. Writes go through tunnelRibEntryIs and are skipped when the
// computed entry equals the stored one, so an unchanged result writes nothing, in either RIB.
//
// Reconcile: once every reader has synchronized (at start) and again each time a reader has
// resynchronized (its writer restarted, or it was lapped), the whole of both RIBs is compared with
// the model: endpoints no longer backed by any tunnel are deleted, every other one rewritten if it
// differs. This also clears what an earlier builder left in the RIB files.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "Loom/EventLoop.h"
#include "TunnelRib/RibContribution.h"
#include "TunnelRib/TunnelRib.h"
#include "TunnelTable/TableWatch.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTableBase.h"

namespace Tunnel::TunnelTable {

class TunnelRibBuilder {
  public:
   // One candidate class of an endpoint and its tunnels, in the RIB's order.
   struct CandidateClass {
      InternalTunnelCandidateId id;
      std::vector<TunnelId> tunnels;
   };

   struct Counters {
      uint64_t tunnelChanges = 0;        // per-key notifications whose contribution changed
      uint64_t endpointEvaluations = 0;  // endpoints recomputed
      uint64_t ribWrites = 0;            // entries written (changed)
      uint64_t ribDeletes = 0;           // entries deleted
      uint64_t reconciles = 0;           // whole-RIB passes
   };

   // Mounts the protocol tables (readers) and both RIBs (writer) through `mounter`, on its loop.
   // Throws what the mounts throw (a second RIB writer: Region::OwnerError).
   explicit TunnelRibBuilder(const TunnelTableMounter& mounter);
   // Over tables already mounted (the sources as key-shadowing readers, the RIBs as writer), all
   // on `loop`. Sources of a kind that offers nothing are ignored.
   TunnelRibBuilder(const std::vector<Vela::Ptr<TunnelTableBase>>& sources,
                    Vela::Ptr<TunnelRib> rib, Vela::Ptr<ColoredTunnelRib> coloredRib,
                    Loom::EventLoop& loop);
   ~TunnelRibBuilder();
   TunnelRibBuilder(const TunnelRibBuilder&) = delete;
   TunnelRibBuilder& operator=(const TunnelRibBuilder&) = delete;

   const Vela::Ptr<TunnelRib>& tunnelRib() const noexcept { return rib_; }
   const Vela::Ptr<ColoredTunnelRib>& coloredTunnelRib() const noexcept { return coloredRib_; }
   size_t sourceCount() const noexcept { return watch_.size(); }

   // True when every reader is synchronized (or has no writer yet), the last reconcile has run and
   // no change waits to be applied: the RIBs then hold what the tables say.
   bool settled() const;
   const Counters& counters() const noexcept { return counters_; }

   // The candidate classes of an endpoint, best first (an uncolored endpoint names the plain RIB).
   std::vector<CandidateClass> candidates(const ColoredTunnelEndpoint& endpoint) const;
   // Every endpoint with a candidate, in order.
   std::vector<ColoredTunnelEndpoint> endpoints() const;

   // Told each endpoint as it is evaluated (its candidates may have changed; candidates() has
   // them), and at the end of each applied batch. The command-line export uses both.
   void endpointObserverIs(std::function<void(const ColoredTunnelEndpoint&)> observer) {
      endpointObserver_ = std::move(observer);
   }
   void batchObserverIs(std::function<void()> observer) { batchObserver_ = std::move(observer); }

  private:
   // A tunnel of one source table: tables of one type may share tunnel ids (the interface tables).
   struct TunnelKey {
      uint32_t source;
      uint64_t tunnelId;
      friend bool operator==(const TunnelKey&, const TunnelKey&) = default;
      friend auto operator<=>(const TunnelKey&, const TunnelKey&) = default;
   };
   struct TunnelKeyHash {
      size_t operator()(const TunnelKey& k) const noexcept {
         return std::hash<uint64_t>()(k.tunnelId * 31 + k.source);
      }
   };
   // A class's members in TunnelId order (then source), each with its contribution.
   using Members = std::map<std::pair<uint64_t, uint32_t>, const RibContribution*>;
   using Classes = std::map<InternalTunnelCandidateId, Members>;

   void attach(const std::vector<Vela::Ptr<TunnelTableBase>>& sources);
   void apply(const std::set<TableWatch::Change>& changes, bool reconcile);
   void evaluate(const ColoredTunnelEndpoint& endpoint);
   void reconcile();
   void detach(const RibContribution& c, uint32_t source);
   void join(const RibContribution& c, uint32_t source);

   Vela::Ptr<TunnelRib> rib_;
   Vela::Ptr<ColoredTunnelRib> coloredRib_;
   // The sources' readers, by source index; the watch holds the tables.
   std::vector<RibContributionReader> readers_;
   TableWatch watch_;

   std::unordered_map<TunnelKey, RibContribution, TunnelKeyHash> tunnels_;
   std::map<ColoredTunnelEndpoint, Classes> endpoints_;

   std::set<ColoredTunnelEndpoint> dirty_;
   Counters counters_;
   std::function<void(const ColoredTunnelEndpoint&)> endpointObserver_;
   std::function<void()> batchObserver_;
};

}  // namespace Tunnel::TunnelTable
