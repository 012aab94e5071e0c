// IpGenAddr: an IPv4 or IPv6 address, or no address at all (the default).
//
// A plain 20-byte value: the family code and 16 address bytes in network order. An IPv4 address
// uses the first 4 bytes; the other 12 are always zero, so equal addresses have equal bytes.
//
// Byte form (kSerializedSize = 20, little-endian):
//    struct {
//       u32 family;        // 0 none, 4 IPv4, 6 IPv6 (AddressFamily)
//       u8  bytes[16];     // network order; IPv4 in bytes[0..3], rest zero; none: all zero
//    };
//
// Text form: the canonical inet_ntop forms ("10.0.0.1", "2001:db8::1"). The address of family
// none prints as "none", and "none" parses back to it, so every value round-trips through text.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Wirekit/ByteForm.h"

namespace Wirekit {

enum class AddressFamily : uint32_t {
   none = 0,
   ipv4 = 4,
   ipv6 = 6,
};

class IpGenAddr {
  public:
   static constexpr size_t kSerializedSize = 20;

   // The address of family none.
   constexpr IpGenAddr() noexcept = default;
   // Parses "10.0.0.1", "2001:db8::1" or "none"; throws Vela::ParseException on anything else.
   explicit IpGenAddr(std::string_view text);

   static IpGenAddr parse(std::string_view text) { return IpGenAddr(text); }
   // From a host-order IPv4 value: ipv4(0x0A000001) is 10.0.0.1.
   static IpGenAddr ipv4(uint32_t hostOrder) noexcept;
   // From 16 bytes in network order.
   static IpGenAddr ipv6(const std::array<uint8_t, 16>& bytes) noexcept;

   constexpr AddressFamily family() const noexcept { return family_; }
   constexpr bool isV4() const noexcept { return family_ == AddressFamily::ipv4; }
   constexpr bool isV6() const noexcept { return family_ == AddressFamily::ipv6; }
   constexpr bool isNone() const noexcept { return family_ == AddressFamily::none; }
   // The IPv4 address in host order. REQUIRES: isV4().
   uint32_t v4() const;
   // The 16 address bytes in network order (IPv4: first 4, rest zero).
   constexpr const std::array<uint8_t, 16>& bytes() const noexcept { return bytes_; }
   // Number of meaningful address bytes: 4, 16, or 0 for none.
   constexpr size_t byteLength() const noexcept { return isV4() ? 4 : isV6() ? 16 : 0; }
   // Address bits of the family: 32, 128, or 0 for none.
   constexpr unsigned bitLength() const noexcept { return static_cast<unsigned>(byteLength() * 8); }
   // True for 0.0.0.0 and ::, false for none.
   bool isUnspecified() const noexcept;

   // One-at-a-time over the 4 (IPv4) or 16 (IPv6) address bytes in network order; 0 for none.
   uint32_t hash() const noexcept;

   std::string stringValue() const;

   // Inline, as the readers are: entries write up to 600 addresses in a row.
   void serialize(uint8_t* out) const noexcept {
      ByteForm::storeLe<uint32_t>(out, static_cast<uint32_t>(family_));
      std::memcpy(out + 4, bytes_.data(), bytes_.size());
   }
   // Reads exactly kSerializedSize bytes; throws FormatError on an unknown family or on non-zero
   // bytes where the family has none. Every byte is checked or kept, so an address read is
   // written back as the same bytes.
   static IpGenAddr deserialize(const uint8_t* in) {
      IpGenAddr a;
      if (a.readWellFormed(in)) [[likely]]
         return a;
      return deserializeChecked(in);
   }

   // Inline, without building an error: reads a well-formed byte form into *this and answers
   // true, or answers false (*this is then unspecified). deserialize is the reader of record: it
   // accepts the same bytes and names what is wrong with the others.
   bool readWellFormed(const uint8_t* in) noexcept {
      const auto family = ByteForm::loadLe<uint32_t>(in);
      const auto low = ByteForm::loadLe<uint64_t>(in + 4);    // address bytes 0..7
      const auto high = ByteForm::loadLe<uint64_t>(in + 12);  // address bytes 8..15
      const AddressBits forbidden = forbiddenAddressBits(family);
      family_ = static_cast<AddressFamily>(family);
      std::memcpy(bytes_.data(), in + 4, bytes_.size());
      return isKnownFamily(family) && ((low & forbidden.low) | (high & forbidden.high)) == 0;
   }
   // For readers that check many addresses of one family (a via array) and for readWellFormed:
   // a byte form is well formed when its family is known and its address sets none of the
   // family's forbidden bits (as little-endian loads of address bytes 0..7 and 8..15).
   struct AddressBits {
      uint64_t low, high;
   };
   static constexpr bool isKnownFamily(uint32_t family) noexcept {
      return family == static_cast<uint32_t>(AddressFamily::none) ||
             family == static_cast<uint32_t>(AddressFamily::ipv4) ||
             family == static_cast<uint32_t>(AddressFamily::ipv6);
   }
   // Every byte for none, all but the first four for ipv4, none for ipv6 (and for unknown
   // families, which isKnownFamily refuses).
   static constexpr AddressBits forbiddenAddressBits(uint32_t family) noexcept {
      if (family == static_cast<uint32_t>(AddressFamily::none)) return {~uint64_t{0}, ~uint64_t{0}};
      if (family == static_cast<uint32_t>(AddressFamily::ipv4))
         return {~uint64_t{UINT32_MAX}, ~uint64_t{0}};
      return {0, 0};
   }

   // Family first, then the address bytes.
   friend bool operator==(const IpGenAddr&, const IpGenAddr&) noexcept = default;
   friend std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b) noexcept {
      if (auto c = a.family_ <=> b.family_; c != 0) return c;
      return a.bytes_ <=> b.bytes_;
   }

  private:
   static IpGenAddr deserializeChecked(const uint8_t* in);

   AddressFamily family_ = AddressFamily::none;
   std::array<uint8_t, 16> bytes_{};
};

std::string valueToStrep(const IpGenAddr& addr);
std::ostream& operator<<(std::ostream& os, const IpGenAddr& addr);

}  // namespace Wirekit

template <>
struct std::hash<Wirekit::IpGenAddr> {
   size_t operator()(const Wirekit::IpGenAddr& a) const noexcept { return a.hash(); }
};
