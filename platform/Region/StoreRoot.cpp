#include "Region/StoreRoot.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "Region/Error.h"

namespace Region {

std::string storeRoot() {
   const char* root = std::getenv(kStoreRootVariable);
   return root && *root ? std::string(root) : std::string(kDefaultStoreRoot);
}

std::string tableName(const std::string& mountPath, const std::string& collection) {
   return mountPath + "/" + collection;
}

std::string tableDirectory(const std::string& root, const std::string& name) {
   return (!name.empty() && name[0] == '/') ? name : root + "/" + name;
}

void makeDirectories(const std::string& dir) {
   // Walk the components left to right; EEXIST is fine (another writer or reader got there first).
   for (size_t pos = 1; pos <= dir.size(); ++pos) {
      if (pos != dir.size() && dir[pos] != '/') continue;
      std::string prefix = dir.substr(0, pos);
      if (::mkdir(prefix.c_str(), 0755) == 0) {
         // mkdir applies the umask; readers of any user must be able to enter.
         if (::chmod(prefix.c_str(), 0755) != 0) {
            throw Error::fromErrno("cannot set the mode of", prefix, errno);
         }
      } else if (errno != EEXIST) {
         throw Error::fromErrno("cannot create directory", prefix, errno);
      }
   }
   struct stat st;
   if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      throw Error::fromErrno("not a directory", dir, errno ? errno : ENOTDIR);
   }
}

}  // namespace Region
