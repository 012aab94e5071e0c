// DecapGroupRecord: the byte form of a decap group.
#include "Decap/DecapGroupRecord.h"

#include <fmt/format.h>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/TunnelId.h"
#include "Vela/Assert.h"

namespace Tunnel::Decap {

uint32_t DecapGroupRecord::serializeLen() const {
   VELA_ASSERT(group && "a default decap group record has no byte form");
   return kHeaderLen +
          static_cast<uint32_t>(group->name().size() + group->forwardingVrf().size() +
                                group->decapIps().size() * Wirekit::IpGenPrefix::kSerializedSize);
}

void DecapGroupRecord::serialize(void* buffer) const {
   TunnelTable::ByteWriter w(buffer, serializeLen());
   w.u8(static_cast<uint8_t>(group->tunnelType()));
   w.u8(static_cast<uint8_t>(group->name().size()));
   w.u8(static_cast<uint8_t>(group->forwardingVrf().size()));
   w.u8(static_cast<uint8_t>(group->decapIps().size()));
   w.bytes(group->name().data(), group->name().size());
   w.bytes(group->forwardingVrf().data(), group->forwardingVrf().size());
   for (const Wirekit::IpGenPrefix& ip : group->decapIps()) w.block(ip);
}

uint32_t DecapGroupRecord::deserializeLen(const void* buffer, uint32_t available) noexcept {
   if (available < kHeaderLen) return 0;
   const auto* p = static_cast<const uint8_t*>(buffer);
   const uint32_t len = kHeaderLen + p[1] + p[2] + p[3] * Wirekit::IpGenPrefix::kSerializedSize;
   return len <= available ? len : 0;
}

void DecapGroupRecord::deserialize(const void* buffer, uint32_t length) {
   if (deserializeLen(buffer, length) != length) {
      throw TunnelTable::ByteFormatError(
          fmt::format("{}: {} bytes, not the length its header gives", kTypeName, length));
   }
   TunnelTable::ByteReader r(buffer, length);
   const uint8_t type = r.u8();
   if (!isValidDecapTunnelTypeCode(type)) {
      throw TunnelTable::ByteFormatError(fmt::format("{}: tunnel type {}", kTypeName, type));
   }
   const uint8_t nameLength = r.u8();
   const uint8_t vrfLength = r.u8();
   const uint8_t ipCount = r.u8();
   const auto* name = reinterpret_cast<const char*>(r.take(nameLength));
   const auto* vrf = reinterpret_cast<const char*>(r.take(vrfLength));
   std::vector<Wirekit::IpGenPrefix> ips;
   for (uint8_t i = 0; i < ipCount; ++i) ips.push_back(r.block<Wirekit::IpGenPrefix>());
   group = decapGroupFactory(Vela::String(name, nameLength), DecapTunnelType(type), std::move(ips),
                             Vela::String(vrf, vrfLength));
}

void DecapGroupRecord::dumpState(Vela::String& out, int indent) const {
   if (!group) return;
   Vela::String ips;
   for (const Wirekit::IpGenPrefix& ip : group->decapIps()) {
      if (!ips.empty()) ips += ',';
      ips += ip.stringValue();
   }
   out += fmt::format("{}decapGroup {} tunnelType {} decapIps {} forwardingVrf {}\n",
                      TunnelTable::dumpIndent(indent), group->name(),
                      valueToStrep(group->tunnelType()), ips, group->forwardingVrf());
}

Vela::String valueToStrep(const DecapGroupRecord& record) {
   return record.group ? valueToStrep(*record.group) : "None";
}

}  // namespace Tunnel::Decap
