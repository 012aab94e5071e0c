// FibView: the tunnel FIB as this tool reads and prints it, shared by `fib`, `encap`, `resolve`
// and the demo - the FIB mounted as a reader's copy, tunnels named as people type them, vias and
// encapsulations as text and as JSON.
//
// A tunnel prints as "<type name>:<index>" ("ldpTunnel:21"), which TUNNEL arguments read back;
// an encapsulation id as its short form ("MPLS 3", "GRE 1") and in JSON as {"type", "value"}.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "Agent.h"
#include "EntryJson.h"
#include "TunnelFib/TunnelFib.h"

namespace TunnelCtl {

// The FIB (at Tunnel::TunnelFib::kTunnelFibPath) as a reader's copy on `agent`, synchronized;
// null, with the reason on stderr, when it is not published or does not synchronize.
Vela::Ptr<Tunnel::TunnelFib::TunnelFib> readTunnelFib(Agent& agent);

// "ldpTunnel:21".
std::string tunnelName(const Tunnel::TunnelTable::TunnelId& id);
// A TUNNEL argument: "TABLE:INDEX" with a table's mount name ("ldp:21"), "TYPE:INDEX" with a
// tunnel type's name or display text ("ldpTunnel:21", "LDP:21"), or the id's value as a number.
// Throws UsageError naming the forms.
Tunnel::TunnelTable::TunnelId parseTunnel(const std::string& text);

// The tunnel a via rides on, when its interface is a dynamic tunnel interface carrying an id in
// the TunnelId range.
std::optional<Tunnel::TunnelTable::TunnelId> innerTunnel(const Wirekit::IntfId& intf);
// The interface as printed: its name, the inner tunnel's name, or "-" for none.
std::string interfaceText(const Wirekit::IntfId& intf);

// "MPLS 3", or "-" for no encapsulation.
std::string encapText(const Tunnel::TunnelTable::EncapId& id);
// {"type": "labelStack", "value": 3}.
Json encapIdJson(const Tunnel::TunnelTable::EncapId& id);
// "<next hop> <interface> <encapsulation>".
std::string fibViaText(const Tunnel::TunnelTable::TunnelVia& via);
// {"nextHop", "intfId", "tunnelId" (a via into another tunnel only), "encapId"}.
Json fibViaJson(const Tunnel::TunnelTable::TunnelVia& via);

// What the FIB holds under an encapsulation id, as text: the label stack ("push 24021"), or the
// tunnel parameters as "<field> <value>" pairs; nothing when it holds none there (VXLAN ones
// are never there: they stay in the builder's process).
std::optional<std::string> encapContent(const Tunnel::TunnelFib::TunnelFib& fib,
                                        const Tunnel::TunnelTable::EncapId& id);

// Prints `rows` under `header`, each column as wide as its widest cell, two blanks apart.
void printColumns(std::ostream& out, const std::vector<std::string>& header,
                  const std::vector<std::vector<std::string>>& rows);

}  // namespace TunnelCtl
