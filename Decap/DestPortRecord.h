// How one entry of the global destination-port table is published in the store: one record per
// port, keyed by the port.
//
// Byte form (little-endian), 3 bytes:
//    uint16_t port;
//    uint8_t  payloadType;   // PayloadType code, 0..4
#pragma once

#include <cstdint>

#include "Decap/PayloadType.h"
#include "TunnelTable/TableType.h"

namespace Tunnel::Decap {

struct DestPortRecord {
   static constexpr const char* kTypeName = "Tunnel::Decap::DestPortRecord";
   static constexpr uint32_t kSerializedLen = 3;

   uint16_t port = 0;
   PayloadType payloadType = PayloadType::unknown;

   uint32_t serializeLen() const noexcept { return kSerializedLen; }
   void serialize(void* buffer) const noexcept;
   static uint32_t deserializeLen(const void*, uint32_t available) noexcept {
      return available >= kSerializedLen ? kSerializedLen : 0;
   }
   // Throws Vela::Exception for a length other than 3 or an unknown payload type.
   void deserialize(const void* buffer, uint32_t length);
   // "port <port> payloadType <type>" at `indent`.
   void dumpState(Vela::String& out, int indent) const;

   friend bool operator==(const DestPortRecord&, const DestPortRecord&) = default;
};

Vela::String valueToStrep(const DestPortRecord& record);

struct DestPortRecordKeyOf {
   uint16_t operator()(const DestPortRecord& r) const noexcept { return r.port; }
};

inline constexpr TunnelTable::TableType destPortRecordType{
    "Tunnel::Decap::Config::globalDestPortToPayloadType",
    DestPortRecord::kTypeName,
    "",
    "",
    TunnelTable::TunnelType::reservedTunnel0,
    TunnelTable::TunnelTableIdentifier::invalidTunnelTableId,
    DestPortRecord::kSerializedLen};

}  // namespace Tunnel::Decap
