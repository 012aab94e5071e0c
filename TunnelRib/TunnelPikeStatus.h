// TunnelPikeStatus: the root of the command-line tunnel RIB tree - one InternalCliTunnelRib per
// tunnel RIB, each with every endpoint and every candidate class that competed for it, so an
// operator can see why an endpoint chose its tunnels. One process (the RIB builder) writes the
// tree into a Pike store (Pike/PikeWriter.h); the command line reads it from another (a root copy
// bound with PikeReader::rootIs).
#pragma once

#include "Pike/PikeCollection.h"
#include "TunnelRib/CliTunnelRibKeys.h"
#include "TunnelRib/InternalCliTunnelRib.h"

namespace Tunnel::TunnelTable {

class TunnelPikeStatus final : public Pike::PikeEntity {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::TunnelPikeStatus";
   using Ribs = Pike::EntityMap<TunnelRibId, InternalCliTunnelRib>;

   explicit TunnelPikeStatus(const Vela::String& name) : Pike::PikeEntity(name) {}
   std::string_view fwkType() const override { return kTypeName; }

   const Ribs& cliTunnelRibColl() const noexcept { return cliTunnelRibColl_; }
   Vela::Ptr<InternalCliTunnelRib> cliTunnelRibColl(TunnelRibId id) const {
      return cliTunnelRibColl_.find(id);
   }

   // Get or create the mirror of RIB `id`. Throws Vela::RecreationException, changing nothing,
   // when `id` exists under another name.
   Vela::Ptr<InternalCliTunnelRib> cliTunnelRibCollIs(const Vela::String& name, TunnelRibId id);
   void cliTunnelRibCollDel(TunnelRibId id);
   void cliTunnelRibCollDelAll();

  private:
   Ribs cliTunnelRibColl_{*this, attrCliTunnelRibColl};
};

// Creates a root under `name`; bound to the thread's current Pike allocator, if any. The type is
// also creatable by its type name through Vela::TypeRegistry.
Vela::Ptr<TunnelPikeStatus> tunnelPikeStatusFactory(const Vela::String& name);

}  // namespace Tunnel::TunnelTable
