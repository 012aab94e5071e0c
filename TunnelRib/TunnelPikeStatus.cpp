#include "TunnelRib/TunnelPikeStatus.h"

#include "Vela/TypeRegistry.h"

namespace Tunnel::TunnelTable {

Vela::Ptr<InternalCliTunnelRib> TunnelPikeStatus::cliTunnelRibCollIs(const Vela::String& name,
                                                                     TunnelRibId id) {
   if (auto existing = cliTunnelRibColl_.find(id)) {
      if (existing->name() != name) {
         throw Vela::RecreationException("InternalCliTunnelRib " + valueToStrep(id) +
                                         " exists as '" + existing->name() +
                                         "', cannot re-create it as '" + name + "'");
      }
      return existing;
   }
   return cliTunnelRibColl_.create(id, name);
}

void TunnelPikeStatus::cliTunnelRibCollDel(TunnelRibId id) {
   cliTunnelRibColl_.del(id);
}

void TunnelPikeStatus::cliTunnelRibCollDelAll() {
   cliTunnelRibColl_.delAll();
}

Vela::Ptr<TunnelPikeStatus> tunnelPikeStatusFactory(const Vela::String& name) {
   auto status = Vela::makePtr<TunnelPikeStatus>(name);
   status->doPikeInit();
   return status;
}

namespace {

const bool registeredAtLoad = [] {
   Vela::TypeRegistry::instance().typeIs(TunnelPikeStatus::kTypeName,
                                         [](const Vela::String& name) -> Vela::Ptr<Vela::Entity> {
                                            return tunnelPikeStatusFactory(name);
                                         });
   return true;
}();

}  // namespace

}  // namespace Tunnel::TunnelTable
