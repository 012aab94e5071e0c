// PayloadType: what a decapsulated packet carries behind the outer header, as the global
// destination-port table of the decap configuration names it per UDP destination port.
//
// One byte wherever it is stored; codes 0..kMaxPayloadTypeCode are valid. The text form is the
// enumerator name, which is also what parses back.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "Vela/String.h"

namespace Tunnel::Decap {

enum class PayloadType : uint8_t {
   unknown = 0,
   ipv4 = 1,
   ipv6 = 2,
   mpls = 3,
   ethernet = 4,
};

inline constexpr uint8_t kMaxPayloadTypeCode = 4;

constexpr bool isValidPayloadTypeCode(uint8_t code) noexcept {
   return code <= kMaxPayloadTypeCode;
}

// The enumerator name ("ipv4"); "invalid(<code>)" for a code beyond the enumerators.
Vela::String valueToStrep(PayloadType type);
std::ostream& operator<<(std::ostream& os, PayloadType type);
// Reads an enumerator name back; throws Vela::ParseException for any other text.
PayloadType payloadTypeFromString(std::string_view text);

}  // namespace Tunnel::Decap
