// IpGenPrefix: an IPv4 or IPv6 prefix (address and length), or no prefix (the default).
//
// The address is always masked to the length: IpGenPrefix("10.1.2.3/8") is 10.0.0.0/8, so two
// prefixes that cover the same addresses are equal, hash alike and have equal bytes.
//
// Byte form (kSerializedSize = 24, little-endian):
//    struct {
//       u8 address[20];    // IpGenAddr byte form, host bits zero
//       u8 length;         // 0..32 (IPv4), 0..128 (IPv6), 0 for none
//       u8 pad[3];         // zero
//    };
//
// Text form: "<address>/<length>" ("10.0.0.0/8", "2001:db8::/32"); the prefix of family none
// prints as "none" and parses back from it.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Wirekit/IpGenAddr.h"

namespace Wirekit {

class IpGenPrefix {
  public:
   static constexpr size_t kSerializedSize = 24;

   // The prefix of family none, length 0.
   constexpr IpGenPrefix() noexcept = default;
   // The address masked to `length`. Throws Vela::RangeException
   // ("Wirekit::IpGenPrefix::length < Wirekit::IpGenPrefix::minLength or >
   // Wirekit::IpGenPrefix::maxLength not allowed") when the length exceeds the family's bits
   // (any length but 0 for family none).
   IpGenPrefix(const IpGenAddr& address, unsigned length);
   // Parses "10.0.0.0/8", "2001:db8::/32" or "none"; host bits are cleared. Throws
   // Vela::ParseException on a bad address, a missing or bad length, or a length too long.
   explicit IpGenPrefix(std::string_view text);

   static IpGenPrefix parse(std::string_view text) { return IpGenPrefix(text); }
   // The host prefix of an address: /32 or /128 (none: the none prefix).
   static IpGenPrefix host(const IpGenAddr& address);

   constexpr const IpGenAddr& address() const noexcept { return address_; }
   constexpr unsigned length() const noexcept { return length_; }
   constexpr AddressFamily family() const noexcept { return address_.family(); }
   constexpr bool isV4() const noexcept { return address_.isV4(); }
   constexpr bool isV6() const noexcept { return address_.isV6(); }
   constexpr bool isNone() const noexcept { return address_.isNone(); }
   // True when `addr` is of the same family and its first length() bits match.
   bool contains(const IpGenAddr& addr) const noexcept;

   // One-at-a-time over the 4 (IPv4) or 16 (IPv6) masked address bytes, then the length byte;
   // 0 for a prefix of neither family.
   uint32_t hash() const noexcept;

   std::string stringValue() const;

   void serialize(uint8_t* out) const noexcept;
   // Reads exactly kSerializedSize bytes; throws FormatError on a bad address, a length beyond the
   // family, host bits set beyond the length, or non-zero padding.
   static IpGenPrefix deserialize(const uint8_t* in);

   // Address first (family, then bytes), then length.
   friend bool operator==(const IpGenPrefix&, const IpGenPrefix&) noexcept = default;
   friend std::strong_ordering operator<=>(const IpGenPrefix& a, const IpGenPrefix& b) noexcept {
      if (auto c = a.address_ <=> b.address_; c != 0) return c;
      return a.length_ <=> b.length_;
   }

  private:
   IpGenAddr address_;
   uint8_t length_ = 0;
};

std::string valueToStrep(const IpGenPrefix& prefix);
std::ostream& operator<<(std::ostream& os, const IpGenPrefix& prefix);

}  // namespace Wirekit

template <>
struct std::hash<Wirekit::IpGenPrefix> {
   size_t operator()(const Wirekit::IpGenPrefix& p) const noexcept { return p.hash(); }
};
