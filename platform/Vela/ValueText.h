// The runtime's text form of a value, and its parser:
//
//    Value('Tunnel::TunnelTable::TunnelId', ** {'value': 123})
//    Value('<qualified type name>', ** {'<field>': <value>, '<field>': <value>})
//
// Fields appear in declaration order, ", " between them. A field's value is rendered by its own
// type: unsigned numbers in decimal, bools as True/False, strings in single quotes (a quote or
// backslash inside is preceded by a backslash), floats in the shortest form that reads back to the
// same value, nested values in their own Value(...) form and value arrays as "[a, b]".
//
// ValueTextParser splits the text into fields once, skipping nested Value(...), [...] and quoted
// strings, and hands out each field's raw text by name. Every failure is a ParseException naming
// the attribute being read:
//    "cannot read attribute 'value' of Tunnel::TunnelTable::TunnelId: expected an unsigned number,
//    got \"x\""
// A RangeException raised while converting an attribute is re-raised with " (reading attribute
// '<name>')" appended, so a bad bound read from text says where it came from. readField() does
// both for any converter; a value type's text constructor is one readField call per field:
//
//    ValueTextParser p(begin, end, "Tunnel::TunnelTable::TunnelId");
//    value_ = p.readField("value", [](std::string_view t) { return
//    TunnelId(parseUnsigned<uint64_t>(t)); });
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include "Vela/Exception.h"
#include "Vela/String.h"

namespace Vela {

// ---- rendering ----

String renderUnsigned(uint64_t v);
String renderBool(bool v);
String renderString(std::string_view v);
// Shortest round-trip form; a value with no fraction or exponent gets ".0" ("1.0", "-0.0"), so
// floats never read like integers. Infinities and NaN render as "inf", "-inf", "nan".
String renderFloat(double v);
String renderFloat(float v);

// The runtime's rendering of a value array: "[a, b, c]", "[]" when empty.
template <typename Range>
String renderArray(const Range& items) {
   String out = "[";
   bool first = true;
   for (const auto& item : items) {
      if (!first) out += ", ";
      first = false;
      out += std::string_view(item);
   }
   out += ']';
   return out;
}

class ValueTextBuilder {
  public:
   explicit ValueTextBuilder(std::string_view typeName);
   // Appends one field; `value` is already rendered.
   ValueTextBuilder& field(std::string_view name, std::string_view value);
   String str() const;

  private:
   String text_;
   bool first_ = true;
};

// ---- parsing of single values; failures are ParseExceptions carrying only the reason ----

[[noreturn]] void throwBadValue(std::string_view expected, std::string_view got);

template <std::unsigned_integral T>
constexpr const char* unsignedTypeName() {
   if constexpr (sizeof(T) == 1) return "an 8-bit unsigned number";
   if constexpr (sizeof(T) == 2) return "a 16-bit unsigned number";
   if constexpr (sizeof(T) == 4) return "a 32-bit unsigned number";
   return "a 64-bit unsigned number";
}

template <std::unsigned_integral T>
T parseUnsigned(std::string_view text) {
   T v{};
   const char* end = text.data() + text.size();
   // from_chars alone would accept nothing but digits anyway; a sign or blank fails here.
   auto [ptr, ec] = std::from_chars(text.data(), end, v, 10);
   if (text.empty() || ptr != end || ec == std::errc::invalid_argument) {
      throwBadValue("an unsigned number", text);
   }
   if (ec == std::errc::result_out_of_range) {
      throwBadValue(unsignedTypeName<T>(), text);
   }
   return v;
}

bool parseBool(std::string_view text);
String parseString(std::string_view text);
double parseDouble(std::string_view text);
float parseFloat(std::string_view text);

class ValueTextParser {
  public:
   // REQUIRES: the text outlives the parser (fields are views into it).
   ValueTextParser(std::string_view text, std::string_view typeName);
   template <std::contiguous_iterator It>
   ValueTextParser(It begin, It end, std::string_view typeName)
       : ValueTextParser(viewOf(begin, end), typeName) {}

   const String& typeName() const { return typeName_; }
   bool has(std::string_view name) const;
   // Raw text of the attribute's value; throws ParseException if the text is malformed or the
   // attribute is absent.
   std::string_view field(std::string_view name) const;

   // converter(std::string_view raw) -> value; see the file comment for how failures are reported.
   template <typename Converter>
   auto readField(std::string_view name, Converter&& converter) const {
      const std::string_view raw = field(name);
      try {
         return std::forward<Converter>(converter)(raw);
      } catch (const RangeException& e) {
         throw RangeException(String(e.what()) + " (reading attribute '" + String(name) + "')");
      } catch (const ParseException& e) {
         fail(name, e.what());
      }
   }

   template <std::unsigned_integral T>
   T readUnsigned(std::string_view name) const {
      return readField(name, [](std::string_view t) { return parseUnsigned<T>(t); });
   }
   bool readBool(std::string_view name) const;
   String readString(std::string_view name) const;
   double readDouble(std::string_view name) const;
   float readFloat(std::string_view name) const;

   [[noreturn]] void fail(std::string_view name, std::string_view reason) const;

  private:
   void split();

   std::string_view text_;
   String typeName_;
   String error_;  // why the text could not be split; empty when it could
   std::vector<std::pair<std::string_view, std::string_view>> fields_;
};

}  // namespace Vela
