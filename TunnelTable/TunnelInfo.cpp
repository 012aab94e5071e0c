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

constexpr auto GreTunnelInfo::fields() {
   return std::tuple{Codec::field<&GreTunnelInfo::srcAddr_>("srcAddr"),
                     Codec::field<&GreTunnelInfo::dstAddr_>("dstAddr"),
                     Codec::field<&GreTunnelInfo::tunnelIntfPort_>("tunnelIntfPort"),
                     Codec::field<&GreTunnelInfo::okey_>("okey"),
                     Codec::field<&GreTunnelInfo::ikey_>("ikey"),
                     Codec::field<&GreTunnelInfo::mtu_>("mtu"),
                     Codec::field<&GreTunnelInfo::underlayVrfId_>("underlayVrfId"),
                     Codec::field<&GreTunnelInfo::ttl_>("ttl"),
                     Codec::field<&GreTunnelInfo::tos_>("tos"),
                     Codec::field<&GreTunnelInfo::pathMtuDiscovery_>("pathMtuDiscovery"),
                     Codec::field<&GreTunnelInfo::dontFragment_>("dontFragment")};
}

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

constexpr auto IpsecGreTunnelInfo::fields() {
   return std::tuple{Codec::field<&IpsecGreTunnelInfo::srcAddr_>("srcAddr"),
                     Codec::field<&IpsecGreTunnelInfo::dstAddr_>("dstAddr"),
                     Codec::field<&IpsecGreTunnelInfo::tunnelIntfPort_>("tunnelIntfPort"),
                     Codec::field<&IpsecGreTunnelInfo::okey_>("okey"),
                     Codec::field<&IpsecGreTunnelInfo::ikey_>("ikey"),
                     Codec::field<&IpsecGreTunnelInfo::mtu_>("mtu"),
                     Codec::field<&IpsecGreTunnelInfo::underlayVrfId_>("underlayVrfId"),
                     Codec::field<&IpsecGreTunnelInfo::spiIn_>("spiIn"),
                     Codec::field<&IpsecGreTunnelInfo::spiOut_>("spiOut"),
                     Codec::field<&IpsecGreTunnelInfo::ttl_>("ttl"),
                     Codec::field<&IpsecGreTunnelInfo::tos_>("tos")};
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

constexpr auto IpsecVtiTunnelInfo::fields() {
   return std::tuple{Codec::field<&IpsecVtiTunnelInfo::srcAddr_>("srcAddr"),
                     Codec::field<&IpsecVtiTunnelInfo::dstAddr_>("dstAddr"),
                     Codec::field<&IpsecVtiTunnelInfo::tunnelIntfPort_>("tunnelIntfPort"),
                     Codec::field<&IpsecVtiTunnelInfo::mtu_>("mtu"),
                     Codec::field<&IpsecVtiTunnelInfo::underlayVrfId_>("underlayVrfId"),
                     Codec::field<&IpsecVtiTunnelInfo::spiIn_>("spiIn"),
                     Codec::field<&IpsecVtiTunnelInfo::spiOut_>("spiOut"),
                     Codec::field<&IpsecVtiTunnelInfo::ttl_>("ttl"),
                     Codec::field<&IpsecVtiTunnelInfo::tos_>("tos")};
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

constexpr auto VxlanTunnelInfo::fields() {
   return std::tuple{Codec::field<&VxlanTunnelInfo::srcAddr_>("srcAddr"),
                     Codec::field<&VxlanTunnelInfo::dstAddr_>("dstAddr"),
                     Codec::field<&VxlanTunnelInfo::underlayVrfId_>("underlayVrfId"),
                     Codec::field<&VxlanTunnelInfo::udpPort_>("udpPort"),
                     Codec::field<&VxlanTunnelInfo::ttl_>("ttl"),
                     Codec::field<&VxlanTunnelInfo::tos_>("tos")};
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
