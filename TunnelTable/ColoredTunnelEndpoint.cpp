// ColoredTunnelEndpoint: text, hash and byte forms.
#include "TunnelTable/ColoredTunnelEndpoint.h"

#include <array>

#include "TunnelTable/ByteCursor.h"
#include "Vela/Hash.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelTable {

ColoredTunnelEndpoint::ColoredTunnelEndpoint(Vela::String::const_iterator begin,
                                             Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   tep_ = p.readField(
       "tep", [](std::string_view t) { return Wirekit::IpGenPrefix(Vela::parseString(t)); });
   color_ = p.readUnsigned<uint32_t>("color");
   isColored_ = p.readBool("isColored");
}

uint32_t ColoredTunnelEndpoint::hash(uint32_t seed) const noexcept {
   std::array<uint8_t, kSerializedSize> bytes;
   serialize(bytes.data());
   return Vela::oneAtATime(bytes.data(), bytes.size(), seed);
}

Vela::String ColoredTunnelEndpoint::stringValue() const {
   if (isColored_) return tep_.stringValue() + " color " + std::to_string(color_);
   if (color_ != 0) return tep_.stringValue() + " uncolored " + std::to_string(color_);
   return tep_.stringValue();
}

void ColoredTunnelEndpoint::serialize(uint8_t* out) const noexcept {
   tep_.serialize(out);
   storeLe32(out + 24, color_);
   out[28] = isColored_ ? 1 : 0;
   out[29] = out[30] = out[31] = 0;
}

ColoredTunnelEndpoint ColoredTunnelEndpoint::deserialize(const uint8_t* in) {
   if (in[28] > 1) {
      throw ByteFormatError("ColoredTunnelEndpoint flag byte " + std::to_string(in[28]) +
                            " is neither 0 nor 1");
   }
   if ((in[29] | in[30] | in[31]) != 0) {
      throw ByteFormatError("ColoredTunnelEndpoint padding is not zero");
   }
   return ColoredTunnelEndpoint(Wirekit::IpGenPrefix::deserialize(in), loadLe32(in + 24),
                                in[28] == 1);
}

Vela::String valueToStrep(const ColoredTunnelEndpoint& v) {
   Vela::ValueTextBuilder b(ColoredTunnelEndpoint::kTypeName);
   b.field("tep", Vela::renderString(v.tep().stringValue()));
   b.field("color", Vela::renderUnsigned(v.color()));
   b.field("isColored", Vela::renderBool(v.isColored()));
   return b.str();
}

std::ostream& operator<<(std::ostream& os, const ColoredTunnelEndpoint& v) {
   return os << valueToStrep(v);
}

}  // namespace Tunnel::TunnelTable
