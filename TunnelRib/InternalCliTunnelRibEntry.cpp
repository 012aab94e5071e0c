#include "TunnelRib/InternalCliTunnelRibEntry.h"

#include <algorithm>

namespace Tunnel::TunnelTable {

InternalCliTunnelRibEntry::InternalCliTunnelRibEntry(const ColoredTunnelEndpoint& coloredTep)
    : InternalCliTunnelRibEntry(valueToStrep(coloredTep), coloredTep) {}

InternalCliTunnelRibEntry::InternalCliTunnelRibEntry(const Vela::String& name,
                                                     const ColoredTunnelEndpoint& coloredTep)
    : Pike::PikeEntity(name), coloredTep_(coloredTep) {}

std::vector<InternalTunnelCandidateId> InternalCliTunnelRibEntry::candidatesInOrder() const {
   std::vector<InternalTunnelCandidateId> ids;
   ids.reserve(candidates_.size());
   for (const auto& [id, c] : candidates_) ids.push_back(id);
   std::sort(ids.begin(), ids.end());
   return ids;
}

Vela::Ptr<InternalCliTunnelRibCandidate> InternalCliTunnelRibEntry::candidatesIs(
    const InternalTunnelCandidateId& id) {
   if (auto existing = candidates_.find(id)) return existing;
   return candidates_.create(id, valueToStrep(id));
}

void InternalCliTunnelRibEntry::candidatesDel(const InternalTunnelCandidateId& id) {
   candidates_.del(id);
}

void InternalCliTunnelRibEntry::candidatesDelAll() {
   candidates_.delAll();
}

}  // namespace Tunnel::TunnelTable
