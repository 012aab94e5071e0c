// Bounded indices of the fixed-capacity collections of tunnel values. Building or stepping one
// outside its range throws Vela::RangeException with the text
//    "<type>::value < <type>::min or > <type>::max not allowed"
// where <type> is the qualified name below.
//
//    ViaIndex           16 bits   0-599   via collections of entries (600 places)
//    TunnelIdCollIndex  16 bits   0-599   tunnelId / tunnelBw collections of a RIB entry
//    TepIndex           unsigned  0-15    endpoint prefixes of an entry
//    NameIndex          8 bits    0-127   name characters of an entry
//    CosIndex           8 bits    0-7     traffic classes of an MplsCosVia
#pragma once

#include <cstdint>

#include "Vela/BoundedIndex.h"

namespace Tunnel::TunnelTable {

struct ViaIndexTag {
   static constexpr const char* typeName = "Tunnel::TunnelTable::ViaIndex";
};
struct TunnelIdCollIndexTag {
   static constexpr const char* typeName = "Tunnel::TunnelTable::TunnelIdCollIndex";
};
struct TepIndexTag {
   static constexpr const char* typeName = "Tunnel::TunnelTable::TepIndex";
};
struct NameIndexTag {
   static constexpr const char* typeName = "Tunnel::TunnelTable::NameIndex";
};
struct CosIndexTag {
   static constexpr const char* typeName = "Tunnel::TunnelTable::CosIndex";
};

using ViaIndex = Vela::BoundedIndex<ViaIndexTag, uint16_t, 0, 599>;
using TunnelIdCollIndex = Vela::BoundedIndex<TunnelIdCollIndexTag, uint16_t, 0, 599>;
using TepIndex = Vela::BoundedIndex<TepIndexTag, uint32_t, 0, 15>;
using NameIndex = Vela::BoundedIndex<NameIndexTag, uint8_t, 0, 127>;
using CosIndex = Vela::BoundedIndex<CosIndexTag, uint8_t, 0, 7>;

inline constexpr uint32_t kViaCapacity = 600;
inline constexpr uint32_t kTunnelIdCollCapacity = 600;
inline constexpr uint32_t kTepCapacity = 16;
inline constexpr uint32_t kNameCapacity = 128;
inline constexpr uint32_t kCosCapacity = 8;

}  // namespace Tunnel::TunnelTable
