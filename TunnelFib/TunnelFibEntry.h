// TunnelFibEntry: the tunnel FIB's record for one tunnel, keyed by tunnelId() - whether its
// primary vias may be used, the flags and failover reset the forwarding layer acts on, the
// sequence number of the tunnel-table entry it was built from, and the primary and backup vias.
// Each via names its encapsulation by EncapId only.
//
// A fixed-size value with no heap: the two via arrays are Vela::FixedArrays of 600 places with
// their own counts (see TunnelViaIndex.h for the deletion rule), so a copy costs only the live
// vias. The default entry (tunnelId 0, arePrimaryViasUsable true, everything else zero or empty)
// stands for no entry; operator bool is true exactly when an entry differs from it.
//
// Byte form, host byte order, 24 + 32 * (n1 + n2) bytes. The first 16 bytes are the value's own
// head image, copied as one block both ways, so the padding bytes travel as they are:
//
//    struct TunnelFibEntryRecord {          // offset      size
//       u64 tunnelId;                       //    0          8
//       u8  arePrimaryViasUsable;           //    8          1   0 or 1
//       u8  flags;                          //    9          1   TunnelFlags, 0 or 1
//       u8  resetFailoverState;             //   10          1
//       u8  pad;                            //   11          1   carried as it is
//       u16 seqNo;                          //   12          2
//       u8  pad2[2];                        //   14          2   carried as they are
//       u32 n1;                             //   16          4   tunnelVia count, 0..600
//       u8  tunnelVia[n1][32];              //   20        32n1  TunnelVia byte form
//       u32 n2;                             //   20+32n1     4   backupTunnelVia count, 0..600
//       u8  backupTunnelVia[n2][32];        //   24+32n1   32n2
//    };
//
// deserialize accepts exactly this: a length other than 24 + 32 * (n1 + n2), a count above 600, a
// tunnel id out of range, a bool or flags byte other than 0/1 or a via that is not a TunnelVia
// byte form throw a Vela::Exception (the store's readers treat that as corruption), and the value
// is left as it was. A successful deserialize leaves no stale place behind the counts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <type_traits>
#include <utility>

#include "TunnelFib/TunnelFlags.h"
#include "TunnelFib/TunnelViaIndex.h"
#include "TunnelTable/EntryValueTypes.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/Via.h"
#include "Vela/String.h"

namespace Tunnel::TunnelFib {

using TunnelTable::TunnelId;
using TunnelTable::TunnelVia;

class TunnelFibEntry {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelFib::TunnelFibEntry";
   static constexpr uint32_t kHeadLen = 16;
   static constexpr uint32_t kMinSerializedLen = kHeadLen + 4 + 4;
   static constexpr uint32_t kMaxSerializedLen =
       kMinSerializedLen + 2 * kTunnelViaCapacity * TunnelVia::kSerializedSize;  // 38424
   // What deserializeLen answers for a readable record: the room a reader makes for the value,
   // both arrays at capacity, whatever the record's own length.
   static constexpr uint32_t kDeserializedLen =
       kHeadLen + 4 + kTunnelViaCapacity * 32 + 4 + kTunnelViaCapacity * 32;

   TunnelFibEntry() noexcept = default;
   explicit TunnelFibEntry(const TunnelId& tunnelId) noexcept : tunnelId_(tunnelId) {}
   // Not available: the entry holds collections. Fails the assertion
   // !"No String constructor for TunnelFibEntry - has collection" and ends the process.
   TunnelFibEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   const TunnelId& tunnelId() const noexcept { return tunnelId_; }
   bool arePrimaryViasUsable() const noexcept { return arePrimaryViasUsable_; }
   TunnelFlags flags() const noexcept { return flags_; }
   uint8_t resetFailoverState() const noexcept { return resetFailoverState_; }
   TunnelEntrySequenceNumber seqNo() const noexcept { return seqNo_; }

   void tunnelIdIs(const TunnelId& v) noexcept { tunnelId_ = v; }
   void arePrimaryViasUsableIs(bool v) noexcept { arePrimaryViasUsable_ = v; }
   void flagsIs(TunnelFlags v) noexcept { flags_ = v; }
   void resetFailoverStateIs(uint8_t v) noexcept { resetFailoverState_ = v; }
   void seqNoIs(TunnelEntrySequenceNumber v) noexcept { seqNo_ = v; }

