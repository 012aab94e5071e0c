// The parameters of interface tunnels: what a GRE, IPsec GRE, IPsec VTI or VXLAN tunnel needs to
// build its outer header. Interface tunnel entries carry one; the FIB's encapsulations copy them
// whole, which is why they live in namespace Tunnel (Tunnel::GreTunnelInfo), and are also visible
// in Tunnel::TunnelTable.
//
// Each is a plain fixed-size value: equality over all fields, a text form
// "Value('Tunnel::GreTunnelInfo', ** {'srcAddr': 10.0.0.1, ...})" with its text constructor, and a
// fixed byte form (little-endian, fields in declaration order, no padding):
//
//    struct GreTunnelInfo {            //  64 bytes
//       IpGenAddr srcAddr;             //   0  20
//       IpGenAddr dstAddr;             //  20  20
//       u32 tunnelIntfPort;            //  40  the N of interface TunnelN
//       u32 okey;                      //  44  GRE key sent
//       u32 ikey;                      //  48  GRE key expected
//       u32 mtu;                       //  52
//       u32 underlayVrfId;             //  56
//       u8  ttl;                       //  60
//       u8  tos;                       //  61
//       u8  pathMtuDiscovery;          //  62  bool
//       u8  dontFragment;              //  63  bool
//    };
//    struct IpsecGreTunnelInfo {       //  70 bytes: srcAddr, dstAddr, tunnelIntfPort, okey, ikey,
//                                      //  mtu, underlayVrfId, spiIn u32, spiOut u32, ttl u8, tos
//                                      u8
//    };
//    struct IpsecVtiTunnelInfo {       //  62 bytes: srcAddr, dstAddr, tunnelIntfPort, mtu,
//                                      //  underlayVrfId, spiIn u32, spiOut u32, ttl u8, tos u8
//    };
//    struct VxlanTunnelInfo {          //  48 bytes: srcAddr, dstAddr, underlayVrfId u32,
//                                      //  udpPort u16, ttl u8, tos u8
//    };
#pragma once

#include <cstdint>
#include <ostream>
#include <tuple>

#include "TunnelTable/EntryCodec.h"
#include "Vela/String.h"
#include "Wirekit/IpGenAddr.h"

namespace Tunnel {

#define TUNNEL_INFO_ACCESSOR(Type, name)   \
   const Type& name() const noexcept {     \
      return name##_;                      \
   }                                       \
   void name##Is(const Type& v) noexcept { \
      name##_ = v;                         \
   }

class GreTunnelInfo {
  public:
   static constexpr const char* kTypeName = "Tunnel::GreTunnelInfo";
   static constexpr uint32_t kSerializedSize = 64;

   GreTunnelInfo() = default;
   GreTunnelInfo(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_INFO_ACCESSOR(Wirekit::IpGenAddr, srcAddr)
   TUNNEL_INFO_ACCESSOR(Wirekit::IpGenAddr, dstAddr)
   TUNNEL_INFO_ACCESSOR(uint32_t, tunnelIntfPort)
   TUNNEL_INFO_ACCESSOR(uint32_t, okey)
   TUNNEL_INFO_ACCESSOR(uint32_t, ikey)
   TUNNEL_INFO_ACCESSOR(uint32_t, mtu)
   TUNNEL_INFO_ACCESSOR(uint32_t, underlayVrfId)
   TUNNEL_INFO_ACCESSOR(uint8_t, ttl)
   TUNNEL_INFO_ACCESSOR(uint8_t, tos)
   TUNNEL_INFO_ACCESSOR(bool, pathMtuDiscovery)
   TUNNEL_INFO_ACCESSOR(bool, dontFragment)

   friend bool operator==(const GreTunnelInfo&, const GreTunnelInfo&);
   void serialize(uint8_t* out) const;
   static GreTunnelInfo deserialize(const uint8_t* in);

   static constexpr auto fields();

  private:
   Wirekit::IpGenAddr srcAddr_;
   Wirekit::IpGenAddr dstAddr_;
   uint32_t tunnelIntfPort_ = 0;
   uint32_t okey_ = 0;
   uint32_t ikey_ = 0;
   uint32_t mtu_ = 0;
   uint32_t underlayVrfId_ = 0;
   uint8_t ttl_ = 0;
   uint8_t tos_ = 0;
   bool pathMtuDiscovery_ = false;
   bool dontFragment_ = false;
};

class IpsecGreTunnelInfo {
  public:
   static constexpr const char* kTypeName = "Tunnel::IpsecGreTunnelInfo";
   static constexpr uint32_t kSerializedSize = 70;

