// FieldTraits for the value types that entries are made of: identifiers, preferences, bandwidth,
// addresses and prefixes, label operations, metric types, vias and their collections. See
// EntryCodec.h for what a FieldTraits specialization provides.
//
// Text forms are the types' own valueToStrep (network values quoted, as the vias print them);
// arrays render through Vela::renderArray over their
// live places. A type read from text goes through its own text constructor or parser.
#pragma once

#include <array>
#include <vector>

#include "TunnelTable/EntryCodec.h"
#include "TunnelTable/EntryValueTypes.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelInfo.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "TunnelTable/Via.h"
#include "Vela/FixedArray.h"
#include "Wirekit/IpGenAddr.h"
#include "Wirekit/IpGenPrefix.h"
#include "Wirekit/MetricType.h"
#include "Wirekit/UnboundedMplsLabelOperation.h"

namespace Tunnel::TunnelTable::Codec {

inline uint32_t clampU32(size_t n) noexcept {
   return n > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(n);
}

// Network values appear in text forms as quoted strings of their own text ('10.0.0.0/8').
template <typename T>
Vela::String quoted(const T& v) {
   return Vela::renderString(Wirekit::valueToStrep(v));
}

// Runs a type's iterator-pair text constructor over a raw attribute text.
template <typename T>
T fromText(std::string_view raw) {
   const Vela::String text(raw);
   return T(text.cbegin(), text.cend());
}

template <>
struct FieldTraits<TunnelId> : BlockTraits<TunnelId, BlockCheck::exact> {
   static Vela::String text(const TunnelId& v) { return valueToStrep(v); }
   static TunnelId parse(std::string_view raw) { return fromText<TunnelId>(raw); }
};

template <>
struct FieldTraits<TunnelEntryPref> {
   static constexpr uint32_t kFixedLen = 1;
   static void write(ByteWriter& w, TunnelEntryPref v) { w.u8(v.value()); }
   static void read(ByteReader& r, TunnelEntryPref& v) { v = TunnelEntryPref(r.u8()); }
   static Vela::String text(TunnelEntryPref v) { return valueToStrep(v); }
   static TunnelEntryPref parse(std::string_view raw) { return fromText<TunnelEntryPref>(raw); }
   static Vela::String dumpText(TunnelEntryPref v) { return Vela::renderUnsigned(v.value()); }
};

template <>
struct FieldTraits<TunnelIgpPref> {
   static constexpr uint32_t kFixedLen = 4;
   static void write(ByteWriter& w, TunnelIgpPref v) { w.u32(v.value()); }
   static void read(ByteReader& r, TunnelIgpPref& v) { v = TunnelIgpPref(r.u32()); }
   static Vela::String text(TunnelIgpPref v) { return valueToStrep(v); }
   static TunnelIgpPref parse(std::string_view raw) { return fromText<TunnelIgpPref>(raw); }
   static Vela::String dumpText(TunnelIgpPref v) { return Vela::renderUnsigned(v.value()); }
};

// The float travels as its bit pattern, so every bandwidth (NaNs included) round-trips exactly.
template <>
struct FieldTraits<TunnelBandwidth> {
   static constexpr uint32_t kFixedLen = 4;
   static void write(ByteWriter& w, TunnelBandwidth v) { w.f32(v.value()); }
   static void read(ByteReader& r, TunnelBandwidth& v) { v = TunnelBandwidth(r.f32()); }
   static Vela::String text(TunnelBandwidth v) { return valueToStrep(v); }
   static TunnelBandwidth parse(std::string_view raw) { return fromText<TunnelBandwidth>(raw); }
   static Vela::String dumpText(TunnelBandwidth v) { return Vela::renderFloat(v.value()); }
};

template <>
struct FieldTraits<TunnelEntrySequenceNumber>
    : BlockTraits<TunnelEntrySequenceNumber, BlockCheck::exact> {
   static Vela::String text(TunnelEntrySequenceNumber v) { return valueToStrep(v); }
   static TunnelEntrySequenceNumber parse(std::string_view raw) {
      return fromText<TunnelEntrySequenceNumber>(raw);
   }
   static Vela::String dumpText(TunnelEntrySequenceNumber v) {
      return Vela::renderUnsigned(v.value());
   }
};

template <>
struct FieldTraits<ContributionToTunnelRIB> {
   static constexpr uint32_t kFixedLen = 4;
   static void write(ByteWriter& w, ContributionToTunnelRIB v) { w.u32(static_cast<uint32_t>(v)); }
   static void read(ByteReader& r, ContributionToTunnelRIB& v);
   static Vela::String text(ContributionToTunnelRIB v) { return valueToStrep(v); }
   static ContributionToTunnelRIB parse(std::string_view raw) {
      return contributionToTunnelRIBFromString(raw);
   }
   static Vela::String dumpText(ContributionToTunnelRIB v) { return text(v); }
};

template <>
struct FieldTraits<OptionalColor> : BlockTraits<OptionalColor, BlockCheck::exact> {
   static Vela::String text(const OptionalColor& v) { return valueToStrep(v); }
   static OptionalColor parse(std::string_view raw) { return OptionalColor(raw); }
   static Vela::String dumpText(const OptionalColor& v) { return text(v); }
};

template <>
struct FieldTraits<Wirekit::MetricType> {
   static constexpr uint32_t kFixedLen = static_cast<uint32_t>(Wirekit::kMetricTypeSerializedSize);
   static void write(ByteWriter& w, Wirekit::MetricType v) {
      Wirekit::serializeMetricType(v, w.reserve(kFixedLen));
   }
   static void read(ByteReader& r, Wirekit::MetricType& v) {
      v = Wirekit::deserializeMetricType(r.take(kFixedLen));
   }
   static Vela::String text(Wirekit::MetricType v) { return Wirekit::valueToStrep(v); }
   static Wirekit::MetricType parse(std::string_view raw) {
      return Wirekit::metricTypeFromString(raw);
   }
   static Vela::String dumpText(Wirekit::MetricType v) { return text(v); }
};

template <>
struct FieldTraits<Wirekit::IpGenAddr> : BlockTraits<Wirekit::IpGenAddr, BlockCheck::exact> {
   static Vela::String text(const Wirekit::IpGenAddr& v) { return quoted(v); }
   static Wirekit::IpGenAddr parse(std::string_view raw) {
      return Wirekit::IpGenAddr(Vela::parseString(raw));
   }
   static Vela::String dumpText(const Wirekit::IpGenAddr& v) { return Wirekit::valueToStrep(v); }
};

template <>
struct FieldTraits<Wirekit::IpGenPrefix> : BlockTraits<Wirekit::IpGenPrefix, BlockCheck::exact> {
   static Vela::String text(const Wirekit::IpGenPrefix& v) { return quoted(v); }
   // A prefix text with host bits set would read back as a different (masked) prefix; refuse it
   // so that text and value convert one to one.
   static Wirekit::IpGenPrefix parse(std::string_view raw) {
      const Vela::String text = Vela::parseString(raw);
      Wirekit::IpGenPrefix p(text);
      if (Wirekit::valueToStrep(p) != text) Vela::throwBadValue("a canonical prefix", raw);
      return p;
   }
   static Vela::String dumpText(const Wirekit::IpGenPrefix& v) { return Wirekit::valueToStrep(v); }
};

// The name's characters: one byte each; in text a one-character quoted string.
template <>
struct FieldTraits<char> {
   static constexpr uint32_t kFixedLen = 1;
   static void write(ByteWriter& w, char c) { w.u8(static_cast<uint8_t>(c)); }
   static char readFrom(const uint8_t* in, size_t) { return static_cast<char>(*in); }
   static void read(ByteReader& r, char& c) { c = static_cast<char>(r.u8()); }
   static Vela::String text(char c) { return Vela::renderString(std::string_view(&c, 1)); }
   static char parse(std::string_view raw) {
      const Vela::String s = Vela::parseString(raw);
      if (s.size() != 1) Vela::throwBadValue("a one-character string", raw);
      return s[0];
   }
};

// A label operation of any depth, in its own variable byte form.
template <>
struct FieldTraits<Wirekit::UnboundedMplsLabelOperation> {
   using T = Wirekit::UnboundedMplsLabelOperation;
   static constexpr uint32_t kFixedLen = 0;
   // The type has no limit; tables are sized for kMaxLabels labels. The store's writer refuses an
   // entry that a longer operation takes past its table's largest entry (an assertion ends it).
   static constexpr uint32_t kMaxLabels = 1024;
   static constexpr uint32_t kMaxLen = T::kHeaderSize + 4 * kMaxLabels;
   static uint32_t len(const T& v) { return v.serializeLen(); }
   static bool scan(ByteReader& r) noexcept {
      const uint32_t n = T::deserializeLen(r.data() + r.offset(), clampU32(r.remaining()));
      return n != 0 && r.trySkip(n);
   }
   static void write(ByteWriter& w, const T& v) { v.serialize(w.reserve(v.serializeLen())); }
   // T::deserialize checks every byte it does not copy (kind against pops and count, padding,
   // each label's range) and its length follows from the count, so what it accepts is written
   // back unchanged: no second serialize is needed to refuse other bytes.
   static void read(ByteReader& r, T& v) {
      const uint32_t n = T::deserializeLen(r.data() + r.offset(), clampU32(r.remaining()));
      if (n == 0) throwTruncated(r);
      v = T::deserialize(r.take(n), n);
   }
   static Vela::String text(const T& v) { return quoted(v); }
   static T parse(std::string_view raw) { return T(Vela::parseString(raw)); }
   static Vela::String dumpText(const T& v) { return Wirekit::valueToStrep(v); }
   [[noreturn]] static void throwTruncated(const ByteReader& r);
};

template <>
struct FieldTraits<MplsVia> : BlockTraits<MplsVia, BlockCheck::exact> {
   // Entries carry up to 600 in a row: read as one run (see MplsVia::deserializeRun).
   static void readRun(MplsVia* places, const uint8_t* in, uint32_t count) {
      MplsVia::deserializeRun(places, in, count);
   }
   static Vela::String text(const MplsVia& v) { return valueToStrep(v); }
   static MplsVia parse(std::string_view raw) { return fromText<MplsVia>(raw); }
   static Vela::String dumpText(const MplsVia& v) { return v.stringValue(); }
};

template <>
struct FieldTraits<Via> : BlockTraits<Via, BlockCheck::exact> {
   static Vela::String text(const Via& v) { return valueToStrep(v); }
   static Via parse(std::string_view raw) { return fromText<Via>(raw); }
   static Vela::String dumpText(const Via& v) { return v.stringValue(); }
};

// The class-of-service via, in its own variable byte form.
template <>
struct FieldTraits<MplsCosVia> {
   static constexpr uint32_t kFixedLen = 0;
   static constexpr uint32_t kMaxLen = MplsCosVia::kMaxSerializedSize;
   static uint32_t len(const MplsCosVia& v) { return v.serializeLen(); }
   static bool scan(ByteReader& r) noexcept {
      const uint32_t n = MplsCosVia::deserializeLen(r.data() + r.offset(), clampU32(r.remaining()));
      return n != 0 && r.trySkip(n);
   }
   static void write(ByteWriter& w, const MplsCosVia& v) {
      v.serialize(w.reserve(v.serializeLen()));
   }
   static void read(ByteReader& r, MplsCosVia& v);
   static Vela::String text(const MplsCosVia& v) { return valueToStrep(v); }
   static MplsCosVia parse(std::string_view raw) { return fromText<MplsCosVia>(raw); }
   static Vela::String dumpText(const MplsCosVia& v) { return v.stringValue(); }
};

// The interface tunnel parameters: fixed blocks with a Value(...) text form.
template <typename Info>
struct InfoTraits : BlockTraits<Info> {
   static Vela::String text(const Info& v) { return valueToStrep(v); }
   static Info parse(std::string_view raw) { return fromText<Info>(raw); }
   static Vela::String dumpText(const Info& v) { return text(v); }
};
template <>
struct FieldTraits<GreTunnelInfo> : InfoTraits<GreTunnelInfo> {};
template <>
struct FieldTraits<IpsecGreTunnelInfo> : InfoTraits<IpsecGreTunnelInfo> {};
template <>
struct FieldTraits<IpsecVtiTunnelInfo> : InfoTraits<IpsecVtiTunnelInfo> {};
template <>
struct FieldTraits<VxlanTunnelInfo> : InfoTraits<VxlanTunnelInfo> {};

// ---- collections ----

// The default form of a collection: its count, then its live places in index order. A count
// above the capacity is refused with the array library's size error.
template <typename Array>
struct LiveArrayTraits {
   using T = typename Array::value_type;
   using Element = FieldTraits<T>;
   static_assert(Element::kFixedLen != 0, "collections hold fixed-size blocks");
   static constexpr uint32_t kFixedLen = 0;
   static constexpr uint32_t kCapacity = static_cast<uint32_t>(Array::capacity());
   static constexpr uint32_t kMaxLen = 4 + kCapacity * Element::kFixedLen;

