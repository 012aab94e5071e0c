// The small value types that tunnel entries, the RIB and the FIB are built from: entry and IGP
// preferences, bandwidth, the encapsulation identifier and the RIB identifier.
//
// All are plain values: copied by value, compared field by field, no heap. Each has a text form
// (valueToStrep and operator<<) and a constructor from a text range that reads that form back;
// the single-field types read the attribute "value".
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string_view>

#include "Vela/String.h"

namespace Tunnel::TunnelTable {

// Preference of a tunnel table entry; lower is preferred. The default for an entry is
// getDefaultPrefForType of its tunnel type (TunnelType.h).
// Text form: "Value('Tunnel::TunnelTable::TunnelEntryPref', ** {'value': 55})".
class TunnelEntryPref {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::TunnelEntryPref";

   constexpr TunnelEntryPref() noexcept = default;
   constexpr TunnelEntryPref(uint8_t value) noexcept : value_(value) {}
   TunnelEntryPref(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   constexpr uint8_t value() const noexcept { return value_; }
   constexpr auto operator<=>(const TunnelEntryPref&) const noexcept = default;
   uint32_t hash() const noexcept;

  private:
   uint8_t value_ = 0;
};

// Preference of the IGP route a tunnel follows (admin-distance style, lower preferred).
// Constants (their values are this library's choice):
//   invalidIgpPref        0xFFFFFFFF  no route; never a real preference
//   maxIgpPref            255         the largest usable preference, as for admin distances
//   defaultIgpPref        0           what an entry carries until its protocol sets one
//   defaultRsvpLerIgpPref 115         an RSVP LER shortcut competes at the IS-IS default distance
// Text form: the decimal number; the text constructor also takes the Value('...') form.
class TunnelIgpPref {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::TunnelIgpPref";
   static const TunnelIgpPref invalidIgpPref;
   static const TunnelIgpPref maxIgpPref;
   static const TunnelIgpPref defaultIgpPref;
   static const TunnelIgpPref defaultRsvpLerIgpPref;

   constexpr TunnelIgpPref() noexcept = default;
   constexpr TunnelIgpPref(uint32_t value) noexcept : value_(value) {}
   TunnelIgpPref(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   constexpr uint32_t value() const noexcept { return value_; }
   constexpr auto operator<=>(const TunnelIgpPref&) const noexcept = default;
   uint32_t hash() const noexcept;

  private:
   uint32_t value_ = 0;
};

inline constexpr TunnelIgpPref TunnelIgpPref::invalidIgpPref{0xFFFFFFFFu};
inline constexpr TunnelIgpPref TunnelIgpPref::maxIgpPref{255};
inline constexpr TunnelIgpPref TunnelIgpPref::defaultIgpPref{0};
inline constexpr TunnelIgpPref TunnelIgpPref::defaultRsvpLerIgpPref{115};

// Bandwidth of a tunnel, a 32-bit IEEE float. Equality and order are the IEEE total order
// (std::strong_order): equal means the same bits, so a copied or byte-round-tripped value always
// equals its original, -0.0 orders before +0.0, and NaNs have a fixed place. For ordinary numbers
// the smaller bandwidth orders first.
// Text form: "Value('Tunnel::TunnelTable::TunnelBandwidth', ** {'value': 1.5})".
class TunnelBandwidth {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::TunnelBandwidth";

   constexpr TunnelBandwidth() noexcept = default;
   constexpr TunnelBandwidth(float value) noexcept : value_(value) {}
   TunnelBandwidth(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   constexpr float value() const noexcept { return value_; }
   std::strong_ordering operator<=>(const TunnelBandwidth& other) const noexcept;
   bool operator==(const TunnelBandwidth& other) const noexcept {
      return (*this <=> other) == std::strong_ordering::equal;
   }
   uint32_t hash() const noexcept;

  private:
   float value_ = 0.0f;
};

// Kind of encapsulation an EncapId names; one FIB table per kind.
enum class EncapType : uint8_t {
   none = 0,
   gre = 1,
   ipsecGre = 2,
   ipsecVti = 3,
   labelStack = 4,
   vxlan = 5,
};
inline constexpr uint8_t kMaxEncapTypeCode = 5;

// The enumerator name ("gre"); "invalid(<code>)" for unknown codes.
Vela::String valueToStrep(EncapType type);
std::ostream& operator<<(std::ostream& os, EncapType type);
// Reads an enumerator name back; throws Vela::ParseException otherwise.
EncapType encapTypeFromString(std::string_view text);

// Identifier of one encapsulation record of the tunnel FIB: an EncapType and an unsigned value,
// always set together. It is one 32-bit word, 4 bytes in every byte form:
//
//    struct EncapId {              // little-endian u32
//       uint32_t value : 28;       // bits 0-27: the per-type value, 0..0x0FFFFFFF
//       uint32_t encapType : 4;    // bits 28-31: EncapType code, 0..5
//    };
//
// A value above 0x0FFFFFFF is refused with the range exception naming EncapId; a default EncapId is
// encapValueIs(none, 0), the word 0. Order and hash are those of the word.
// Text form: "Value('Tunnel::TunnelTable::EncapId', ** {'encapType': gre, 'value': 7})".
class EncapId {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::EncapId";
   static constexpr uint32_t kSerializedSize = 4;
   static constexpr unsigned kTypeShift = 28;
   static constexpr uint32_t kMaxValue = 0x0FFFFFFF;

