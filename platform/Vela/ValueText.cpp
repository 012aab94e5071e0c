#include "Vela/ValueText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace Vela {

namespace {

template <typename F>
String renderFloating(F v) {
   String s = fmt::format("{}", v);
   // fmt gives the shortest round-trip digits; mark integral-looking results as floats.
   if (s.find_first_of(".eEn") == String::npos) s += ".0";  // 'n' covers inf and nan
   return s;
}

template <typename F>
F parseFloating(std::string_view text) {
   F v{};
   const char* end = text.data() + text.size();
   auto [ptr, ec] = std::from_chars(text.data(), end, v);
   if (text.empty() || ptr != end || ec != std::errc{})
      throwBadValue("a floating point number", text);
   return v;
}

}  // namespace

String renderUnsigned(uint64_t v) {
   return fmt::format("{}", v);
}
String renderBool(bool v) {
   return v ? "True" : "False";
}
String renderFloat(double v) {
   return renderFloating(v);
}
String renderFloat(float v) {
   return renderFloating(v);
}

String renderString(std::string_view v) {
   String out;
   out.reserve(v.size() + 2);
   out += '\'';
   for (char c : v) {
      if (c == '\'' || c == '\\') out += '\\';
      out += c;
   }
   out += '\'';
   return out;
}

ValueTextBuilder::ValueTextBuilder(std::string_view typeName) {
   text_ = "Value('";
   text_ += typeName;
   text_ += "', ** {";
}

ValueTextBuilder& ValueTextBuilder::field(std::string_view name, std::string_view value) {
   if (!first_) text_ += ", ";
   first_ = false;
   text_ += '\'';
   text_ += name;
   text_ += "': ";
   text_ += value;
   return *this;
}

String ValueTextBuilder::str() const {
   return text_ + "})";
}

void throwBadValue(std::string_view expected, std::string_view got) {
   throw ParseException(fmt::format("expected {}, got \"{}\"", expected, got));
}

bool parseBool(std::string_view text) {
   if (text == "True") return true;
   if (text == "False") return false;
   throwBadValue("True or False", text);
}

String parseString(std::string_view text) {
   if (text.size() < 2 || text.front() != '\'' || text.back() != '\'') {
      throwBadValue("a quoted string", text);
   }
   String out;
   for (size_t i = 1; i + 1 < text.size(); ++i) {
      char c = text[i];
      if (c == '\\') {
         // An escape needs a following character inside the quotes, and only \' and \\ exist.
         if (i + 2 >= text.size() || (text[i + 1] != '\'' && text[i + 1] != '\\')) {
            throwBadValue("a quoted string", text);
         }
         c = text[++i];
      } else if (c == '\'') {
         throwBadValue("a quoted string", text);
      }
      out += c;
   }
   return out;
}

double parseDouble(std::string_view text) {
   return parseFloating<double>(text);
}
float parseFloat(std::string_view text) {
   return parseFloating<float>(text);
}

ValueTextParser::ValueTextParser(std::string_view text, std::string_view typeName)
    : text_(text), typeName_(typeName) {
   split();
}

// Splits "Value('<type>', ** {'a': x, 'b': y})" into (name, raw value) pairs. Failure is recorded,
// not thrown: it is reported by the first field read, which names its attribute.
void ValueTextParser::split() {
   const String head = "Value('" + typeName_ + "', ** {";
   if (text_.substr(0, head.size()) != head) {
      error_ = fmt::format("text does not start with \"{}\"", head);
      return;
   }
   size_t pos = head.size();
   const size_t n = text_.size();
   auto expect = [&](std::string_view what) {
      if (text_.substr(pos, what.size()) != what) {
         error_ = fmt::format("expected \"{}\" at offset {}", what, pos);
         return false;
      }
      pos += what.size();
      return true;
   };
   if (pos < n && text_[pos] == '}') {
      ++pos;
   } else {
      for (;;) {
         if (!expect("'")) return;
         const size_t nameEnd = text_.find('\'', pos);
         if (nameEnd == std::string_view::npos) {
            error_ = fmt::format("unterminated attribute name at offset {}", pos);
            return;
         }
         const std::string_view name = text_.substr(pos, nameEnd - pos);
         pos = nameEnd + 1;
         if (!expect(": ")) return;
         const size_t start = pos;
         int depth = 0;
         while (pos < n) {
            const char c = text_[pos];
            if (c == '\'') {
               ++pos;
               while (pos < n && text_[pos] != '\'') pos += text_[pos] == '\\' ? 2 : 1;
               if (pos >= n) {
                  error_ = fmt::format("unterminated string in attribute '{}'", name);
                  return;
               }
            } else if (c == '(' || c == '[' || c == '{') {
               ++depth;
            } else if (c == ')' || c == ']' || c == '}') {
               if (depth == 0) break;
               --depth;
            } else if (c == ',' && depth == 0) {
               break;
            }
            ++pos;
         }
         if (pos >= n) {
            error_ = fmt::format("unterminated value of attribute '{}'", name);
            return;
         }
         const bool duplicate = std::any_of(fields_.begin(), fields_.end(),
                                            [&](const auto& f) { return f.first == name; });
         if (duplicate) {
            error_ = fmt::format("attribute '{}' appears twice", name);
            return;
         }
         fields_.emplace_back(name, text_.substr(start, pos - start));
         if (text_[pos] == ',') {
            if (!expect(", ")) return;
            continue;
         }
         if (!expect("}")) return;
         break;
      }
   }
   if (!expect(")")) return;
   if (pos != n) error_ = fmt::format("unexpected text after the value at offset {}", pos);
}

void ValueTextParser::fail(std::string_view name, std::string_view reason) const {
   throw ParseException(
       fmt::format("cannot read attribute '{}' of {}: {}", name, typeName_, reason));
}

bool ValueTextParser::has(std::string_view name) const {
   return error_.empty() && std::any_of(fields_.begin(), fields_.end(),
                                        [&](const auto& f) { return f.first == name; });
}

std::string_view ValueTextParser::field(std::string_view name) const {
   if (!error_.empty()) fail(name, error_);
   for (const auto& [fieldName, raw] : fields_) {
      if (fieldName == name) return raw;
   }
   fail(name, "attribute not present");
}

bool ValueTextParser::readBool(std::string_view name) const {
   return readField(name, parseBool);
}
String ValueTextParser::readString(std::string_view name) const {
   return readField(name, parseString);
}
double ValueTextParser::readDouble(std::string_view name) const {
   return readField(name, parseDouble);
}
float ValueTextParser::readFloat(std::string_view name) const {
   return readField(name, parseFloat);
}

}  // namespace Vela
