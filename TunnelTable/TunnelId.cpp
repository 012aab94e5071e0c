// TunnelId: range check, hash, text and byte forms, dump lines.
#include "TunnelTable/TunnelId.h"

#include <fmt/format.h>

#include "TunnelTable/ByteCursor.h"
#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelTable {

TunnelId::TunnelId(uint64_t value) : value_(value) {
   // The upper word may carry at most the type field's top bit: 0x1FFFF << 32 is maxValue's word.
   if ((value >> 32) > 0x1FFFF) {
      throw Vela::RangeException::forType(kTypeName, "value", "minValue", "maxValue");
   }
}

TunnelId::TunnelId(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   *this = p.readField(
       "value", [](std::string_view t) { return TunnelId(Vela::parseUnsigned<uint64_t>(t)); });
}

Vela::String TunnelId::typeCliStr() const {
   return tunnelTypeToCliStrep(tunnelType(), false);
}

uint32_t TunnelId::hash() const noexcept {
   return Vela::oneAtATimeOf(value_);
}

Vela::String TunnelId::dumpLine(int indent) const {
   return dumpIndent(indent) +
          fmt::format("TunnelId: (Type: {}, Index: {})\n", typeCliStr(), tunnelIndex());
}

Vela::String TunnelId::nextHopDumpLine(int indent) const {
   return dumpIndent(indent) +
          fmt::format("nextHopTunnelId: (Type: {}, Index: {})\n", typeCliStr(), tunnelIndex());
}

void TunnelId::serialize(uint8_t* out) const noexcept {
   storeLe64(out, value_);
}

TunnelId TunnelId::deserialize(const uint8_t* in) {
   return TunnelId(loadLe64(in));
}

Vela::String valueToStrep(const TunnelId& id) {
   Vela::ValueTextBuilder b(TunnelId::kTypeName);
   b.field("value", Vela::renderUnsigned(id.value()));
   return b.str();
}

std::ostream& operator<<(std::ostream& os, const TunnelId& id) {
   return os << valueToStrep(id);
}

}  // namespace Tunnel::TunnelTable
