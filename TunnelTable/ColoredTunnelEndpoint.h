// ColoredTunnelEndpoint: the key of the colored tunnel RIB, an endpoint prefix with a color and a
// flag that says whether the color applies. An uncolored endpoint is the plain prefix key of the
// tunnel RIB.
//
// Byte form, 32 bytes, the layout the RIB record embeds at its head:
//
//    struct ColoredTunnelEndpoint {
//       uint8_t  tep[24];       // Wirekit::IpGenPrefix byte form
//       uint32_t color;         // little-endian
//       uint8_t  isColored;     // 0 or 1
//       uint8_t  zero[3];       // always 0; deserialize rejects anything else
//    };
//
// The hash is the one-at-a-time hash of these 32 bytes, continuing from the seed, so it is the same
// in every process. Equality and order are field by field: prefix, then color, then the flag.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>

#include "Vela/String.h"
#include "Wirekit/IpGenPrefix.h"

namespace Tunnel::TunnelTable {

class ColoredTunnelEndpoint {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::ColoredTunnelEndpoint";
   static constexpr uint32_t kSerializedSize = 32;

   ColoredTunnelEndpoint() noexcept = default;
   // The uncolored endpoint of a prefix (color 0). Implicit: a plain prefix is a key of both RIBs.
   ColoredTunnelEndpoint(const Wirekit::IpGenPrefix& tep) noexcept : tep_(tep) {}
   // A colored endpoint.
   ColoredTunnelEndpoint(const Wirekit::IpGenPrefix& tep, uint32_t color) noexcept
       : tep_(tep), color_(color), isColored_(true) {}
   ColoredTunnelEndpoint(const Wirekit::IpGenPrefix& tep, uint32_t color, bool isColored) noexcept
       : tep_(tep), color_(color), isColored_(isColored) {}
   // Reads the text form (attributes "tep", "color", "isColored").
   ColoredTunnelEndpoint(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   const Wirekit::IpGenPrefix& tep() const noexcept { return tep_; }
   uint32_t color() const noexcept { return color_; }
   bool isColored() const noexcept { return isColored_; }
   void tepIs(const Wirekit::IpGenPrefix& tep) noexcept { tep_ = tep; }
   void colorIs(uint32_t color) noexcept { color_ = color; }
   void isColoredIs(bool isColored) noexcept { isColored_ = isColored; }

   uint32_t hash(uint32_t seed) const noexcept;

   // Display text: "10.0.0.0/8" (uncolored), "10.0.0.0/8 color 5" (colored), and for an
   // uncolored endpoint that still carries a color "10.0.0.0/8 uncolored 5", so no two values
   // print alike.
   Vela::String stringValue() const;

   friend bool operator==(const ColoredTunnelEndpoint&,
                          const ColoredTunnelEndpoint&) noexcept = default;
   friend std::strong_ordering operator<=>(const ColoredTunnelEndpoint&,
                                           const ColoredTunnelEndpoint&) noexcept = default;

   void serialize(uint8_t* out) const noexcept;
   // Throws Wirekit::FormatError for a bad prefix, ByteFormatError for a flag byte other than 0
   // or 1 or non-zero padding.
   static ColoredTunnelEndpoint deserialize(const uint8_t* in);

  private:
   Wirekit::IpGenPrefix tep_;
   uint32_t color_ = 0;
   bool isColored_ = false;
};

// "Value('Tunnel::TunnelTable::ColoredTunnelEndpoint', ** {'tep': '10.0.0.0/8', 'color': 5,
// 'isColored': True})"
Vela::String valueToStrep(const ColoredTunnelEndpoint& v);
std::ostream& operator<<(std::ostream& os, const ColoredTunnelEndpoint& v);

}  // namespace Tunnel::TunnelTable

template <>
struct std::hash<Tunnel::TunnelTable::ColoredTunnelEndpoint> {
   size_t operator()(const Tunnel::TunnelTable::ColoredTunnelEndpoint& v) const noexcept {
      return v.hash(0);
   }
};
