// Names, display texts and default preferences of the tunnel types.
#include "TunnelTable/TunnelType.h"

#include <array>

#include "Vela/Assert.h"
#include "Vela/Exception.h"

namespace Tunnel::TunnelTable {

namespace {

struct TypeInfo {
   const char* name;       // enumerator name, the text form
   const char* shortText;  // tunnelTypeToCliStrep(type, false)
   const char* longText;   // tunnelTypeToCliStrep(type, true)
};

// Indexed by code; nullptr names for the invalid codes 23-30.
constexpr std::array<TypeInfo, kMaxTunnelTypeCode + 1> kTypes = {{
    {"reservedTunnel0", "Reserved0", "reserved type 0 tunnel"},
    {"bgpLuPushTunnel", "BGP LU Push", "BGP labeled unicast push tunnel"},
    {"bgpLuTunnel", "BGP LU", "BGP labeled unicast tunnel"},
    {"ldpTunnel", "LDP", "LDP tunnel"},
    {"reservedTunnel4", "Reserved4", "reserved type 4 tunnel"},
    {"staticTunnel", "Static", "static tunnel"},
    {"evpnVxlanTunnel", "EVPN VXLAN", "EVPN VXLAN tunnel"},
    {"isisSrTunnel", "IS-IS SR", "IS-IS segment routing tunnel"},
    {"srTeSegmentListTunnel", "SR-TE Segment List", "SR-TE segment list tunnel"},
    {"staticInterfaceTunnel", "Static Interface", "static interface tunnel"},
    {"reservedTunnel10", "Reserved10", "reserved type 10 tunnel"},
    {"nexthopGroupTunnel", "Nexthop Group", "nexthop group tunnel"},
    {"tiLfaTunnel", "TI-LFA", "TI-LFA tunnel"},
    {"ospfSrTunnel", "OSPF SR", "OSPF segment routing tunnel"},
    {"srTePolicyTunnel", "SR-TE Policy", "SR-TE policy tunnel"},
    {"reservedTunnel15", "Reserved15", "reserved type 15 tunnel"},
    {"rsvpLerTunnel", "RSVP LER", "RSVP LER tunnel"},
    {"rsvpFrrTunnel", "RSVP FRR", "RSVP FRR tunnel"},
    {"nimboSdkSbfdTunnel", "SDK SBFD", "SDK SBFD session tunnel"},
    {"reservedTunnel19", "Reserved19", "reserved type 19 tunnel"},
    {"rsvpLerSubTunnel", "RSVP LER Sub", "RSVP LER sub-tunnel"},
    {"isisFlexAlgoTunnel", "IS-IS Flex Algo", "IS-IS flex-algo tunnel"},
    {"mldpTunnel", "mLDP", "mLDP tunnel"},
    {nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr},
    {"reservedTunnel31", "Reserved31", "reserved type 31 tunnel"},
}};

Vela::String invalidText(uint32_t code) {
   return "invalid(" + std::to_string(code) + ")";
}

}  // namespace

TunnelEntryPref getDefaultPrefForType(TunnelType type) {
   switch (type) {
      case TunnelType::staticTunnel:
         return 15;
      case TunnelType::nexthopGroupTunnel:
         return 25;
      case TunnelType::rsvpLerTunnel:
         return 45;
      case TunnelType::ldpTunnel:
         return 55;
      case TunnelType::ospfSrTunnel:
         return 60;
      case TunnelType::isisSrTunnel:
      case TunnelType::isisFlexAlgoTunnel:
         return 65;
      case TunnelType::bgpLuTunnel:
         return 85;
      case TunnelType::reservedTunnel0:
      case TunnelType::bgpLuPushTunnel:
      case TunnelType::reservedTunnel4:
      case TunnelType::evpnVxlanTunnel:
      case TunnelType::srTeSegmentListTunnel:
      case TunnelType::staticInterfaceTunnel:
      case TunnelType::reservedTunnel10:
      case TunnelType::tiLfaTunnel:
      case TunnelType::srTePolicyTunnel:
      case TunnelType::reservedTunnel15:
      case TunnelType::rsvpFrrTunnel:
      case TunnelType::nimboSdkSbfdTunnel:
      case TunnelType::reservedTunnel19:
      case TunnelType::rsvpLerSubTunnel:
      case TunnelType::mldpTunnel:
      case TunnelType::reservedTunnel31:
         return 255;
   }
   VELA_ASSERT_AT(0 && "Unknown tunnel type", "Tunnel/TunnelTableVaultTypes", 66);
   return 255;  // not reached
}

Vela::String tunnelTypeName(TunnelType type) {
   const uint32_t code = tunnelTypeCode(type);
   return isValidTunnelTypeCode(code) ? kTypes[code].name : invalidText(code);
}

Vela::String tunnelTypeToCliStrep(TunnelType type, bool longForm) {
   const uint32_t code = tunnelTypeCode(type);
   if (!isValidTunnelTypeCode(code)) return invalidText(code);
   return longForm ? kTypes[code].longText : kTypes[code].shortText;
}

TunnelType tunnelTypeFromString(std::string_view text) {
   for (uint32_t code = 0; code < kTypes.size(); ++code) {
      const TypeInfo& t = kTypes[code];
      if (t.name != nullptr && (text == t.name || text == t.shortText || text == t.longText)) {
         return TunnelType(code);
      }
   }
   throw Vela::ParseException("unknown tunnel type '" + Vela::String(text) + "'");
}

TunnelType tunnelTypeFromString(Vela::String::const_iterator begin,
                                Vela::String::const_iterator end) {
   return tunnelTypeFromString(Vela::viewOf(begin, end));
}

Vela::String valueToStrep(TunnelType type) {
   return tunnelTypeName(type);
}

std::ostream& operator<<(std::ostream& os, TunnelType type) {
   return os << tunnelTypeName(type);
}

}  // namespace Tunnel::TunnelTable
