// Names of the decap tunnel types.
#include "Decap/DecapTunnelType.h"

#include <array>
#include <string>

#include "Vela/Exception.h"

namespace Tunnel::Decap {

namespace {

// Indexed by code.
constexpr std::array<const char*, kMaxDecapTunnelTypeCode + 1> kNames = {"unknown", "gre", "ipIp",
                                                                         "udp"};

}  // namespace

Vela::String valueToStrep(DecapTunnelType type) {
   const auto code = static_cast<uint8_t>(type);
   if (!isValidDecapTunnelTypeCode(code)) return "invalid(" + std::to_string(code) + ")";
   return kNames[code];
}

std::ostream& operator<<(std::ostream& os, DecapTunnelType type) {
   return os << valueToStrep(type);
}

DecapTunnelType decapTunnelTypeFromString(std::string_view text) {
   for (uint8_t code = 0; code <= kMaxDecapTunnelTypeCode; ++code) {
      if (text == kNames[code]) return DecapTunnelType(code);
   }
   throw Vela::ParseException("unknown decap tunnel type '" + Vela::String(text) + "'");
}

}  // namespace Tunnel::Decap
