// TunnelFlags: the checked byte constructor and the text forms.
#include "TunnelFib/TunnelFlags.h"

#include "Vela/Exception.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelFib {

TunnelFlags::TunnelFlags(uint8_t byte) : value_(byte) {
   if (byte > kBurnPrimaryVias) throw Vela::RangeException::forType(kTypeName);
}

TunnelFlags::TunnelFlags(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   burnPrimaryViasIs(Vela::parseBool(Vela::viewOf(begin, end)));
}

Vela::String valueToStrep(TunnelFlags v) {
   return Vela::renderBool(v.burnPrimaryVias());
}

std::ostream& operator<<(std::ostream& os, TunnelFlags v) {
   return os << valueToStrep(v);
}

}  // namespace Tunnel::TunnelFib
