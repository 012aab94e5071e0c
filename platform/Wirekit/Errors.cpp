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

}  // namespace Wirekit
