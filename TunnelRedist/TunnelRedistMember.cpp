#include "TunnelRedist/TunnelRedistMember.h"

#include <fmt/format.h>

#include "TunnelTable/ByteCursor.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelRedist {

void TunnelRedistMemberKey::serialize(uint8_t* out) const noexcept {
   tep.serialize(out);
   tunnelId.serialize(out + 24);
}

TunnelRedistMemberKey TunnelRedistMemberKey::deserialize(const uint8_t* in) {
   return {Wirekit::IpGenPrefix::deserialize(in), TunnelId::deserialize(in + 24)};
}

void TunnelRedistMember::serialize(void* buffer) const noexcept {
   auto* p = static_cast<uint8_t*>(buffer);
   key().serialize(p);
   TunnelTable::storeLe32(p + 32, info.igpMetric());
}

void TunnelRedistMember::deserialize(const void* buffer, uint32_t length) {
   if (length != kSerializedLen) {
      throw Vela::Exception(
          fmt::format("{}: {} bytes, expected {}", kTypeName, length, kSerializedLen));
   }
   const auto* p = static_cast<const uint8_t*>(buffer);
   const TunnelRedistMemberKey k = TunnelRedistMemberKey::deserialize(p);
   tep = k.tep;
   info = TunnelInfo(k.tunnelId, TunnelTable::loadLe32(p + 32));
}

void TunnelRedistMember::dumpState(Vela::String& out, int indent) const {
   out += fmt::format("{}{} tunnelId {} igpMetric {}\n", TunnelTable::dumpIndent(indent),
                      tep.stringValue(), info.tunnelId().value(), info.igpMetric());
}

Vela::String valueToStrep(const TunnelRedistMember& m) {
   return Vela::ValueTextBuilder(TunnelRedistMember::kTypeName)
       .field("tep", Vela::renderString(m.tep.stringValue()))
       .field("tunnelInfo", m.info.stringValue())
       .str();
}

}  // namespace Tunnel::TunnelRedist
