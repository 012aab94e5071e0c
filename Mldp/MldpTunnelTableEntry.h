// Tunnel::TunnelTable::MldpTunnelTableEntry: an mLDP tunnel - its tunnel id, the multicast tree
// it belongs to, and up to 600 MPLS vias over which its traffic leaves.
//
// Byte form, host byte order, no gaps (B = 12 + L is the base's record):
//
//    struct MldpTunnelTableEntryRecord {
//       MulticastTunnelTableEntryRecord base;   // 0      B bytes
//       u32     viaCount;                      // B      n, at most 600
//       MplsVia via[n];                        // B + 4  76 bytes each (MplsVia byte form)
//    };                                        // B + 4 + 76n bytes
//
// Text form: "Value('Tunnel::TunnelTable::MldpTunnelTableEntry', ** {'tunnelId': %s,
// 'mcastTreeId': %s, 'via': %s})". There is no constructor from text: the entry holds a
// collection, and asking for one is a programming error.
//
// Implementation in MldpTunnel.cpp.
#pragma once

#include <ostream>

#include "Mldp/MulticastTunnelTableEntry.h"
#include "TunnelTable/Via.h"

namespace Tunnel::TunnelTable {

class MldpTunnelTableEntry : public MulticastTunnelTableEntry {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::MldpTunnelTableEntry";
   static constexpr uint32_t kViaCapacity = 600;
   // The longest record for tree id texts of at most `treeIdMaxLen` bytes: every via place live.
   static constexpr uint32_t maxSerializedLen(uint32_t treeIdMaxLen) noexcept {
      return MulticastTunnelTableEntry::maxSerializedLen(treeIdMaxLen) + 4 +
             kViaCapacity * MplsVia::kSerializedSize;
   }

   MldpTunnelTableEntry() = default;
   MldpTunnelTableEntry(const TunnelId& tunnelId,
                        const Routing::Multicast::MulticastTreeId& mcastTreeId)
       : MulticastTunnelTableEntry(tunnelId, mcastTreeId) {}
   explicit MldpTunnelTableEntry(const MulticastTunnelTableEntry& base)
       : MulticastTunnelTableEntry(base) {}
   // Not available: asserts "No String constructor for MldpTunnelTableEntry - has collection".
   MldpTunnelTableEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);
   // Copies carry only the live vias.
   MldpTunnelTableEntry(const MldpTunnelTableEntry& other);
   MldpTunnelTableEntry& operator=(const MldpTunnelTableEntry& other);

   const MplsViaArray& via() const noexcept { return via_; }
   const MplsVia& via(ViaIndex i) const { return via_[i]; }
   uint32_t viaCount() const noexcept { return via_.count(); }
   // Stores the via at `i`; the count becomes i + 1 when i is at or past it.
   const MplsVia& viaIs(ViaIndex i, const MplsVia& v) { return via_.is(i, v); }
   // Removes by the via array's deletion rule; returns the removed via (or the default).
   MplsVia viaDel(ViaIndex i) { return via_.del(i); }
   // REQUIRES: it points at a live place of via(). Returns the place after it.
   MplsViaArray::const_iterator viaDel(MplsViaArray::const_iterator it);
   void viaDelAll() noexcept { via_.delAll(); }

   // Base parts equal, via counts equal, and each live via equal in order.
   friend bool operator==(const MldpTunnelTableEntry& a, const MldpTunnelTableEntry& b);
   // True when the entry differs from a default-constructed one.
   explicit operator bool() const;

   uint32_t serializeLen() const noexcept;
   // REQUIRES: buffer holds serializeLen() bytes. Throws Vela::ArraySizeError for a via count
   // above 600.
   void serialize(void* buffer) const;
   // The encoded length when `length` bytes hold the whole record, else 0. The via count is not
   // checked against the capacity here.
   static uint32_t deserializeLen(const void* buffer, uint32_t length) noexcept;
   // Throws Vela::ArraySizeError for a via count above 600, Vela::Exception for a record longer
   // than `length`, and the value types' own errors for bytes no writer produces.
   void deserialize(const void* buffer, uint32_t length);

   // "TunnelId: ...", "mcastTreeId: ..." and the vias, one line each.
   void dumpState(Vela::String& out, int indent) const;

  private:
   MplsViaArray via_;
};

Vela::String valueToStrep(const MldpTunnelTableEntry& e);
std::ostream& operator<<(std::ostream& os, const MldpTunnelTableEntry& e);

}  // namespace Tunnel::TunnelTable
