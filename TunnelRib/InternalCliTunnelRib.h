// InternalCliTunnelRib: the command-line mirror of one tunnel RIB (plain or colored, alike): its
// name and id, and one entry per endpoint, keyed by the colored endpoint (a plain RIB's endpoint
// is a colored one without color).
#pragma once

#include "Pike/PikeCollection.h"
#include "TunnelRib/CliTunnelRibKeys.h"
#include "TunnelRib/InternalCliTunnelRibEntry.h"
#include "TunnelTable/TunnelValueTypes.h"

namespace Tunnel::TunnelTable {

class InternalCliTunnelRib final : public Pike::PikeEntity {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::InternalCliTunnelRib";
   using Entries = Pike::EntityMap<ColoredTunnelEndpoint, InternalCliTunnelRibEntry>;

   InternalCliTunnelRib(const Vela::String& name, TunnelRibId id)
       : Pike::PikeEntity(name), id_(id) {}
   std::string_view fwkType() const override { return kTypeName; }

   TunnelRibId id() const noexcept { return id_; }
   const Entries& entry() const noexcept { return entry_; }
   Vela::Ptr<InternalCliTunnelRibEntry> entry(const ColoredTunnelEndpoint& tep) const {
      return entry_.find(tep);
   }

   // Get or create; a new entry is announced to observers of entry.
   Vela::Ptr<InternalCliTunnelRibEntry> entryIs(const ColoredTunnelEndpoint& coloredTep);
   void entryDel(const ColoredTunnelEndpoint& coloredTep);
   void entryDelAll();

  private:
   TunnelRibId id_;
   Entries entry_{*this, Vela::attrEntry};
};

}  // namespace Tunnel::TunnelTable
