// TunnelId: the 64-bit name of every tunnel, whatever protocol made it. Tables, the RIB, the FIB
// and redistribution all key on it, so its layout, range, hash and order are shared contracts:
//
//    struct TunnelId {            // one unsigned 64-bit word `value`
//       uint64_t index : 43;      // bits 0-42: per-type index (value & 0x7FFFFFFFFFF)
//       uint64_t spare : 1;       // bit 43: carried, never read by tunnelType() or tunnelIndex()
//       uint64_t type  : 5;       // bits 44-48: TunnelType code (value >> 44)
//       uint64_t zero  : 15;      // bits 49-63: always 0 (range check)
//    };
//
// Deliberately, a type-21 (isisFlexAlgoTunnel) index is only the low 35 bits; bits 35-42 of such
// an id are carried in the value but are not part of its printed or compared index.
//
// Equality and order are those of the whole unsigned value, so the tunnels of one type sort
// together by index and types sort by code. The hash is the one-at-a-time hash of the eight value
// bytes, least significant first; shared-memory tables depend on it being bit-exact.
//
// A default TunnelId has value 0 (type 0, index 0), the empty id that marks a hole in id arrays.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>

#include "TunnelTable/TunnelType.h"
#include "Vela/String.h"

namespace Tunnel::TunnelTable {

// Leading blanks of a dump line: the "%*c" forms pad with `indent` blanks; the forms used at
// indent 0 have none.
inline Vela::String dumpIndent(int indent) {
   return indent > 0 ? Vela::String(static_cast<size_t>(indent), ' ') : Vela::String();
}

class TunnelId {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::TunnelId";
   static constexpr uint64_t minValue = 0;
   static constexpr uint64_t maxValue = 0x1FFFFFFFFFFFFull;
   static constexpr unsigned kTypeShift = 44;
   static constexpr uint64_t kIndexMask = 0x7FFFFFFFFFFull;
   static constexpr uint64_t kFlexAlgoIndexMask = 0x7FFFFFFFFull;
   static constexpr uint32_t kSerializedSize = 8;

   constexpr TunnelId() noexcept = default;
   // Throws Vela::RangeException "Tunnel::TunnelTable::TunnelId::value <
   // Tunnel::TunnelTable::TunnelId::minValue or > Tunnel::TunnelTable::TunnelId::maxValue not
   // allowed" when the upper 32-bit word of `value` exceeds 0x1FFFF.
   explicit TunnelId(uint64_t value);
   // Reads the text form (attribute "value"); a range failure is re-raised naming the attribute.
   TunnelId(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   // (type << 44) | index, unchecked: the TunnelId built from it applies the range check.
   static constexpr uint64_t convertToTunnelValue(TunnelType type, uint64_t index) noexcept {
      return (uint64_t{tunnelTypeCode(type)} << kTypeShift) | index;
   }

   constexpr uint64_t value() const noexcept { return value_; }
   constexpr TunnelType tunnelType() const noexcept { return TunnelType(value_ >> kTypeShift); }
   constexpr uint64_t tunnelIndex() const noexcept {
      return tunnelType() == TunnelType::isisFlexAlgoTunnel ? value_ & kFlexAlgoIndexMask
                                                            : value_ & kIndexMask;
   }

   // Short display text of the type, as tunnelTypeToCliStrep(tunnelType(), false).
   Vela::String typeCliStr() const;
   static Vela::String tunnelTypeToCliStrep(TunnelType type, bool longForm) {
      return Tunnel::TunnelTable::tunnelTypeToCliStrep(type, longForm);
   }

   uint32_t hash() const noexcept;

   constexpr auto operator<=>(const TunnelId&) const noexcept = default;

   // Dump lines. At indent 0 without leading blanks, otherwise `indent` blanks first:
   //    "%*cTunnelId: (Type: %s, Index: %llu)\n"
   //    "%*cnextHopTunnelId: (Type: %s, Index: %llu)\n"
   // with the short display text of the type and tunnelIndex().
   Vela::String dumpLine(int indent) const;
   Vela::String nextHopDumpLine(int indent) const;

   // Byte form: the value, 8 bytes little-endian. deserialize applies the range check.
   void serialize(uint8_t* out) const noexcept;
   static TunnelId deserialize(const uint8_t* in);

  private:
   uint64_t value_ = 0;
};

// "Value('Tunnel::TunnelTable::TunnelId', ** {'value': <decimal value>})"
Vela::String valueToStrep(const TunnelId& id);
std::ostream& operator<<(std::ostream& os, const TunnelId& id);

}  // namespace Tunnel::TunnelTable

template <>
struct std::hash<Tunnel::TunnelTable::TunnelId> {
   size_t operator()(const Tunnel::TunnelTable::TunnelId& id) const noexcept { return id.hash(); }
};

namespace Tunnel::TunnelTable {

// A hasher for large in-process sets and maps of tunnels (the resolver's): a multiply and a shift
// mix all 64 bits at a fraction of the one-at-a-time hash's cost. Never for anything shared
// between processes, which hash with hash().
struct TunnelIdMixHash {
   size_t operator()(const TunnelId& id) const noexcept {
      const uint64_t h = id.value() * 0x9E3779B97F4A7C15ull;
      return size_t(h ^ (h >> 29));
   }
};

}  // namespace Tunnel::TunnelTable
