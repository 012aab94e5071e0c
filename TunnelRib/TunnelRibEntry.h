// TunnelRibEntry: the tunnel RIB's record for one endpoint - the metrics and preferences of the
// route chosen to reach it, and the tunnels (with their bandwidths) that carry traffic to it. The
// plain RIB keys it by tep(), the colored RIB by coloredTep().
//
// A fixed-size value with no heap: the two collections are Vela::FixedArrays of 600 places with
// their own counts, so a copy costs only the live places and the record fits a store slot. The
// arrays are parallel by index but their counts are independent. The empty TunnelId (0) marks a
// hole in tunnelId; 0.0 one in tunnelBw. Deleting follows the FixedArray rule (a trailing delete
// also drops the holes before it; a count that shrank leaves old contents that a later write past
// the count revives).
//
// Byte form, host byte order, 68 + 8n + 4m bytes. Bytes 32-59 are the value's own image, padding
// included; the id places start at offset 64 in the byte form as in memory:
//
//    struct TunnelRibEntryRecord {          // offset   size
//       u8  coloredTep[32];                 //    0       32   ColoredTunnelEndpoint byte form
//       u32 metric;                         //   32        4
//       u32 metricType;                     //   36        4   Wirekit::MetricType value
//       u32 metric2;                        //   40        4
//       u32 pref;                           //   44        4
//       u32 pref2;                          //   48        4
//       u8  entryPref;                      //   52        1
//       u8  pad[3];                         //   53        3   carried as they are
//       u32 entryMetric;                    //   56        4
//       u32 n;                              //   60        4   tunnelId count, 0..600
//       u64 tunnelId[n];                    //   64       8n   TunnelId values
//       u32 m;                              //   64+8n     4   tunnelBw count, 0..600
//       f32 tunnelBw[m];                    //   68+8n    4m   TunnelBandwidth values
//    };
//
// The reader accepts exactly this: a length other than 68 + 8n + 4m, a bad endpoint, metric type
// or tunnel id throw a Vela::Exception (the store's readers treat that as corruption), a count
// above 600 the array library's Vela::ArraySizeError. A failed deserialize leaves the value as it
// was; a successful one leaves no stale place behind the counts, as a copy does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <type_traits>
#include <utility>

#include "TunnelTable/ColoredTunnelEndpoint.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelIndices.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "Vela/FixedArray.h"
#include "Vela/String.h"
#include "Wirekit/IpGenPrefix.h"
#include "Wirekit/MetricType.h"

namespace Tunnel::TunnelTable {

using TunnelIdArray = Vela::FixedArray<TunnelId, TunnelIdCollIndex, kTunnelIdCollCapacity>;
using TunnelBwArray = Vela::FixedArray<TunnelBandwidth, TunnelIdCollIndex, kTunnelIdCollCapacity>;

class TunnelRibEntry {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::TunnelRibEntry";
   static constexpr uint32_t kHeadLen = 60;
   static constexpr uint32_t kMinSerializedLen = kHeadLen + 4 + 4;
   static constexpr uint32_t kMaxSerializedLen =
       kMinSerializedLen + kTunnelIdCollCapacity * 8 + kTunnelIdCollCapacity * 4;

   // The default colored endpoint (the store builds values before reading into them).
   TunnelRibEntry() noexcept = default;
   explicit TunnelRibEntry(const ColoredTunnelEndpoint& coloredTep) noexcept
       : coloredTep_(coloredTep) {}
   // The uncolored endpoint of `tep` (color 0).
   explicit TunnelRibEntry(const Wirekit::IpGenPrefix& tep) noexcept : coloredTep_(tep) {}
   // Not available: the entry holds collections. Zeroes the scalars, then fails the assertion
   // "No String constructor for TunnelRibEntry - has collection" and ends the process.
   TunnelRibEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   const ColoredTunnelEndpoint& coloredTep() const noexcept { return coloredTep_; }
   const Wirekit::IpGenPrefix& tep() const noexcept { return coloredTep_.tep(); }
   uint32_t metric() const noexcept { return metric_; }
   Wirekit::MetricType metricType() const noexcept { return metricType_; }
   uint32_t metric2() const noexcept { return metric2_; }
   uint32_t pref() const noexcept { return pref_; }
   uint32_t pref2() const noexcept { return pref2_; }
   uint8_t entryPref() const noexcept { return entryPref_; }
   uint32_t entryMetric() const noexcept { return entryMetric_; }

   void coloredTepIs(const ColoredTunnelEndpoint& v) noexcept { coloredTep_ = v; }
   void metricIs(uint32_t v) noexcept { metric_ = v; }
   void metricTypeIs(Wirekit::MetricType v) noexcept { metricType_ = v; }
   void metric2Is(uint32_t v) noexcept { metric2_ = v; }
   void prefIs(uint32_t v) noexcept { pref_ = v; }
   void pref2Is(uint32_t v) noexcept { pref2_ = v; }
   void entryPrefIs(uint8_t v) noexcept { entryPref_ = v; }
   void entryMetricIs(uint32_t v) noexcept { entryMetric_ = v; }

