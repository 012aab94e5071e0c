// ConsolidatedEntry: the flattened result of one tunnel, made by the TunnelResolver: the set of
// MplsVias (real next hop, real interface, joined label operation) the tunnel's traffic finally
// leaves by.
//
// The set is keyed by the whole via (next hop, interface, label operation), so a via added twice
// is stored once. It is kept as a vector sorted by MplsVia's order: iteration is deterministic
// (ascending), a lookup is a binary search, and an entry costs one allocation, which matters when
// a million tunnels are flattened at once.
//
// Owned by its resolver (reference counted, so a caller may keep one it looked up). One thread.
#pragma once

#include <cstddef>
#include <vector>

#include "TunnelTable/TunnelId.h"
#include "TunnelTable/Via.h"
#include "Vela/Ptr.h"

namespace Tunnel::TunnelFib {

using TunnelTable::MplsVia;
using TunnelTable::TunnelId;

class TunnelResolver;

class ConsolidatedEntry : public Vela::RefCounted {
  public:
   // Ascending by MplsVia's order, no two equal.
   using ViaInfo = std::vector<MplsVia>;

   explicit ConsolidatedEntry(const TunnelId& tunnelId) noexcept : tunnelId_(tunnelId) {}

   const TunnelId& tunnelId() const noexcept { return tunnelId_; }

   const ViaInfo& viaInfo() const noexcept { return viaInfo_; }
   size_t viaInfoSize() const noexcept { return viaInfo_.size(); }
   bool viaInfoHas(const MplsVia& via) const;
   // Inserts the via unless an equal one is present; returns whether it was inserted.
   bool viaInfoIs(const MplsVia& via);
   // Removes the via; returns it, or the default MplsVia when it was not present.
   MplsVia viaInfoDel(const MplsVia& via);
   void viaInfoDelAll() noexcept { viaInfo_.clear(); }

  private:
   friend class TunnelResolver;
   // Inserts every via of `vias` (any order, duplicates allowed) that is not yet present, as
   // viaInfoIs one by one would, in one merge. `vias` is left in an unspecified state.
   void viaInfoIsAll(std::vector<MplsVia>& vias);

   TunnelId tunnelId_;
   ViaInfo viaInfo_;
};

}  // namespace Tunnel::TunnelFib
