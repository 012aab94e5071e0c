// TunnelTableIdentifier: the number by which a process names a per-protocol tunnel table when it
// mounts it. The codes are fixed and deliberately do not follow the TunnelType codes (BGP-LU is
// type 2 but identifier 1); never derive one numbering from the other. 0 names no table.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace Tunnel::TunnelTable {

enum class TunnelTableIdentifier : uint8_t {
   invalidTunnelTableId = 0,
   bgpLuTunnelTable = 1,
   bgpLuPushTunnelTable = 2,
   ldpTunnelTable = 3,
   rsvpFrrTunnelTable = 4,
   rsvpLerSubTunnelTable = 5,
   rsvpLerTunnelTable = 6,
   isisSrTunnelTable = 7,
   ospfSrTunnelTable = 8,
   staticTunnelTable = 9,
   nexthopGroupTunnelTable = 10,
   srTeSegmentListTunnelTable = 11,
   greIntfTunnelTable = 12,
   ipsecVtiIntfTunnelTable = 13,
   ipsecGreIntfTunnelTable = 14,
   evpnVxlanTunnelTable = 15,
   tiLfaTunnelTable = 16,
   srTePolicyTunnelTable = 17,
   nimboSdkSbfdSessionTunnelTable = 18,
   isisFlexAlgoTunnelTable = 19,
   mldpTunnelTable = 20,
};

inline constexpr uint8_t kMinTunnelTableIdentifier = 1;
inline constexpr uint8_t kMaxTunnelTableIdentifier = 20;

constexpr bool isValidTunnelTableIdentifier(TunnelTableIdentifier id) noexcept {
   const auto code = static_cast<uint8_t>(id);
   return code >= kMinTunnelTableIdentifier && code <= kMaxTunnelTableIdentifier;
}

// The enumerator name ("ldpTunnelTable"); "invalid(<code>)" outside 1-20.
inline std::string valueToStrep(TunnelTableIdentifier id) {
   static constexpr const char* kNames[] = {
       "invalidTunnelTableId",
       "bgpLuTunnelTable",
       "bgpLuPushTunnelTable",
       "ldpTunnelTable",
       "rsvpFrrTunnelTable",
       "rsvpLerSubTunnelTable",
       "rsvpLerTunnelTable",
       "isisSrTunnelTable",
       "ospfSrTunnelTable",
       "staticTunnelTable",
       "nexthopGroupTunnelTable",
       "srTeSegmentListTunnelTable",
       "greIntfTunnelTable",
       "ipsecVtiIntfTunnelTable",
       "ipsecGreIntfTunnelTable",
       "evpnVxlanTunnelTable",
       "tiLfaTunnelTable",
       "srTePolicyTunnelTable",
       "nimboSdkSbfdSessionTunnelTable",
       "isisFlexAlgoTunnelTable",
       "mldpTunnelTable",
   };
   const auto code = static_cast<uint8_t>(id);
   if (code == 0 || !isValidTunnelTableIdentifier(id)) {
      return code == 0 ? kNames[0] : "invalid(" + std::to_string(code) + ")";
   }
   return kNames[code];
}

inline std::ostream& operator<<(std::ostream& os, TunnelTableIdentifier id) {
   return os << valueToStrep(id);
}

}  // namespace Tunnel::TunnelTable