   // The tunnels. Index operations throw the TunnelIdCollIndex range exception beyond 599.
   const TunnelIdArray& tunnelId() const noexcept { return tunnelId_; }
   // The id at i, or the empty id when i is not live.
   const TunnelId& tunnelId(TunnelIdCollIndex i) const { return tunnelId_[i]; }
   const TunnelId& tunnelIdIs(TunnelIdCollIndex i, const TunnelId& id) {
      return tunnelId_.is(i, id);
   }
   // Returns the removed id, or the empty id when i is not live.
   TunnelId tunnelIdDel(TunnelIdCollIndex i) { return tunnelId_.del(i); }
   // REQUIRES: it points into tunnelId().
   TunnelId tunnelIdDel(TunnelIdArray::const_iterator it) {
      return tunnelId_.del(TunnelIdCollIndex(it - std::as_const(tunnelId_).begin()));
   }
   void tunnelIdDelAll() noexcept { tunnelId_.delAll(); }
   // Whether a live place holds `id`.
   bool hasTunnelId(const TunnelId& id) const noexcept;

   // The bandwidths, parallel to tunnelId(); the same operations.
   const TunnelBwArray& tunnelBw() const noexcept { return tunnelBw_; }
   const TunnelBandwidth& tunnelBw(TunnelIdCollIndex i) const { return tunnelBw_[i]; }
   const TunnelBandwidth& tunnelBwIs(TunnelIdCollIndex i, TunnelBandwidth bw) {
      return tunnelBw_.is(i, bw);
   }
   TunnelBandwidth tunnelBwDel(TunnelIdCollIndex i) { return tunnelBw_.del(i); }
   // REQUIRES: it points into tunnelBw().
   TunnelBandwidth tunnelBwDel(TunnelBwArray::const_iterator it) {
      return tunnelBw_.del(TunnelIdCollIndex(it - std::as_const(tunnelBw_).begin()));
   }
   void tunnelBwDelAll() noexcept { tunnelBw_.delAll(); }

   // Sets the bandwidth of `id`, appending the id first if it is not live yet. Ids keep the
   // order of their first add; nothing is sorted or evicted. A 601st distinct id throws the
   // TunnelIdCollIndex range exception and leaves the entry unchanged.
   void addTunnelWithBw(const TunnelId& id, TunnelBandwidth bw);

   // Endpoint, scalars, live ids and live bandwidths equal, the bandwidths compared as floats:
   // an entry holding a NaN bandwidth equals nothing, itself included, and -0.0 equals 0.0.
   friend bool operator==(const TunnelRibEntry& a, const TunnelRibEntry& b) noexcept;

   uint32_t serializeLen() const noexcept {
      return kMinSerializedLen + tunnelId_.count() * 8 + tunnelBw_.count() * 4;
   }
   // Writes serializeLen() bytes. Serializing onto the value itself (buffer == this) changes
   // nothing: the arrays are never copied onto their own storage.
   void serialize(void* buffer) const noexcept;
   // sizeof(TunnelRibEntry), the room the expanded value takes, for a record whose counts are at
   // most 600 and whose bytes all lie within `available`; 0 otherwise.
   static uint32_t deserializeLen(const void* buffer, uint32_t available) noexcept;
   // Rebuilds the value from exactly `length` bytes; see the file comment for what is refused.
   void deserialize(const void* buffer, uint32_t length);

   // "TunnelRibEntry <endpoint> metric M metric2 M2 pref P pref2 P2", then at indent + 2
   // "tunnelIds #<count>", then per live id at indent + 4 "type <type name> index <index>".
   // Each line starts with its indent in blanks (none at 0).
   void dumpState(Vela::String& out, int indent) const;

  private:
   static constexpr void checkLayout() noexcept {
      static_assert(std::is_standard_layout_v<TunnelRibEntry>);
      static_assert(sizeof(ColoredTunnelEndpoint) == ColoredTunnelEndpoint::kSerializedSize);
      static_assert(sizeof(TunnelId) == 8 && sizeof(TunnelBandwidth) == 4);
      static_assert(sizeof(Wirekit::MetricType) == 4);
      static_assert(offsetof(TunnelRibEntry, coloredTep_) == 0);
      static_assert(offsetof(TunnelRibEntry, metric_) == 32);
      static_assert(offsetof(TunnelRibEntry, metricType_) == 36);
      static_assert(offsetof(TunnelRibEntry, metric2_) == 40);
      static_assert(offsetof(TunnelRibEntry, pref_) == 44);
      static_assert(offsetof(TunnelRibEntry, pref2_) == 48);
      static_assert(offsetof(TunnelRibEntry, entryPref_) == 52);
      static_assert(offsetof(TunnelRibEntry, pad_) == 53);
      static_assert(offsetof(TunnelRibEntry, entryMetric_) == 56);
      static_assert(offsetof(TunnelRibEntry, entryMetric_) + 4 == kHeadLen);
      static_assert(offsetof(TunnelRibEntry, tunnelId_) == 64);  // the id places, as in bytes
   }

   ColoredTunnelEndpoint coloredTep_;
   uint32_t metric_ = 0;
   Wirekit::MetricType metricType_ = Wirekit::kDefaultMetricType;
   uint32_t metric2_ = 0;
   uint32_t pref_ = 0;
   uint32_t pref2_ = 0;
   uint8_t entryPref_ = 0;
   uint8_t pad_[3] = {};  // explicit, so the head image holds no indeterminate byte
   uint32_t entryMetric_ = 0;
   TunnelIdArray tunnelId_;
   TunnelBwArray tunnelBw_;
};

// "Value('Tunnel::TunnelTable::TunnelRibEntry', ** {'coloredTep': <endpoint text form>,
// 'metric': 0, 'metricType': igpMetric, ..., 'tunnelId': [...], 'tunnelBw': [...]})"
Vela::String valueToStrep(const TunnelRibEntry& v);
std::ostream& operator<<(std::ostream& os, const TunnelRibEntry& v);

}  // namespace Tunnel::TunnelTable
