// The two small values of the redistribution configuration:
//  - TunnelInfo: a tunnel filed under an end point, with the IGP metric redistributed for it
//    (its tunnelId is the member's key within a TunnelRedistEntry);
//  - TunnelIdToEndPoint: the end point a state machine filed a tunnel under, so that it can take
//    the tunnel out again when the entry moves or goes.
// Both have the runtime's text form, equality, stream output and a constructor from text.
#pragma once

#include <cstdint>
#include <ostream>

#include "TunnelTable/TunnelId.h"
#include "Vela/String.h"
#include "Wirekit/IpGenPrefix.h"

namespace Tunnel::TunnelRedist {

using TunnelTable::TunnelId;

class TunnelInfo {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelRedist::TunnelInfo";

   TunnelInfo() noexcept = default;
   TunnelInfo(const TunnelId& tunnelId, uint32_t igpMetric) noexcept
       : tunnelId_(tunnelId), igpMetric_(igpMetric) {}
   // Reads "Value('Tunnel::TunnelRedist::TunnelInfo', ** {'tunnelId': ..., 'igpMetric': ...})".
   TunnelInfo(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   const TunnelId& tunnelId() const noexcept { return tunnelId_; }
   uint32_t igpMetric() const noexcept { return igpMetric_; }

   Vela::String stringValue() const;
   friend bool operator==(const TunnelInfo&, const TunnelInfo&) noexcept = default;

  private:
   TunnelId tunnelId_;
   uint32_t igpMetric_ = 0;
};

class TunnelIdToEndPoint {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelRedist::TunnelIdToEndPoint";

   TunnelIdToEndPoint() noexcept = default;
   TunnelIdToEndPoint(const TunnelId& tunnelId, const Wirekit::IpGenPrefix& tep) noexcept
       : tunnelId_(tunnelId), tep_(tep) {}
   // Reads "Value('Tunnel::TunnelRedist::TunnelIdToEndPoint', ** {'tunnelId': ..., 'tep': ...})".
   TunnelIdToEndPoint(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   const TunnelId& tunnelId() const noexcept { return tunnelId_; }
   const Wirekit::IpGenPrefix& tep() const noexcept { return tep_; }

   Vela::String stringValue() const;
   friend bool operator==(const TunnelIdToEndPoint&, const TunnelIdToEndPoint&) noexcept = default;

  private:
   TunnelId tunnelId_;
   Wirekit::IpGenPrefix tep_;
};

std::ostream& operator<<(std::ostream& os, const TunnelInfo& v);
std::ostream& operator<<(std::ostream& os, const TunnelIdToEndPoint& v);

}  // namespace Tunnel::TunnelRedist
