#include "TunnelTable/TableRegistry.h"

#include <algorithm>
#include <cstring>
#include <deque>

#include "Vela/Assert.h"
#include "Vela/TypeRegistry.h"

namespace Tunnel::TunnelTable {

namespace {

// Rows never move once added (a deque keeps addresses), so row() can hand out pointers.
struct Rows {
   std::mutex mutex;
   std::deque<TableRow> rows;
};

Rows& registry() {
   static Rows r;
   return r;
}

}  // namespace

void TableRegistry::rowIs(const TableType& type, TableFactory factory) {
   Rows& r = registry();
   {
      std::lock_guard<std::mutex> lock(r.mutex);
      for (const TableRow& row : r.rows) {
         if (row.type == &type) return;
         VELA_ASSERT(std::strcmp(row.type->typeName, type.typeName) != 0 &&
                     "two table types under one type name");
         VELA_ASSERT((type.tableId == TunnelTableIdentifier::invalidTunnelTableId ||
                      row.type->tableId != type.tableId || !type.mounted() ||
                      !row.type->mounted()) &&
                     "two mounted tables under one identifier");
      }
      r.rows.push_back({&type, factory});
   }
   Vela::TypeRegistry::instance().typeIs(type.typeName, factory);
}

std::vector<TableRow> TableRegistry::rows() {
   Rows& r = registry();
   std::vector<TableRow> out;
   {
      std::lock_guard<std::mutex> lock(r.mutex);
      out.assign(r.rows.begin(), r.rows.end());
   }
   std::stable_sort(out.begin(), out.end(), [](const TableRow& a, const TableRow& b) {
      const auto ida = uint8_t(a.type->tableId), idb = uint8_t(b.type->tableId);
      if ((ida == 0) != (idb == 0)) return idb == 0;
      if (ida != idb) return ida < idb;
      return std::strcmp(a.type->typeName, b.type->typeName) < 0;
   });
   return out;
}

namespace {

template <class Match>
const TableRow* find(Match match) {
   Rows& r = registry();
   std::lock_guard<std::mutex> lock(r.mutex);
   for (const TableRow& row : r.rows) {
      if (match(*row.type)) return &row;
   }
   return nullptr;
}

}  // namespace

const TableRow* TableRegistry::row(TunnelTableIdentifier id) {
   if (!isValidTunnelTableIdentifier(id)) return nullptr;
   // Only the mounted class of an identifier (the SR base shares the IS-IS identifier).
   return find([id](const TableType& t) { return t.tableId == id && t.mounted(); });
}

const TableRow* TableRegistry::rowByMountName(std::string_view mountName) {
   if (mountName.empty()) return nullptr;
   return find([mountName](const TableType& t) { return mountName == t.mountName; });
}

const TableRow* TableRegistry::rowByTypeName(std::string_view typeName) {
   return find([typeName](const TableType& t) { return typeName == t.typeName; });
}

}  // namespace Tunnel::TunnelTable
