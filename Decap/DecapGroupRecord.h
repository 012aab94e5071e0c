// How a decap group is published in the store: one record per group, keyed by its name. Reading a
// record back builds a new DecapGroup object, so a reader's copy replaces its group pointer per
// arriving record, as its writer did per decapGroupIs.
//
// Byte form (little-endian), 4 + n + v + 24 * k bytes, at most 1895:
//    uint8_t tunnelType;          // DecapTunnelType code, 0..3
//    uint8_t nameLength;          // n, 1..255
//    uint8_t forwardingVrfLength; // v, 0..100
//    uint8_t decapIpCount;        // k, 0..64
//    uint8_t name[n];
//    uint8_t forwardingVrf[v];
//    uint8_t decapIps[k][24];     // Wirekit::IpGenPrefix byte form each
#pragma once

#include <cstdint>

#include "Decap/DecapGroupName.h"
#include "Decap/DecapGroupVaultTypes.h"
#include "TunnelTable/TableType.h"

namespace Tunnel::Decap {

struct DecapGroupRecord {
   static constexpr const char* kTypeName = "Tunnel::Decap::DecapGroupRecord";
   static constexpr uint32_t kHeaderLen = 4;
   static constexpr uint32_t kMaxSerializedLen =
       kHeaderLen + DecapGroup::maxNameLength + DecapGroup::maxForwardingVrfLength +
       DecapGroup::maxDecapIpCount * Wirekit::IpGenPrefix::kSerializedSize;

   Vela::Ptr<const DecapGroup> group;  // null only in a default record

   DecapGroupName key() const { return group ? DecapGroupName(group->name()) : DecapGroupName(); }

   // REQUIRES (serializeLen, serialize): a group.
   uint32_t serializeLen() const;
   void serialize(void* buffer) const;
   static uint32_t deserializeLen(const void* buffer, uint32_t available) noexcept;
   // Throws Vela::Exception for a length other than the header says, an unknown tunnel type, a bad
   // prefix or a field outside the group's bounds.
   void deserialize(const void* buffer, uint32_t length);
   // "decapGroup <name> tunnelType <type> decapIps <a,b> forwardingVrf <vrf>" at `indent`.
   void dumpState(Vela::String& out, int indent) const;

   // By the groups' content; two default records are equal.
   friend bool operator==(const DecapGroupRecord& a, const DecapGroupRecord& b) noexcept {
      return a.group == b.group || (a.group && b.group && *a.group == *b.group);
   }
};

// The group's text form; "None" for a default record.
Vela::String valueToStrep(const DecapGroupRecord& record);

struct DecapGroupRecordKeyOf {
   DecapGroupName operator()(const DecapGroupRecord& r) const { return r.key(); }
};

inline constexpr TunnelTable::TableType decapGroupRecordType{
    "Tunnel::Decap::Config::decapGroup",
    DecapGroupRecord::kTypeName,
    "",
    "",
    TunnelTable::TunnelType::reservedTunnel0,
    TunnelTable::TunnelTableIdentifier::invalidTunnelTableId,
    DecapGroupRecord::kMaxSerializedLen};

}  // namespace Tunnel::Decap
