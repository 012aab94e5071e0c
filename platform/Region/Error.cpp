#include "Region/Error.h"

#include <fmt/format.h>

#include <cstring>

namespace Region {

Error Error::fromErrno(const std::string& what, const std::string& path, int err) {
   return Error(fmt::format("{} {}: {}", what, path, std::strerror(err)));
}

}  // namespace Region
