// The subcommands of tunnelctl. Each returns the process's exit status: 0 on success, 1 when the
// system said no (a damaged table, a missing table, a refused mount), 2 for a usage mistake
// (thrown as UsageError and printed by main). Output goes to `out`; diagnostics to stderr.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "TableCatalog.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelTableBase.h"
#include "Vela/String.h"
#include "Wirekit/IpGenPrefix.h"

namespace TunnelCtl {

int runList(std::ostream& out, bool json);
int runShow(std::ostream& out, const std::string& table, bool json);
// Stops after `count` changes (0: no limit) or `seconds` (0: no limit), or on SIGINT/SIGTERM.
int runWatch(std::ostream& out, const std::string& table, uint64_t count, double seconds);
int runValidate(std::ostream& out, const std::string& table);
// Deletes the table's files unless a live writer holds its lock (then 1, naming the writer).
int runRemove(std::ostream& out, const std::string& table);
// Runs until SIGINT/SIGTERM unless `once`; SIGHUP re-reads the file and applies what changed.
int runPublish(std::ostream& out, const std::string& file, bool once);
// `update` is applied by the writer once the readers have synchronized.
int runDemo(std::ostream& out, const std::string& file, const std::string& update);

// A tunnel RIB as a reader sees it: the dump lines (or one endpoint's entries), or JSON.
int runRib(std::ostream& out, bool colored, const std::string& endpoint, bool json,
           bool candidates = false);
// The candidate tree the RIB builder exports: per endpoint every candidate class, the winner
// marked (runRib with candidates).
int runRibCandidates(std::ostream& out, bool colored,
                     const std::optional<Wirekit::IpGenPrefix>& endpoint, bool json);
// Runs the tunnel RIB builder until SIGINT/SIGTERM, or `seconds` (0: no limit).
int runRibBuilder(std::ostream& out, double seconds);

// Shared by the commands.
// "<root>/tunnel/table/<name>/entry" when its slot table exists, else throws TableMissing.
std::string existingTableDirectory(const TableEntry& table);
struct TableMissing : std::runtime_error {
   using std::runtime_error::runtime_error;
};
// Every entry of a mounted table, by tunnel id, with its text form.
std::vector<std::pair<Tunnel::TunnelTable::TunnelId, Vela::String>> tableSnapshot(
    const Tunnel::TunnelTable::TunnelTableBase& table);
// Mounts `table` as a key-shadowing reader on `agent` and runs its loop until the reader has
// synchronized; throws when it does not.
class Agent;
Vela::Ptr<Tunnel::TunnelTable::TunnelTableBase> mountSynchronized(Agent& agent,
                                                                  const TableEntry& table);
// "index 7" style short name of a key within its table.
std::string keyText(const Tunnel::TunnelTable::TunnelId& id);

}  // namespace TunnelCtl
