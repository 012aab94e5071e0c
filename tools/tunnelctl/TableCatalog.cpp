// The catalog is built once from the table registry, the rows the mounter reads too, so mount
// names and paths cannot drift from what the agents mount.
#include "TableCatalog.h"

#include "Region/StoreRoot.h"
#include "TunnelTable/TableRegistry.h"
#include "Vela/Assert.h"
#include "store/format/Layout.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

const std::vector<TableEntry>& tableCatalog() {
   static const std::vector<TableEntry> catalog = [] {
      std::vector<TableEntry> all;
      for (const TT::TableRow& row : TT::TableRegistry::rows()) {
         const TT::TableType& t = *row.type;
         if (!t.mounted() || !TT::isValidTunnelTableIdentifier(t.tableId)) continue;
         all.push_back({t.tableId, t.mountName, t.path, &t});
      }
      return all;
   }();
   return catalog;
}

const TableEntry* tableByMountName(std::string_view mountName) {
   for (const auto& t : tableCatalog()) {
      if (t.mountName == mountName) return &t;
   }
   return nullptr;
}

const TableEntry& tableById(TunnelTableIdentifier id) {
   for (const auto& t : tableCatalog()) {
      if (t.id == id) return t;
   }
   VELA_FAIL("table identifier {} is not in tunnelctl's catalogue", unsigned(id));
}

std::string knownMountNames() {
   std::string out;
   for (const auto& t : tableCatalog()) {
      if (!out.empty()) out += ", ";
      out += t.mountName;
   }
   return out;
}

std::string tableDirectory(const std::string& root, const TableEntry& table) {
   return Region::tableDirectory(root, Region::tableName(table.path, kEntryCollection));
}

const TableEntry& requireTable(std::string_view mountName) {
   const TableEntry* t = tableByMountName(mountName);
   if (!t) {
      throw UsageError("unknown table '" + std::string(mountName) +
                       "' (known: " + knownMountNames() + ")");
   }
   return *t;
}

}  // namespace TunnelCtl
