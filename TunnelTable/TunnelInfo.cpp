#include "TunnelTable/TunnelInfo.h"

#include "TunnelTable/EntryFieldTraits.h"

namespace Tunnel {

using TunnelTable::ByteReader;
using TunnelTable::ByteWriter;
namespace Codec = TunnelTable::Codec;

namespace {

// Each info is a fixed block whose byte form is exactly its fields, in order.
template <typename Info>
void writeInfo(const Info& v, uint8_t* out) {
   static_assert(Codec::fixedFieldsLen<Info>() == Info::kSerializedSize);
   ByteWriter w(out, Info::kSerializedSize);
   Codec::writeFields(v, w);
}

template <typename Info>
Info readInfo(const uint8_t* in) {
   Info v;
   ByteReader r(in, Info::kSerializedSize);
   Codec::readFields(v, r);
   return v;
}

template <typename Info>
void parseInfo(Info& v, Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   Vela::ValueTextParser p(begin, end, Info::kTypeName);
   Codec::parseFields(v, p);
}

}  // namespace

GreTunnelInfo::GreTunnelInfo(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   parseInfo(*this, begin, end);
}

bool operator==(const GreTunnelInfo& a, const GreTunnelInfo& b) {
   return Codec::fieldsEqual(a, b);
}

void GreTunnelInfo::serialize(uint8_t* out) const {
   writeInfo(*this, out);
}

GreTunnelInfo GreTunnelInfo::deserialize(const uint8_t* in) {
   return readInfo<GreTunnelInfo>(in);
}

Vela::String valueToStrep(const GreTunnelInfo& v) {
   return Codec::valueText(v, GreTunnelInfo::kTypeName);
}

std::ostream& operator<<(std::ostream& os, const GreTunnelInfo& v) {
   return os << valueToStrep(v);
}

IpsecGreTunnelInfo::IpsecGreTunnelInfo(Vela::String::const_iterator begin,
                                       Vela::String::const_iterator end) {
   parseInfo(*this, begin, end);
}

bool operator==(const IpsecGreTunnelInfo& a, const IpsecGreTunnelInfo& b) {
   return Codec::fieldsEqual(a, b);
}

void IpsecGreTunnelInfo::serialize(uint8_t* out) const {
   writeInfo(*this, out);
}

IpsecGreTunnelInfo IpsecGreTunnelInfo::deserialize(const uint8_t* in) {
   return readInfo<IpsecGreTunnelInfo>(in);
}

Vela::String valueToStrep(const IpsecGreTunnelInfo& v) {
   return Codec::valueText(v, IpsecGreTunnelInfo::kTypeName);
}

std::ostream& operator<<(std::ostream& os, const IpsecGreTunnelInfo& v) {
   return os << valueToStrep(v);
}

IpsecVtiTunnelInfo::IpsecVtiTunnelInfo(Vela::String::const_iterator begin,
                                       Vela::String::const_iterator end) {
   parseInfo(*this, begin, end);
}

bool operator==(const IpsecVtiTunnelInfo& a, const IpsecVtiTunnelInfo& b) {
   return Codec::fieldsEqual(a, b);
}

void IpsecVtiTunnelInfo::serialize(uint8_t* out) const {
   writeInfo(*this, out);
}

IpsecVtiTunnelInfo IpsecVtiTunnelInfo::deserialize(const uint8_t* in) {
   return readInfo<IpsecVtiTunnelInfo>(in);
}

Vela::String valueToStrep(const IpsecVtiTunnelInfo& v) {
   return Codec::valueText(v, IpsecVtiTunnelInfo::kTypeName);
}

std::ostream& operator<<(std::ostream& os, const IpsecVtiTunnelInfo& v) {
   return os << valueToStrep(v);
}

VxlanTunnelInfo::VxlanTunnelInfo(Vela::String::const_iterator begin,
                                 Vela::String::const_iterator end) {
   parseInfo(*this, begin, end);
}

bool operator==(const VxlanTunnelInfo& a, const VxlanTunnelInfo& b) {
   return Codec::fieldsEqual(a, b);
}

void VxlanTunnelInfo::serialize(uint8_t* out) const {
   writeInfo(*this, out);
}

VxlanTunnelInfo VxlanTunnelInfo::deserialize(const uint8_t* in) {
   return readInfo<VxlanTunnelInfo>(in);
}

Vela::String valueToStrep(const VxlanTunnelInfo& v) {
   return Codec::valueText(v, VxlanTunnelInfo::kTypeName);
}

std::ostream& operator<<(std::ostream& os, const VxlanTunnelInfo& v) {
   return os << valueToStrep(v);
}

}  // namespace Tunnel