   constexpr EncapId() noexcept = default;
   EncapId(EncapType type, uint32_t value) { encapValueIs(type, value); }
   EncapId(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   // Sets type and value together. Throws Vela::RangeException if value > kMaxValue or the type
   // is not a known EncapType; *this is unchanged then.
   void encapValueIs(EncapType type, uint32_t value);

   constexpr EncapType encapType() const noexcept { return EncapType(word_ >> kTypeShift); }
   constexpr uint32_t value() const noexcept { return word_ & kMaxValue; }
   // The whole 32-bit word, as stored.
   constexpr uint32_t rawValue() const noexcept { return word_; }
   // Rebuilds an identifier from its word; throws ByteFormatError for an unknown type code.
   static EncapId fromRawValue(uint32_t word);

   // Display text of the type: short ("GRE") or long ("GRE tunnel").
   Vela::String typeCliStr(bool longForm) const;
   // Compact display: "<short type> <value>", e.g. "GRE 7".
   Vela::String stringValue() const;

   constexpr auto operator<=>(const EncapId&) const noexcept = default;
   uint32_t hash() const noexcept;

   void serialize(uint8_t* out) const noexcept;
   static EncapId deserialize(const uint8_t* in);

  private:
   uint32_t word_ = 0;
};

// Identifier of one tunnel RIB: 32 bits; all bits set (the default) means no id yet.
// Text form: "Value('Tunnel::TunnelTable::TunnelRibId', ** {'value': 3})".
class TunnelRibId {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::TunnelRibId";
   static constexpr uint32_t kNoId = 0xFFFFFFFF;
   static constexpr uint32_t kSerializedSize = 4;

   constexpr TunnelRibId() noexcept = default;
   constexpr explicit TunnelRibId(uint32_t value) noexcept : value_(value) {}
   TunnelRibId(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   constexpr uint32_t value() const noexcept { return value_; }
   constexpr bool isSet() const noexcept { return value_ != kNoId; }
   constexpr auto operator<=>(const TunnelRibId&) const noexcept = default;
   uint32_t hash() const noexcept;

   void serialize(uint8_t* out) const noexcept;
   static TunnelRibId deserialize(const uint8_t* in) noexcept;

  private:
   uint32_t value_ = kNoId;
};

Vela::String valueToStrep(const TunnelEntryPref& v);
Vela::String valueToStrep(const TunnelIgpPref& v);
Vela::String valueToStrep(const TunnelBandwidth& v);
Vela::String valueToStrep(const EncapId& v);
Vela::String valueToStrep(const TunnelRibId& v);
std::ostream& operator<<(std::ostream& os, const TunnelEntryPref& v);
std::ostream& operator<<(std::ostream& os, const TunnelIgpPref& v);
std::ostream& operator<<(std::ostream& os, const TunnelBandwidth& v);
std::ostream& operator<<(std::ostream& os, const EncapId& v);
std::ostream& operator<<(std::ostream& os, const TunnelRibId& v);

}  // namespace Tunnel::TunnelTable

template <>
struct std::hash<Tunnel::TunnelTable::EncapId> {
   size_t operator()(const Tunnel::TunnelTable::EncapId& id) const noexcept { return id.hash(); }
};
template <>
struct std::hash<Tunnel::TunnelTable::TunnelRibId> {
   size_t operator()(const Tunnel::TunnelTable::TunnelRibId& id) const noexcept {
      return id.hash();
   }
};
