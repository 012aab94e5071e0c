#include "Wirekit/IpGenAddr.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <ostream>

#include "Vela/Assert.h"
#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/ByteForm.h"
#include "Wirekit/Errors.h"

namespace Wirekit {

namespace {

constexpr std::string_view kNoneText = "none";

[[noreturn]] void badText(std::string_view text) {
   throw Vela::ParseException(fmt::format("invalid IP address '{}'", printableText(text)));
}

}  // namespace

IpGenAddr::IpGenAddr(std::string_view text) {
   if (text == kNoneText) return;
   // inet_pton wants a terminated string; the longest IPv6 text is 45 characters. It is strict:
   // no blanks, no leading zeros in IPv4 octets, no zone suffix.
   char buf[64];
   if (text.empty() || text.size() >= sizeof(buf) || text.find('\0') != std::string_view::npos) {
      badText(text);
   }
   std::memcpy(buf, text.data(), text.size());
   buf[text.size()] = '\0';
   if (text.find(':') == std::string_view::npos) {
      if (inet_pton(AF_INET, buf, bytes_.data()) != 1) badText(text);
      family_ = AddressFamily::ipv4;
   } else {
      if (inet_pton(AF_INET6, buf, bytes_.data()) != 1) badText(text);
      family_ = AddressFamily::ipv6;
   }
}

IpGenAddr IpGenAddr::ipv4(uint32_t hostOrder) noexcept {
   IpGenAddr a;
   a.family_ = AddressFamily::ipv4;
   for (size_t i = 0; i < 4; ++i) {
      a.bytes_[i] = static_cast<uint8_t>(hostOrder >> (24 - 8 * i));
   }
   return a;
}

IpGenAddr IpGenAddr::ipv6(const std::array<uint8_t, 16>& bytes) noexcept {
   IpGenAddr a;
   a.family_ = AddressFamily::ipv6;
   a.bytes_ = bytes;
   return a;
}

uint32_t IpGenAddr::v4() const {
   VELA_ASSERT(isV4() && "IpGenAddr::v4 of an address that is not IPv4");
   return (uint32_t{bytes_[0]} << 24) | (uint32_t{bytes_[1]} << 16) | (uint32_t{bytes_[2]} << 8) |
          uint32_t{bytes_[3]};
}

bool IpGenAddr::isUnspecified() const noexcept {
   return !isNone() && std::all_of(bytes_.begin(), bytes_.end(), [](uint8_t b) { return b == 0; });
}

uint32_t IpGenAddr::hash() const noexcept {
   if (isNone()) return 0;
   return Vela::oneAtATime(bytes_.data(), byteLength());
}

std::string IpGenAddr::stringValue() const {
   if (isNone()) return std::string(kNoneText);
   char buf[INET6_ADDRSTRLEN];
   const char* s = inet_ntop(isV4() ? AF_INET : AF_INET6, bytes_.data(), buf, sizeof(buf));
   VELA_ASSERT(s != nullptr);
   return std::string(s);
}

IpGenAddr IpGenAddr::deserializeChecked(const uint8_t* in) {
   const auto family = ByteForm::loadLe<uint32_t>(in);
   IpGenAddr a;
   switch (family) {
      case 0:
         if (!ByteForm::allZero(in + 4, 16)) {
            throw FormatError("Wirekit::IpGenAddr: address bytes set for family none");
         }
         return a;
      case 4:
         if (!ByteForm::allZero(in + 8, 12)) {
            throw FormatError("Wirekit::IpGenAddr: bytes beyond an IPv4 address are set");
         }
         a.family_ = AddressFamily::ipv4;
         break;
      case 6:
         a.family_ = AddressFamily::ipv6;
         break;
      default:
         throw FormatError(fmt::format("Wirekit::IpGenAddr: unknown address family {}", family));
   }
   std::memcpy(a.bytes_.data(), in + 4, 16);
   return a;
}

std::string valueToStrep(const IpGenAddr& addr) {
   return addr.stringValue();
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& addr) {
   return os << addr.stringValue();
}

}  // namespace Wirekit
