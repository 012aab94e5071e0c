// The byte form of a tunnel table entry, and the operations every entry kind shares.
//
// An entry travels as one record: a six-byte header, then its fields in declaration order, the
// fields of TunnelTableEntry first. The part up to the kind's own fields is the same for every
// kind and has a fixed length (551 bytes), so any reader can find an entry's key and endpoint
// without knowing the kind:
//
//    struct TunnelTableEntryRecord {       // offset  size
//       u16 recordKind;                    //    0     2   EntryKind of the writer; checked on read
//       u32 recordLength;                  //    2     4   the whole record, header included
//       u64 tunnelId;                      //    6     8
//       u64 nexthopTunnelId;               //   14     8
//       u8  entryPref;                     //   22     1
//       u32 entryMetric;                   //   23     4
//       u32 tunnelBw;                      //   27     4   IEEE-754 binary32 bit pattern
//       u32 endpointCount;                 //   31     4   0..16
//       u8  endpoint[16][24];              //   35   384   IpGenPrefix; places past the count are
//                                          //              the default prefix (all zero)
//       u32 nameCount;                     //  419     4   0..128
//       u8  name[128];                     //  423   128   places past the count are zero
//       ...                                //  551         the kind's own fields
//    };
//
// The kind's fields follow in their own forms: integers little-endian in their width, bools one
// byte (0 or 1), vias in their fixed blocks, collections as a u32 count and the live places (the
// flex-algo entry writes all 600 via places, so its record is always 46168 bytes).
//
// Readers accept exactly what writers produce: a wrong kind, a length that disagrees with the
// bytes, a count above a capacity (Vela::ArraySizeError), a bool other than 0/1, non-zero bytes in
// unused places or a field value its type cannot hold all throw a Vela::Exception. So a record read
// and written again is the same bytes, and a reader never builds a value no writer could have.
// deserialize reads fields in place: after a throw every field holds a valid value, but some may
// come from the refused record (readers that must keep the old value deserialize into a copy).
#pragma once

#include <ostream>
#include <tuple>

#include "TunnelTable/EntryFieldTraits.h"
#include "Vela/Assert.h"