   IpsecGreTunnelInfo() = default;
   IpsecGreTunnelInfo(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_INFO_ACCESSOR(Wirekit::IpGenAddr, srcAddr)
   TUNNEL_INFO_ACCESSOR(Wirekit::IpGenAddr, dstAddr)
   TUNNEL_INFO_ACCESSOR(uint32_t, tunnelIntfPort)
   TUNNEL_INFO_ACCESSOR(uint32_t, okey)
   TUNNEL_INFO_ACCESSOR(uint32_t, ikey)
   TUNNEL_INFO_ACCESSOR(uint32_t, mtu)
   TUNNEL_INFO_ACCESSOR(uint32_t, underlayVrfId)
   TUNNEL_INFO_ACCESSOR(uint32_t, spiIn)
   TUNNEL_INFO_ACCESSOR(uint32_t, spiOut)
   TUNNEL_INFO_ACCESSOR(uint8_t, ttl)
   TUNNEL_INFO_ACCESSOR(uint8_t, tos)

   friend bool operator==(const IpsecGreTunnelInfo&, const IpsecGreTunnelInfo&);
   void serialize(uint8_t* out) const;
   static IpsecGreTunnelInfo deserialize(const uint8_t* in);

   static constexpr auto fields();

  private:
   Wirekit::IpGenAddr srcAddr_;
   Wirekit::IpGenAddr dstAddr_;
   uint32_t tunnelIntfPort_ = 0;
   uint32_t okey_ = 0;
   uint32_t ikey_ = 0;
   uint32_t mtu_ = 0;
   uint32_t underlayVrfId_ = 0;
   uint32_t spiIn_ = 0;
   uint32_t spiOut_ = 0;
   uint8_t ttl_ = 0;
   uint8_t tos_ = 0;
};

class IpsecVtiTunnelInfo {
  public:
   static constexpr const char* kTypeName = "Tunnel::IpsecVtiTunnelInfo";
   static constexpr uint32_t kSerializedSize = 62;

   IpsecVtiTunnelInfo() = default;
   IpsecVtiTunnelInfo(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_INFO_ACCESSOR(Wirekit::IpGenAddr, srcAddr)
   TUNNEL_INFO_ACCESSOR(Wirekit::IpGenAddr, dstAddr)
   TUNNEL_INFO_ACCESSOR(uint32_t, tunnelIntfPort)
   TUNNEL_INFO_ACCESSOR(uint32_t, mtu)
   TUNNEL_INFO_ACCESSOR(uint32_t, underlayVrfId)
   TUNNEL_INFO_ACCESSOR(uint32_t, spiIn)
   TUNNEL_INFO_ACCESSOR(uint32_t, spiOut)
   TUNNEL_INFO_ACCESSOR(uint8_t, ttl)
   TUNNEL_INFO_ACCESSOR(uint8_t, tos)

   friend bool operator==(const IpsecVtiTunnelInfo&, const IpsecVtiTunnelInfo&);
   void serialize(uint8_t* out) const;
   static IpsecVtiTunnelInfo deserialize(const uint8_t* in);

   static constexpr auto fields();

  private:
   Wirekit::IpGenAddr srcAddr_;
   Wirekit::IpGenAddr dstAddr_;
   uint32_t tunnelIntfPort_ = 0;
   uint32_t mtu_ = 0;
   uint32_t underlayVrfId_ = 0;
   uint32_t spiIn_ = 0;
   uint32_t spiOut_ = 0;
   uint8_t ttl_ = 0;
   uint8_t tos_ = 0;
};

class VxlanTunnelInfo {
  public:
   static constexpr const char* kTypeName = "Tunnel::VxlanTunnelInfo";
   static constexpr uint32_t kSerializedSize = 48;

