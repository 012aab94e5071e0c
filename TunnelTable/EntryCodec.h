// The per-field machinery behind every entry kind and the small values inside entries.
//
// A value class lists its fields once, in declaration order, as a tuple of descriptors:
//
//    static constexpr auto fields() {
//       return std::tuple_cat(TunnelTableEntry::fields(),
//                             std::tuple{Codec::field<&ColoredTunnelTableEntry::color_>("color"),
//                             ...});
//    }
//
// and the generic functions here derive from that list everything that must agree field for
// field: equality, the "Value('<type>', ** {...})" text and its parser, the byte form (length,
// writer, reader, and the non-throwing length scan used on untrusted bytes) and the dump lines.
// How one field type travels is said once, in its FieldTraits specialization; a class never
// spells out a field's bytes or text by hand, so the four byte-form operations cannot drift apart.
//
// FieldTraits<T> provides:
//    kFixedLen              bytes of the byte form, or 0 when the length depends on the value
//    kMaxLen                variable-length types only: the most bytes a value may take (the
//                           type's own limit, or the bound the tables are sized for)
//    len(v)                 bytes of v's byte form (variable-length types only)
//    scan(reader)           moves past one encoded value without building it; false when the
//                           bytes run out (noexcept: it serves deserializeLen)
//    write(writer, v) / read(reader, v)
//    text(v) / parse(raw)   the value's text inside a Value(...) form, and back
//    dumpText(v)            the value as a dump line shows it
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "TunnelTable/ByteCursor.h"
#include "Vela/String.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelTable::Codec {

template <typename T, typename = void>
struct FieldTraits;  // one specialization per field type

// A field descriptor: the member, its name in text forms, and the traits that carry it.
template <auto Member, typename Traits>
struct Field {
   std::string_view name;
   static constexpr auto member = Member;
   using traits = Traits;
};

template <typename M>
struct MemberOf;
template <typename C, typename T>
struct MemberOf<T C::*> {
   using type = T;
};
template <auto Member>
using MemberType = typename MemberOf<decltype(Member)>::type;

// The usual descriptor: the member's own type decides its traits.
template <auto Member>
constexpr Field<Member, FieldTraits<MemberType<Member>>> field(std::string_view name) {
   return {name};
}
// A descriptor with explicit traits, for a member carried in a non-default form (e.g. every place
// of an array written).
template <auto Member, typename Traits>
constexpr Field<Member, Traits> fieldAs(std::string_view name) {
   return {name};
}

template <typename Traits, typename T>
uint32_t lenOf(const T& v) {
   if constexpr (Traits::kFixedLen != 0) {
      (void)v;
      return Traits::kFixedLen;
   } else {
      return Traits::len(v);
   }
}

// The most bytes a field carried by Traits takes: kFixedLen, or the declared kMaxLen of a
// variable-length type.
template <typename Traits>
constexpr uint32_t maxLenOf() {
   if constexpr (Traits::kFixedLen != 0) {
      return Traits::kFixedLen;
   } else {
      static_assert(
          requires { Traits::kMaxLen; }, "a variable-length field type declares kMaxLen");
      return Traits::kMaxLen;
   }
}

template <typename Traits>
bool scanOne(ByteReader& r) noexcept {
   if constexpr (Traits::kFixedLen != 0) {
      return r.trySkip(Traits::kFixedLen);
   } else {
      return Traits::scan(r);
   }
}

template <typename Traits, typename T>
bool equalOne(const T& a, const T& b) {
   if constexpr (requires { Traits::equal(a, b); }) {
      return Traits::equal(a, b);
   } else {
      return a == b;
   }
}

template <typename V, typename F>
void forEachField(F&& f) {
   std::apply([&](auto... d) { (f(d), ...); }, V::fields());
}

// ---- operations over a whole field list ----

template <typename V>
bool fieldsEqual(const V& a, const V& b) {
   return std::apply(
       [&](auto... d) {
          return (equalOne<typename decltype(d)::traits>(a.*decltype(d)::member,
                                                         b.*decltype(d)::member) &&
                  ...);
       },
       V::fields());
}

template <typename V>
Vela::String valueText(const V& v, std::string_view typeName) {
   Vela::ValueTextBuilder b(typeName);
   forEachField<V>(
       [&](auto d) { b.field(d.name, decltype(d)::traits::text(v.*decltype(d)::member)); });
   return b.str();
}

template <typename V>
void parseFields(V& v, const Vela::ValueTextParser& p) {
   forEachField<V>([&](auto d) {
      using Traits = typename decltype(d)::traits;
      v.*decltype(d)::member =
          p.readField(d.name, [](std::string_view raw) { return Traits::parse(raw); });
   });
}

template <typename V>
uint32_t fieldsLen(const V& v) {
   uint32_t n = 0;
   forEachField<V>(
       [&](auto d) { n += lenOf<typename decltype(d)::traits>(v.*decltype(d)::member); });
   return n;
}

