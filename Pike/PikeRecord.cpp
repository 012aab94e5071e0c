#include "Pike/PikeRecord.h"

namespace Pike {

void PikeRecord::serialize(void* buffer) const noexcept {
   auto* b = static_cast<uint8_t*>(buffer);
   std::memcpy(b, &key, sizeof(PikeKey));
   std::memcpy(b + 48, &child, 8);
   const uint16_t typeLen = uint16_t(typeName.size());
   const uint16_t nameLen = uint16_t(name.size());
   std::memcpy(b + 56, &typeLen, 2);
   std::memcpy(b + 58, &nameLen, 2);
   std::memcpy(b + kFixedLen, typeName.data(), typeLen);
   std::memcpy(b + kFixedLen + typeLen, name.data(), nameLen);
}

uint32_t PikeRecord::deserializeLen(const void* buffer, uint32_t available) noexcept {
   if (available < kFixedLen) return 0;
   const auto* b = static_cast<const uint8_t*>(buffer);
   uint16_t typeLen, nameLen;
   std::memcpy(&typeLen, b + 56, 2);
   std::memcpy(&nameLen, b + 58, 2);
   const uint32_t len = kFixedLen + typeLen + nameLen;
   return len <= available ? len : 0;
}

void PikeRecord::deserialize(const void* buffer, uint32_t length) {
   const auto* b = static_cast<const uint8_t*>(buffer);
   if (length < kFixedLen || deserializeLen(buffer, length) != length) {
      throw Vela::Exception("Pike record of " + std::to_string(length) + " bytes does not add up");
   }
   std::memcpy(&key, b, sizeof(PikeKey));
   if (key.keyLen > PikeKey::kMaxKeyBytes) {
      throw Vela::Exception("Pike record key of " + std::to_string(key.keyLen) + " bytes");
   }
   std::memcpy(&child, b + 48, 8);
   uint16_t typeLen, nameLen;
   std::memcpy(&typeLen, b + 56, 2);
   std::memcpy(&nameLen, b + 58, 2);
   if (typeLen > kMaxNameLen || nameLen > kMaxNameLen) {
      throw Vela::Exception("Pike record name longer than " + std::to_string(kMaxNameLen));
   }
   typeName.assign(reinterpret_cast<const char*>(b + kFixedLen), typeLen);
   name.assign(reinterpret_cast<const char*>(b + kFixedLen + typeLen), nameLen);
}

}  // namespace Pike