namespace Tunnel::TunnelTable {

// The kind code in a record header. Stored in shared memory: never renumber.
enum class EntryKind : uint16_t {
   tunnelTableEntry = 0,
   igpTunnelTableEntryBase = 1,
   ldpTunnelTableEntry = 2,
   srTunnelTableEntry = 3,
   frrTunnelTableEntry = 4,
   rsvpFrrTunnelTableEntry = 5,
   rsvpLerSubTunnelTableEntry = 6,
   tiLfaTunnelTableEntry = 7,
   rsvpLerTunnelTableEntry = 8,
   coloredTunnelTableEntry = 9,
   srTePolicyTunnelTableEntry = 10,
   flexAlgoTunnelTableEntry = 11,
   nexthopGroupTunnelTableEntry = 12,
   nimboSdkSbfdSessionTunnelTableEntry = 13,
   bgpLuPushTunnelTableEntry = 14,
   bgpLuTunnelTableEntry = 15,
   l3IntfTunnelTableEntry = 16,
   greIntfTunnelTableEntry = 17,
   ipsecGreIntfTunnelTableEntry = 18,
   ipsecVtiIntfTunnelTableEntry = 19,
   srTeSegmentListTunnelTableEntry = 20,
   staticTunnelTableEntry = 21,
};

// The entries' collections. A FixedArray copy carries only the live places (copying an entry that
// holds one via costs one via, not 600) and no stale place past its count, so the array itself is
// what the entries hold; the name stays for the fields declared with it.
template <typename Array>
using LiveCopyArray = Array;

namespace Codec {

inline constexpr uint32_t kRecordHeaderLen = 6;

// Number of fields of TunnelTableEntry, which every entry's list starts with; dumps print the
// base fields in their own way and the kind's fields one line each.
inline constexpr size_t kBaseFieldCount = 7;

template <typename E>
uint32_t entryLen(const E& e) {
   return kRecordHeaderLen + fieldsLen(e);
}

// The longest record of kind E: the header and every field at its longest (collections full,
// variable-length fields at their bounds). It sizes the kind's tables in the store.
template <typename E>
constexpr uint32_t maxEntryLen() {
   return kRecordHeaderLen + maxFieldsLen<E>();
}

template <typename E>
void writeEntry(const E& e, void* buffer) {
   const uint32_t len = entryLen(e);
   ByteWriter w(buffer, len);
   w.u16(static_cast<uint16_t>(E::kKind));
   w.u32(len);
   writeFields(e, w);
   VELA_ASSERT(w.offset() == len);
}

template <typename E>
uint32_t entryLenAt(const void* buffer, uint32_t available) noexcept {
   ByteReader r(buffer, available);
   if (!r.trySkip(kRecordHeaderLen) || !scanFields<E>(r)) return 0;
   return static_cast<uint32_t>(r.offset());
}

// Checks the header of a record of `length` bytes; throws ByteFormatError if it is not one of E.
void checkRecordHeader(ByteReader& r, EntryKind expected, const char* className);
// Throws ByteFormatError if the fields ended before the record did.
void checkRecordEnd(const ByteReader& r, const char* className);

template <typename E>
void readEntry(E& e, const void* buffer, uint32_t length) {
   ByteReader r(buffer, length);
   checkRecordHeader(r, E::kKind, E::kClassName);
   readFields(e, r);
   checkRecordEnd(r, E::kClassName);
}

template <typename Traits, typename T>
void dumpField(Vela::String& out, int indent, std::string_view name, const T& v) {
   if constexpr (requires { typename Traits::Element; }) {
      // A collection: a header line, then one line per live place, nested.
      if (indent > 0) out.append(static_cast<size_t>(indent), ' ');
      out += fmt::format("{} (size {}):\n", name, v.count());
      for (const auto& e : v) {
         if (indent + 2 > 0) out.append(static_cast<size_t>(indent + 2), ' ');
         out += Traits::Element::dumpText(e);
         out += '\n';
      }
   } else {
      dumpLine(out, indent, name, Traits::dumpText(v));
   }
}

// The dump lines of the kind's own fields (those after the base fields).
template <typename E>
void dumpOwnFields(const E& e, Vela::String& out, int indent) {
   constexpr auto all = E::fields();
   constexpr size_t n = std::tuple_size_v<std::remove_const_t<decltype(all)>>;
   [&]<size_t... I>(std::index_sequence<I...>) {
      (
          [&](auto d) {
             dumpField<typename decltype(d)::traits>(out, indent, d.name, e.*decltype(d)::member);
          }(std::get<kBaseFieldCount + I>(all)),
          ...);
   }
   (std::make_index_sequence<n - kBaseFieldCount>{});
}

template <typename E>
void parseEntry(E& e, Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   Vela::ValueTextParser p(begin, end, E::kTypeName);
   parseFields(e, p);
}

// Deletes the place a const iterator of `a` points at; returns the place after it, as
// FixedArray::del(iterator) does.
template <typename Array>
typename Array::const_iterator delAt(Array& a, typename Array::const_iterator it) {
   const Array& view = a;
   const auto pos = it - view.begin();
   const auto next = a.del(a.begin() + pos);
   return view.begin() + (next - a.begin());
}

// Kinds that hold a via collection have no text constructor, on purpose.
[[noreturn]] void noTextConstructor(const char* className);

}  // namespace Codec

// Declares, inside an entry class, the operations that every entry kind has. Their definitions,
// all derived from the class's field list, come from TUNNEL_ENTRY_DEFINE_OPERATIONS.
#define TUNNEL_ENTRY_OPERATIONS(Class)                                              \
   friend bool operator==(const Class& a, const Class& b);                          \
   friend Vela::String valueToStrep(const Class& v);                                \
   friend std::ostream& operator<<(std::ostream& os, const Class& v);               \
   uint32_t serializeLen() const;                                                   \
   /* REQUIRES: buffer holds serializeLen() bytes. */                               \
   void serialize(void* buffer) const;                                              \
   static uint32_t deserializeLen(const void* buffer, uint32_t available) noexcept; \
   void deserialize(const void* buffer, uint32_t length);                           \
   void dumpState(std::ostream& os, int indent) const;                              \
   void dumpState(Vela::String& out, int indent) const;

#define TUNNEL_ENTRY_DEFINE_OPERATIONS(Class)                                        \
   bool operator==(const Class& a, const Class& b) {                                 \
      return Codec::fieldsEqual(a, b);                                               \
   }                                                                                 \
   Vela::String valueToStrep(const Class& v) {                                       \
      return Codec::valueText(v, Class::kTypeName);                                  \
   }                                                                                 \
   std::ostream& operator<<(std::ostream& os, const Class& v) {                      \
      return os << valueToStrep(v);                                                  \
   }                                                                                 \
   uint32_t Class::serializeLen() const {                                            \
      return Codec::entryLen(*this);                                                 \
   }                                                                                 \
   void Class::serialize(void* buffer) const {                                       \
      Codec::writeEntry(*this, buffer);                                              \
   }                                                                                 \
   uint32_t Class::deserializeLen(const void* buffer, uint32_t available) noexcept { \
      return Codec::entryLenAt<Class>(buffer, available);                            \
   }                                                                                 \
   void Class::deserialize(const void* buffer, uint32_t length) {                    \
      Codec::readEntry(*this, buffer, length);                                       \
   }                                                                                 \
   void Class::dumpState(Vela::String& out, int indent) const {                      \
      dumpBase(out, indent);                                                         \
      Codec::dumpOwnFields(*this, out, indent);                                      \
   }                                                                                 \
   void Class::dumpState(std::ostream& os, int indent) const {                       \
      Vela::String out;                                                              \
      dumpState(out, indent);                                                        \
      os << out;                                                                     \
   }

// The class constants of an entry kind: its qualified type name, bare class name and record kind.
#define TUNNEL_ENTRY_KIND(Class, kindCode)                                  \
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::" #Class; \
   static constexpr const char* kClassName = #Class;                        \
   static constexpr EntryKind kKind = EntryKind::kindCode;

// A kind that adds no field to its base: its own name, record kind, text constructor and
// operations, and the base's constructors.
#define TUNNEL_ENTRY_SUBKIND(Class, Base, kindCode)                                \
   class Class : public Base {                                                     \
     public:                                                                       \
      TUNNEL_ENTRY_KIND(Class, kindCode)                                           \
      Class() = default;                                                           \
      using Base::Base;                                                            \
      Class(Vela::String::const_iterator begin, Vela::String::const_iterator end); \
      TUNNEL_ENTRY_OPERATIONS(Class)                                               \
   };

// A plain field: accessor under the field's name and setter <name>Is.
#define TUNNEL_ENTRY_FIELD(Type, name) \
   const Type& name() const noexcept { \
      return name##_;                  \
   }                                   \
   void name##Is(const Type& v) {      \
      name##_ = v;                     \
   }

// A via collection: the array, one place, and the Is/Del/DelAll operations.
#define TUNNEL_ENTRY_VIA_COLLECTION(ArrayType, name)                                   \
   const ArrayType& name() const noexcept {                                            \
      return name##_;                                                                  \
   }                                                                                   \
   const ArrayType::value_type& name(ViaIndex i) const {                               \
      return name##_[i];                                                               \
   }                                                                                   \
   const ArrayType::value_type& name##Is(ViaIndex i, const ArrayType::value_type& v) { \
      return name##_.is(i, v);                                                         \
   }                                                                                   \
   ArrayType::value_type name##Del(ViaIndex i) {                                       \
      return name##_.del(i);                                                           \
   }                                                                                   \
   /* REQUIRES: it points at a live place of name(). Returns the place after it. */    \
   ArrayType::const_iterator name##Del(ArrayType::const_iterator it) {                 \
      return Codec::delAt(name##_, it);                                                \
   }                                                                                   \
   void name##DelAll() noexcept {                                                      \
      name##_.delAll();                                                                \
   }                                                                                   \
   uint32_t name##Count() const noexcept {                                             \
      return name##_.count();                                                          \
   }

}  // namespace Tunnel::TunnelTable
