#include "RedistAgent.h"

#include "store/reader/DockShadow.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;
namespace TR = Tunnel::TunnelRedist;

// Added to a table after its machine's reactor, so it hears a key once the machine has handled it.
struct RedistAgent::Reporter : Vela::Entity::Notifiee {
   Reporter(std::string table, Handled handled)
       : table(std::move(table)), handled(std::move(handled)) {}
   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr == Vela::attrEntry && key && handled) {
         handled(table, static_cast<const TT::TunnelId*>(key)->tunnelIndex());
      }
   }
   std::string table;
   Handled handled;
};

RedistAgent::RedistAgent(Agent& agent, Handled handled) {
   ldpConfig_ = TR::mountTunnelRedistConfig(agent.service(), kLdpRedistConfig, true, agent.loop());
   bgpLuConfig_ =
       TR::mountTunnelRedistConfig(agent.service(), kBgpLuRedistConfig, true, agent.loop());
   ldp_ = agent.mounter().mountKeyshadowOf<TT::LdpTunnelTable>();
   bgpLu_ = agent.mounter().mountKeyshadowOf<TT::BgpLuTunnelTable>();
   if (!ldp_ || !bgpLu_)
      throw std::runtime_error("the protocol tables are mounted as another type");
   ldpSm_ = TR::ldpTunnelRedistConfigSmFactory(ldpConfig_, ldp_);
   bgpLuSm_ = TR::bgpLuTunnelRedistConfigSmFactory(bgpLuConfig_, bgpLu_);
   ldpReporter_ = std::make_unique<Reporter>(TT::LdpTunnelTable::kTableType.mountName, handled);
   bgpLuReporter_ = std::make_unique<Reporter>(TT::BgpLuTunnelTable::kTableType.mountName, handled);
   ldp_->notifieeAdd(ldpReporter_.get());
   bgpLu_->notifieeAdd(bgpLuReporter_.get());
}

RedistAgent::~RedistAgent() {
   ldp_->notifieeDel(ldpReporter_.get());
   bgpLu_->notifieeDel(bgpLuReporter_.get());
   ldpSm_->handleDelete();
   bgpLuSm_->handleDelete();
}

bool RedistAgent::synchronized() const {
   for (const TT::StoreTableBase* t : {static_cast<const TT::StoreTableBase*>(ldp_.get()),
                                       static_cast<const TT::StoreTableBase*>(bgpLu_.get())}) {
      const auto state = Dock::ReaderState(t->storeMountStatus());
      if (state != Dock::ReaderState::kDetached && state != Dock::ReaderState::kSynchronized &&
          state != Dock::ReaderState::kQuiesced) {
         return false;
      }
   }
   return true;
}

}  // namespace TunnelCtl
