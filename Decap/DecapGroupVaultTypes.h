// DecapGroup: one decap group the operator configured: which outer encapsulation it terminates,
// for which outer destinations, and in which VRF the inner packets are forwarded.
//
// A group is immutable and reference counted: it is built once with every field and handed out as
// Vela::Ptr<const DecapGroup> (decapGroupFactory). A configuration never changes a group, it
// replaces the pointer, so a new object always means a new configuration.
//
// Text form, every field in order:
//    Value('Tunnel::Decap::DecapGroup', ** {'name': 'g1', 'tunnelType': gre, 'decapIps':
//    ['10.0.0.1/32'], 'forwardingVrf': 'default'})
// It holds a collection, so it is never built from text.
#pragma once

#include <cstddef>
#include <ostream>
#include <vector>

#include "Decap/DecapTunnelType.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"
#include "Wirekit/IpGenPrefix.h"

namespace Tunnel::Decap {

class DecapGroup : public Vela::RefCounted {
  public:
   static constexpr const char* kTypeName = "Tunnel::Decap::DecapGroup";
   static constexpr size_t minNameLength = 1;
   static constexpr size_t maxNameLength = 255;
   static constexpr size_t minDecapIpCount = 0;
   static constexpr size_t maxDecapIpCount = 64;
   static constexpr size_t minForwardingVrfLength = 0;
   static constexpr size_t maxForwardingVrfLength = 100;
   static constexpr const char* kDefaultForwardingVrf = "default";

   // Throws Vela::RangeException naming the type and the bounds for a name outside 1..255 bytes,
   // more than 64 decap addresses or a VRF name above 100 bytes, and Vela::Exception for a decap
   // address of no family.
   DecapGroup(Vela::String name, DecapTunnelType tunnelType,
              std::vector<Wirekit::IpGenPrefix> decapIps,
              Vela::String forwardingVrf = kDefaultForwardingVrf);
   // Not available: asserts "No String constructor for DecapGroup - has collection".
   DecapGroup(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   // The group's name, its key in the configuration.
   const Vela::String& name() const noexcept { return name_; }
   // The outer encapsulation the group terminates.
   DecapTunnelType tunnelType() const noexcept { return tunnelType_; }
   // The outer destination addresses and prefixes packets are decapsulated for, in the order
   // configured.
   const std::vector<Wirekit::IpGenPrefix>& decapIps() const noexcept { return decapIps_; }
   // The VRF the inner packets are forwarded in.
   const Vela::String& forwardingVrf() const noexcept { return forwardingVrf_; }

   // By content, every field.
   friend bool operator==(const DecapGroup& a, const DecapGroup& b) noexcept {
      return a.name_ == b.name_ && a.tunnelType_ == b.tunnelType_ && a.decapIps_ == b.decapIps_ &&
             a.forwardingVrf_ == b.forwardingVrf_;
   }

  protected:
   // Only the last reference deletes a group.
   ~DecapGroup() override = default;

  private:
   Vela::String name_;
   DecapTunnelType tunnelType_;
   std::vector<Wirekit::IpGenPrefix> decapIps_;
   Vela::String forwardingVrf_;
};

// A new group; throws as the constructor.
Vela::Ptr<const DecapGroup> decapGroupFactory(
    Vela::String name, DecapTunnelType tunnelType, std::vector<Wirekit::IpGenPrefix> decapIps,
    Vela::String forwardingVrf = DecapGroup::kDefaultForwardingVrf);

Vela::String valueToStrep(const DecapGroup& group);
std::ostream& operator<<(std::ostream& os, const DecapGroup& group);

}  // namespace Tunnel::Decap
