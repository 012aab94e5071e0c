// InternalTunnelCandidateId: the key of a candidate class of a tunnel RIB endpoint - the tunnel
// type that produced the candidates, and the entryPref and entryMetric their entries share. The
// RIB builder groups an endpoint's tunnels by it and the command-line tree mirrors those groups.
//
// Order (operator<), the order candidates are presented and the best one picked in:
//   1. lower entryPref first;
//   2. then the lower default preference of the tunnel type (getDefaultPrefForType);
//   3. then the lower entryMetric;
//   4. then, metrics equal, the numerically lower tunnel type.
// So a tie in entryPref is broken by what the type's protocol prefers by default, and the raw type
// number decides last. Equality is all three fields.
//
// Text form: "Value('Tunnel::TunnelTable::InternalTunnelCandidateId', ** {'tunnelType': ldpTunnel,
// 'entryPref': 1, 'entryMetric': 10})"; the text constructor reads it back and reports a field it
// cannot read as the runtime's parse error naming that attribute.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>

#include "TunnelTable/TunnelType.h"
#include "Vela/String.h"

namespace Tunnel::TunnelTable {

class InternalTunnelCandidateId {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::InternalTunnelCandidateId";

   constexpr InternalTunnelCandidateId() noexcept = default;
   constexpr InternalTunnelCandidateId(TunnelType tunnelType, uint8_t entryPref,
                                       uint32_t entryMetric) noexcept
       : tunnelType_(tunnelType), entryPref_(entryPref), entryMetric_(entryMetric) {}
   // Throws Vela::ParseException naming the attribute that does not read.
   InternalTunnelCandidateId(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   constexpr TunnelType tunnelType() const noexcept { return tunnelType_; }
   constexpr uint8_t entryPref() const noexcept { return entryPref_; }
   constexpr uint32_t entryMetric() const noexcept { return entryMetric_; }
   void tunnelTypeIs(TunnelType v) noexcept { tunnelType_ = v; }
   void entryPrefIs(uint8_t v) noexcept { entryPref_ = v; }
   void entryMetricIs(uint32_t v) noexcept { entryMetric_ = v; }

   // The incremental mixer from `seed`, fed tunnelType, entryPref (one byte), entryMetric.
   uint32_t hash(uint32_t seed) const noexcept;

   friend constexpr bool operator==(const InternalTunnelCandidateId&,
                                    const InternalTunnelCandidateId&) noexcept = default;
   friend bool operator<(const InternalTunnelCandidateId& a, const InternalTunnelCandidateId& b);

  private:
   TunnelType tunnelType_ = TunnelType::reservedTunnel0;
   uint8_t entryPref_ = 0;
   uint32_t entryMetric_ = 0;
};

Vela::String valueToStrep(const InternalTunnelCandidateId& v);
std::ostream& operator<<(std::ostream& os, const InternalTunnelCandidateId& v);

}  // namespace Tunnel::TunnelTable

template <>
struct std::hash<Tunnel::TunnelTable::InternalTunnelCandidateId> {
   size_t operator()(const Tunnel::TunnelTable::InternalTunnelCandidateId& v) const noexcept {
      return v.hash(0);
   }
};
