// Vias: the ways out of a tunnel. A via names the next hop and the interface to send on and, for
// MPLS tunnels, what to do to the label stack. Entries hold their vias in 600-place collections;
// the tunnel FIB's TunnelVia names an encapsulation record by EncapId instead of carrying labels.
//
// All vias are plain values compared field by field in declaration order. Defaults: the address
// of no family, the empty interface, the operation that does nothing, EncapId of type none, 0.
//
// Fixed byte forms (fields in declaration order, each in its own byte form):
//
//    struct MplsVia {                 struct Via {                 struct TunnelVia {
//       uint8_t nextHop[20];             uint8_t nextHop[20];         uint8_t nextHop[20];
//       uint8_t intfId[8];               uint8_t intfId[8];           uint8_t intfId[8];
//       uint8_t labels[48];           };  // 28 bytes                 uint32_t encapId;  // LE
//    };  // 76 bytes                                                };  // 32 bytes
//
// MplsCosVia carries one label operation per traffic class that has one, so its byte form is
// variable and it has the four variable-length operations instead:
//
//    struct MplsCosVia {              // 29 + 48 * popcount(cosMask) bytes
//       uint8_t nextHop[20];
//       uint8_t intfId[8];
//       uint8_t cosMask;              // bit c set: traffic class c has an operation
//       uint8_t labels[][48];         // one per set bit, class 0 first
//    };
//
// Text forms: valueToStrep gives "Value('Tunnel::TunnelTable::<Via kind>', ** {...})" with every
// field (network values as quoted strings); stringValue gives the compact form used in dumps,
// "nextHop: %s, intfId: %s, labels: [%s]" for an MplsVia.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <ostream>

#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelIndices.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "Vela/FixedArray.h"
#include "Vela/String.h"
#include "Wirekit/IntfId.h"
#include "Wirekit/IpGenAddr.h"
#include "Wirekit/MplsLabelOperation.h"

namespace Tunnel::TunnelTable {

class MplsVia {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::MplsVia";
   static constexpr uint32_t kSerializedSize = 76;

   MplsVia() noexcept = default;
   MplsVia(const Wirekit::IpGenAddr& nextHop, const Wirekit::IntfId& intfId,
           const Wirekit::MplsLabelOperation& labels = {}) noexcept
       : nextHop_(nextHop), intfId_(intfId), labels_(labels) {}
   MplsVia(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   const Wirekit::IpGenAddr& nextHop() const noexcept { return nextHop_; }
   const Wirekit::IntfId& intfId() const noexcept { return intfId_; }
   const Wirekit::MplsLabelOperation& labels() const noexcept { return labels_; }
   void nextHopIs(const Wirekit::IpGenAddr& v) noexcept { nextHop_ = v; }
   void intfIdIs(const Wirekit::IntfId& v) noexcept { intfId_ = v; }
   void labelsIs(const Wirekit::MplsLabelOperation& v) noexcept { labels_ = v; }

   // One-at-a-time over the twelve bytes nextHop.hash(), intfId.hash(), labels.hash(0), each
   // least significant byte first.
   uint32_t hash() const noexcept;

   // "nextHop: %s, intfId: %s, labels: [%s]"
   Vela::String stringValue() const;
   // "%*cnextHop: %s, intfId: %s, labels: [%s]\n"; at indent 0 without leading blanks.
   Vela::String dumpLine(int indent) const;

   friend bool operator==(const MplsVia&, const MplsVia&) noexcept = default;
   friend std::strong_ordering operator<=>(const MplsVia&, const MplsVia&) noexcept = default;

   // Inline, as the reader below: entries write up to 600 in a row.
   void serialize(uint8_t* out) const noexcept {
      nextHop_.serialize(out);
      intfId_.serialize(out + 20);
      labels_.serialize(out + 28);
   }
   // Inline, each part read in place: entries read up to 600 in a row. Bytes a part refuses go
   // to deserializeChecked, which throws the error of record.
   static MplsVia deserialize(const uint8_t* in) {
      MplsVia v;
      const bool nextHopOk = v.nextHop_.readWellFormed(in);
      const bool intfIdOk = v.intfId_.readWellFormed(in + 20);
      const bool labelsOk = v.labels_.readWellFormed(in + 28);
      if (!(nextHopOk && intfIdOk && labelsOk)) [[unlikely]]
         v = deserializeChecked(in);
      return v;
   }

   // Reads `count` vias laid end to end into the storage at `out`, accepting exactly what
   // deserialize accepts and throwing its error for the first via it refuses. The vias of one
   // entry nearly always share a shape (address family, interface kind and count, label
   // header): the bits a shape's values may not set are worked out when the shape changes, and
   // each via is then checked with a few masked reads instead of part by part.
   static void deserializeRun(MplsVia* out, const uint8_t* in, size_t count);

  private:
   static MplsVia deserializeChecked(const uint8_t* in);

   Wirekit::IpGenAddr nextHop_;
   Wirekit::IntfId intfId_;
   Wirekit::MplsLabelOperation labels_;
};

class Via {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::Via";
   static constexpr uint32_t kSerializedSize = 28;

