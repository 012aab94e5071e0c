// Test helpers for tunnel FIB entries: label-stack encapsulation ids, final vias and vias riding
// on another tunnel.
#pragma once

#include <cstdint>

#include "TunnelFib/TunnelFibEntry.h"
#include "Wirekit/IntfId.h"

namespace Testing {

inline Tunnel::TunnelTable::EncapId labelStackId(uint32_t n) {
   return Tunnel::TunnelTable::EncapId(Tunnel::TunnelTable::EncapType::labelStack, n);
}
// A final via to 10.0.0.<hop> on Ethernet<intf>, naming label stack `stack`.
inline Tunnel::TunnelTable::TunnelVia finalVia(uint32_t hop, uint32_t intf, uint32_t stack) {
   return Tunnel::TunnelTable::TunnelVia(
       Wirekit::IpGenAddr::ipv4(0x0A000000u + hop),
       Wirekit::IntfId::ordinary(Wirekit::IntfKind::ethernet, intf), labelStackId(stack));
}
// A via riding on the tunnel whose id value is `inner` (any value, out of range ones included).
inline Tunnel::TunnelTable::TunnelVia ridingVia(uint64_t inner, uint32_t stack) {
   return Tunnel::TunnelTable::TunnelVia({}, Wirekit::DynamicTunnelIntfId::tunnelIdToIntfId(inner),
                                         labelStackId(stack));
}

}  // namespace Testing
