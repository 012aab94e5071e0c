// DestPortRecord: the byte form of a port's payload type.
#include "Decap/DestPortRecord.h"

#include <fmt/format.h>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/TunnelId.h"
#include "Vela/ValueText.h"

namespace Tunnel::Decap {

void DestPortRecord::serialize(void* buffer) const noexcept {
   auto* p = static_cast<uint8_t*>(buffer);
   TunnelTable::storeLe16(p, port);
   p[2] = static_cast<uint8_t>(payloadType);
}

void DestPortRecord::deserialize(const void* buffer, uint32_t length) {
   if (length != kSerializedLen) {
      throw TunnelTable::ByteFormatError(
          fmt::format("{}: {} bytes, expected {}", kTypeName, length, kSerializedLen));
   }
   const auto* p = static_cast<const uint8_t*>(buffer);
   if (!isValidPayloadTypeCode(p[2])) {
      throw TunnelTable::ByteFormatError(fmt::format("{}: payload type {}", kTypeName, p[2]));
   }
   port = TunnelTable::loadLe16(p);
   payloadType = PayloadType(p[2]);
}

void DestPortRecord::dumpState(Vela::String& out, int indent) const {
   out += fmt::format("{}port {} payloadType {}\n", TunnelTable::dumpIndent(indent), port,
                      valueToStrep(payloadType));
}

Vela::String valueToStrep(const DestPortRecord& record) {
   return Vela::ValueTextBuilder(DestPortRecord::kTypeName)
       .field("port", Vela::renderUnsigned(record.port))
       .field("payloadType", valueToStrep(record.payloadType))
       .str();
}

}  // namespace Tunnel::Decap