   Via() noexcept = default;
   Via(const Wirekit::IpGenAddr& nextHop, const Wirekit::IntfId& intfId) noexcept
       : nextHop_(nextHop), intfId_(intfId) {}
   Via(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   // The via that leads into another tunnel: next hop 0.0.0.0, interface the dynamic tunnel
   // interface derived from the tunnel's identifier.
   static Via tunnelIdVia(const TunnelId& tunnelId);
   // True for a via built by tunnelIdVia; viaTunnelId() then gives the tunnel back.
   bool isTunnelIdVia() const noexcept;
   // REQUIRES: isTunnelIdVia(). Throws Vela::RangeException if the interface carries a value
   // outside the TunnelId range.
   TunnelId viaTunnelId() const;

   const Wirekit::IpGenAddr& nextHop() const noexcept { return nextHop_; }
   const Wirekit::IntfId& intfId() const noexcept { return intfId_; }
   void nextHopIs(const Wirekit::IpGenAddr& v) noexcept { nextHop_ = v; }
   void intfIdIs(const Wirekit::IntfId& v) noexcept { intfId_ = v; }

   // One-at-a-time over nextHop.hash(), intfId.hash(), least significant byte first.
   uint32_t hash() const noexcept;

   // "nextHop: %s, intfId: %s"
   Vela::String stringValue() const;
   // "%*cnextHop: %s, intfId: %s\n"; at indent 0 without leading blanks.
   Vela::String dumpLine(int indent) const;

   friend bool operator==(const Via&, const Via&) noexcept = default;
   friend std::strong_ordering operator<=>(const Via&, const Via&) noexcept = default;

   void serialize(uint8_t* out) const noexcept;
   static Via deserialize(const uint8_t* in) {
      Via v;
      const bool nextHopOk = v.nextHop_.readWellFormed(in);
      const bool intfIdOk = v.intfId_.readWellFormed(in + 20);
      if (!(nextHopOk && intfIdOk)) [[unlikely]]
         v = deserializeChecked(in);
      return v;
   }

  private:
   static Via deserializeChecked(const uint8_t* in);

   Wirekit::IpGenAddr nextHop_;
   Wirekit::IntfId intfId_;
};

class TunnelVia {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::TunnelVia";
   static constexpr uint32_t kSerializedSize = 32;

   TunnelVia() noexcept = default;
   TunnelVia(const Wirekit::IpGenAddr& nextHop, const Wirekit::IntfId& intfId,
             const EncapId& encapId = {}) noexcept
       : nextHop_(nextHop), intfId_(intfId), encapId_(encapId) {}
   TunnelVia(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   const Wirekit::IpGenAddr& nextHop() const noexcept { return nextHop_; }
   const Wirekit::IntfId& intfId() const noexcept { return intfId_; }
   const EncapId& encapId() const noexcept { return encapId_; }
   void nextHopIs(const Wirekit::IpGenAddr& v) noexcept { nextHop_ = v; }
   void intfIdIs(const Wirekit::IntfId& v) noexcept { intfId_ = v; }
   void encapIdIs(const EncapId& v) noexcept { encapId_ = v; }

   // One-at-a-time over nextHop.hash(), intfId.hash(), encapId.hash(), least significant first.
   uint32_t hash() const noexcept;

   // "nextHop: %s, intfId: %s, encapId: %s" (the EncapId's stringValue, e.g. "GRE 7")
   Vela::String stringValue() const;
   Vela::String dumpLine(int indent) const;

   friend bool operator==(const TunnelVia&, const TunnelVia&) noexcept = default;
   friend std::strong_ordering operator<=>(const TunnelVia&, const TunnelVia&) noexcept = default;

   void serialize(uint8_t* out) const noexcept;
   static TunnelVia deserialize(const uint8_t* in);

  private:
   Wirekit::IpGenAddr nextHop_;
   Wirekit::IntfId intfId_;
   EncapId encapId_;
};

class MplsCosVia {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::MplsCosVia";
   static constexpr uint32_t kFixedSize = 29;  // nextHop, intfId, cosMask
   // Every traffic class with an operation.
   static constexpr uint32_t kMaxSerializedSize =
       kFixedSize +
       kCosCapacity * static_cast<uint32_t>(Wirekit::MplsLabelOperation::kSerializedSize);

