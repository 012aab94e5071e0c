#include "TunnelTable/EntryRecord.h"

#include <fmt/format.h>

namespace Tunnel::TunnelTable::Codec {

void checkRecordHeader(ByteReader& r, EntryKind expected, const char* className) {
   if (!r.has(kRecordHeaderLen)) {
      throw ByteFormatError(fmt::format("{} record of {} bytes is shorter than its {}-byte header",
                                        className, r.length(), kRecordHeaderLen));
   }
   const uint16_t kind = r.u16();
   if (kind != static_cast<uint16_t>(expected)) {
      throw ByteFormatError(fmt::format("{} record has kind {}, expected {}", className, kind,
                                        static_cast<uint16_t>(expected)));
   }
   const uint32_t recordLength = r.u32();
   if (recordLength != r.length()) {
      throw ByteFormatError(fmt::format("{} record says it is {} bytes long, but {} were given",
                                        className, recordLength, r.length()));
   }
}

void checkRecordEnd(const ByteReader& r, const char* className) {
   if (r.remaining() != 0) {
      throw ByteFormatError(fmt::format("{} record ends at byte {}, {} bytes before its length",
                                        className, r.offset(), r.remaining()));
   }
}

void noTextConstructor(const char* className) {
   VELA_FAIL("No String constructor for {} - has collection", className);
}

}  // namespace Tunnel::TunnelTable::Codec
