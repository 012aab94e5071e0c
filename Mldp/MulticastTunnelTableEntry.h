// Tunnel::TunnelTable::MulticastTunnelTableEntry: the base of multicast tunnel entries, the tunnel
// id (the key) and the multicast tree it belongs to. Copies share the tree id's text.
//
// Byte form, host byte order, no gaps:
//
//    struct MulticastTunnelTableEntryRecord {
//       u64  tunnelId;       // 0
//       u32  treeIdLength;   // 8   L
//       char treeId[L];      // 12  the tree id's text, no terminator
//    };                      // 12 + L bytes
#pragma once

#include <cstdint>
#include <ostream>

#include "Mldp/MulticastTreeId.h"
#include "TunnelTable/TunnelId.h"

namespace Tunnel::TunnelTable {

class MulticastTunnelTableEntry {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::MulticastTunnelTableEntry";
   static constexpr uint32_t kFixedLen = 12;
   // The longest record for tree id texts of at most `treeIdMaxLen` bytes.
   static constexpr uint32_t maxSerializedLen(uint32_t treeIdMaxLen) noexcept {
      return kFixedLen + treeIdMaxLen;
   }

   MulticastTunnelTableEntry() = default;
   MulticastTunnelTableEntry(const TunnelId& tunnelId,
                             const Routing::Multicast::MulticastTreeId& mcastTreeId)
       : tunnelId_(tunnelId), mcastTreeId_(mcastTreeId) {}

   const TunnelId& tunnelId() const noexcept { return tunnelId_; }
   void tunnelIdIs(const TunnelId& v) noexcept { tunnelId_ = v; }
   const Routing::Multicast::MulticastTreeId& mcastTreeId() const noexcept { return mcastTreeId_; }
   void mcastTreeIdIs(const Routing::Multicast::MulticastTreeId& v) { mcastTreeId_ = v; }

   // One-at-a-time over the tunnel id's eight bytes, then the tree id's text.
   uint32_t hash() const noexcept;

   friend bool operator==(const MulticastTunnelTableEntry&,
                          const MulticastTunnelTableEntry&) noexcept = default;
   // By tunnel id, then tree id.
   friend bool operator<(const MulticastTunnelTableEntry& a,
                         const MulticastTunnelTableEntry& b) noexcept;

   uint32_t serializeLen() const noexcept;
   // REQUIRES: buffer holds serializeLen() bytes.
   void serialize(void* buffer) const noexcept;
   // 12 + L when the buffer holds the whole record, else 0.
   static uint32_t deserializeLen(const void* buffer, uint32_t length) noexcept;
   // Throws Vela::Exception when `length` is shorter than the record, and the tunnel id's range
   // exception for a value no tunnel id can hold.
   void deserialize(const void* buffer, uint32_t length);

  private:
   TunnelId tunnelId_;
   Routing::Multicast::MulticastTreeId mcastTreeId_;
};

// "Value('Tunnel::TunnelTable::MulticastTunnelTableEntry', ** {'tunnelId': %s, 'mcastTreeId':
// %s})"
Vela::String valueToStrep(const MulticastTunnelTableEntry& e);
std::ostream& operator<<(std::ostream& os, const MulticastTunnelTableEntry& e);

}  // namespace Tunnel::TunnelTable
