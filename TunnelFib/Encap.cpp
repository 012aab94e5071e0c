// The encapsulations' text, dump and byte forms, derived from each type's two-field list.
#include "TunnelFib/Encap.h"

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/EntryRecord.h"
#include "TunnelTable/TunnelId.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelFib {

namespace {

namespace Codec = TunnelTable::Codec;
using TunnelTable::ByteReader;
using TunnelTable::ByteWriter;

template <class E>
E parseEncap(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, E::kTypeName);
   E v;
   Codec::parseFields(v, p);
   return v;
}

template <class E>
void writeEncap(const E& v, void* buffer) {
   ByteWriter w(buffer, v.serializeLen());
   Codec::writeFields(v, w);
}

// Reads into a fresh value, so a refused record leaves `v` as it was.
template <class E>
void readEncap(E& v, const void* buffer, uint32_t length, const char* className) {
   ByteReader r(buffer, length);
   E built;
   Codec::readFields(built, r);
   Codec::checkRecordEnd(r, className);
   v = std::move(built);
}

// "<key>: <name>: <value>", each as its field's dump text.
template <class E>
Vela::String dockEncap(const E& v) {
   constexpr auto fields = E::fields();
   using Key = std::tuple_element_t<0, std::remove_const_t<decltype(fields)>>;
   using Second = std::tuple_element_t<1, std::remove_const_t<decltype(fields)>>;
   return Key::traits::dumpText(v.*Key::member) + ": " + Vela::String(std::get<1>(fields).name) +
          ": " + Second::traits::dumpText(v.*Second::member);
}

}  // namespace

// ---- LabelStackEncap ----

LabelStackEncap::LabelStackEncap(Vela::String::const_iterator begin,
                                 Vela::String::const_iterator end)
    : LabelStackEncap(parseEncap<LabelStackEncap>(begin, end)) {}

LabelStackEncap::operator bool() const {
   return !(*this == LabelStackEncap());
}

bool operator==(const LabelStackEncap& a, const LabelStackEncap& b) {
   return Codec::fieldsEqual(a, b);
}

void LabelStackEncap::serialize(void* buffer) const noexcept {
   writeEncap(*this, buffer);
}

uint32_t LabelStackEncap::deserializeLen(const void* buffer, uint32_t length) noexcept {
   if (length < EncapId::kSerializedSize + 1) return 0;
   const uint32_t n =
       EncapId::kSerializedSize +
       LabelStack::deserializeLen(static_cast<const uint8_t*>(buffer) + EncapId::kSerializedSize,
                                  length - EncapId::kSerializedSize);
   return n == length ? n : 0;
}

void LabelStackEncap::deserialize(const void* buffer, uint32_t length) {
   readEncap(*this, buffer, length, kTypeName);
}

Vela::String LabelStackEncap::dockString() const {
   return dockEncap(*this);
}

void LabelStackEncap::dumpState(Vela::String& out, int indent) const {
   out += TunnelTable::dumpIndent(indent) + dockString() + "\n";
}

Vela::String valueToStrep(const LabelStackEncap& v) {
   return Codec::valueText(v, LabelStackEncap::kTypeName);
}

std::ostream& operator<<(std::ostream& os, const LabelStackEncap& v) {
   return os << valueToStrep(v);
}

// ---- InfoEncap ----

template <class Tag>
InfoEncap<Tag>::InfoEncap(Vela::String::const_iterator begin, Vela::String::const_iterator end)
    : InfoEncap(parseEncap<InfoEncap>(begin, end)) {}

template <class Tag>
InfoEncap<Tag>::operator bool() const {
   return !(*this == InfoEncap());
}

template <class Tag>
bool InfoEncap<Tag>::operator==(const InfoEncap& other) const {
   return Codec::fieldsEqual(*this, other);
}

template <class Tag>
void InfoEncap<Tag>::serialize(void* buffer) const noexcept {
   writeEncap(*this, buffer);
}

template <class Tag>
uint32_t InfoEncap<Tag>::deserializeLen(const void*, uint32_t length) noexcept {
   return length == kSerializedLen ? kSerializedLen : 0;
}

template <class Tag>
void InfoEncap<Tag>::deserialize(const void* buffer, uint32_t length) {
   readEncap(*this, buffer, length, kTypeName);
}

template <class Tag>
Vela::String InfoEncap<Tag>::dockString() const {
   return dockEncap(*this);
}

template <class Tag>
void InfoEncap<Tag>::dumpState(Vela::String& out, int indent) const {
   out += TunnelTable::dumpIndent(indent) + dockString() + "\n";
}

template <class Tag>
Vela::String valueToStrep(const InfoEncap<Tag>& v) {
   return Codec::valueText(v, InfoEncap<Tag>::kTypeName);
}

template <class Tag>
std::ostream& operator<<(std::ostream& os, const InfoEncap<Tag>& v) {
   return os << valueToStrep(v);
}

#define TUNNEL_FIB_INFO_ENCAP(Tag)                              \
   template class InfoEncap<Tag>;                               \
   template Vela::String valueToStrep(const InfoEncap<Tag>& v); \
   template std::ostream& operator<<(std::ostream& os, const InfoEncap<Tag>& v);

TUNNEL_FIB_INFO_ENCAP(GreEncapTag)
TUNNEL_FIB_INFO_ENCAP(IpsecGreEncapTag)
TUNNEL_FIB_INFO_ENCAP(IpsecVtiEncapTag)
TUNNEL_FIB_INFO_ENCAP(VxlanEncapTag)

#undef TUNNEL_FIB_INFO_ENCAP

}  // namespace Tunnel::TunnelFib
