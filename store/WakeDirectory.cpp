// WakeDirectory: the wake directory's creation and the reader sockets' names and addresses.
#include "store/WakeDirectory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Region/Error.h"
#include "store/Layout.h"

namespace Dock::Wake {

std::string directory(const std::string& tableDir) {
   return tableDir + "/" + kWakeDirectory;
}

void ensureDirectory(const std::string& wakeDir) {
   if (::mkdir(wakeDir.c_str(), 01777) == 0) {
      // mkdir applies the umask; the mode is set explicitly.
      if (::chmod(wakeDir.c_str(), 01777) != 0) {
         throw Region::Error::fromErrno("cannot set the mode of", wakeDir, errno);
      }
      return;
   }
   if (errno != EEXIST) throw Region::Error::fromErrno("cannot create", wakeDir, errno);
}

int openDirectory(const std::string& wakeDir) {
   const int fd = ::open(wakeDir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
   if (fd < 0) throw Region::Error::fromErrno("cannot open", wakeDir, errno);
   return fd;
}

bool isReaderName(const std::string& name) {
   const size_t dash = name.find('-');
   if (dash == 0 || dash == std::string::npos || dash + 1 == name.size()) return false;
   for (size_t i = 0; i < name.size(); ++i) {
      if (i != dash && (name[i] < '0' || name[i] > '9')) return false;
   }
   return true;
}

socklen_t address(const std::string& wakeDir, int dirFd, const std::string& name,
                  sockaddr_un& out) {
   std::memset(&out, 0, sizeof(out));
   out.sun_family = AF_UNIX;
   std::string path = wakeDir + "/" + name;
   if (path.size() >= sizeof(out.sun_path)) path = fmt::format("/proc/self/fd/{}/{}", dirFd, name);
   std::memcpy(out.sun_path, path.data(), path.size());
   return socklen_t(offsetof(sockaddr_un, sun_path) + path.size() + 1);
}

}  // namespace Dock::Wake
