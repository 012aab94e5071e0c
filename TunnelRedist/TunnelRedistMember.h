// How a redistribution configuration is published in the store: one record per member, keyed by
// (end point, tunnel id), so a configuration of any size is a table of small fixed records and a
// reader is told exactly which member of which entry changed. A reader rebuilds the entries from
// the members: an entry is the set of records under its end point, so an entry with no member is
// not published (the state machines never leave one).
//
// Byte form (little-endian), 36 bytes:
//    uint8_t  tep[24];      // Wirekit::IpGenPrefix byte form
//    uint64_t tunnelId;     // TunnelId byte form (range-checked on read)
//    uint32_t igpMetric;
#pragma once

#include <cstdint>

#include "TunnelRedist/TunnelInfo.h"
#include "TunnelTable/StoreKeys.h"
#include "TunnelTable/TableType.h"

namespace Tunnel::TunnelRedist {

struct TunnelRedistMemberKey {
   static constexpr uint32_t kSerializedSize = 32;

   Wirekit::IpGenPrefix tep;
   TunnelId tunnelId;

   void serialize(uint8_t* out) const noexcept;
   static TunnelRedistMemberKey deserialize(const uint8_t* in);
   friend bool operator==(const TunnelRedistMemberKey&, const TunnelRedistMemberKey&) = default;
};

struct TunnelRedistMember {
   static constexpr const char* kTypeName = "Tunnel::TunnelRedist::TunnelRedistMember";
   static constexpr uint32_t kSerializedLen = 36;

   Wirekit::IpGenPrefix tep;
   TunnelInfo info;

   TunnelRedistMemberKey key() const noexcept { return {tep, info.tunnelId()}; }

   uint32_t serializeLen() const noexcept { return kSerializedLen; }
   void serialize(void* buffer) const noexcept;
   static uint32_t deserializeLen(const void*, uint32_t available) noexcept {
      return available >= kSerializedLen ? kSerializedLen : 0;
   }
   // Throws Vela::Exception for a length other than 36, a bad prefix or a bad tunnel id.
   void deserialize(const void* buffer, uint32_t length);
   // "<tep> tunnelId <id> igpMetric <metric>" at `indent`.
   void dumpState(Vela::String& out, int indent) const;

   friend bool operator==(const TunnelRedistMember&, const TunnelRedistMember&) = default;
};

Vela::String valueToStrep(const TunnelRedistMember& m);

struct TunnelRedistMemberKeyOf {
   TunnelRedistMemberKey operator()(const TunnelRedistMember& m) const noexcept { return m.key(); }
};

inline constexpr TunnelTable::TableType tunnelRedistMemberType{
    "Tunnel::TunnelRedist::TunnelRedistConfig::entry",
    TunnelRedistMember::kTypeName,
    "",
    "",
    TunnelTable::TunnelType::reservedTunnel0,
    TunnelTable::TunnelTableIdentifier::invalidTunnelTableId,
    TunnelRedistMember::kSerializedLen};

}  // namespace Tunnel::TunnelRedist

template <>
struct Dock::KeyTraits<Tunnel::TunnelRedist::TunnelRedistMemberKey>
    : Tunnel::TunnelTable::ByteFormKeyTraits<Tunnel::TunnelRedist::TunnelRedistMemberKey> {};
