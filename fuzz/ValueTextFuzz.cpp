// The runtime's "Value('<type>', ** {...})" text: the scalar parsers and ValueTextParser of Vela,
// and the text constructors of the tunnel layer's small value types.
//
// The first input byte picks the case. For a value type its top bit chooses how the rest is read:
// the whole text, or (patch) two offset bytes into the text form of a default value and the text
// that replaces it from there, so the fuzzer starts from a well-formed text. Accepted text must
// give a value whose own text reads back to an equal value with the same text. The parser cases
// build texts from fuzzer-chosen fields and demand every field back exactly as rendered.
#include <cmath>

#include "RoundTrip.h"
#include "TunnelTable/ColoredTunnelEndpoint.h"
#include "TunnelTable/EntryValueTypes.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelInfo.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "TunnelTable/Via.h"
#include "Vela/ValueText.h"

using namespace Tunnel;
using namespace Tunnel::TunnelTable;
using RoundTrip::check;

namespace {

Vela::String textInput(RoundTrip::Input& in, bool patch, const Vela::String& sample) {
   if (!patch) return in.rest();
   const size_t at = in.u16() % (sample.size() + 1);
   return sample.substr(0, at) + in.rest();
}

template <typename T>
void valueText(RoundTrip::Input& in, bool patch) {
   const Vela::String text = textInput(in, patch, valueToStrep(T()));
   T value;
   try {
      value = RoundTrip::fromValueText<T>(text);
   } catch (const Vela::Exception&) {
      return;
   }
   // "nan" reads back as a NaN, but not with every payload; bandwidth equality is bitwise.
   if constexpr (std::is_same_v<T, TunnelBandwidth>) {
      if (std::isnan(value.value())) return;
   }
   RoundTrip::valueTextOf(value);
}

void optionalColorText(RoundTrip::Input& in) {
   const Vela::String text = in.rest();
   OptionalColor color;
   try {
      color = OptionalColor(std::string_view(text));
   } catch (const Vela::Exception&) {
      return;
   }
   RoundTrip::textFixedPoint(
       color, [](const OptionalColor& c) { return valueToStrep(c); },
       [](const Vela::String& t) { return OptionalColor(std::string_view(t)); });
}

// Scalars: accepted text renders to a text that parses to the same value.
void scalarText(RoundTrip::Input& in) {
   const uint8_t which = in.byte() % 4;
   const Vela::String text = in.rest();
   try {
      switch (which) {
         case 0: {
            const uint64_t v = Vela::parseUnsigned<uint64_t>(text);
            check(Vela::parseUnsigned<uint64_t>(Vela::renderUnsigned(v)) == v, "unsigned");
            break;
         }
         case 1: {
            const Vela::String s = Vela::parseString(text);
            check(Vela::parseString(Vela::renderString(s)) == s, "string does not read back");
            // Only \' and \\ are escapes, so a string has one text form.
            check(Vela::renderString(s) == text, "an accepted string renders differently");
            break;
         }
         case 2: {
            const double d = Vela::parseDouble(text);
            const double back = Vela::parseDouble(Vela::renderFloat(d));
            check(std::isnan(d) ? std::isnan(back) : std::memcmp(&d, &back, sizeof d) == 0,
                  "double does not read back to the same bits");
            break;
         }
         case 3: {
            const float f = Vela::parseFloat(text);
            const float back = Vela::parseFloat(Vela::renderFloat(f));
            check(std::isnan(f) ? std::isnan(back) : std::memcmp(&f, &back, sizeof f) == 0,
                  "float does not read back to the same bits");
            break;
         }
      }
   } catch (const Vela::ParseException&) {
   }
}

// One field value chosen by the fuzzer, rendered, and how to check what the parser hands back.
struct Field {
   Vela::String name;
   Vela::String rendered;
};

Vela::String renderedValue(RoundTrip::Input& in, int depth) {
   switch (in.byte() % 6) {
      case 0:
         return Vela::renderString(in.text(in.byte() % 24));
      case 1: {
         uint64_t v = 0;
         for (int i = 0; i < 8; ++i) v = v << 8 | in.byte();
         return Vela::renderUnsigned(v);
      }
      case 2:
         return Vela::renderBool(in.byte() & 1);
      case 3: {
         uint64_t bits = 0;
         for (int i = 0; i < 8; ++i) bits = bits << 8 | in.byte();
         double d;
         std::memcpy(&d, &bits, sizeof d);
         return Vela::renderFloat(d);
      }
      case 4: {
         std::vector<Vela::String> items(in.byte() % 4);
         for (auto& item : items) item = depth < 3 ? renderedValue(in, depth + 1) : "[]";
         return Vela::renderArray(items);
      }
      default: {
         Vela::ValueTextBuilder nested("Nested::Type");
         const int n = in.byte() % 3;
         for (int i = 0; i < n; ++i) {
            nested.field("n" + std::to_string(i), depth < 3 ? renderedValue(in, depth + 1) : "0");
         }
         return nested.str();
      }
   }
}

// A text built from rendered fields splits back into exactly those fields, and each typed reader
// returns the value that was rendered.
void builtText(RoundTrip::Input& in) {
   std::vector<Field> fields(in.byte() % 6);
   Vela::ValueTextBuilder builder("Fuzz::Value");
   for (size_t i = 0; i < fields.size(); ++i) {
      fields[i].name = "f" + std::to_string(i);
      fields[i].rendered = renderedValue(in, 0);
      builder.field(fields[i].name, fields[i].rendered);
   }
   const Vela::String text = builder.str();
   const Vela::ValueTextParser parser(text, "Fuzz::Value");
   for (const Field& f : fields) {
      check(parser.has(f.name), "a built field is missing");
      check(parser.field(f.name) == f.rendered, "a built field reads back differently");
   }
   check(!parser.has("f9"), "a field that was never built is present");
}

// Arbitrary text through the parser: a refusal, or fields that are views into the text itself.
void rawParser(RoundTrip::Input& in) {
   const Vela::String text = in.rest();
   try {
      const Vela::ValueTextParser parser(text, "Fuzz::Value");
      for (const char* name : {"value", "a", "f0", "tep", ""}) {
         if (!parser.has(name)) continue;
         const std::string_view raw = parser.field(name);
         check(raw.data() >= text.data() && raw.data() + raw.size() <= text.data() + text.size(),
               "a field is not a view into the parsed text");
      }
   } catch (const Vela::ParseException&) {
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   RoundTrip::Input in(data, size);
   const uint8_t first = in.byte();
   const bool patch = (first & 0x80) != 0;
   switch ((first & 0x7F) % 20) {
      case 0:
         valueText<TunnelId>(in, patch);
         break;
      case 1:
         valueText<TunnelEntryPref>(in, patch);
         break;
      case 2:
         valueText<TunnelIgpPref>(in, patch);
         break;
      case 3:
         valueText<TunnelBandwidth>(in, patch);
         break;
      case 4:
         valueText<EncapId>(in, patch);
         break;
      case 5:
         valueText<TunnelRibId>(in, patch);
         break;
      case 6:
         valueText<TunnelEntrySequenceNumber>(in, patch);
         break;
      case 7:
         valueText<Via>(in, patch);
         break;
      case 8:
         valueText<MplsVia>(in, patch);
         break;
      case 9:
         valueText<TunnelVia>(in, patch);
         break;
      case 10:
         valueText<MplsCosVia>(in, patch);
         break;
      case 11:
         valueText<ColoredTunnelEndpoint>(in, patch);
         break;
      case 12:
         valueText<GreTunnelInfo>(in, patch);
         break;
      case 13:
         valueText<IpsecGreTunnelInfo>(in, patch);
         break;
      case 14:
         valueText<IpsecVtiTunnelInfo>(in, patch);
         break;
      case 15:
         valueText<VxlanTunnelInfo>(in, patch);
         break;
      case 16:
         optionalColorText(in);
         break;
      case 17:
         scalarText(in);
         break;
      case 18:
         builtText(in);
         break;
      case 19:
         rawParser(in);
         break;
   }
   return 0;
}
