// TunnelFlags: the one-byte flag set of a tunnel FIB entry. Its only member is burnPrimaryVias
// (bit 0), which asks the forwarding layer to discard the entry's primary vias. The byte is part
// of the entry's head image, so the type is exactly one byte.
//
// Built from a byte, only 0 and 1 are flag sets: 2 or more throws Vela::RangeException
// "Tunnel::TunnelFib::TunnelFlags::value < Tunnel::TunnelFib::TunnelFlags::min or >
// Tunnel::TunnelFib::TunnelFlags::max not allowed".
// Text form: the text form of the burnPrimaryVias bool ("True" or "False"); the text constructor
// reads it back.
#pragma once

#include <cstdint>
#include <ostream>

#include "Vela/String.h"

namespace Tunnel::TunnelFib {

class TunnelFlags {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelFib::TunnelFlags";

   constexpr TunnelFlags() noexcept = default;
   explicit TunnelFlags(uint8_t byte);
   // Throws Vela::ParseException unless the text is "True" or "False".
   TunnelFlags(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   constexpr bool burnPrimaryVias() const noexcept { return (value_ & kBurnPrimaryVias) != 0; }
   constexpr void burnPrimaryViasIs(bool v) noexcept { value_ = v ? kBurnPrimaryVias : 0; }
   constexpr uint8_t value() const noexcept { return value_; }

   friend constexpr bool operator==(TunnelFlags, TunnelFlags) noexcept = default;

  private:
   static constexpr uint8_t kBurnPrimaryVias = 1;

   uint8_t value_ = 0;  // 0 or 1
};
static_assert(sizeof(TunnelFlags) == 1);

Vela::String valueToStrep(TunnelFlags v);
std::ostream& operator<<(std::ostream& os, TunnelFlags v);

}  // namespace Tunnel::TunnelFib
