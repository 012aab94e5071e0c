// The index of the tunnel FIB's via arrays, and the arrays themselves: 600 TunnelVia places with
// an explicit count, indexed 0-599. Building an index outside that range throws
// Vela::RangeException "Tunnel::TunnelFib::TunnelViaIndex::value <
// Tunnel::TunnelFib::TunnelViaIndex::min or > Tunnel::TunnelFib::TunnelViaIndex::max not allowed".
//
// The array's deletion rule is the FIB's via rule: deleting the last live via also drops every
// default via before it, so a via array never ends in a default via.
#pragma once

#include <cstdint>

#include "TunnelTable/Via.h"
#include "Vela/BoundedIndex.h"
#include "Vela/FixedArray.h"

namespace Tunnel::TunnelFib {

struct TunnelViaIndexTag {
   static constexpr const char* typeName = "Tunnel::TunnelFib::TunnelViaIndex";
};
using TunnelViaIndex = Vela::BoundedIndex<TunnelViaIndexTag, uint16_t, 0, 599>;

inline constexpr uint32_t kTunnelViaCapacity = 600;
using TunnelViaArray = Vela::FixedArray<TunnelTable::TunnelVia, TunnelViaIndex, kTunnelViaCapacity>;

}  // namespace Tunnel::TunnelFib