// Sum of kFixedLen over the list; 0 if any field has a variable length.
template <typename V>
constexpr uint32_t fixedFieldsLen() {
   return std::apply(
       [](auto... d) {
          const bool allFixed = ((decltype(d)::traits::kFixedLen != 0) && ...);
          return allFixed ? (uint32_t{0} + ... + uint32_t{decltype(d)::traits::kFixedLen}) : 0u;
       },
       V::fields());
}

// The longest byte form of the list: every field at maxLenOf.
template <typename V>
constexpr uint32_t maxFieldsLen() {
   return std::apply(
       [](auto... d) { return (uint32_t{0} + ... + maxLenOf<typename decltype(d)::traits>()); },
       V::fields());
}

template <typename V>
void writeFields(const V& v, ByteWriter& w) {
   forEachField<V>([&](auto d) { decltype(d)::traits::write(w, v.*decltype(d)::member); });
}

template <typename V>
void readFields(V& v, ByteReader& r) {
   forEachField<V>([&](auto d) { decltype(d)::traits::read(r, v.*decltype(d)::member); });
}

template <typename V>
bool scanFields(ByteReader& r) noexcept {
   return std::apply([&](auto... d) { return (scanOne<typename decltype(d)::traits>(r) && ...); },
                     V::fields());
}

// ---- helpers shared by the traits ----

// Splits the text of a value array "[a, b]" into its elements, skipping nested Value(...), [...]
// and quoted strings. Throws Vela::ParseException when the text is not an array.
std::vector<std::string_view> splitArray(std::string_view text);

// A dump line: `indent` blanks (none for 0), "<name>: <text>", newline.
void dumpLine(Vela::String& out, int indent, std::string_view name, std::string_view text);

// Throws ByteFormatError: the `len` bytes at `offset` are not what any value's writer produces.
[[noreturn]] void throwNonCanonical(size_t offset, size_t len);

// ---- scalar traits ----

template <typename T>
struct UnsignedTraits {
   static constexpr uint32_t kFixedLen = sizeof(T);
   static void write(ByteWriter& w, T v) {
      if constexpr (sizeof(T) == 1) w.u8(v);
      if constexpr (sizeof(T) == 2) w.u16(v);
      if constexpr (sizeof(T) == 4) w.u32(v);
      if constexpr (sizeof(T) == 8) w.u64(v);
   }
   static void read(ByteReader& r, T& v) {
      if constexpr (sizeof(T) == 1) v = r.u8();
      if constexpr (sizeof(T) == 2) v = r.u16();
      if constexpr (sizeof(T) == 4) v = r.u32();
      if constexpr (sizeof(T) == 8) v = r.u64();
   }
   static Vela::String text(T v) { return Vela::renderUnsigned(v); }
   static T parse(std::string_view raw) { return Vela::parseUnsigned<T>(raw); }
   static Vela::String dumpText(T v) { return text(v); }
};
template <>
struct FieldTraits<uint8_t> : UnsignedTraits<uint8_t> {};
template <>
struct FieldTraits<uint16_t> : UnsignedTraits<uint16_t> {};
template <>
struct FieldTraits<uint32_t> : UnsignedTraits<uint32_t> {};
template <>
struct FieldTraits<uint64_t> : UnsignedTraits<uint64_t> {};

template <>
struct FieldTraits<bool> {
   static constexpr uint32_t kFixedLen = 1;
   static void write(ByteWriter& w, bool v) { w.boolean(v); }
   static void read(ByteReader& r, bool& v) { v = r.boolean(); }
   static Vela::String text(bool v) { return Vela::renderBool(v); }
   static bool parse(std::string_view raw) { return Vela::parseBool(raw); }
   static Vela::String dumpText(bool v) { return text(v); }
};

// How a block reader holds to "a reader accepts exactly the byte forms a writer produces".
//    recheck  the reader re-serializes what it built and refuses bytes that differ;
//    exact    T::deserialize itself refuses every byte form that serialize would not give back
//             unchanged (each byte is either checked or copied into the value as it is), so a
//             second serialize can find nothing more. The fuzz targets hold such types to it.
enum class BlockCheck { recheck, exact };

// A fixed block with kSerializedSize, serialize(uint8_t*) and static deserialize(const uint8_t*).
// readFrom builds the value from kFixedLen bytes already taken at record offset `at`.
template <typename T, BlockCheck Check = BlockCheck::recheck>
struct BlockTraits {
   static constexpr uint32_t kFixedLen = static_cast<uint32_t>(T::kSerializedSize);
   static void write(ByteWriter& w, const T& v) { w.block(v); }
   static T readFrom(const uint8_t* in, size_t at) {
      if constexpr (Check == BlockCheck::exact) {
         (void)at;
         return T::deserialize(in);
      } else {
         T built = T::deserialize(in);
         uint8_t again[kFixedLen];
         built.serialize(again);
         if (std::memcmp(again, in, kFixedLen) != 0) throwNonCanonical(at, kFixedLen);
         return built;
      }
   }
   static void read(ByteReader& r, T& v) {
      const size_t at = r.offset();
      v = readFrom(r.take(kFixedLen), at);
   }
};

}  // namespace Tunnel::TunnelTable::Codec
