#include "Vela/Exception.h"

#include <fmt/format.h>

namespace Vela {

RangeException RangeException::forType(std::string_view typeName, std::string_view field,
                                       std::string_view minName, std::string_view maxName) {
   return RangeException(fmt::format("{0}::{1} < {0}::{2} or > {0}::{3} not allowed", typeName,
                                     field, minName, maxName));
}

}  // namespace Vela
