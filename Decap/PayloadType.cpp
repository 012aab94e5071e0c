// Names of the payload types.
#include "Decap/PayloadType.h"

#include <array>
#include <string>

#include "Vela/Exception.h"

namespace Tunnel::Decap {

namespace {

// Indexed by code.
constexpr std::array<const char*, kMaxPayloadTypeCode + 1> kNames = {"unknown", "ipv4", "ipv6",
                                                                     "mpls", "ethernet"};

}  // namespace

Vela::String valueToStrep(PayloadType type) {
   const auto code = static_cast<uint8_t>(type);
   if (!isValidPayloadTypeCode(code)) return "invalid(" + std::to_string(code) + ")";
   return kNames[code];
}

std::ostream& operator<<(std::ostream& os, PayloadType type) {
   return os << valueToStrep(type);
}

PayloadType payloadTypeFromString(std::string_view text) {
   for (uint8_t code = 0; code <= kMaxPayloadTypeCode; ++code) {
      if (text == kNames[code]) return PayloadType(code);
   }
   throw Vela::ParseException("unknown payload type '" + Vela::String(text) + "'");
}

}  // namespace Tunnel::Decap
