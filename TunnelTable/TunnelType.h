// TunnelType: the kind of a tunnel, the 5-bit type field of every TunnelId.
//
// Codes 0-22 and 31 are valid; 23-30 are not. The codes without a protocol of their own (0, 4,
// 10, 15, 19, 31) keep placeholder names so that every valid code prints and parses. The default
// entry preference per type is a contract shared by all processes (lower is preferred); keep the
// figures exactly as they are.
//
// Display texts (tunnelTypeToCliStrep): the bool selects the long form. Both forms are unique per
// code and parse back, as does the enumerator name, which is also the value's text form
// (valueToStrep). Invalid codes 23-30 print as "invalid(<code>)" and never parse.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "TunnelTable/TunnelValueTypes.h"
#include "Vela/String.h"

namespace Tunnel::TunnelTable {

enum class TunnelType : uint32_t {
   reservedTunnel0 = 0,
   bgpLuPushTunnel = 1,
   bgpLuTunnel = 2,
   ldpTunnel = 3,
   reservedTunnel4 = 4,
   staticTunnel = 5,
   evpnVxlanTunnel = 6,
   isisSrTunnel = 7,
   srTeSegmentListTunnel = 8,
   staticInterfaceTunnel = 9,
   reservedTunnel10 = 10,
   nexthopGroupTunnel = 11,
   tiLfaTunnel = 12,
   ospfSrTunnel = 13,
   srTePolicyTunnel = 14,
   reservedTunnel15 = 15,
   rsvpLerTunnel = 16,
   rsvpFrrTunnel = 17,
   nimboSdkSbfdTunnel = 18,
   reservedTunnel19 = 19,
   rsvpLerSubTunnel = 20,
   isisFlexAlgoTunnel = 21,
   mldpTunnel = 22,
   reservedTunnel31 = 31,
};

// Constants under the names that assertion texts use ("tunnelId.tunnelType() ==
// staticInterfaceTunnel_").
inline constexpr TunnelType bgpLuPushTunnel_ = TunnelType::bgpLuPushTunnel;
inline constexpr TunnelType bgpLuTunnel_ = TunnelType::bgpLuTunnel;
inline constexpr TunnelType ldpTunnel_ = TunnelType::ldpTunnel;
inline constexpr TunnelType staticTunnel_ = TunnelType::staticTunnel;
inline constexpr TunnelType evpnVxlanTunnel_ = TunnelType::evpnVxlanTunnel;
inline constexpr TunnelType isisSrTunnel_ = TunnelType::isisSrTunnel;
inline constexpr TunnelType srTeSegmentListTunnel_ = TunnelType::srTeSegmentListTunnel;
inline constexpr TunnelType staticInterfaceTunnel_ = TunnelType::staticInterfaceTunnel;
inline constexpr TunnelType nexthopGroupTunnel_ = TunnelType::nexthopGroupTunnel;
inline constexpr TunnelType tiLfaTunnel_ = TunnelType::tiLfaTunnel;
inline constexpr TunnelType ospfSrTunnel_ = TunnelType::ospfSrTunnel;
inline constexpr TunnelType srTePolicyTunnel_ = TunnelType::srTePolicyTunnel;
inline constexpr TunnelType rsvpLerTunnel_ = TunnelType::rsvpLerTunnel;
inline constexpr TunnelType rsvpFrrTunnel_ = TunnelType::rsvpFrrTunnel;
inline constexpr TunnelType nimboSdkSbfdTunnel_ = TunnelType::nimboSdkSbfdTunnel;
inline constexpr TunnelType rsvpLerSubTunnel_ = TunnelType::rsvpLerSubTunnel;
inline constexpr TunnelType isisFlexAlgoTunnel_ = TunnelType::isisFlexAlgoTunnel;
inline constexpr TunnelType mldpTunnel_ = TunnelType::mldpTunnel;

inline constexpr uint32_t kMaxTunnelTypeCode = 31;

constexpr bool isValidTunnelTypeCode(uint32_t code) noexcept {
   return code <= 22 || code == 31;
}

constexpr uint32_t tunnelTypeCode(TunnelType type) noexcept {
   return static_cast<uint32_t>(type);
}

// The default entry preference of a tunnel type. REQUIRES: a valid code; codes 23-30 fail the
// assertion 0 && "Unknown tunnel type" (Tunnel/TunnelTableVaultTypes:66) and end the process.
TunnelEntryPref getDefaultPrefForType(TunnelType type);

// The enumerator name ("ldpTunnel"); "invalid(<code>)" for codes 23-30.
Vela::String tunnelTypeName(TunnelType type);

// Display text: short ("LDP") or long ("LDP tunnel") form.
Vela::String tunnelTypeToCliStrep(TunnelType type, bool longForm);

// Reads a tunnel type back from its enumerator name or either display form. Throws
// Vela::ParseException for any other text.
TunnelType tunnelTypeFromString(std::string_view text);
TunnelType tunnelTypeFromString(Vela::String::const_iterator begin,
                                Vela::String::const_iterator end);

// Text form: the enumerator name.
Vela::String valueToStrep(TunnelType type);
std::ostream& operator<<(std::ostream& os, TunnelType type);

}  // namespace Tunnel::TunnelTable
