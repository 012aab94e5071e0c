// DecapGroupName: a decap group's name as the key of the published group records, in a fixed
// byte form so that every process hashes it alike.
//
// Byte form, 256 bytes:
//    uint8_t length;       // 1..255
//    uint8_t name[255];    // the name's bytes, then zeros; deserialize rejects anything else
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "TunnelTable/StoreKeys.h"
#include "Vela/String.h"

namespace Tunnel::Decap {

class DecapGroupName {
  public:
   static constexpr uint32_t kSerializedSize = 256;

   // The empty name, which no group has.
   DecapGroupName() noexcept = default;
   // Throws Vela::RangeException for a name above 255 bytes.
   explicit DecapGroupName(std::string_view name);

   Vela::String name() const;

   void serialize(uint8_t* out) const noexcept;
   // Throws TunnelTable::ByteFormatError for a length of 0 or bytes after the name that are not
   // zero.
   static DecapGroupName deserialize(const uint8_t* in);

   friend bool operator==(const DecapGroupName&, const DecapGroupName&) noexcept = default;

  private:
   std::array<uint8_t, kSerializedSize> bytes_{};  // the byte form itself
};

}  // namespace Tunnel::Decap

template <>
struct Dock::KeyTraits<Tunnel::Decap::DecapGroupName>
    : Tunnel::TunnelTable::ByteFormKeyTraits<Tunnel::Decap::DecapGroupName> {};
