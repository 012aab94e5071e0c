// InternalCliTunnelRibCandidate: one candidate class of a tunnel RIB endpoint in the command-line
// tree, with the set of its tunnel ids (the tunnels of that class, winners or not).
#pragma once

#include "Pike/PikeCollection.h"
#include "TunnelRib/CliTunnelRibKeys.h"
#include "TunnelTable/TunnelId.h"

namespace Tunnel::TunnelTable {

class InternalCliTunnelRibCandidate final : public Pike::PikeEntity {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::InternalCliTunnelRibCandidate";

   // The entity name is the candidate id's text form.
   explicit InternalCliTunnelRibCandidate(const InternalTunnelCandidateId& candidateId);
   InternalCliTunnelRibCandidate(const Vela::String& name,
                                 const InternalTunnelCandidateId& candidateId);
   std::string_view fwkType() const override { return kTypeName; }

   const InternalTunnelCandidateId& candidateId() const noexcept { return candidateId_; }
   const Pike::ValueSet<TunnelId>& tunnelId() const noexcept { return tunnelId_; }
   bool tunnelIdHas(TunnelId id) const { return tunnelId_.contains(id); }

   // Adds the id, then notifies observers of tunnelId with it - every time, deliberately, also
   // when the id was already there.
   void tunnelIdIs(TunnelId id);
   // Removes the id (notifying when it was there).
   void tunnelIdDel(TunnelId id);
   void tunnelIdDelAll();
   // Store corruption found while an id of this set is written (at its flush) goes to `handler`
   // instead of ending the process.
   void tunnelIdCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
      tunnelId_.corruptionHandlerIs(std::move(handler));
   }

  private:
   InternalTunnelCandidateId candidateId_;
   Pike::ValueSet<TunnelId> tunnelId_{*this, attrTunnelId};
};

}  // namespace Tunnel::TunnelTable
