// TableCatalog: the tunnel tables this tool knows, by the mount name people type ("ldp", "sr",
// "rsvpLer", ...). Per table: its identifier (the mounter's key), its framework type (type name,
// entry type, tunnel type, largest entry) and where its files live under a store root.
//
// The mLDP table (identifier 20) is listed so that names resolve, but it has no framework type
// here: it belongs to another component, and the tool reports it as not supported rather than
// guessing its entry bounds.
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
   const TunnelTableType* type;  // null when the tool does not serve the table
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

// The table of `mountName`, or throws UsageError "unknown table '<name>' (known: ...)"; tables
// the tool does not serve give "table '<name>' is not served by tunnelctl".
const TableEntry& requireServedTable(std::string_view mountName);

// A mistake of the person running the tool: printed as "tunnelctl: <what>", exit status 2.
class UsageError : public std::runtime_error {
  public:
   using std::runtime_error::runtime_error;
};

}  // namespace TunnelCtl