   MplsCosVia() noexcept = default;
   MplsCosVia(const Wirekit::IpGenAddr& nextHop, const Wirekit::IntfId& intfId) noexcept
       : nextHop_(nextHop), intfId_(intfId) {}
   MplsCosVia(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   const Wirekit::IpGenAddr& nextHop() const noexcept { return nextHop_; }
   const Wirekit::IntfId& intfId() const noexcept { return intfId_; }
   void nextHopIs(const Wirekit::IpGenAddr& v) noexcept { nextHop_ = v; }
   void intfIdIs(const Wirekit::IntfId& v) noexcept { intfId_ = v; }

   // Label operation per traffic class (0-7). A class without one answers the empty operation.
   const Wirekit::MplsLabelOperation& cosLabels(CosIndex cos) const noexcept;
   bool cosLabelsHas(CosIndex cos) const noexcept { return (cosMask_ >> cos.value()) & 1; }
   void cosLabelsIs(CosIndex cos, const Wirekit::MplsLabelOperation& labels) noexcept;
   // Removes the class's operation and returns it (the empty operation if there was none).
   Wirekit::MplsLabelOperation cosLabelsDel(CosIndex cos) noexcept;
   void cosLabelsDelAll() noexcept;
   uint32_t cosLabelsCount() const noexcept;
   uint8_t cosMask() const noexcept { return cosMask_; }

   // "nextHop: %s, intfId: %s, cosLabels: [0: push 100, 5: swap 7]"
   Vela::String stringValue() const;
   Vela::String dumpLine(int indent) const;

   // Classes without an operation always hold the empty one, so comparing storage is comparing
   // the live operations.
   friend bool operator==(const MplsCosVia&, const MplsCosVia&) noexcept = default;
   friend std::strong_ordering operator<=>(const MplsCosVia&, const MplsCosVia&) noexcept = default;

   uint32_t serializeLen() const noexcept;
   // REQUIRES: `buffer` holds serializeLen() bytes.
   void serialize(void* buffer) const;
   // Bytes the via at `buffer` occupies, from its class mask; 0 when fewer than that are available.
   static uint32_t deserializeLen(const void* buffer, uint32_t available) noexcept;
   // Rebuilds *this from the via at `buffer`, reading at most `length` bytes. Throws
   // ByteFormatError when the via runs past `length`, Wirekit::FormatError for bad field bytes;
   // *this is unchanged then.
   void deserialize(const void* buffer, uint32_t length);

  private:
   Wirekit::IpGenAddr nextHop_;
   Wirekit::IntfId intfId_;
   uint8_t cosMask_ = 0;
   std::array<Wirekit::MplsLabelOperation, kCosCapacity> cosLabels_{};
};

// The via collections of entries: 600 places indexed by ViaIndex.
using MplsViaArray = Vela::FixedArray<MplsVia, ViaIndex, kViaCapacity>;
using ViaArray = Vela::FixedArray<Via, ViaIndex, kViaCapacity>;

Vela::String valueToStrep(const MplsVia& v);
Vela::String valueToStrep(const Via& v);
Vela::String valueToStrep(const TunnelVia& v);
Vela::String valueToStrep(const MplsCosVia& v);
std::ostream& operator<<(std::ostream& os, const MplsVia& v);
std::ostream& operator<<(std::ostream& os, const Via& v);
std::ostream& operator<<(std::ostream& os, const TunnelVia& v);
std::ostream& operator<<(std::ostream& os, const MplsCosVia& v);

}  // namespace Tunnel::TunnelTable
