// InternalCliTunnelRibEntry: one endpoint of a tunnel RIB in the command-line tree, with every
// candidate class that competed for it (ordered as InternalTunnelCandidateId orders them; the
// first is the RIB's choice).
#pragma once

#include <vector>

#include "Pike/PikeCollection.h"
#include "TunnelRib/CliTunnelRibKeys.h"
#include "TunnelRib/InternalCliTunnelRibCandidate.h"
#include "TunnelTable/ColoredTunnelEndpoint.h"

namespace Tunnel::TunnelTable {

class InternalCliTunnelRibEntry final : public Pike::PikeEntity {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::InternalCliTunnelRibEntry";
   using Candidates = Pike::EntityMap<InternalTunnelCandidateId, InternalCliTunnelRibCandidate>;

   // The entity name is the endpoint's text form.
   explicit InternalCliTunnelRibEntry(const ColoredTunnelEndpoint& coloredTep);
   InternalCliTunnelRibEntry(const Vela::String& name, const ColoredTunnelEndpoint& coloredTep);
   std::string_view fwkType() const override { return kTypeName; }

   const ColoredTunnelEndpoint& coloredTep() const noexcept { return coloredTep_; }
   const Candidates& candidates() const noexcept { return candidates_; }
   Vela::Ptr<InternalCliTunnelRibCandidate> candidates(const InternalTunnelCandidateId& id) const {
      return candidates_.find(id);
   }
   // The candidate ids in presentation order.
   std::vector<InternalTunnelCandidateId> candidatesInOrder() const;

   // Get or create; a new candidate is announced to observers of candidates.
   Vela::Ptr<InternalCliTunnelRibCandidate> candidatesIs(const InternalTunnelCandidateId& id);
   void candidatesDel(const InternalTunnelCandidateId& id);
   void candidatesDelAll();

  private:
   ColoredTunnelEndpoint coloredTep_;
   Candidates candidates_{*this, attrCandidates};
};

}  // namespace Tunnel::TunnelTable
