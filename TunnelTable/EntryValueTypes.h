// Small values that only entries carry: the 16-bit sequence number of FRR entries (which the FIB
// copies into its own entries), a BGP-LU entry's contribution to the tunnel RIB, and the optional
// color of an RSVP LER tunnel.
//
// The sequence number is defined in namespace Tunnel because the FIB names it
// Tunnel::TunnelEntrySequenceNumber; it is also visible as
// Tunnel::TunnelTable::TunnelEntrySequenceNumber.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <string_view>

#include "Vela/String.h"

namespace Tunnel {

// Sequence number of a tunnel-table entry, bumped by the writer on each new version of the entry
// and copied into the FIB entries built from it. Exactly two bytes, so records that embed it keep
// their layout. Incrementing wraps from 0xFFFF to 0.
// Text form: "Value('Tunnel::TunnelEntrySequenceNumber', ** {'value': 7})".
class TunnelEntrySequenceNumber {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelEntrySequenceNumber";
   static constexpr uint32_t kSerializedSize = 2;

   constexpr TunnelEntrySequenceNumber() noexcept = default;
   constexpr explicit TunnelEntrySequenceNumber(uint16_t value) noexcept : value_(value) {}
   TunnelEntrySequenceNumber(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   constexpr uint16_t value() const noexcept { return value_; }
   constexpr TunnelEntrySequenceNumber& operator++() noexcept {
      value_ = static_cast<uint16_t>(value_ + 1);
      return *this;
   }
   constexpr auto operator<=>(const TunnelEntrySequenceNumber&) const noexcept = default;

   void serialize(uint8_t* out) const noexcept;
   static TunnelEntrySequenceNumber deserialize(const uint8_t* in) noexcept;

  private:
   uint16_t value_ = 0;
};
static_assert(sizeof(TunnelEntrySequenceNumber) == 2);

Vela::String valueToStrep(const TunnelEntrySequenceNumber& v);
std::ostream& operator<<(std::ostream& os, const TunnelEntrySequenceNumber& v);

namespace TunnelTable {

using Tunnel::TunnelEntrySequenceNumber;

// Whether a BGP labelled-unicast tunnel takes part in the tunnel RIB. The codes are stored in
// shared memory (4 bytes) and must not change. Text form: the enumerator name.
enum class ContributionToTunnelRIB : uint32_t {
   notContributing = 0,       // the default: the tunnel is known but not offered to the tunnel RIB
   contributing = 1,          // offered to the tunnel RIB as a candidate
   contributingAsBackup = 2,  // offered only as a backup candidate
};
inline constexpr uint32_t kMaxContributionToTunnelRIBCode = 2;

Vela::String valueToStrep(ContributionToTunnelRIB v);
std::ostream& operator<<(std::ostream& os, ContributionToTunnelRIB v);
// Reads an enumerator name; throws Vela::ParseException otherwise.
ContributionToTunnelRIB contributionToTunnelRIBFromString(std::string_view text);

// A color that may be absent (the color of an RSVP LER tunnel steered by a colored policy).
// Absent colors compare equal whatever value they once held, and order before present ones.
// Text form: "None" when absent, else the decimal color.
//
// Byte form (kSerializedSize = 8, little-endian):
//    struct {
//       u32 color;      // 0 when absent
//       u8  present;    // 0 or 1
//       u8  pad[3];     // zero
//    };
class OptionalColor {
  public:
   static constexpr uint32_t kSerializedSize = 8;

   constexpr OptionalColor() noexcept = default;
   constexpr explicit OptionalColor(uint32_t color) noexcept : color_(color), present_(true) {}
   // Reads "None" or a decimal number; throws Vela::ParseException otherwise.
   explicit OptionalColor(std::string_view text);

   constexpr bool hasValue() const noexcept { return present_; }
   // The color, or 0 when absent.
   constexpr uint32_t value() const noexcept { return present_ ? color_ : 0; }

   friend constexpr bool operator==(const OptionalColor& a, const OptionalColor& b) noexcept {
      return a.present_ == b.present_ && a.value() == b.value();
   }
   friend constexpr std::strong_ordering operator<=>(const OptionalColor& a,
                                                     const OptionalColor& b) noexcept {
      if (auto c = a.present_ <=> b.present_; c != 0) return c;
      return a.value() <=> b.value();
   }

   void serialize(uint8_t* out) const noexcept;
   // Throws ByteFormatError on a flag other than 0/1, a color without the flag, or stray padding.
   static OptionalColor deserialize(const uint8_t* in);

  private:
   uint32_t color_ = 0;
   bool present_ = false;
};

Vela::String valueToStrep(const OptionalColor& v);
std::ostream& operator<<(std::ostream& os, const OptionalColor& v);

}  // namespace TunnelTable
}  // namespace Tunnel
