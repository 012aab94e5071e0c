// ReadyRecord: the byte form of the ready flag.
#include "Decap/ReadyRecord.h"

#include <fmt/format.h>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/TunnelId.h"
#include "Vela/ValueText.h"

namespace Tunnel::Decap {

void ReadyRecord::deserialize(const void* buffer, uint32_t length) {
   if (length != kSerializedLen) {
      throw TunnelTable::ByteFormatError(
          fmt::format("{}: {} bytes, expected {}", kTypeName, length, kSerializedLen));
   }
   TunnelTable::ByteReader r(buffer, length);
   ready = r.boolean();
}

void ReadyRecord::dumpState(Vela::String& out, int indent) const {
   out += fmt::format("{}ready {}\n", TunnelTable::dumpIndent(indent), Vela::renderBool(ready));
}

Vela::String valueToStrep(const ReadyRecord& record) {
   return Vela::ValueTextBuilder(ReadyRecord::kTypeName)
       .field("ready", Vela::renderBool(record.ready))
       .str();
}

}  // namespace Tunnel::Decap