   // The primary vias. Index operations throw the TunnelViaIndex range exception beyond 599.
   const TunnelViaArray& tunnelVia() const noexcept { return tunnelVia_; }
   // The via at i, or the default via when i is not live.
   const TunnelVia& tunnelVia(TunnelViaIndex i) const { return tunnelVia_[i]; }
   // Stores v at i; an i at or past the count grows it to i + 1 (skipped places hold the default).
   void tunnelViaIs(TunnelViaIndex i, const TunnelVia& v) { tunnelVia_.is(i, v); }
   // Returns the removed via, or the default via when i is not live.
   TunnelVia tunnelViaDel(TunnelViaIndex i) { return tunnelVia_.del(i); }
   // REQUIRES: it points into tunnelVia().
   TunnelVia tunnelViaDel(TunnelViaArray::const_iterator it) {
      return tunnelVia_.del(TunnelViaIndex(it - std::as_const(tunnelVia_).begin()));
   }
   // Deletes index 0, 1, 2 ... in turn until the count is reached.
   void tunnelViaDelAll() { delAll(tunnelVia_); }

   // The backup vias; the same operations.
   const TunnelViaArray& backupTunnelVia() const noexcept { return backupTunnelVia_; }
   const TunnelVia& backupTunnelVia(TunnelViaIndex i) const { return backupTunnelVia_[i]; }
   void backupTunnelViaIs(TunnelViaIndex i, const TunnelVia& v) { backupTunnelVia_.is(i, v); }
   TunnelVia backupTunnelViaDel(TunnelViaIndex i) { return backupTunnelVia_.del(i); }
   // REQUIRES: it points into backupTunnelVia().
   TunnelVia backupTunnelViaDel(TunnelViaArray::const_iterator it) {
      return backupTunnelVia_.del(TunnelViaIndex(it - std::as_const(backupTunnelVia_).begin()));
   }
   void backupTunnelViaDelAll() { delAll(backupTunnelVia_); }

   // True when the entry differs from the default entry.
   explicit operator bool() const noexcept;
   // Every field equal, the via arrays over their live places; padding bytes do not count.
   friend bool operator==(const TunnelFibEntry& a, const TunnelFibEntry& b) noexcept;

   uint32_t serializeLen() const noexcept {
      return kMinSerializedLen +
             (tunnelVia_.count() + backupTunnelVia_.count()) * TunnelVia::kSerializedSize;
   }
   // Writes serializeLen() bytes.
   void serialize(void* buffer) const noexcept;
   // kDeserializedLen for a record whose counts can be read within `length` bytes and are at
   // most 600; 0 otherwise.
   static uint32_t deserializeLen(const void* buffer, uint32_t length) noexcept;
   // Rebuilds the value from exactly `length` bytes; see the file comment for what is refused.
   void deserialize(const void* buffer, uint32_t length);

   // "<tunnelId>: arePrimaryViasUsable: <bool>, tunnelVia (size <n1>): {0:<via>,1:<via>},
   // backupTunnelVia (size <n2>): {...}", each value in its text form.
   Vela::String dockString() const;
   // `indent` blanks, dockString(), a newline.
   void dumpState(Vela::String& out, int indent) const;

  private:
   static constexpr void checkLayout() noexcept {
      static_assert(std::is_standard_layout_v<TunnelFibEntry>);
      static_assert(sizeof(TunnelId) == 8 && sizeof(bool) == 1 && sizeof(TunnelFlags) == 1);
      static_assert(sizeof(TunnelEntrySequenceNumber) == 2);
      static_assert(offsetof(TunnelFibEntry, tunnelId_) == 0);
      static_assert(offsetof(TunnelFibEntry, arePrimaryViasUsable_) == 8);
      static_assert(offsetof(TunnelFibEntry, flags_) == 9);
      static_assert(offsetof(TunnelFibEntry, resetFailoverState_) == 10);
      static_assert(offsetof(TunnelFibEntry, pad_) == 11);
      static_assert(offsetof(TunnelFibEntry, seqNo_) == 12);
      static_assert(offsetof(TunnelFibEntry, pad2_) == 14);
      static_assert(offsetof(TunnelFibEntry, tunnelVia_) == kHeadLen);
   }

   static void delAll(TunnelViaArray& a) {
      for (uint32_t i = 0; i < a.count(); ++i) a.del(TunnelViaIndex(i));
   }

   TunnelId tunnelId_;
   bool arePrimaryViasUsable_ = true;
   TunnelFlags flags_;
   uint8_t resetFailoverState_ = 0;
   uint8_t pad_ = 0;  // explicit, so the head image holds no indeterminate byte
   TunnelEntrySequenceNumber seqNo_;
   uint8_t pad2_[2] = {};
   TunnelViaArray tunnelVia_;
   TunnelViaArray backupTunnelVia_;
};

// "Value('Tunnel::TunnelFib::TunnelFibEntry', ** {'tunnelId': <TunnelId text form>,
// 'arePrimaryViasUsable': True, 'flags': False, 'resetFailoverState': 0, 'seqNo': <text form>,
// 'tunnelVia': [<TunnelVia text form>, ...], 'backupTunnelVia': [...]})"
Vela::String valueToStrep(const TunnelFibEntry& v);
std::ostream& operator<<(std::ostream& os, const TunnelFibEntry& v);

}  // namespace Tunnel::TunnelFib
