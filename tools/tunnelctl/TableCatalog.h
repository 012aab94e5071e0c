// TableCatalog: the tunnel tables this tool knows, by the mount name people type ("ldp", "sr",
// "rsvpLer", ...). Per table: its identifier (the mounter's key), its framework type (type name,
// entry type, tunnel type, largest entry) and where its files live under a store root.
// Every table of the family is served, the mLDP table (identifier 20, from Mldp/) included.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "TunnelTable/TunnelTableBase.h"
#include "TunnelTable/TunnelTableIdentifier.h"

namespace TunnelCtl {

using Tunnel::TunnelTable::TunnelTableIdentifier;
using Tunnel::TunnelTable::TunnelTableType;

struct TableEntry {
   TunnelTableIdentifier id;
   std::string mountName;        // "ldp"
   std::string path;             // "tunnel/table/ldp"
   const TunnelTableType* type;  // never null
};

// Every table, in identifier order (1 to 20).
const std::vector<TableEntry>& tableCatalog();
// The table of a mount name, or nothing.
const TableEntry* tableByMountName(std::string_view mountName);
const TableEntry& tableById(TunnelTableIdentifier id);
// "bgpLu, bgpLuPush, ldp, ..." for error messages.
std::string knownMountNames();

// The collection every tunnel table serves, and the directory of its files under `root`:
// "<root>/tunnel/table/<mount name>/entry".
inline constexpr const char* kEntryCollection = "entry";
std::string tableDirectory(const std::string& root, const TableEntry& table);

// The table of `mountName`, or throws UsageError "unknown table '<name>' (known: ...)".
const TableEntry& requireTable(std::string_view mountName);

// A mistake of the person running the tool: printed as "tunnelctl: <what>", exit status 2.
class UsageError : public std::runtime_error {
  public:
   using std::runtime_error::runtime_error;
};

}  // namespace TunnelCtl
