// DecapGroupName: the fixed byte form of a group name.
#include "Decap/DecapGroupName.h"

#include <algorithm>
#include <cstring>

#include "Decap/DecapGroupVaultTypes.h"
#include "TunnelTable/ByteCursor.h"
#include "Vela/Exception.h"

namespace Tunnel::Decap {

DecapGroupName::DecapGroupName(std::string_view name) {
   if (name.size() > DecapGroup::maxNameLength) {
      throw Vela::RangeException::forType(DecapGroup::kTypeName, "nameLength", "minNameLength",
                                          "maxNameLength");
   }
   bytes_[0] = static_cast<uint8_t>(name.size());
   std::memcpy(bytes_.data() + 1, name.data(), name.size());
}

Vela::String DecapGroupName::name() const {
   return Vela::String(reinterpret_cast<const char*>(bytes_.data() + 1), bytes_[0]);
}

void DecapGroupName::serialize(uint8_t* out) const noexcept {
   std::memcpy(out, bytes_.data(), kSerializedSize);
}

DecapGroupName DecapGroupName::deserialize(const uint8_t* in) {
   const uint8_t length = in[0];
   if (length == 0) throw TunnelTable::ByteFormatError("decap group name of length 0");
   if (std::any_of(in + 1 + length, in + kSerializedSize, [](uint8_t b) { return b != 0; })) {
      throw TunnelTable::ByteFormatError("decap group name padding is not zero");
   }
   DecapGroupName key;
   std::memcpy(key.bytes_.data(), in, kSerializedSize);
   return key;
}

}  // namespace Tunnel::Decap
