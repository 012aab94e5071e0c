#include "TunnelRedist/TunnelInfo.h"

#include "Vela/ValueText.h"

namespace Tunnel::TunnelRedist {

namespace {

TunnelId readTunnelId(std::string_view text) {
   const Vela::String s(text);
   return TunnelId(s.begin(), s.end());
}

}  // namespace

TunnelInfo::TunnelInfo(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   tunnelId_ = p.readField("tunnelId", readTunnelId);
   igpMetric_ = p.readUnsigned<uint32_t>("igpMetric");
}

Vela::String TunnelInfo::stringValue() const {
   return Vela::ValueTextBuilder(kTypeName)
       .field("tunnelId", TunnelTable::valueToStrep(tunnelId_))
       .field("igpMetric", Vela::renderUnsigned(igpMetric_))
       .str();
}

TunnelIdToEndPoint::TunnelIdToEndPoint(Vela::String::const_iterator begin,
                                       Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   tunnelId_ = p.readField("tunnelId", readTunnelId);
   tep_ = p.readField(
       "tep", [](std::string_view t) { return Wirekit::IpGenPrefix(Vela::parseString(t)); });
}

Vela::String TunnelIdToEndPoint::stringValue() const {
   return Vela::ValueTextBuilder(kTypeName)
       .field("tunnelId", TunnelTable::valueToStrep(tunnelId_))
       .field("tep", Vela::renderString(tep_.stringValue()))
       .str();
}

std::ostream& operator<<(std::ostream& os, const TunnelInfo& v) {
   return os << v.stringValue();
}
std::ostream& operator<<(std::ostream& os, const TunnelIdToEndPoint& v) {
   return os << v.stringValue();
}

}  // namespace Tunnel::TunnelRedist
