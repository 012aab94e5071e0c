#include "TunnelTable/EvpnVxlanTunnelEntry.h"

#include <fmt/format.h>

namespace Tunnel::TunnelTable {

static_assert(Codec::fixedFieldsLen<EvpnVxlanTunnelEntry>() ==
              EvpnVxlanTunnelEntry::kSerializedLen);

EvpnVxlanTunnelEntry::EvpnVxlanTunnelEntry(Vela::String::const_iterator begin,
                                           Vela::String::const_iterator end) {
   Vela::ValueTextParser p(begin, end, kTypeName);
   Codec::parseFields(*this, p);
}

bool operator==(const EvpnVxlanTunnelEntry& a, const EvpnVxlanTunnelEntry& b) {
   return Codec::fieldsEqual(a, b);
}

Vela::String valueToStrep(const EvpnVxlanTunnelEntry& v) {
   return Codec::valueText(v, EvpnVxlanTunnelEntry::kTypeName);
}

std::ostream& operator<<(std::ostream& os, const EvpnVxlanTunnelEntry& v) {
   return os << valueToStrep(v);
}

void EvpnVxlanTunnelEntry::serialize(void* buffer) const {
   ByteWriter w(buffer, kSerializedLen);
   Codec::writeFields(*this, w);
}

uint32_t EvpnVxlanTunnelEntry::deserializeLen(const void*, uint32_t available) noexcept {
   return available >= kSerializedLen ? kSerializedLen : 0;
}

void EvpnVxlanTunnelEntry::deserialize(const void* buffer, uint32_t length) {
   if (length != kSerializedLen) {
      throw ByteFormatError(
          fmt::format("EvpnVxlanTunnelEntry record is {} bytes, {} given", kSerializedLen, length));
   }
   ByteReader r(buffer, length);
   Codec::readFields(*this, r);
}

void EvpnVxlanTunnelEntry::dumpState(Vela::String& out, int indent) const {
   out += tunnelId_.dumpLine(indent);
   Codec::dumpLine(out, indent, "tunnelInfo", valueToStrep(tunnelInfo_));
}

void EvpnVxlanTunnelEntry::dumpState(std::ostream& os, int indent) const {
   Vela::String out;
   dumpState(out, indent);
   os << out;
}

}  // namespace Tunnel::TunnelTable
