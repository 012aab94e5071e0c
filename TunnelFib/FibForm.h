// FibForm: the forwarding form of one protocol tunnel, read from its table entry, before the FIB
// builder names its encapsulations: primary and backup vias, each with the label stack it pushes,
// whether the primary vias are usable, the sequence number, and for interface and VXLAN tunnels
// the tunnel's own encapsulation, which every via of the tunnel names.
//
// What each entry kind gives:
//   - IGP kinds (LDP, SR, ...), flex-algo, SR-TE segment lists: their MPLS vias, primary;
//   - fast-reroute kinds (RSVP FRR, RSVP LER sub-tunnel, TI-LFA): the via as the primary and the
//     backup via as the backup (each only when set), isPrimaryViaUsable and seqNo; an RSVP LER
//     tunnel adds its split vias to the primaries;
//   - static tunnels: their via and backupVia collections;
//   - BGP labelled unicast: each via with the entry's label stack. A via into another tunnel
//     (a dynamic tunnel interface) stays one: the tunnel rides on that tunnel;
//   - GRE, IPsec GRE, IPsec VTI interface tunnels: their vias, no labels, and the tunnel's
//     parameters as its encapsulation;
//   - EVPN VXLAN: one via to the tunnel's destination address, and the VXLAN parameters;
//   - SBFD sessions: the via with traffic class 0's label operation;
//   - SR-TE policies and nexthop-group tunnels carry no vias: an entry without vias.
// Empty places (holes) of a via collection are skipped.
#pragma once

#include <functional>
#include <optional>
#include <string_view>
#include <variant>
#include <vector>

#include "TunnelTable/EntryValueTypes.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelInfo.h"
#include "TunnelTable/TunnelTableBase.h"
#include "Wirekit/IntfId.h"
#include "Wirekit/IpGenAddr.h"
#include "Wirekit/UnboundedMplsLabelOperation.h"

namespace Tunnel::TunnelFib {

struct FormVia {
   Wirekit::IpGenAddr nextHop;
   Wirekit::IntfId intf;
   Wirekit::UnboundedMplsLabelOperation labels;
   friend bool operator==(const FormVia&, const FormVia&) = default;
};

// The tunnel's own encapsulation: none, or the parameters of an interface or VXLAN tunnel.
using TunnelEncap = std::variant<std::monostate, GreTunnelInfo, IpsecGreTunnelInfo,
                                 IpsecVtiTunnelInfo, VxlanTunnelInfo>;

struct FibForm {
   std::vector<FormVia> primary;
   std::vector<FormVia> backup;
   bool arePrimaryViasUsable = true;
   TunnelTable::TunnelEntrySequenceNumber seqNo;
   TunnelEncap tunnelEncap;
   friend bool operator==(const FibForm&, const FibForm&) = default;
};

// Reads the form of the entry of `key`; nothing when the entry is absent.
using FibFormReader = std::function<std::optional<FibForm>(
    const TunnelTable::TunnelTableBase& table, const TunnelTable::TunnelId& key)>;

// The reader for tables of type `typeName` (a registry type name); empty for tables that hold no
// unicast tunnels (mLDP, unknown types).
FibFormReader fibFormReader(std::string_view typeName);

}  // namespace Tunnel::TunnelFib
