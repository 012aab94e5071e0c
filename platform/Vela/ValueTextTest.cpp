#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "Vela/ValueText.h"
#include "testing/Expect.h"

namespace {

using Vela::ParseException;
using Vela::String;
using Vela::ValueTextParser;

// Exact renderings (floats never read like integers) and bit-exact float round trips.
TEST(ValueText, RenderersWriteTheExactTextAndFloatsReadBackBitExact) {
   Vela::ValueTextBuilder b("T");
   EXPECT_EQ(b.str(), "Value('T', ** {})");
   b.field("name", Vela::renderString("gre'1\\")).field("up", Vela::renderBool(false));
   b.field("ids", Vela::renderArray(std::vector<String>{"1", "2"}));
   EXPECT_EQ(b.str(), "Value('T', ** {'name': 'gre\\'1\\\\', 'up': False, 'ids': [1, 2]})");
   EXPECT_EQ(Vela::renderUnsigned(18446744073709551615ull), "18446744073709551615");
   EXPECT_EQ(Vela::renderBool(true), "True");
   EXPECT_EQ(Vela::renderFloat(12.75f), "12.75");
   EXPECT_EQ(Vela::renderFloat(1.0f), "1.0");
   EXPECT_EQ(Vela::renderFloat(-0.0), "-0.0");
   EXPECT_EQ(Vela::renderFloat(-std::numeric_limits<double>::infinity()), "-inf");
   EXPECT_EQ(Vela::renderArray(std::vector<String>{}), "[]");
   using F = std::numeric_limits<float>;
   for (float f : {0.1f, 1.0f / 3, 1e-45f, F::max(), 1e20f, 100.0f, F::infinity()}) {
      EXPECT_EQ(Vela::parseFloat(Vela::renderFloat(f)), f) << Vela::renderFloat(f);
   }
   for (double d : {0.1, 1.0 / 3, 5e-324, 1.7976931348623157e308, -1e100}) {
      EXPECT_EQ(Vela::parseDouble(Vela::renderFloat(d)), d) << Vela::renderFloat(d);
   }
   EXPECT_TRUE(std::isnan(Vela::parseFloat(Vela::renderFloat(std::nanf("")))));
}

TEST(ValueText, ParserFindsFieldsSkippingNestedValuesArraysAndStrings) {
   const std::string_view text =
       "Value('X', ** {'a': Value('Y', ** {'p': 1, 'q': [2, 3]}), 'b': [Value('Z', ** {'r': "
       "'x, }y'}), 4], 'c': 'it\\'s, \\\\ok}', 'd': True, 'e': 42, 'f': (1, 2), 'g': 1.5, "
       "'h': 12.75})";
   ValueTextParser p(text.begin(), text.end(), "X");
   EXPECT_EQ(p.field("a"), "Value('Y', ** {'p': 1, 'q': [2, 3]})");
   EXPECT_EQ(p.field("b"), "[Value('Z', ** {'r': 'x, }y'}), 4]");
   EXPECT_EQ(p.readString("c"), "it's, \\ok}");
   EXPECT_TRUE(p.readBool("d"));
   EXPECT_EQ(p.readUnsigned<uint8_t>("e"), 42u);
   EXPECT_EQ(p.field("f"), "(1, 2)");
   EXPECT_EQ(p.readDouble("g"), 1.5);
   EXPECT_EQ(p.readFloat("h"), 12.75f);
   EXPECT_FALSE(p.has("i"));
   EXPECT_FALSE(ValueTextParser(std::string_view("Value('E', ** {})"), "E").has("x"));
}

TEST(ValueText, ErrorsNameTheAttributeBeingRead) {
   const auto err = [](std::string_view text, auto read) {
      return Testing::errorText<ParseException>([&] { read(ValueTextParser(text, "T")); });
   };
   const auto readValue = [](const ValueTextParser& p) { p.readUnsigned<uint64_t>("value"); };
   // Read as T's 'value'; the error follows "cannot read attribute 'value' of T: ".
   const std::pair<const char*, const char*> cases[] = {
       {"Value('T', ** {'value': -1})", "expected an unsigned number, got \"-1\""},
       {"Value('T', ** {'value': })", "expected an unsigned number, got \"\""},
       {"Value('U', ** {'value': 1})", "text does not start with \"Value('T', ** {\""},
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
      EXPECT_EQ(err(text, readValue), std::string("cannot read attribute 'value' of T: ") + error);
   }
   // Each reader names its attribute and what it expected; a nested read wraps the inner error.
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
       {"Value('T', ** {'via': Value('Other', ** {'value': 1})})",
        [](const ValueTextParser& p) {
           p.readField("via", [](std::string_view t) {
              return ValueTextParser(t, "Tunnel::TunnelTable::ViaIndex").readBool("value");
           });
        },
        "cannot read attribute 'via' of T: cannot read attribute 'value' of "
        "Tunnel::TunnelTable::ViaIndex: text does not start with "
        "\"Value('Tunnel::TunnelTable::ViaIndex', ** {\""},
   };
   for (const auto& r : readers) EXPECT_EQ(err(r.text, r.read), r.error) << r.text;
}

}  // namespace
