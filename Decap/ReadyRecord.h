// How the decap configuration's ready flag is published in the store: the one record of its
// collection, under key 0.
//
// Byte form, 1 byte: ready, 0 or 1.
#pragma once

#include <cstdint>

#include "TunnelTable/TableType.h"
#include "Vela/String.h"

namespace Tunnel::Decap {

struct ReadyRecord {
   static constexpr const char* kTypeName = "Tunnel::Decap::ReadyRecord";
   static constexpr uint32_t kSerializedLen = 1;
   static constexpr uint8_t kKey = 0;

   bool ready = false;

   uint32_t serializeLen() const noexcept { return kSerializedLen; }
   void serialize(void* buffer) const noexcept { *static_cast<uint8_t*>(buffer) = ready ? 1 : 0; }
   static uint32_t deserializeLen(const void*, uint32_t available) noexcept {
      return available >= kSerializedLen ? kSerializedLen : 0;
   }
   // Throws Vela::Exception for a length other than 1 or a byte other than 0 or 1.
   void deserialize(const void* buffer, uint32_t length);
   // "ready <True|False>" at `indent`.
   void dumpState(Vela::String& out, int indent) const;

   friend bool operator==(const ReadyRecord&, const ReadyRecord&) = default;
};

Vela::String valueToStrep(const ReadyRecord& record);

struct ReadyRecordKeyOf {
   uint8_t operator()(const ReadyRecord&) const noexcept { return ReadyRecord::kKey; }
};

inline constexpr TunnelTable::TableType readyRecordType{
    "Tunnel::Decap::Config::ready",
    ReadyRecord::kTypeName,
    "",
    "",
    TunnelTable::TunnelType::reservedTunnel0,
    TunnelTable::TunnelTableIdentifier::invalidTunnelTableId,
    ReadyRecord::kSerializedLen};

}  // namespace Tunnel::Decap
