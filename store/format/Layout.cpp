// The slab files' names.
#include "store/format/Layout.h"

#include <fmt/format.h>

namespace Dock {

std::string slabFileName(uint32_t slab) {
   return fmt::format("slab.{:02}", slab);
}

}  // namespace Dock
