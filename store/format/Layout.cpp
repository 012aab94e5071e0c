// File names of a table's files under the store root.
#include "store/format/Layout.h"

#include <fmt/format.h>

namespace Dock {

std::string slabFileName(uint32_t slab) {
   return fmt::format("slab.{:02}", slab);
}

namespace {

// Appends `part` to `out` with exactly one '/' between components; empty components (doubled,
// leading or trailing slashes in a mount path) are dropped.
void appendPath(std::string& out, const std::string& part) {
   size_t i = 0;
   while (i < part.size()) {
      size_t j = part.find('/', i);
      if (j == std::string::npos) j = part.size();
      if (j > i) {
         if (!out.empty() && out.back() != '/') out += '/';
         out.append(part, i, j - i);
      }
      i = j + 1;
   }
}

}  // namespace

std::string tableDirectory(const std::string& root, const std::string& mountPath,
                           const std::string& collection) {
   // The root keeps its leading '/'; the mount path's components follow it, then the collection.
   std::string dir = root.empty() ? std::string(".") : root;
   while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
   appendPath(dir, mountPath);
   appendPath(dir, collection);
   return dir;
}

}  // namespace Dock
