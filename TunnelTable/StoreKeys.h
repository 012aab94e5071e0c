// How the store hashes the keys that carry padding: the endpoint prefix (IpGenPrefix, 24 bytes
// with 3 of padding) and the colored endpoint (32 bytes with padding). Both hash their byte form,
// whose padding is always zero, so every process computes the same value for equal keys
// whatever garbage an in-memory copy holds in its padding. The bucket hash is the one-at-a-time
// hash of those bytes from the table's seed; the secondary fingerprint is FNV-1a over them.
#pragma once

#include <cstdint>

#include "TunnelTable/ColoredTunnelEndpoint.h"
#include "Vela/Hash.h"
#include "Wirekit/IpGenPrefix.h"
#include "store/KeyTraits.h"

namespace Tunnel::TunnelTable {

// Hashes of a key through its fixed byte form.
template <class K>
struct ByteFormKeyTraits {
   static uint32_t hash(const K& key, uint32_t seed) noexcept {
      uint8_t bytes[K::kSerializedSize];
      key.serialize(bytes);
      return Vela::oneAtATime(bytes, sizeof(bytes), seed);
   }
   static uint64_t secondary(const K& key) noexcept {
      uint8_t bytes[K::kSerializedSize];
      key.serialize(bytes);
      uint64_t h = 0xcbf29ce484222325ull;
      for (uint8_t b : bytes) {
         h ^= b;
         h *= 0x100000001b3ull;
      }
      return h;
   }
};

}  // namespace Tunnel::TunnelTable

template <>
struct Dock::KeyTraits<Wirekit::IpGenPrefix>
    : Tunnel::TunnelTable::ByteFormKeyTraits<Wirekit::IpGenPrefix> {};
template <>
struct Dock::KeyTraits<Tunnel::TunnelTable::ColoredTunnelEndpoint>
    : Tunnel::TunnelTable::ByteFormKeyTraits<Tunnel::TunnelTable::ColoredTunnelEndpoint> {};
