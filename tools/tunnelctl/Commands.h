// The subcommands of tunnelctl. Each returns the process's exit status: 0 on success, 1 when the
// system said no (a damaged table, a missing table, a refused mount), 2 for a usage mistake
// (thrown as UsageError and printed by main). Output goes to `out`; diagnostics to stderr.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "EntryFilter.h"
#include "TableCatalog.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelTableBase.h"
#include "Vela/String.h"
#include "Wirekit/IpGenPrefix.h"

namespace TunnelCtl {

int runList(std::ostream& out, bool json);
struct ShowOptions {
   std::optional<uint64_t> index;  // one tunnel only
   EntryFilter filter;
   bool json = false;    // every field a JSON field (EntryJson.h), streamed
   bool detail = false;  // the full "Value(...)" text form per entry instead of a row
   bool count = false;   // only how many entries there are and how many match
};
int runShow(std::ostream& out, const std::string& table, const ShowOptions& options);
struct WatchOptions {
   uint64_t count = 0;  // stop after this many changes (0: no limit)
   double seconds = 0;  // stop after this long (0: no limit); SIGINT and SIGTERM stop it too
   EntryFilter filter;  // changes of other entries are not printed or counted
   bool timestamps = false;
   bool json = false;  // one object per line (WatchCommand.cpp gives the events)
   bool wait = false;  // a table not yet published is waited for instead of an error
};
int runWatch(std::ostream& out, const std::string& table, const WatchOptions& options);
// Exit 1 when the files fail the check; with `json` the verdict goes to `out` either way.
int runValidate(std::ostream& out, const std::string& table, bool json);
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

// Runs the tunnel FIB builder until SIGINT/SIGTERM, or `seconds` (0: no limit); says when it has
// settled and which tunnels it refused.
// Runs the re-resolving client over the FIB until SIGINT/SIGTERM, or `seconds` (0: no limit),
// printing what each change re-resolved and every failure.
int runResolver(std::ostream& out, double seconds);
int runFibBuilder(std::ostream& out, double seconds);
// The tunnel FIB as a reader in this process sees it: one row per entry, or one tunnel's detail
// (`tunnel` as parseTunnel reads it, FibView.h), or JSON.
int runFib(std::ostream& out, const std::string& tunnel, bool json);
// The FIB's encapsulations of one kind (labelStack, gre, ipsecGre, ipsecVti; "" for all) with
// their content; vxlan only says why there are none to see.
int runEncap(std::ostream& out, const std::string& kind, bool json);
// The chain from `tunnel` down to its final next hops, and the resolver's flattened result.
int runResolve(std::ostream& out, const std::string& tunnel, bool json);

// The redistribution configurations ("ldp", "bgpLu", or both for an empty name) as a reader in
// this process sees them: per endpoint its tunnels and metrics, or JSON.
int runRedist(std::ostream& out, const std::string& name, bool json);
// Runs the redistribution agent until SIGINT/SIGTERM, or `seconds` (0: no limit).
int runRedistributor(std::ostream& out, double seconds);

// The decapsulation and nexthop-group tunnel configurations as a reader in this process sees them.
int runDecap(std::ostream& out, bool json);
int runNexthopGroup(std::ostream& out, bool json);

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
// Whether a live writer holds the table in `dir` (its exclusive lock on the owner file).
bool writerLockHeld(const std::string& dir);
// "index 7" style short name of a key within its table.
std::string keyText(const Tunnel::TunnelTable::TunnelId& id);

}  // namespace TunnelCtl
