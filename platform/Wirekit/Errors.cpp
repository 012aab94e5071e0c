#include "Wirekit/Errors.h"

#include <fmt/format.h>

namespace Wirekit {

LabelStackOverflow LabelStackOverflow::labels(size_t needed, size_t capacity) {
   return LabelStackOverflow(
       fmt::format("label stack of {} labels exceeds the capacity of {}", needed, capacity));
}

LabelStackOverflow LabelStackOverflow::pops(size_t needed, size_t capacity) {
   return LabelStackOverflow(
       fmt::format("label operation pops {} labels; at most {} allowed", needed, capacity));
}

std::string printableText(std::string_view text) {
   std::string s(text);
   for (char& c : s) {
      if (c < 0x20 || c > 0x7e) c = '?';
   }
   return s;
}

}  // namespace Wirekit
