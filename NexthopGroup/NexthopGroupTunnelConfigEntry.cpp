// NexthopGroupTunnelConfigEntry: bounds, text and byte forms.
#include "NexthopGroup/NexthopGroupTunnelConfigEntry.h"

#include <fmt/format.h>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/TunnelId.h"
#include "Vela/Exception.h"
#include "Vela/ValueText.h"

namespace Tunnel::NexthopGroup {

NexthopGroupTunnelConfigEntry::NexthopGroupTunnelConfigEntry(const Wirekit::IpGenPrefix& endpoint,
                                                             Vela::String nexthopGroupName,
                                                             uint8_t igpPref, uint32_t igpMetric)
    : endpoint_(endpoint), igpPref_(igpPref), igpMetric_(igpMetric) {
   nexthopGroupNameIs(std::move(nexthopGroupName));
}

NexthopGroupTunnelConfigEntry::NexthopGroupTunnelConfigEntry(Vela::String::const_iterator begin,
                                                             Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   endpoint_ = p.readField(
       "endpoint", [](std::string_view t) { return Wirekit::IpGenPrefix(Vela::parseString(t)); });
   p.readField("nexthopGroupName",
               [this](std::string_view t) { nexthopGroupNameIs(Vela::parseString(t)); });
   igpPref_ = p.readUnsigned<uint8_t>("igpPref");
   igpMetric_ = p.readUnsigned<uint32_t>("igpMetric");
}

void NexthopGroupTunnelConfigEntry::nexthopGroupNameIs(Vela::String name) {
   if (name.size() > maxNexthopGroupNameLength) {
      throw Vela::RangeException::forType(kTypeName, "nexthopGroupNameLength",
                                          "minNexthopGroupNameLength", "maxNexthopGroupNameLength");
   }
   nexthopGroupName_ = std::move(name);
}

uint32_t NexthopGroupTunnelConfigEntry::serializeLen() const noexcept {
   return kFixedLen + static_cast<uint32_t>(nexthopGroupName_.size());
}

void NexthopGroupTunnelConfigEntry::serialize(void* buffer) const {
   TunnelTable::ByteWriter w(buffer, serializeLen());
   w.block(endpoint_);
   w.u32(igpMetric_);
   w.u8(igpPref_);
   w.u8(static_cast<uint8_t>(nexthopGroupName_.size()));
   w.bytes(nexthopGroupName_.data(), nexthopGroupName_.size());
}

uint32_t NexthopGroupTunnelConfigEntry::deserializeLen(const void* buffer,
                                                       uint32_t available) noexcept {
   if (available < kFixedLen) return 0;
   const uint32_t len = kFixedLen + static_cast<const uint8_t*>(buffer)[kFixedLen - 1];
   return len <= available ? len : 0;
}

void NexthopGroupTunnelConfigEntry::deserialize(const void* buffer, uint32_t length) {
   if (deserializeLen(buffer, length) != length) {
      throw TunnelTable::ByteFormatError(
          fmt::format("{}: {} bytes, not the length its name length gives", kTypeName, length));
   }
   TunnelTable::ByteReader r(buffer, length);
   const auto endpoint = r.block<Wirekit::IpGenPrefix>();
   const uint32_t metric = r.u32();
   const uint8_t pref = r.u8();
   const uint8_t nameLength = r.u8();
   const auto* name = reinterpret_cast<const char*>(r.take(nameLength));
   *this = NexthopGroupTunnelConfigEntry(endpoint, Vela::String(name, nameLength), pref, metric);
}

void NexthopGroupTunnelConfigEntry::dumpState(Vela::String& out, int indent) const {
   out += fmt::format("{}{} nexthopGroup {} igpPref {} igpMetric {}\n",
                      TunnelTable::dumpIndent(indent), endpoint_.stringValue(), nexthopGroupName_,
                      igpPref_, igpMetric_);
}

Vela::String valueToStrep(const NexthopGroupTunnelConfigEntry& entry) {
   return Vela::ValueTextBuilder(NexthopGroupTunnelConfigEntry::kTypeName)
       .field("endpoint", Vela::renderString(entry.endpoint().stringValue()))
       .field("nexthopGroupName", Vela::renderString(entry.nexthopGroupName()))
       .field("igpPref", Vela::renderUnsigned(entry.igpPref()))
       .field("igpMetric", Vela::renderUnsigned(entry.igpMetric()))
       .str();
}

std::ostream& operator<<(std::ostream& os, const NexthopGroupTunnelConfigEntry& entry) {
   return os << valueToStrep(entry);
}

}  // namespace Tunnel::NexthopGroup
