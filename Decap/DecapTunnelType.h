// DecapTunnelType: the outer encapsulation a decap group terminates (GRE, IP-in-IP or UDP).
//
// One byte wherever it is stored; codes 0..kMaxDecapTunnelTypeCode are valid. The text form is
// the enumerator name, which is also what parses back.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "Vela/String.h"

namespace Tunnel::Decap {

enum class DecapTunnelType : uint8_t {
   unknown = 0,
   gre = 1,
   ipIp = 2,
   udp = 3,
};

inline constexpr uint8_t kMaxDecapTunnelTypeCode = 3;

constexpr bool isValidDecapTunnelTypeCode(uint8_t code) noexcept {
   return code <= kMaxDecapTunnelTypeCode;
}

// The enumerator name ("ipIp"); "invalid(<code>)" for a code beyond the enumerators.
Vela::String valueToStrep(DecapTunnelType type);
std::ostream& operator<<(std::ostream& os, DecapTunnelType type);
// Reads an enumerator name back; throws Vela::ParseException for any other text.
DecapTunnelType decapTunnelTypeFromString(std::string_view text);

}  // namespace Tunnel::Decap
