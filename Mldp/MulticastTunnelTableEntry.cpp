#include "Mldp/MulticastTunnelTableEntry.h"

#include <cstring>

#include "Vela/Exception.h"
#include "Vela/Hash.h"

namespace Tunnel::TunnelTable {

uint32_t MulticastTunnelTableEntry::hash() const noexcept {
   Vela::HashMixer m;
   m.add(tunnelId_.value());
   const std::string_view t = mcastTreeId_.text();
   m.addBytes(t.data(), t.size());
   return m.finish();
}

bool operator<(const MulticastTunnelTableEntry& a, const MulticastTunnelTableEntry& b) noexcept {
   if (a.tunnelId() != b.tunnelId()) return a.tunnelId() < b.tunnelId();
   return a.mcastTreeId() < b.mcastTreeId();
}

uint32_t MulticastTunnelTableEntry::serializeLen() const noexcept {
   return kFixedLen + static_cast<uint32_t>(mcastTreeId_.text().size());
}

void MulticastTunnelTableEntry::serialize(void* buffer) const noexcept {
   auto* out = static_cast<uint8_t*>(buffer);
   const uint64_t id = tunnelId_.value();
   const std::string_view t = mcastTreeId_.text();
   const auto len = static_cast<uint32_t>(t.size());
   std::memcpy(out, &id, 8);
   std::memcpy(out + 8, &len, 4);
   if (len) std::memcpy(out + kFixedLen, t.data(), len);
}

uint32_t MulticastTunnelTableEntry::deserializeLen(const void* buffer, uint32_t length) noexcept {
   if (length < kFixedLen) return 0;
   uint32_t len = 0;
   std::memcpy(&len, static_cast<const uint8_t*>(buffer) + 8, 4);
   const uint64_t total = uint64_t{kFixedLen} + len;
   return total <= length ? static_cast<uint32_t>(total) : 0;
}

void MulticastTunnelTableEntry::deserialize(const void* buffer, uint32_t length) {
   const uint32_t total = deserializeLen(buffer, length);
   if (total == 0) {
      throw Vela::Exception("MulticastTunnelTableEntry: record longer than its " +
                            std::to_string(length) + " bytes");
   }
   const auto* in = static_cast<const uint8_t*>(buffer);
   uint64_t id = 0;
   std::memcpy(&id, in, 8);
   tunnelId_ = TunnelId(id);
   const std::string_view text(reinterpret_cast<const char*>(in + kFixedLen), total - kFixedLen);
   // Keep the shared text when it is unchanged (a re-read of the same entry).
   if (text != mcastTreeId_.text()) mcastTreeId_ = Routing::Multicast::MulticastTreeId(text);
}

Vela::String valueToStrep(const MulticastTunnelTableEntry& e) {
   return "Value('Tunnel::TunnelTable::MulticastTunnelTableEntry', ** {'tunnelId': " +
          valueToStrep(e.tunnelId()) +
          ", 'mcastTreeId': " + Routing::Multicast::valueToStrep(e.mcastTreeId()) + "})";
}

std::ostream& operator<<(std::ostream& os, const MulticastTunnelTableEntry& e) {
   return os << valueToStrep(e);
}

}  // namespace Tunnel::TunnelTable
