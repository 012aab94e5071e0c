// TableType: the framework type descriptor of a table class (what fwkType() returns), one constant
// per class. It is also the table's row in the table registry (TableRegistry.h): the mounter, the
// tool's catalogue and the typed tests all read these rows, so a table's names, path and sizing
// are said once.
//
// Tables that are not mounted by name (the SR and flex-algo bases) have an empty mount name and
// path; tables that have no TunnelTableIdentifier or TunnelType (the tunnel RIBs) carry the
// invalid value of each.
#pragma once

#include <cstdint>
#include <string_view>

#include "TunnelTable/TunnelTableIdentifier.h"
#include "TunnelTable/TunnelType.h"

namespace Tunnel::TunnelTable {

struct TableType {
   const char* typeName;       // "Tunnel::TunnelTable::LdpTunnelTable"
   const char* entryTypeName;  // the store's value type: "Tunnel::TunnelTable::LdpTunnelTableEntry"
   const char* mountName;      // "ldp"; "" when the class is not mounted by name
   const char* path;           // "tunnel/table/ldp"; "" likewise
   TunnelType tunnelType;      // stamped on a tunnel table (tableType)
   TunnelTableIdentifier tableId;
   uint32_t maxEntryLen;  // largest serialized entry: sizes the store's slab classes

   bool mounted() const noexcept { return mountName[0] != '\0'; }
};

// The tunnel tables' name for it.
using TunnelTableType = TableType;

}  // namespace Tunnel::TunnelTable
