// Text forms, text constructors, hashes and byte forms of the small tunnel value types.
#include "TunnelTable/TunnelValueTypes.h"

#include <bit>

#include "TunnelTable/ByteCursor.h"
#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelTable {

namespace {

Vela::String singleField(const char* typeName, const Vela::String& value) {
   Vela::ValueTextBuilder b(typeName);
   b.field("value", value);
   return b.str();
}

struct EncapTypeInfo {
   const char* name;
   const char* shortText;
   const char* longText;
};

constexpr EncapTypeInfo kEncapTypes[kMaxEncapTypeCode + 1] = {
    {"none", "none", "no encapsulation"},
    {"gre", "GRE", "GRE tunnel"},
    {"ipsecGre", "IPsec GRE", "IPsec over GRE tunnel"},
    {"ipsecVti", "IPsec VTI", "IPsec VTI tunnel"},
    {"labelStack", "MPLS", "MPLS label stack"},
    {"vxlan", "VXLAN", "VXLAN tunnel"},
};

constexpr bool isValidEncapType(EncapType t) noexcept {
   return static_cast<uint8_t>(t) <= kMaxEncapTypeCode;
}

}  // namespace

// ---- TunnelEntryPref ----

TunnelEntryPref::TunnelEntryPref(Vela::String::const_iterator begin,
                                 Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   value_ = p.readUnsigned<uint8_t>("value");
}

uint32_t TunnelEntryPref::hash() const noexcept {
   return Vela::oneAtATimeOf(value_);
}

Vela::String valueToStrep(const TunnelEntryPref& v) {
   return singleField(TunnelEntryPref::kTypeName, Vela::renderUnsigned(v.value()));
}

// ---- TunnelIgpPref ----

TunnelIgpPref::TunnelIgpPref(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   const std::string_view text = Vela::viewOf(begin, end);
   if (text.starts_with("Value(")) {
      const Vela::ValueTextParser p(text, kTypeName);
      value_ = p.readUnsigned<uint32_t>("value");
      return;
   }
   try {
      value_ = Vela::parseUnsigned<uint32_t>(text);
   } catch (const Vela::ParseException& e) {
      throw Vela::ParseException(Vela::String("cannot read ") + kTypeName + ": " + e.what());
   }
}

uint32_t TunnelIgpPref::hash() const noexcept {
   return Vela::oneAtATimeOf(value_);
}

Vela::String valueToStrep(const TunnelIgpPref& v) {
   return Vela::renderUnsigned(v.value());
}

// ---- TunnelBandwidth ----

TunnelBandwidth::TunnelBandwidth(Vela::String::const_iterator begin,
                                 Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   value_ = p.readFloat("value");
}

std::strong_ordering TunnelBandwidth::operator<=>(const TunnelBandwidth& other) const noexcept {
   return std::strong_order(value_, other.value_);
}

uint32_t TunnelBandwidth::hash() const noexcept {
   return Vela::oneAtATimeOf(std::bit_cast<uint32_t>(value_));
}

Vela::String valueToStrep(const TunnelBandwidth& v) {
   return singleField(TunnelBandwidth::kTypeName, Vela::renderFloat(v.value()));
}

// ---- EncapType, EncapId ----

Vela::String valueToStrep(EncapType type) {
   if (!isValidEncapType(type)) {
      return "invalid(" + std::to_string(static_cast<unsigned>(type)) + ")";
   }
   return kEncapTypes[static_cast<uint8_t>(type)].name;
}

std::ostream& operator<<(std::ostream& os, EncapType type) {
   return os << valueToStrep(type);
}

EncapType encapTypeFromString(std::string_view text) {
   for (uint8_t code = 0; code <= kMaxEncapTypeCode; ++code) {
      if (text == kEncapTypes[code].name) return EncapType(code);
   }
   throw Vela::ParseException("unknown encapsulation type '" + Vela::String(text) + "'");
}

EncapId::EncapId(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   const EncapType type = p.readField("encapType", encapTypeFromString);
   *this = p.readField("value", [type](std::string_view t) {
      return EncapId(type, Vela::parseUnsigned<uint32_t>(t));
   });
}

void EncapId::encapValueIs(EncapType type, uint32_t value) {
   if (!isValidEncapType(type)) {
      throw Vela::RangeException::forType(kTypeName, "encapType", "minEncapType", "maxEncapType");
   }
   if (value > kMaxValue) throw Vela::RangeException::forType(kTypeName);
   word_ = (uint32_t{static_cast<uint8_t>(type)} << kTypeShift) | value;
}

EncapId EncapId::fromRawValue(uint32_t word) {
   const auto type = EncapType(word >> kTypeShift);
   if (!isValidEncapType(type)) {
      throw ByteFormatError("EncapId word " + std::to_string(word) + " has unknown type code " +
                            std::to_string(word >> kTypeShift));
   }
   return EncapId(type, word & kMaxValue);
}

Vela::String EncapId::typeCliStr(bool longForm) const {
   const uint8_t i = static_cast<uint8_t>(encapType());
   return longForm ? kEncapTypes[i].longText : kEncapTypes[i].shortText;
}

Vela::String EncapId::stringValue() const {
   return typeCliStr(false) + " " + std::to_string(value());
}

uint32_t EncapId::hash() const noexcept {
   return Vela::oneAtATimeOf(word_);
}

void EncapId::serialize(uint8_t* out) const noexcept {
   storeLe32(out, word_);
}

EncapId EncapId::deserialize(const uint8_t* in) {
   return fromRawValue(loadLe32(in));
}

Vela::String valueToStrep(const EncapId& v) {
   Vela::ValueTextBuilder b(EncapId::kTypeName);
   b.field("encapType", valueToStrep(v.encapType()));
   b.field("value", Vela::renderUnsigned(v.value()));
   return b.str();
}

// ---- TunnelRibId ----

TunnelRibId::TunnelRibId(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   value_ = p.readUnsigned<uint32_t>("value");
}

uint32_t TunnelRibId::hash() const noexcept {
   return Vela::oneAtATimeOf(value_);
}

void TunnelRibId::serialize(uint8_t* out) const noexcept {
   storeLe32(out, value_);
}

TunnelRibId TunnelRibId::deserialize(const uint8_t* in) noexcept {
   return TunnelRibId(loadLe32(in));
}

Vela::String valueToStrep(const TunnelRibId& v) {
   return singleField(TunnelRibId::kTypeName, Vela::renderUnsigned(v.value()));
}

std::ostream& operator<<(std::ostream& os, const TunnelEntryPref& v) {
   return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, const TunnelIgpPref& v) {
   return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, const TunnelBandwidth& v) {
   return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, const EncapId& v) {
   return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, const TunnelRibId& v) {
   return os << valueToStrep(v);
}

}  // namespace Tunnel::TunnelTable
