// IntfId: the identifier of a network interface, packed in one 64-bit code.
//
// Code layout (the top byte is the kind; the rest depends on it):
//
//    bits 63..56   kind (IntfKind)            0 only for the empty identifier (code 0)
//    ordinary kinds (Ethernet, Management, Loopback, Vlan, Port-Channel, Vxlan):
//       bits 55..40   first number            "Ethernet<first>/<second>/<third>"
//       bits 39..24   second number           zero when count < 2
//       bits 23..8    third number            zero when count < 3
//       bits  7..2    zero
//       bits  1..0    count of numbers, 1..3
//    tunnel:          bits 55..32 zero, bits 31..0 the port number       "Tunnel<port>"
//    dynamic tunnel:  bits 55..0 the tunnel identifier value    "DynamicTunnel0x<hex value>"
//
// The numbers sit above the count, so codes order like the names read: Ethernet1 < Ethernet1/1 <
// Ethernet2. Sub-interfaces ("Ethernet1.100") are not represented.
//
// Names are accepted only in their canonical form (no leading zeros, no blanks), so text and
// value convert both ways one to one. The empty identifier prints as "" and parses from "".
//
// Byte form (kSerializedSize = 8): the code, u64 little-endian.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Wirekit/ByteForm.h"

namespace Wirekit {

enum class IntfKind : uint8_t {
   empty = 0,
   ethernet = 1,       // "Ethernet", 1 to 3 numbers
   management = 2,     // "Management", 1 or 2 numbers
   loopback = 3,       // "Loopback", 1 number
   vlan = 4,           // "Vlan", 1 number in 1..4094
   portChannel = 5,    // "Port-Channel", 1 number
   vxlan = 6,          // "Vxlan", 1 number
   tunnel = 7,         // "Tunnel", a 32-bit port number
   dynamicTunnel = 8,  // derived from a tunnel identifier, see DynamicTunnelIntfId
};

class IntfId {
  public:
   static constexpr size_t kSerializedSize = 8;

   // The empty identifier.
   constexpr IntfId() noexcept = default;
   // Parses an interface name ("Ethernet2/1", "Loopback0", "Tunnel5", "" ...); throws
   // Vela::ParseException on an unknown or non-canonical name.
   explicit IntfId(std::string_view name);

   static IntfId parse(std::string_view name) { return IntfId(name); }
   // From a code; throws FormatError when no interface has it.
   static IntfId fromCode(uint64_t code);
   // An ordinary interface: kind and 1 to 3 numbers. Throws Vela::RangeException
   // ("Wirekit::IntfId::value < Wirekit::IntfId::min or > Wirekit::IntfId::max not allowed") when
   // the kind is not ordinary or the numbers do not suit it.
   static IntfId ordinary(IntfKind kind, uint32_t first);
   static IntfId ordinary(IntfKind kind, uint32_t first, uint32_t second);
   static IntfId ordinary(IntfKind kind, uint32_t first, uint32_t second, uint32_t third);
   // The tunnel interface of a port number, printed "Tunnel<port>".
   static constexpr IntfId tunnelIntf(uint32_t port) noexcept {
      return IntfId(kindBits(IntfKind::tunnel) | port);
   }

   constexpr uint64_t code() const noexcept { return code_; }
   constexpr IntfKind kind() const noexcept { return static_cast<IntfKind>(code_ >> kKindShift); }
   constexpr bool isEmpty() const noexcept { return code_ == 0; }
   constexpr bool isTunnelIntf() const noexcept { return kind() == IntfKind::tunnel; }
   // REQUIRES: isTunnelIntf().
   uint32_t tunnelPort() const;
   // The interface's name; "" for the empty identifier.
   std::string name() const;
   std::string stringValue() const { return name(); }

   // One-at-a-time over the 8 code bytes, least significant first.
   uint32_t hash() const noexcept;

   void serialize(uint8_t* out) const noexcept { ByteForm::storeLe<uint64_t>(out, code_); }
   // Reads exactly kSerializedSize bytes; throws FormatError on a code no interface has.
   static IntfId deserialize(const uint8_t* in) {
      const auto code = ByteForm::loadLe<uint64_t>(in);
      if (isWellFormedCode(code)) [[likely]]
         return IntfId(code);
      return fromCode(code);
   }
   // Inline, without building an error: reads the code into *this and answers whether an
   // interface has it (deserialize names what is wrong otherwise).
   bool readWellFormed(const uint8_t* in) noexcept {
      code_ = ByteForm::loadLe<uint64_t>(in);
      return isWellFormedCode(code_);
   }