   static uint32_t len(const Array& a) { return 4 + a.count() * Element::kFixedLen; }
   static bool scan(ByteReader& r) noexcept {
      uint32_t count = 0;
      if (!r.tryU32(count)) return false;
      return r.trySkip(uint64_t{count} * Element::kFixedLen);
   }
   static void write(ByteWriter& w, const Array& a) {
      w.u32(a.count());
      for (const T& e : a) Element::write(w, e);
   }
   // When every place is there, the places are built in the array's storage from one bounds
   // check (as one run where the element reads runs). Otherwise they are read one by one, so that
   // the record is refused with the same error (a bad place before the end, or the truncation at
   // the place that runs out).
   static void read(ByteReader& r, Array& a) {
      const size_t countAt = r.offset();
      const uint32_t count = r.u32();
      if (count > kCapacity) {
         throw Vela::ArraySizeError::make(kCapacity, count, r.data() + countAt,
                                          r.length() - countAt);
      }
      if constexpr (requires(const uint8_t* in) { Element::readFrom(in, size_t{0}); }) {
         const size_t len = size_t{count} * Element::kFixedLen;
         if (r.has(len)) {
            const size_t at = r.offset();
            const uint8_t* in = r.take(len);
            T* places = a.data();
            if constexpr (requires { Element::readRun(places, in, count); }) {
               Element::readRun(places, in, count);
            } else {
               for (uint32_t i = 0; i < count; ++i) {
                  const size_t off = size_t{i} * Element::kFixedLen;
                  ::new (static_cast<void*>(places + i)) T(Element::readFrom(in + off, at + off));
               }
            }
            a.setCountUnchecked(count);
            return;
         }
      }
      for (uint32_t i = 0; i < count; ++i) Element::read(r, a.at(i));
      a.setCountUnchecked(count);
   }
   static Vela::String text(const Array& a) {
      std::vector<Vela::String> items;
      items.reserve(a.count());
      for (const T& e : a) items.push_back(Element::text(e));
      return Vela::renderArray(items);
   }
   static Array parse(std::string_view raw) {
      const std::vector<std::string_view> items = splitArray(raw);
      if (items.size() > kCapacity) {
         Vela::throwBadValue(fmt::format("at most {} elements", kCapacity), raw);
      }
      Array a;
      for (uint32_t i = 0; i < items.size(); ++i) a.at(i) = Element::parse(items[i]);
      a.setCountUnchecked(static_cast<uint32_t>(items.size()));
      return a;
   }
};

// Every place written, live or not, so the byte form has one length whatever the count. Places
// past the count are written as the default element and must read back as it.
template <typename Array>
struct AllPlacesArrayTraits : LiveArrayTraits<Array> {
   using Base = LiveArrayTraits<Array>;
   using Base::kCapacity;
   using typename Base::Element;
   using typename Base::T;
   static constexpr uint32_t kFixedLen = 4 + kCapacity * Element::kFixedLen;

