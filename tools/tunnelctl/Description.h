// Description: a network description as the tool reads it from JSON (schema in examples/README.md)
// - the routers of the network, the one whose tables are described (localRouter), and its tunnels,
// each already built as the entry its table holds.
//
// Every mistake in a file is a DescriptionError whose text names the file, then either the line
// (JSON syntax) or the key path of the offending value, then what is wrong:
//    "net.json:12: syntax error while parsing object key - unexpected '}'; expected string literal"
//    "net.json: tunnels[3].vias[0].nextHop: bad IPv4/IPv6 address 'x'"
// Unknown keys are errors too, so a misspelt field never goes silently unused; so are a key given
// twice and nesting deeper than the tool reads (StrictJson.h). Values are quoted in errors as a
// bounded excerpt.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Decap/DecapGroupVaultTypes.h"
#include "Decap/PayloadType.h"
#include "NexthopGroup/NexthopGroupTunnelConfigEntry.h"
#include "TableCatalog.h"
#include "TunnelTable/TunnelId.h"
#include "Vela/String.h"
#include "Wirekit/IntfId.h"
#include "Wirekit/IpGenAddr.h"
#include "Wirekit/IpGenPrefix.h"

namespace TunnelCtl {

class DescriptionError : public std::runtime_error {
  public:
   using std::runtime_error::runtime_error;
};

struct RouterInterface {
   Wirekit::IntfId intf;
   std::optional<Wirekit::IpGenAddr> address;   // the router's own address on the link
   std::optional<Wirekit::IpGenPrefix> subnet;  // the link's subnet
   std::string peer;                            // the router at the other end, if named
};

struct Router {
   std::string name;
   Wirekit::IpGenAddr loopback;
   std::optional<Wirekit::IpGenAddr> loopbackV6;
   std::vector<RouterInterface> interfaces;

   const RouterInterface* interface(const Wirekit::IntfId& intf) const;
};

// How a described tunnel of one entry kind is printed and written; one per kind.
struct DescribedEntryOps {
   Vela::String (*text)(const std::string& bytes);
   // Writes the entry unless `writer` holds it already; true when written.
   bool (*write)(Tunnel::TunnelTable::TunnelTableBase& writer, const std::string& bytes);
};

// One tunnel of the description, built as its table's entry and kept in the entry's byte form
// with its zero runs packed (about 150 bytes for an LDP tunnel, where the entry object is sized
// for 600 vias).
struct DescribedTunnel {
   const TableEntry* table = nullptr;
   Tunnel::TunnelTable::TunnelId id;
   std::string path;   // where it is in the file: "tunnels[3]"
   std::string bytes;  // the entry's byte form, zero runs packed
   const DescribedEntryOps* ops = nullptr;

   // The entry's text form, as readers will print it.
   Vela::String text() const { return ops->text(bytes); }
   // Writes the entry unless the table holds it already; true when written. REQUIRES: `writer`
   // is the mounted writer of `table`.
   bool writeTo(Tunnel::TunnelTable::TunnelTableBase& writer) const {
      return ops->write(writer, bytes);
   }
};

struct Description {
   std::string file;
   std::string name;
   std::string localRouter;
   std::vector<Router> routers;
   std::vector<DescribedTunnel> tunnels;  // in file order
   // The decapsulation configuration ("decapGroups", "decapPorts") and the nexthop-group tunnel
   // configuration ("nexthopGroupTunnels"), each in file order; a configuration is published
   // only when its keys are there.
   bool hasDecap = false;
   std::vector<Vela::Ptr<const Tunnel::Decap::DecapGroup>> decapGroups;
   std::vector<std::pair<uint16_t, Tunnel::Decap::PayloadType>> decapPorts;
   bool hasNexthopGroupTunnels = false;
   std::vector<Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry> nexthopGroupTunnels;

   const Router* router(std::string_view name) const;
   // The tables the description fills, in identifier order.
   std::vector<const TableEntry*> tables() const;
   // The tunnels of one table, in file order.
   std::vector<const DescribedTunnel*> tunnelsOf(const TableEntry& table) const;
};

// Parses `text`; `file` is the name errors start with.
Description parseDescription(const std::string& text, const std::string& file);
// Reads and parses the file at `path` ("<path>: cannot read: <reason>" when it cannot be read).
Description loadDescription(const std::string& path);

}  // namespace TunnelCtl