   // Inline, without building an error: true for the codes fromCode accepts (fromCode, the reader
   // of record, names what is wrong with the others): those that set none of forbiddenBits(code)
   // and, for a Vlan, carry a number in range. The numbers' bounds are those of the ordinary
   // kinds' table in the source; a test holds the two to the same codes.
   static constexpr bool isWellFormedCode(uint64_t code) noexcept {
      return (code & forbiddenBits(code)) == 0 && numberInRange(code);
   }
   // forbiddenBits depends on these bits of a code alone (kind, count, reserved bits), so a
   // reader of many codes of one shape works it out once (MplsVia::deserializeRun).
   static constexpr uint64_t kShapeBits = 0xFF000000000000FF;
   // The bits a code of this shape may not set: all of them for a kind or count no interface has
   // (the kind's own bits then refuse the code), all but the kind for empty.
   static constexpr uint64_t forbiddenBits(uint64_t code) noexcept {
      switch (static_cast<IntfKind>(code >> kKindShift)) {
         case IntfKind::empty:
            return kPayloadMask;
         case IntfKind::dynamicTunnel:
            return 0;
         case IntfKind::tunnel:
            return kPayloadMask & ~uint64_t{UINT32_MAX};
         case IntfKind::ethernet:
            return ordinaryForbiddenBits(code, 3);
         case IntfKind::management:
            return ordinaryForbiddenBits(code, 2);
         case IntfKind::loopback:
         case IntfKind::portChannel:
         case IntfKind::vxlan:
         case IntfKind::vlan:
            return ordinaryForbiddenBits(code, 1);
      }
      return ~uint64_t{0};
   }
   // The one rule no mask states: a Vlan's number is 1..4094 (true for every other kind).
   static constexpr bool numberInRange(uint64_t code) noexcept {
      const uint64_t first = (code >> 40) & 0xFFFF;
      return static_cast<IntfKind>(code >> kKindShift) != IntfKind::vlan || first - 1 < 4094;
   }

   friend constexpr bool operator==(const IntfId&, const IntfId&) noexcept = default;
   friend constexpr auto operator<=>(const IntfId&, const IntfId&) noexcept = default;

  private:
   friend struct DynamicTunnelIntfId;
   static constexpr unsigned kKindShift = 56;
   static constexpr uint64_t kPayloadMask = (uint64_t{1} << kKindShift) - 1;
   static constexpr uint64_t kindBits(IntfKind k) noexcept {
      return static_cast<uint64_t>(k) << kKindShift;
   }
   explicit constexpr IntfId(uint64_t code) noexcept : code_(code) {}

   // An ordinary code of 1..maxNumbers numbers: reserved bits 7..2 clear and the number places
   // past the count zero (count 1: bits 39..8, count 2: bits 23..8).
   static constexpr uint64_t ordinaryForbiddenBits(uint64_t code, unsigned maxNumbers) noexcept {
      const auto count = static_cast<unsigned>(code & 3);
      if (count == 0 || count > maxNumbers) return ~uint64_t{0};
      const unsigned unusedBits = 32 - 16 * (count - 1);
      return 0xFC | ((uint64_t{1} << unusedBits) - 1) << 8;
   }

   uint64_t code_ = 0;
};

// Interfaces that stand for another tunnel: a via whose interface is one of these rides on the
// tunnel whose identifier value it carries. Every value up to kMaxTunnelIdValue (56 bits, so all
// 49-bit tunnel identifiers and some beyond, which the tunnel layer range-checks) round-trips.
struct DynamicTunnelIntfId {
   static constexpr uint64_t kMaxTunnelIdValue = IntfId::kPayloadMask;

   // Throws Vela::RangeException ("Wirekit::DynamicTunnelIntfId::tunnelId <
   // Wirekit::DynamicTunnelIntfId::minTunnelId or > Wirekit::DynamicTunnelIntfId::maxTunnelId not
   // allowed") above kMaxTunnelIdValue.
   static IntfId tunnelIdToIntfId(uint64_t tunnelIdValue);
   // REQUIRES: isDynamicTunnelIntfId(intf).
   static uint64_t tunnelId(IntfId intf);
   static constexpr bool isDynamicTunnelIntfId(IntfId intf) noexcept {
      return intf.kind() == IntfKind::dynamicTunnel;
   }
};

std::string valueToStrep(const IntfId& intf);
std::ostream& operator<<(std::ostream& os, const IntfId& intf);

}  // namespace Wirekit

template <>
struct std::hash<Wirekit::IntfId> {
   size_t operator()(const Wirekit::IntfId& i) const noexcept { return i.hash(); }
};
