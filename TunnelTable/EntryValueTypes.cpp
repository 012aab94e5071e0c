#include "TunnelTable/EntryValueTypes.h"

#include <fmt/format.h>

#include "TunnelTable/ByteCursor.h"
#include "Vela/ValueText.h"

namespace Tunnel {

TunnelEntrySequenceNumber::TunnelEntrySequenceNumber(Vela::String::const_iterator begin,
                                                     Vela::String::const_iterator end) {
   Vela::ValueTextParser p(begin, end, kTypeName);
   value_ = p.readUnsigned<uint16_t>("value");
}

void TunnelEntrySequenceNumber::serialize(uint8_t* out) const noexcept {
   TunnelTable::storeLe16(out, value_);
}

TunnelEntrySequenceNumber TunnelEntrySequenceNumber::deserialize(const uint8_t* in) noexcept {
   return TunnelEntrySequenceNumber(TunnelTable::loadLe16(in));
}

Vela::String valueToStrep(const TunnelEntrySequenceNumber& v) {
   return Vela::ValueTextBuilder(TunnelEntrySequenceNumber::kTypeName)
       .field("value", Vela::renderUnsigned(v.value()))
       .str();
}

std::ostream& operator<<(std::ostream& os, const TunnelEntrySequenceNumber& v) {
   return os << valueToStrep(v);
}

namespace TunnelTable {

namespace {
constexpr const char* kContributionNames[] = {"notContributing", "contributing",
                                              "contributingAsBackup"};
}

Vela::String valueToStrep(ContributionToTunnelRIB v) {
   const auto code = static_cast<uint32_t>(v);
   if (code > kMaxContributionToTunnelRIBCode) return fmt::format("invalid({})", code);
   return kContributionNames[code];
}

std::ostream& operator<<(std::ostream& os, ContributionToTunnelRIB v) {
   return os << valueToStrep(v);
}

ContributionToTunnelRIB contributionToTunnelRIBFromString(std::string_view text) {
   for (uint32_t code = 0; code <= kMaxContributionToTunnelRIBCode; ++code) {
      if (text == kContributionNames[code]) return ContributionToTunnelRIB(code);
   }
   Vela::throwBadValue("a ContributionToTunnelRIB name", text);
}

OptionalColor::OptionalColor(std::string_view text) {
   if (text == "None") return;
   color_ = Vela::parseUnsigned<uint32_t>(text);
   present_ = true;
}

void OptionalColor::serialize(uint8_t* out) const noexcept {
   storeLe32(out, value());
   out[4] = present_ ? 1 : 0;
   out[5] = out[6] = out[7] = 0;
}

OptionalColor OptionalColor::deserialize(const uint8_t* in) {
   const uint32_t color = loadLe32(in);
   const uint8_t present = in[4];
   if (present > 1 || (present == 0 && color != 0) || in[5] != 0 || in[6] != 0 || in[7] != 0) {
      throw ByteFormatError(
          fmt::format("OptionalColor bytes {:02x}{:02x}{:02x}{:02x} are not a color "
                      "flag and zero padding",
                      in[4], in[5], in[6], in[7]));
   }
   return present ? OptionalColor(color) : OptionalColor();
}

Vela::String valueToStrep(const OptionalColor& v) {
   return v.hasValue() ? Vela::renderUnsigned(v.value()) : Vela::String("None");
}

std::ostream& operator<<(std::ostream& os, const OptionalColor& v) {
   return os << valueToStrep(v);
}

}  // namespace TunnelTable
}  // namespace Tunnel
