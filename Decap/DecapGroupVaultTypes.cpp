// DecapGroup: bounds, text form.
#include "Decap/DecapGroupVaultTypes.h"

#include "Vela/Assert.h"
#include "Vela/Exception.h"
#include "Vela/ValueText.h"

namespace Tunnel::Decap {

DecapGroup::DecapGroup(Vela::String name, DecapTunnelType tunnelType,
                       std::vector<Wirekit::IpGenPrefix> decapIps, Vela::String forwardingVrf)
    : name_(std::move(name)),
      tunnelType_(tunnelType),
      decapIps_(std::move(decapIps)),
      forwardingVrf_(std::move(forwardingVrf)) {
   if (name_.size() < minNameLength || name_.size() > maxNameLength) {
      throw Vela::RangeException::forType(kTypeName, "nameLength", "minNameLength",
                                          "maxNameLength");
   }
   if (decapIps_.size() > maxDecapIpCount) {
      throw Vela::RangeException::forType(kTypeName, "decapIpCount", "minDecapIpCount",
                                          "maxDecapIpCount");
   }
   if (forwardingVrf_.size() > maxForwardingVrfLength) {
      throw Vela::RangeException::forType(kTypeName, "forwardingVrfLength",
                                          "minForwardingVrfLength", "maxForwardingVrfLength");
   }
   for (const Wirekit::IpGenPrefix& ip : decapIps_) {
      if (ip.isNone()) {
         throw Vela::Exception(Vela::String(kTypeName) + " " + name_ +
                               ": a decap address must be IPv4 or IPv6");
      }
   }
}

DecapGroup::DecapGroup(Vela::String::const_iterator, Vela::String::const_iterator)
    : tunnelType_(DecapTunnelType::unknown) {
   VELA_FAIL("No String constructor for DecapGroup - has collection");
}

Vela::Ptr<const DecapGroup> decapGroupFactory(Vela::String name, DecapTunnelType tunnelType,
                                              std::vector<Wirekit::IpGenPrefix> decapIps,
                                              Vela::String forwardingVrf) {
   return Vela::makePtr<const DecapGroup>(std::move(name), tunnelType, std::move(decapIps),
                                          std::move(forwardingVrf));
}

Vela::String valueToStrep(const DecapGroup& group) {
   std::vector<Vela::String> ips;
   for (const Wirekit::IpGenPrefix& ip : group.decapIps()) {
      ips.push_back(Vela::renderString(ip.stringValue()));
   }
   return Vela::ValueTextBuilder(DecapGroup::kTypeName)
       .field("name", Vela::renderString(group.name()))
       .field("tunnelType", valueToStrep(group.tunnelType()))
       .field("decapIps", Vela::renderArray(ips))
       .field("forwardingVrf", Vela::renderString(group.forwardingVrf()))
       .str();
}

std::ostream& operator<<(std::ostream& os, const DecapGroup& group) {
   return os << valueToStrep(group);
}

}  // namespace Tunnel::Decap
