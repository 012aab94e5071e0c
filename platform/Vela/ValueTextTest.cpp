#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "Vela/BoundedIndex.h"
#include "Vela/ValueText.h"
#include "testing/Expect.h"

namespace {

using Vela::ParseException;
using Vela::RangeException;
using Vela::String;
using Vela::ValueTextBuilder;
using Vela::ValueTextParser;

constexpr const char* kTunnelId = "Tunnel::TunnelTable::TunnelId";

using Testing::errorText;

TEST(ValueText, BuilderWritesFieldsInCallOrderAndItsTextParsesBack) {
   EXPECT_EQ(ValueTextBuilder("T").str(), "Value('T', ** {})");
   ValueTextBuilder b("Tunnel::TunnelFib::GreEncap");
   b.field("id", ValueTextBuilder(kTunnelId).field("value", "7").str())
       .field("name", Vela::renderString("gre'1\\"))
       .field("up", Vela::renderBool(false))
       .field("bw", Vela::renderFloat(12.75f))
       .field("ids", Vela::renderArray(std::vector<String>{"1", "2"}))
       .field("metric", Vela::renderUnsigned(4294967295u));
   const String text = b.str();
   EXPECT_EQ(
       text,
       "Value('Tunnel::TunnelFib::GreEncap', ** {'id': Value('Tunnel::TunnelTable::TunnelId', "
       "** {'value': 7}), 'name': 'gre\\'1\\\\', 'up': False, 'bw': 12.75, 'ids': [1, 2], "
       "'metric': 4294967295})");
   ValueTextParser p(text.begin(), text.end(), "Tunnel::TunnelFib::GreEncap");
   EXPECT_EQ(p.field("id"), "Value('Tunnel::TunnelTable::TunnelId', ** {'value': 7})");
   EXPECT_EQ(p.readString("name"), "gre'1\\");
   EXPECT_FALSE(p.readBool("up"));
   EXPECT_EQ(p.readFloat("bw"), 12.75f);
   EXPECT_EQ(p.field("ids"), "[1, 2]");
   EXPECT_EQ(p.readUnsigned<uint32_t>("metric"), 4294967295u);
}

TEST(ValueText, RendersScalarsAndArrays) {
   EXPECT_EQ(Vela::renderUnsigned(0), "0");
   EXPECT_EQ(Vela::renderUnsigned(18446744073709551615ull), "18446744073709551615");
   EXPECT_EQ(Vela::renderBool(true), "True");
   EXPECT_EQ(Vela::renderFloat(0.1f), "0.1");
   EXPECT_EQ(Vela::renderFloat(1.0f), "1.0");
   EXPECT_EQ(Vela::renderFloat(-0.0), "-0.0");
   EXPECT_EQ(Vela::renderFloat(2.5), "2.5");
   EXPECT_EQ(Vela::renderArray(std::vector<String>{}), "[]");
   EXPECT_EQ(Vela::renderArray(std::vector<String>{"1"}), "[1]");
   EXPECT_EQ(Vela::renderArray(std::vector<String>{"'a'", "Value('X', ** {})"}),
             "['a', Value('X', ** {})]");
}

TEST(ValueText, FloatsReadBackBitExact) {
   using F = std::numeric_limits<float>;
   const float fs[] = {0.1f, 1.0f / 3, 1e-45f, F::max(), 1e20f, 100.0f, F::infinity()};
   for (float f : fs) {
      EXPECT_EQ(Vela::parseFloat(Vela::renderFloat(f)), f) << Vela::renderFloat(f);
   }
   const double ds[] = {0.1, 1.0 / 3, 5e-324, 1.7976931348623157e308, -1e100};
   for (double d : ds) {
      EXPECT_EQ(Vela::parseDouble(Vela::renderFloat(d)), d) << Vela::renderFloat(d);
   }
   EXPECT_TRUE(std::isnan(Vela::parseFloat(Vela::renderFloat(std::nanf("")))));
   EXPECT_EQ(Vela::renderFloat(-std::numeric_limits<double>::infinity()), "-inf");
}

TEST(ValueText, ParserFindsFieldsSkippingNestedValuesArraysAndStrings) {
   const String text =
       "Value('Tunnel::X', ** {'a': Value('Tunnel::Y', ** {'p': 1, 'q': [2, 3]}), "
       "'b': [Value('Z', ** {'r': 'x, }y'}), 4], 'c': 'it\\'s, ok}', 'd': True, 'e': 42, "
       "'f': (1, 2), 'g': 1.5}";
   const String full = text + ")";
   ValueTextParser p(full.begin(), full.end(), "Tunnel::X");
   EXPECT_EQ(p.field("a"), "Value('Tunnel::Y', ** {'p': 1, 'q': [2, 3]})");
   EXPECT_EQ(p.field("b"), "[Value('Z', ** {'r': 'x, }y'}), 4]");
   EXPECT_EQ(p.readString("c"), "it's, ok}");
   EXPECT_TRUE(p.readBool("d"));
   EXPECT_EQ(p.readUnsigned<uint8_t>("e"), 42u);
   EXPECT_EQ(p.field("f"), "(1, 2)");
   EXPECT_EQ(p.readDouble("g"), 1.5);
   EXPECT_TRUE(p.has("a"));
   EXPECT_FALSE(p.has("h"));

   const std::string_view nested = p.field("a");
   ValueTextParser inner(nested, "Tunnel::Y");
   EXPECT_EQ(inner.readUnsigned<uint32_t>("p"), 1u);
   EXPECT_EQ(inner.field("q"), "[2, 3]");

   ValueTextParser empty(std::string_view("Value('E', ** {})"), "E");
   EXPECT_FALSE(empty.has("x"));
}

TEST(ValueText, ErrorsNameTheAttributeBeingRead) {
   const auto err = [](std::string_view text, std::string_view type, auto read) {
      return errorText<ParseException>([&] { read(ValueTextParser(text, type)); });
   };
   const auto readValue = [](const ValueTextParser& p) { p.readUnsigned<uint64_t>("value"); };
   // A full type name in the error, and the reading of numbers.
   const std::string tunnelId = "cannot read attribute 'value' of Tunnel::TunnelTable::TunnelId: ";
   for (const char* bad : {"x1", "-1", ""}) {
      EXPECT_EQ(
          err(std::string("Value('Tunnel::TunnelTable::TunnelId', ** {'value': ") + bad + "})",
              kTunnelId, readValue),
          tunnelId + "expected an unsigned number, got \"" + bad + "\"");
   }
   EXPECT_EQ(err("Value('Tunnel::TunnelTable::EncapId', ** {'value': 1})", kTunnelId, readValue),
             tunnelId + "text does not start with \"Value('Tunnel::TunnelTable::TunnelId', ** {\"");
   // Read as T's 'value'; the error follows "cannot read attribute 'value' of T: ".
   const std::pair<const char*, const char*> cases[] = {
       {"Value('T', ** {'other': 1})", "attribute not present"},
       {"Value('T', ** {'value': 1}", "expected \")\" at offset 26"},
       {"Value('T', ** {'value': 1}) ", "unexpected text after the value at offset 27"},
       {"Value('T', ** {'value': 1,'b': 2})", "expected \", \" at offset 25"},
       {"Value('T', ** {'value': 1, 'value': 2})", "attribute 'value' appears twice"},
       {"Value('T', ** {'value': 'abc})", "unterminated string in attribute 'value'"},
       {"Value('T', ** {'value': [1, 2})", "expected \"}\" at offset 30"},
       {"Value('T', ** {'value': [1, 2", "unterminated value of attribute 'value'"},
   };
   for (const auto& [text, error] : cases) {
      SCOPED_TRACE(text);
      EXPECT_EQ(err(text, "T", readValue),
                std::string("cannot read attribute 'value' of T: ") + error);
   }
   // Each reader names its attribute and what it expected.
   const struct {
      const char* text;
      void (*read)(const ValueTextParser&);
      const char* error;
   } readers[] = {
       {"Value('T', ** {'v': 70000})",
        [](const ValueTextParser& p) { p.readUnsigned<uint16_t>("v"); },
        "cannot read attribute 'v' of T: expected a 16-bit unsigned number, got \"70000\""},
       {"Value('T', ** {'up': true})", [](const ValueTextParser& p) { p.readBool("up"); },
        "cannot read attribute 'up' of T: expected True or False, got \"true\""},
       {"Value('T', ** {'s': 'a'b'c'})", [](const ValueTextParser& p) { p.readString("s"); },
        "cannot read attribute 's' of T: expected a quoted string, got \"'a'b'c'\""},
       {"Value('T', ** {'f': 1.5x})", [](const ValueTextParser& p) { p.readFloat("f"); },
        "cannot read attribute 'f' of T: expected a floating point number, got \"1.5x\""},
   };
   for (const auto& r : readers) EXPECT_EQ(err(r.text, "T", r.read), r.error) << r.text;
}

struct ViaTag {
   static constexpr const char* typeName = "Tunnel::TunnelTable::ViaIndex";
};
using ViaIndex = Vela::BoundedIndex<ViaTag, uint16_t, 0, 599>;

// A value type's text constructor, written the way every value type writes it.
ViaIndex viaIndexFromText(std::string_view text) {
   ValueTextParser p(text, "Tunnel::TunnelTable::ViaIndex");
   return p.readField(
       "value", [](std::string_view t) { return ViaIndex(Vela::parseUnsigned<uint64_t>(t)); });
}

TEST(ValueText, RangeErrorWhileReadingNamesTheAttribute) {
   EXPECT_EQ(viaIndexFromText("Value('Tunnel::TunnelTable::ViaIndex', ** {'value': 599})").value(),
             599u);
   EXPECT_EQ(errorText<RangeException>([] {
                viaIndexFromText("Value('Tunnel::TunnelTable::ViaIndex', ** {'value': 600})");
             }),
             "Tunnel::TunnelTable::ViaIndex::value < Tunnel::TunnelTable::ViaIndex::min or > "
             "Tunnel::TunnelTable::ViaIndex::max not allowed (reading attribute 'value')");

   // Nested reads stack the context: the outer attribute wraps the inner one.
   const String outer =
       "Value('Outer', ** {'via': Value('Tunnel::TunnelTable::ViaIndex', ** {'value': 1000})})";
   ValueTextParser p(outer.begin(), outer.end(), "Outer");
   EXPECT_EQ(errorText<RangeException>([&] { p.readField("via", viaIndexFromText); }),
             "Tunnel::TunnelTable::ViaIndex::value < Tunnel::TunnelTable::ViaIndex::min or > "
             "Tunnel::TunnelTable::ViaIndex::max not allowed (reading attribute 'value') (reading "
             "attribute 'via')");
   const String bad = "Value('Outer', ** {'via': Value('Other', ** {'value': 1})})";
   ValueTextParser q(bad.begin(), bad.end(), "Outer");
   EXPECT_EQ(errorText<ParseException>([&] { q.readField("via", viaIndexFromText); }),
             "cannot read attribute 'via' of Outer: cannot read attribute 'value' of "
             "Tunnel::TunnelTable::ViaIndex: text does not start with "
             "\"Value('Tunnel::TunnelTable::ViaIndex', ** {\"");
}

}  // namespace
