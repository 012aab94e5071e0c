#include "Wirekit/IntfId.h"

#include <fmt/format.h>

#include <array>
#include <optional>
#include <ostream>
#include <span>

#include "Vela/Assert.h"
#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/ByteForm.h"
#include "Wirekit/Errors.h"

namespace Wirekit {

namespace {

// Ordinary kinds: name and how many numbers they take. Indexed by the kind's code.
struct OrdinaryKind {
   std::string_view name;
   unsigned minNumbers;
   unsigned maxNumbers;
   uint32_t minFirst;
   uint32_t maxFirst;
};

constexpr uint32_t kMaxNumber = 0xFFFF;  // each number has 16 bits of the code
constexpr std::array<OrdinaryKind, 7> kOrdinary = {{
    {"", 0, 0, 0, 0},  // empty: not ordinary
    {"Ethernet", 1, 3, 0, kMaxNumber},
    {"Management", 1, 2, 0, kMaxNumber},
    {"Loopback", 1, 1, 0, kMaxNumber},
    {"Vlan", 1, 1, 1, 4094},
    {"Port-Channel", 1, 1, 0, kMaxNumber},
    {"Vxlan", 1, 1, 0, kMaxNumber},
}};
constexpr std::string_view kTunnelName = "Tunnel";
constexpr std::string_view kDynamicTunnelName = "DynamicTunnel";

constexpr unsigned kCountBits = 2;
constexpr uint64_t kCountMask = (1u << kCountBits) - 1;
constexpr uint64_t kReservedMask = 0xFC;  // bits 7..2 of an ordinary code
constexpr unsigned numberShift(unsigned i) {
   return 40 - 16 * i;
}

const OrdinaryKind* ordinaryKind(IntfKind kind) {
   const auto k = static_cast<size_t>(kind);
   if (k == 0 || k >= kOrdinary.size()) return nullptr;
   return &kOrdinary[k];
}

bool numbersFit(const OrdinaryKind& k, std::span<const uint32_t> numbers) {
   if (numbers.size() < k.minNumbers || numbers.size() > k.maxNumbers) return false;
   if (numbers[0] < k.minFirst || numbers[0] > k.maxFirst) return false;
   for (uint32_t n : numbers.subspan(1)) {
      if (n > kMaxNumber) return false;
   }
   return true;
}

uint64_t ordinaryCode(IntfKind kind, std::span<const uint32_t> numbers) {
   uint64_t code = (static_cast<uint64_t>(kind) << 56) | numbers.size();
   for (size_t i = 0; i < numbers.size(); ++i) {
      code |= static_cast<uint64_t>(numbers[i]) << numberShift(static_cast<unsigned>(i));
   }
   return code;
}

// Canonical unsigned decimal (no sign, no leading zero) up to `max`.
std::optional<uint64_t> parseDecimal(std::string_view s, uint64_t max) {
   if (s.empty() || s.size() > 20 || (s.size() > 1 && s[0] == '0')) return std::nullopt;
   uint64_t v = 0;
   for (char c : s) {
      if (c < '0' || c > '9') return std::nullopt;
      const auto d = static_cast<uint64_t>(c - '0');
      if (v > (max - d) / 10) return std::nullopt;
      v = v * 10 + d;
   }
   return v;
}

// "0x" and lower-case hex digits without leading zeros, up to `max`.
std::optional<uint64_t> parseHex(std::string_view s, uint64_t max) {
   if (s.size() < 3 || s.substr(0, 2) != "0x") return std::nullopt;
   s.remove_prefix(2);
   if (s.size() > 16 || (s.size() > 1 && s[0] == '0')) return std::nullopt;
   uint64_t v = 0;
   for (char c : s) {
      uint64_t d;
      if (c >= '0' && c <= '9') {
         d = static_cast<uint64_t>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
         d = static_cast<uint64_t>(c - 'a' + 10);
      } else {
         return std::nullopt;
      }
      v = (v << 4) | d;
   }
   if (v > max) return std::nullopt;
   return v;
}

[[noreturn]] void badName(std::string_view name) {
   throw Vela::ParseException(fmt::format("invalid interface name '{}'", printableText(name)));
}

[[noreturn]] void badRange() {
   throw Vela::RangeException::forType("Wirekit::IntfId");
}

}  // namespace

IntfId::IntfId(std::string_view name) {
   if (name.empty()) return;
   auto startsWith = [&](std::string_view p) { return name.substr(0, p.size()) == p; };
   if (startsWith(kDynamicTunnelName)) {
      const auto v =
          parseHex(name.substr(kDynamicTunnelName.size()), DynamicTunnelIntfId::kMaxTunnelIdValue);
      if (!v) badName(name);
      code_ = kindBits(IntfKind::dynamicTunnel) | *v;
      return;
   }
   if (startsWith(kTunnelName)) {
      const auto v = parseDecimal(name.substr(kTunnelName.size()), UINT32_MAX);
      if (!v) badName(name);
      code_ = tunnelIntf(static_cast<uint32_t>(*v)).code_;
      return;
   }
   for (size_t k = 1; k < kOrdinary.size(); ++k) {
      const OrdinaryKind& ok = kOrdinary[k];
      if (!startsWith(ok.name)) continue;
      std::string_view rest = name.substr(ok.name.size());
      std::array<uint32_t, 3> numbers{};
      size_t count = 0;
      while (true) {
         const auto slash = rest.find('/');
         if (count == numbers.size()) badName(name);
         const auto v = parseDecimal(rest.substr(0, slash), kMaxNumber);
         if (!v) badName(name);
         numbers[count++] = static_cast<uint32_t>(*v);
         if (slash == std::string_view::npos) break;
         rest.remove_prefix(slash + 1);
      }
      const std::span<const uint32_t> used(numbers.data(), count);
      if (!numbersFit(ok, used)) badName(name);
      code_ = ordinaryCode(static_cast<IntfKind>(k), used);
      return;
   }
   badName(name);
}

IntfId IntfId::fromCode(uint64_t code) {
   const IntfId id(code);
   const IntfKind kind = id.kind();
   if (kind == IntfKind::empty) {
      if (code != 0) throw FormatError(fmt::format("Wirekit::IntfId: invalid code {:#x}", code));
      return id;
   }
   if (kind == IntfKind::dynamicTunnel) return id;
   if (kind == IntfKind::tunnel) {
      if ((code & kPayloadMask) > UINT32_MAX) {
         throw FormatError(fmt::format("Wirekit::IntfId: invalid tunnel code {:#x}", code));
      }
      return id;
   }
   const OrdinaryKind* ok = ordinaryKind(kind);
   if (ok == nullptr) {
      throw FormatError(
          fmt::format("Wirekit::IntfId: unknown interface kind {}", static_cast<unsigned>(kind)));
   }
   const auto count = static_cast<unsigned>(code & kCountMask);
   std::array<uint32_t, 3> numbers{};
   for (unsigned i = 0; i < 3; ++i) {
      numbers[i] = static_cast<uint32_t>((code >> numberShift(i)) & kMaxNumber);
   }
   bool valid = (code & kReservedMask) == 0 && count >= 1 &&
                numbersFit(*ok, std::span<const uint32_t>(numbers.data(), count));
   for (unsigned i = count; i < 3 && valid; ++i) valid = numbers[i] == 0;
   if (!valid) throw FormatError(fmt::format("Wirekit::IntfId: invalid code {:#x}", code));
   return id;
}

IntfId IntfId::ordinary(IntfKind kind, uint32_t first) {
   const std::array<uint32_t, 1> n{first};
   const OrdinaryKind* ok = ordinaryKind(kind);
   if (ok == nullptr || !numbersFit(*ok, n)) badRange();
   return IntfId(ordinaryCode(kind, n));
}

IntfId IntfId::ordinary(IntfKind kind, uint32_t first, uint32_t second) {
   const std::array<uint32_t, 2> n{first, second};
   const OrdinaryKind* ok = ordinaryKind(kind);
   if (ok == nullptr || !numbersFit(*ok, n)) badRange();
   return IntfId(ordinaryCode(kind, n));
}

IntfId IntfId::ordinary(IntfKind kind, uint32_t first, uint32_t second, uint32_t third) {
   const std::array<uint32_t, 3> n{first, second, third};
   const OrdinaryKind* ok = ordinaryKind(kind);
   if (ok == nullptr || !numbersFit(*ok, n)) badRange();
   return IntfId(ordinaryCode(kind, n));
}

uint32_t IntfId::tunnelPort() const {
   VELA_ASSERT(isTunnelIntf() && "IntfId::tunnelPort of an interface that is not a tunnel");
   return static_cast<uint32_t>(code_);
}

std::string IntfId::name() const {
   switch (kind()) {
      case IntfKind::empty:
         return std::string();
      case IntfKind::tunnel:
         return fmt::format("{}{}", kTunnelName, static_cast<uint32_t>(code_));
      case IntfKind::dynamicTunnel:
         return fmt::format("{}{:#x}", kDynamicTunnelName, code_ & kPayloadMask);
      default:
         break;
   }
   // Every IntfId is built through a validating path, so an ordinary kind is known here.
   const OrdinaryKind* ok = ordinaryKind(kind());
   VELA_ASSERT(ok != nullptr);
   std::string s(ok->name);
   const auto count = static_cast<unsigned>(code_ & kCountMask);
   for (unsigned i = 0; i < count; ++i) {
      if (i > 0) s += '/';
      s += std::to_string((code_ >> numberShift(i)) & kMaxNumber);
   }
   return s;
}

uint32_t IntfId::hash() const noexcept {
   return Vela::oneAtATimeOf(code_);
}

IntfId DynamicTunnelIntfId::tunnelIdToIntfId(uint64_t tunnelIdValue) {
   if (tunnelIdValue > kMaxTunnelIdValue) {
      throw Vela::RangeException::forType("Wirekit::DynamicTunnelIntfId", "tunnelId", "minTunnelId",
                                          "maxTunnelId");
   }
   return IntfId(IntfId::kindBits(IntfKind::dynamicTunnel) | tunnelIdValue);
}

uint64_t DynamicTunnelIntfId::tunnelId(IntfId intf) {
   VELA_ASSERT(isDynamicTunnelIntfId(intf) &&
               "DynamicTunnelIntfId::tunnelId of an interface that is not a dynamic tunnel");
   return intf.code_ & IntfId::kPayloadMask;
}

std::string valueToStrep(const IntfId& intf) {
   return intf.name();
}

std::ostream& operator<<(std::ostream& os, const IntfId& intf) {
   return os << intf.name();
}

}  // namespace Wirekit