   VxlanTunnelInfo() = default;
   VxlanTunnelInfo(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_INFO_ACCESSOR(Wirekit::IpGenAddr, srcAddr)
   TUNNEL_INFO_ACCESSOR(Wirekit::IpGenAddr, dstAddr)
   TUNNEL_INFO_ACCESSOR(uint32_t, underlayVrfId)
   TUNNEL_INFO_ACCESSOR(uint16_t, udpPort)
   TUNNEL_INFO_ACCESSOR(uint8_t, ttl)
   TUNNEL_INFO_ACCESSOR(uint8_t, tos)

   friend bool operator==(const VxlanTunnelInfo&, const VxlanTunnelInfo&);
   void serialize(uint8_t* out) const;
   static VxlanTunnelInfo deserialize(const uint8_t* in);

   static constexpr auto fields();

  private:
   Wirekit::IpGenAddr srcAddr_;
   Wirekit::IpGenAddr dstAddr_;
   uint32_t underlayVrfId_ = 0;
   uint16_t udpPort_ = 4789;  // the IANA VXLAN port
   uint8_t ttl_ = 0;
   uint8_t tos_ = 0;
};

#undef TUNNEL_INFO_ACCESSOR

// Each info's fields, in text and byte order (the codec of EntryCodec.h derives the rest).
constexpr auto GreTunnelInfo::fields() {
   return std::tuple{
       TunnelTable::Codec::field<&GreTunnelInfo::srcAddr_>("srcAddr"),
       TunnelTable::Codec::field<&GreTunnelInfo::dstAddr_>("dstAddr"),
       TunnelTable::Codec::field<&GreTunnelInfo::tunnelIntfPort_>("tunnelIntfPort"),
       TunnelTable::Codec::field<&GreTunnelInfo::okey_>("okey"),
       TunnelTable::Codec::field<&GreTunnelInfo::ikey_>("ikey"),
       TunnelTable::Codec::field<&GreTunnelInfo::mtu_>("mtu"),
       TunnelTable::Codec::field<&GreTunnelInfo::underlayVrfId_>("underlayVrfId"),
       TunnelTable::Codec::field<&GreTunnelInfo::ttl_>("ttl"),
       TunnelTable::Codec::field<&GreTunnelInfo::tos_>("tos"),
       TunnelTable::Codec::field<&GreTunnelInfo::pathMtuDiscovery_>("pathMtuDiscovery"),
       TunnelTable::Codec::field<&GreTunnelInfo::dontFragment_>("dontFragment")};
}

constexpr auto IpsecGreTunnelInfo::fields() {
   return std::tuple{
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::srcAddr_>("srcAddr"),
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::dstAddr_>("dstAddr"),
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::tunnelIntfPort_>("tunnelIntfPort"),
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::okey_>("okey"),
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::ikey_>("ikey"),
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::mtu_>("mtu"),
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::underlayVrfId_>("underlayVrfId"),
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::spiIn_>("spiIn"),
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::spiOut_>("spiOut"),
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::ttl_>("ttl"),
       TunnelTable::Codec::field<&IpsecGreTunnelInfo::tos_>("tos")};
}

constexpr auto IpsecVtiTunnelInfo::fields() {
   return std::tuple{
       TunnelTable::Codec::field<&IpsecVtiTunnelInfo::srcAddr_>("srcAddr"),
       TunnelTable::Codec::field<&IpsecVtiTunnelInfo::dstAddr_>("dstAddr"),
       TunnelTable::Codec::field<&IpsecVtiTunnelInfo::tunnelIntfPort_>("tunnelIntfPort"),
       TunnelTable::Codec::field<&IpsecVtiTunnelInfo::mtu_>("mtu"),
       TunnelTable::Codec::field<&IpsecVtiTunnelInfo::underlayVrfId_>("underlayVrfId"),
       TunnelTable::Codec::field<&IpsecVtiTunnelInfo::spiIn_>("spiIn"),
       TunnelTable::Codec::field<&IpsecVtiTunnelInfo::spiOut_>("spiOut"),
       TunnelTable::Codec::field<&IpsecVtiTunnelInfo::ttl_>("ttl"),
       TunnelTable::Codec::field<&IpsecVtiTunnelInfo::tos_>("tos")};
}

constexpr auto VxlanTunnelInfo::fields() {
   return std::tuple{TunnelTable::Codec::field<&VxlanTunnelInfo::srcAddr_>("srcAddr"),
                     TunnelTable::Codec::field<&VxlanTunnelInfo::dstAddr_>("dstAddr"),
                     TunnelTable::Codec::field<&VxlanTunnelInfo::underlayVrfId_>("underlayVrfId"),
                     TunnelTable::Codec::field<&VxlanTunnelInfo::udpPort_>("udpPort"),
                     TunnelTable::Codec::field<&VxlanTunnelInfo::ttl_>("ttl"),
                     TunnelTable::Codec::field<&VxlanTunnelInfo::tos_>("tos")};
}

Vela::String valueToStrep(const GreTunnelInfo& v);
Vela::String valueToStrep(const IpsecGreTunnelInfo& v);
Vela::String valueToStrep(const IpsecVtiTunnelInfo& v);
Vela::String valueToStrep(const VxlanTunnelInfo& v);
std::ostream& operator<<(std::ostream& os, const GreTunnelInfo& v);
std::ostream& operator<<(std::ostream& os, const IpsecGreTunnelInfo& v);
std::ostream& operator<<(std::ostream& os, const IpsecVtiTunnelInfo& v);
std::ostream& operator<<(std::ostream& os, const VxlanTunnelInfo& v);

namespace TunnelTable {
using Tunnel::GreTunnelInfo;
using Tunnel::IpsecGreTunnelInfo;
using Tunnel::IpsecVtiTunnelInfo;
using Tunnel::VxlanTunnelInfo;
}  // namespace TunnelTable

}  // namespace Tunnel
