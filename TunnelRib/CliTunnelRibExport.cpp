#include "TunnelRib/CliTunnelRibExport.h"

#include <set>
#include <vector>

namespace Tunnel::TunnelTable {

CliTunnelRibExport::CliTunnelRibExport(TunnelRibBuilder& builder, const std::string& store)
    : builder_(builder), writer_(std::make_unique<Pike::PikeWriter>(store)) {
   {
      Pike::AllocatorScope scope(writer_.get());
      status_ = tunnelPikeStatusFactory(kCliTunnelRibRoot);
   }
   writer_->rootIs(*status_);
   const TunnelRibId plainId =
       builder.tunnelRib()->id().isSet() ? builder.tunnelRib()->id() : TunnelRibId(0);
   const TunnelRibId coloredId =
       builder.coloredTunnelRib()->id().isSet() ? builder.coloredTunnelRib()->id() : TunnelRibId(1);
   plain_ = status_->cliTunnelRibCollIs("tunnelRib", plainId);
   colored_ = status_->cliTunnelRibCollIs("coloredTunnelRib", coloredId);
   for (const ColoredTunnelEndpoint& endpoint : builder.endpoints()) mirror(endpoint);
   status_->handleFlush();
   builder.endpointObserverIs([this](const ColoredTunnelEndpoint& e) { mirror(e); });
   builder.batchObserverIs([this] { status_->handleFlush(); });
}

CliTunnelRibExport::~CliTunnelRibExport() {
   builder_.endpointObserverIs(nullptr);
   builder_.batchObserverIs(nullptr);
}

void CliTunnelRibExport::mirror(const ColoredTunnelEndpoint& endpoint) {
   InternalCliTunnelRib& rib = endpoint.isColored() ? *colored_ : *plain_;
   const std::vector<TunnelRibBuilder::CandidateClass> classes = builder_.candidates(endpoint);
   if (classes.empty()) {
      rib.entryDel(endpoint);
      return;
   }
   Vela::Ptr<InternalCliTunnelRibEntry> entry = rib.entryIs(endpoint);
   std::vector<InternalTunnelCandidateId> gone;
   for (const auto& member : entry->candidates()) {
      const InternalTunnelCandidateId& id = member.first;
      if (std::none_of(classes.begin(), classes.end(), [&](const auto& c) { return c.id == id; })) {
         gone.push_back(id);
      }
   }
   for (const auto& id : gone) entry->candidatesDel(id);
   for (const auto& c : classes) {
      Vela::Ptr<InternalCliTunnelRibCandidate> candidate = entry->candidatesIs(c.id);
      const std::set<TunnelId> now(c.tunnels.begin(), c.tunnels.end());
      std::vector<TunnelId> left;
      for (const TunnelId& id : candidate->tunnelId()) {
         if (!now.count(id)) left.push_back(id);
      }
      for (const TunnelId& id : left) candidate->tunnelIdDel(id);
      for (const TunnelId& id : now) {
         if (!candidate->tunnelIdHas(id)) candidate->tunnelIdIs(id);
      }
   }
}

}  // namespace Tunnel::TunnelTable
