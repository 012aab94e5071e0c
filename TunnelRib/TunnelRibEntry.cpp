// TunnelRibEntry: adding tunnels, equality, text, dump and byte forms.
#include "TunnelRib/TunnelRibEntry.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/EntryFieldTraits.h"
#include "TunnelTable/EntryRecord.h"
#include "Vela/ArraySizeError.h"
#include "Vela/Assert.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelTable {

namespace {

constexpr const char* kClassName = "TunnelRibEntry";
constexpr size_t kScalarsAt = ColoredTunnelEndpoint::kSerializedSize;
constexpr size_t kScalarsLen = TunnelRibEntry::kHeadLen - kScalarsAt;

}  // namespace

TunnelRibEntry::TunnelRibEntry(Vela::String::const_iterator, Vela::String::const_iterator)
    : metricType_(Wirekit::MetricType(0)) {
   // The position names the contract's source, which tools match on.
   Vela::assertionFailed("No String constructor for TunnelRibEntry - has collection",
                         "Tunnel/TunnelTable", __LINE__);
}

bool TunnelRibEntry::hasTunnelId(const TunnelId& id) const noexcept {
   return std::find(tunnelId_.begin(), tunnelId_.end(), id) != tunnelId_.end();
}

void TunnelRibEntry::addTunnelWithBw(const TunnelId& id, TunnelBandwidth bw) {
   const auto found = std::find(tunnelId_.begin(), tunnelId_.end(), id);
   // Not found, the index is the count: building it refuses a 601st id before anything changes.
   const TunnelIdCollIndex at(found - tunnelId_.begin());
   if (found == tunnelId_.end()) tunnelId_.is(at, id);
   tunnelBw_.is(at, bw);
   if (tunnelId_.count() > kTunnelIdCollCapacity) [[unlikely]] {
      Vela::assertionFailed("tunnelId_.validateSize()", __FILE__, __LINE__);
   }
   if (tunnelBw_.count() > kTunnelIdCollCapacity) [[unlikely]] {
      Vela::assertionFailed("tunnelBw_.validateSize()", __FILE__, __LINE__);
   }
}

bool operator==(const TunnelRibEntry& a, const TunnelRibEntry& b) noexcept {
   return a.coloredTep_ == b.coloredTep_ && a.metric_ == b.metric_ &&
          a.metricType_ == b.metricType_ && a.metric2_ == b.metric2_ && a.pref_ == b.pref_ &&
          a.pref2_ == b.pref2_ && a.entryPref_ == b.entryPref_ &&
          a.entryMetric_ == b.entryMetric_ && a.tunnelId_ == b.tunnelId_ &&
          a.tunnelBw_.count() == b.tunnelBw_.count() &&
          std::equal(a.tunnelBw_.begin(), a.tunnelBw_.end(), b.tunnelBw_.begin(),
                     [](TunnelBandwidth x, TunnelBandwidth y) { return x.value() == y.value(); });
}

void TunnelRibEntry::serialize(void* buffer) const noexcept {
   if (buffer == this) return;
   auto* out = static_cast<uint8_t*>(buffer);
   const uint32_t n = tunnelId_.count();
   const uint32_t m = tunnelBw_.count();
   coloredTep_.serialize(out);
   std::memcpy(out + kScalarsAt, reinterpret_cast<const uint8_t*>(this) + kScalarsAt, kScalarsLen);
   uint8_t* p = out + kHeadLen;
   storeHost32(p, n);
   std::memcpy(p + 4, tunnelId_.data(), size_t{n} * sizeof(TunnelId));
   p += 4 + size_t{n} * sizeof(TunnelId);
   storeHost32(p, m);
   std::memcpy(p + 4, tunnelBw_.data(), size_t{m} * sizeof(TunnelBandwidth));
}

