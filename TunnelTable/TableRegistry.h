// TableRegistry: one row per table class of the process (its TableType and its factory). The
// mounter's getMountInfo, the tool's catalogue and the type registry the mount service builds
// tables through all read it, so adding a table is one row: declare the class with its TableType
// and name it in its folder's TableList, which registers every class of the list when the library
// loads (registerTables) and is also the list the typed tests run over.
//
// Rows are registered at load time, before main, by each folder's objects (the tunnel tables,
// mLDP, the tunnel RIBs); a program sees the rows of the folders it links. Registering a row is
// idempotent; a second row with another TableType under the same type name or identifier is a
// programming error and asserts.
#pragma once

#include <string_view>
#include <vector>

#include "TunnelTable/TableType.h"
#include "TunnelTable/TunnelTableIdentifier.h"
#include "Vela/Entity.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Tunnel::TunnelTable {

using TableFactory = Vela::Ptr<Vela::Entity> (*)(const Vela::String& name);

struct TableRow {
   const TableType* type;
   TableFactory factory;
};

class TableRegistry {
  public:
   // Adds the row (and the type to Vela's type registry under its type name).
   static void rowIs(const TableType& type, TableFactory factory);
   // Every row, ordered by identifier (rows without one last, by type name).
   static std::vector<TableRow> rows();
   // The row of an identifier or a mount name; null when none is registered.
   static const TableRow* row(TunnelTableIdentifier id);
   static const TableRow* rowByMountName(std::string_view mountName);
   static const TableRow* rowByTypeName(std::string_view typeName);
};

// A folder's table classes. Each class names its TableType as `kTableType`.
template <class... Tables>
struct TableList {};

template <class Table>
Vela::Ptr<Vela::Entity> makeTableEntity(const Vela::String& name) {
   Vela::Ptr<Table> table(new Table(name));
   table->hasNotificationActiveIs(true);
   return Vela::Ptr<Vela::Entity>(table);
}

// Registers every class of the list; returns true so a folder can run it at load:
//    const bool registered = registerTables(LdpAndFriends{});
template <class... Tables>
bool registerTables(TableList<Tables...>) {
   (TableRegistry::rowIs(Tables::kTableType, &makeTableEntity<Tables>), ...);
   return true;
}

}  // namespace Tunnel::TunnelTable
