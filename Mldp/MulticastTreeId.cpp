#include "Mldp/MulticastTreeId.h"

#include "Vela/Hash.h"
#include "Vela/ValueText.h"

namespace Routing::Multicast {

MulticastTreeId::MulticastTreeId(std::string_view text)
    : text_(text.empty() ? nullptr : new SharedText(text)) {}

uint32_t MulticastTreeId::hash(uint32_t seed) const noexcept {
   const std::string_view t = text();
   return Vela::oneAtATime(t.data(), t.size(), seed);
}

Vela::String valueToStrep(const MulticastTreeId& id) {
   return "Value('Routing::Multicast::MulticastTreeId', ** {'text': " +
          Vela::renderString(id.text()) + "})";
}

std::ostream& operator<<(std::ostream& os, const MulticastTreeId& id) {
   return os << valueToStrep(id);
}

}  // namespace Routing::Multicast
