#include "TunnelRib/InternalCliTunnelRibCandidate.h"

namespace Tunnel::TunnelTable {

InternalCliTunnelRibCandidate::InternalCliTunnelRibCandidate(
    const InternalTunnelCandidateId& candidateId)
    : InternalCliTunnelRibCandidate(valueToStrep(candidateId), candidateId) {}

InternalCliTunnelRibCandidate::InternalCliTunnelRibCandidate(
    const Vela::String& name, const InternalTunnelCandidateId& candidateId)
    : Pike::PikeEntity(name), candidateId_(candidateId) {}

void InternalCliTunnelRibCandidate::tunnelIdIs(TunnelId id) {
   tunnelId_.insert(id);
   notify(attrTunnelId, &id);
}

void InternalCliTunnelRibCandidate::tunnelIdDel(TunnelId id) {
   if (tunnelId_.erase(id)) notify(attrTunnelId, &id);
}

void InternalCliTunnelRibCandidate::tunnelIdDelAll() {
   tunnelId_.delAll();
}

}  // namespace Tunnel::TunnelTable
