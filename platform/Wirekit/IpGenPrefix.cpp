#include "Wirekit/IpGenPrefix.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <ostream>

#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/ByteForm.h"
#include "Wirekit/Errors.h"

namespace Wirekit {

namespace {

constexpr std::string_view kNoneText = "none";

// Clears every address bit beyond `length`. Returns true when some bit was set.
bool maskBytes(std::array<uint8_t, 16>& bytes, unsigned length) noexcept {
   bool hadHostBits = false;
   for (unsigned i = 0; i < 16; ++i) {
      const unsigned keep = length > 8 * i ? std::min(length - 8 * i, 8u) : 0u;
      const auto mask = static_cast<uint8_t>(keep == 0 ? 0 : 0xFF << (8 - keep));
      hadHostBits |= (bytes[i] & ~mask) != 0;
      bytes[i] &= mask;
   }
   return hadHostBits;
}

// True when an address bit beyond `length` (at most 128) is set: maskBytes's answer, from two
// 64-bit words rather than byte by byte.
bool hasHostBits(const std::array<uint8_t, 16>& bytes, unsigned length) noexcept {
   uint64_t high, low;  // bytes 0..7 and 8..15, the first byte most significant
   std::memcpy(&high, bytes.data(), 8);
   std::memcpy(&low, bytes.data() + 8, 8);
   if constexpr (std::endian::native == std::endian::little) {
      high = __builtin_bswap64(high);
      low = __builtin_bswap64(low);
   }
   const uint64_t all = ~uint64_t{0};
   const uint64_t hostHigh = length >= 64 ? 0 : all >> length;
   const uint64_t hostLow = length >= 128 ? 0 : length <= 64 ? all : all >> (length - 64);
   return ((high & hostHigh) | (low & hostLow)) != 0;
}

IpGenAddr withBytes(const IpGenAddr& family, const std::array<uint8_t, 16>& bytes) {
   return family.isV4() ? IpGenAddr::ipv4((uint32_t{bytes[0]} << 24) | (uint32_t{bytes[1]} << 16) |
                                          (uint32_t{bytes[2]} << 8) | uint32_t{bytes[3]})
                        : IpGenAddr::ipv6(bytes);
}

}  // namespace

IpGenPrefix::IpGenPrefix(const IpGenAddr& address, unsigned length) {
   if (length > address.bitLength()) {
      throw Vela::RangeException::forType("Wirekit::IpGenPrefix", "length", "minLength",
                                          "maxLength");
   }
   length_ = static_cast<uint8_t>(length);
   if (address.isNone()) return;
   auto bytes = address.bytes();
   maskBytes(bytes, length);
   address_ = withBytes(address, bytes);
}

IpGenPrefix::IpGenPrefix(std::string_view text) {
   if (text == kNoneText) return;
   const auto slash = text.find('/');
   if (slash == std::string_view::npos) {
      throw Vela::ParseException(
          fmt::format("invalid IP prefix '{}': no length", printableText(text)));
   }
   const IpGenAddr address(text.substr(0, slash));
   if (address.isNone()) {
      throw Vela::ParseException(fmt::format("invalid IP prefix '{}'", printableText(text)));
   }
   // Canonical decimal: digits only, no leading zero, at most three digits.
   const auto digits = text.substr(slash + 1);
   unsigned length = 0;
   bool ok = !digits.empty() && digits.size() <= 3 && (digits.size() == 1 || digits[0] != '0');
   for (char c : digits) {
      if (c < '0' || c > '9') {
         ok = false;
         break;
      }
      length = length * 10 + static_cast<unsigned>(c - '0');
   }
   if (!ok || length > address.bitLength()) {
      throw Vela::ParseException(
          fmt::format("invalid IP prefix '{}': bad length", printableText(text)));
   }
   *this = IpGenPrefix(address, length);
}

IpGenPrefix IpGenPrefix::host(const IpGenAddr& address) {
   return IpGenPrefix(address, address.bitLength());
}

bool IpGenPrefix::contains(const IpGenAddr& addr) const noexcept {
   if (addr.family() != family() || isNone()) return false;
   auto bytes = addr.bytes();
   maskBytes(bytes, length_);
   return bytes == address_.bytes();
}

uint32_t IpGenPrefix::hash() const noexcept {
   if (isNone()) return 0;
   return Vela::HashMixer()
       .addBytes(address_.bytes().data(), address_.byteLength())
       .add(uint8_t{length_})
       .finish();
}

std::string IpGenPrefix::stringValue() const {
   if (isNone()) return std::string(kNoneText);
   return fmt::format("{}/{}", address_.stringValue(), unsigned{length_});
}

void IpGenPrefix::serialize(uint8_t* out) const noexcept {
   address_.serialize(out);
   out[20] = length_;
   out[21] = out[22] = out[23] = 0;
}

IpGenPrefix IpGenPrefix::deserialize(const uint8_t* in) {
   IpGenPrefix p;
   p.address_ = IpGenAddr::deserialize(in);
   const unsigned length = in[20];
   if (length > p.address_.bitLength()) {
      throw FormatError(
          fmt::format("Wirekit::IpGenPrefix: length {} too long for the family", length));
   }
   if (!ByteForm::allZero(in + 21, 3)) {
      throw FormatError("Wirekit::IpGenPrefix: padding bytes set");
   }
   if (hasHostBits(p.address_.bytes(), length)) {
      throw FormatError("Wirekit::IpGenPrefix: address bits set beyond the length");
   }
   p.length_ = static_cast<uint8_t>(length);
   return p;
}

std::string valueToStrep(const IpGenPrefix& prefix) {
   return prefix.stringValue();
}

std::ostream& operator<<(std::ostream& os, const IpGenPrefix& prefix) {
   return os << prefix.stringValue();
}

}  // namespace Wirekit
