// NexthopGroupTunnelConfigEntry: one configured nexthop-group tunnel: the endpoint prefix it
// reaches (its key), the nexthop group it forwards through, and the IGP preference and metric it
// is offered with.
//
// Text form, every field in order:
//    Value('Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry', ** {'endpoint': '10.0.0.1/32',
//    'nexthopGroupName': 'ng1', 'igpPref': 10, 'igpMetric': 20})
//
// It is also the record the configuration publishes in the store, keyed by the endpoint. Byte
// form (little-endian), 30 + n bytes, at most 285:
//    uint8_t  endpoint[24];          // Wirekit::IpGenPrefix byte form
//    uint32_t igpMetric;
//    uint8_t  igpPref;
//    uint8_t  nexthopGroupNameLength; // n, 0..255
//    uint8_t  nexthopGroupName[n];
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>

#include "TunnelTable/StoreKeys.h"
#include "TunnelTable/TableType.h"
#include "Vela/String.h"
#include "Wirekit/IpGenPrefix.h"

namespace Tunnel::NexthopGroup {

class NexthopGroupTunnelConfigEntry {
  public:
   static constexpr const char* kTypeName = "Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry";
   static constexpr size_t minNexthopGroupNameLength = 0;
   static constexpr size_t maxNexthopGroupNameLength = 255;
   static constexpr uint32_t kFixedLen = 30;
   static constexpr uint32_t kMaxSerializedLen = kFixedLen + maxNexthopGroupNameLength;

   NexthopGroupTunnelConfigEntry() = default;
   // Throws Vela::RangeException naming the type and the bounds for a name above 255 bytes.
   explicit NexthopGroupTunnelConfigEntry(const Wirekit::IpGenPrefix& endpoint,
                                          Vela::String nexthopGroupName = {}, uint8_t igpPref = 0,
                                          uint32_t igpMetric = 0);
   // Reads the text form; throws Vela::ParseException or Vela::RangeException naming the field.
   NexthopGroupTunnelConfigEntry(Vela::String::const_iterator begin,
                                 Vela::String::const_iterator end);

   // The tunnel's endpoint prefix, the entry's key.
   const Wirekit::IpGenPrefix& endpoint() const noexcept { return endpoint_; }
   const Wirekit::IpGenPrefix& fwkKey() const noexcept { return endpoint_; }
   // The nexthop group the tunnel forwards through.
   const Vela::String& nexthopGroupName() const noexcept { return nexthopGroupName_; }
   // The IGP preference and metric the tunnel is offered with.
   uint8_t igpPref() const noexcept { return igpPref_; }
   uint32_t igpMetric() const noexcept { return igpMetric_; }

   // Throws as the constructor; the entry is unchanged then.
   void nexthopGroupNameIs(Vela::String name);
   void igpPrefIs(uint8_t pref) noexcept { igpPref_ = pref; }
   void igpMetricIs(uint32_t metric) noexcept { igpMetric_ = metric; }

   uint32_t serializeLen() const noexcept;
   void serialize(void* buffer) const;
   static uint32_t deserializeLen(const void* buffer, uint32_t available) noexcept;
   // Throws Vela::Exception for a length other than the name length gives or a bad prefix.
   void deserialize(const void* buffer, uint32_t length);
   // "<endpoint> nexthopGroup <name> igpPref <pref> igpMetric <metric>" at `indent`.
   void dumpState(Vela::String& out, int indent) const;

   friend bool operator==(const NexthopGroupTunnelConfigEntry&,
                          const NexthopGroupTunnelConfigEntry&) = default;

  private:
   Wirekit::IpGenPrefix endpoint_;
   Vela::String nexthopGroupName_;
   uint8_t igpPref_ = 0;
   uint32_t igpMetric_ = 0;
};

Vela::String valueToStrep(const NexthopGroupTunnelConfigEntry& entry);
std::ostream& operator<<(std::ostream& os, const NexthopGroupTunnelConfigEntry& entry);

struct NexthopGroupTunnelConfigEntryKeyOf {
   Wirekit::IpGenPrefix operator()(const NexthopGroupTunnelConfigEntry& e) const noexcept {
      return e.fwkKey();
   }
};

inline constexpr TunnelTable::TableType nexthopGroupTunnelConfigEntryType{
    "Tunnel::NexthopGroup::Config::entry",
    NexthopGroupTunnelConfigEntry::kTypeName,
    "",
    "",
    TunnelTable::TunnelType::reservedTunnel0,
    TunnelTable::TunnelTableIdentifier::invalidTunnelTableId,
    NexthopGroupTunnelConfigEntry::kMaxSerializedLen};

}  // namespace Tunnel::NexthopGroup