   static void write(ByteWriter& w, const Array& a) {
      Base::write(w, a);
      w.bytes(emptyPlaces().data(), deadLen(a));
   }
   // The byte form of the default element stands for it, so the dead places are checked by
   // comparing bytes, all at once, rather than by reading elements.
   static void read(ByteReader& r, Array& a) {
      Base::read(r, a);
      const size_t at = r.offset();
      const uint32_t len = deadLen(a);
      const uint8_t* in = r.take(len);
      if (std::memcmp(in, emptyPlaces().data(), len) == 0) return;
      // Name the first place that is not the default element.
      for (uint32_t off = 0;; off += Element::kFixedLen) {
         if (std::memcmp(in + off, emptyPlaces().data(), Element::kFixedLen) != 0) {
            throwNonCanonical(at + off, Element::kFixedLen);
         }
      }
   }

  private:
   static uint32_t deadLen(const Array& a) { return (kCapacity - a.count()) * Element::kFixedLen; }
   // Every place holding the default element, as bytes.
   static const std::array<uint8_t, kCapacity * Element::kFixedLen>& emptyPlaces() {
      static const std::array<uint8_t, kCapacity* Element::kFixedLen> bytes = [] {
         std::array<uint8_t, kCapacity * Element::kFixedLen> b{};
         ByteWriter w(b.data(), b.size());
         for (uint32_t i = 0; i < kCapacity; ++i) Element::write(w, T{});
         return b;
      }();
      return bytes;
   }
};

template <typename T, typename Index, size_t Capacity>
struct FieldTraits<Vela::FixedArray<T, Index, Capacity>>
    : LiveArrayTraits<Vela::FixedArray<T, Index, Capacity>> {};

}  // namespace Tunnel::TunnelTable::Codec