uint32_t TunnelRibEntry::deserializeLen(const void* buffer, uint32_t available) noexcept {
   const auto* in = static_cast<const uint8_t*>(buffer);
   if (available < kHeadLen + 4) return 0;
   const uint32_t n = loadHost32(in + kHeadLen);
   if (n > kTunnelIdCollCapacity) return 0;
   const uint32_t mAt = kHeadLen + 4 + n * 8;
   if (available < mAt + 4) return 0;
   const uint32_t m = loadHost32(in + mAt);
   if (m > kTunnelIdCollCapacity || available < mAt + 4 + m * 4) return 0;
   return sizeof(TunnelRibEntry);
}

void TunnelRibEntry::deserialize(const void* buffer, uint32_t length) {
   // Everything is read and checked before anything is stored.
   ByteReader r(buffer, length);
   const uint8_t* head = r.take(kHeadLen);
   const uint32_t n = readHostCount(r, kTunnelIdCollCapacity);
   const uint8_t* ids = r.take(size_t{n} * sizeof(TunnelId));
   const uint32_t m = readHostCount(r, kTunnelIdCollCapacity);
   const uint8_t* bws = r.take(size_t{m} * sizeof(TunnelBandwidth));
   Codec::checkRecordEnd(r, kClassName);

   const ColoredTunnelEndpoint tep = ColoredTunnelEndpoint::deserialize(head);
   (void)Wirekit::metricTypeFromValue(loadHost32(head + 36));
   for (uint32_t i = 0; i < n; ++i) {
      uint64_t v;
      std::memcpy(&v, ids + size_t{i} * sizeof(TunnelId), sizeof(v));
      (void)TunnelId(v);  // the range check
   }

   coloredTep_ = tep;
   std::memcpy(reinterpret_cast<uint8_t*>(this) + kScalarsAt, head + kScalarsAt, kScalarsLen);
   // Fresh arrays, so no stale place of the old value survives behind the new counts.
   tunnelId_ = TunnelIdArray();
   std::memcpy(tunnelId_.data(), ids, size_t{n} * sizeof(TunnelId));
   tunnelId_.setCountUnchecked(n);
   tunnelBw_ = TunnelBwArray();
   std::memcpy(tunnelBw_.data(), bws, size_t{m} * sizeof(TunnelBandwidth));
   tunnelBw_.setCountUnchecked(m);
}

void TunnelRibEntry::dumpState(Vela::String& out, int indent) const {
   out += dumpIndent(indent);
   out += fmt::format("TunnelRibEntry {} metric {} metric2 {} pref {} pref2 {}\n",
                      coloredTep_.stringValue(), metric_, metric2_, pref_, pref2_);
   out += dumpIndent(indent + 2);
   out += fmt::format("tunnelIds #{}\n", tunnelId_.count());
   for (const TunnelId& id : tunnelId_) {
      out += dumpIndent(indent + 4);
      out += fmt::format("type {} index {}\n", tunnelTypeName(id.tunnelType()), id.tunnelIndex());
   }
}

Vela::String valueToStrep(const TunnelRibEntry& v) {
   Vela::ValueTextBuilder b(TunnelRibEntry::kTypeName);
   b.field("coloredTep", valueToStrep(v.coloredTep()));
   b.field("metric", Vela::renderUnsigned(v.metric()));
   b.field("metricType", Wirekit::valueToStrep(v.metricType()));
   b.field("metric2", Vela::renderUnsigned(v.metric2()));
   b.field("pref", Vela::renderUnsigned(v.pref()));
   b.field("pref2", Vela::renderUnsigned(v.pref2()));
   b.field("entryPref", Vela::renderUnsigned(v.entryPref()));
   b.field("entryMetric", Vela::renderUnsigned(v.entryMetric()));
   b.field("tunnelId", Codec::FieldTraits<TunnelIdArray>::text(v.tunnelId()));
   b.field("tunnelBw", Codec::FieldTraits<TunnelBwArray>::text(v.tunnelBw()));
   return b.str();
}

std::ostream& operator<<(std::ostream& os, const TunnelRibEntry& v) {
   return os << valueToStrep(v);
}

}  // namespace Tunnel::TunnelTable
