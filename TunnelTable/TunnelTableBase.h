// TunnelTableBase: what every per-protocol tunnel table is, whatever entry kind it holds: a
// shared-memory table (StoreTableBase) keyed by TunnelId, stamped with the TunnelType of its
// tunnels and its TunnelTableIdentifier. The mounter hands tables out as this type, and tools that
// only need keys, text forms and the store's state (list, show, watch) use it without knowing the
// entry kind. The entry-typed operations (entryIs, entryDel, entry(key), ...) live in
// StoreTable, which every member is an instance of (TunnelTableFamily.h).
#pragma once

#include "TunnelTable/KeyedTable.h"
#include "TunnelTable/StoreTableBase.h"
#include "TunnelTable/TunnelId.h"

namespace Tunnel::TunnelTable {

class TunnelTableBase : public StoreTableBase, public virtual KeyedTable<TunnelId> {
  public:
   using TunnelTableZeroReferencesNotifiee = StoreTableZeroReferencesNotifiee;

   TunnelType tableType() const noexcept { return fwkType().tunnelType; }
   TunnelTableIdentifier tunnelTableId() const noexcept { return fwkType().tableId; }

  protected:
   TunnelTableBase(const Vela::String& name, const TableType& type) : StoreTableBase(name, type) {}
};

}  // namespace Tunnel::TunnelTable
