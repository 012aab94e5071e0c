// WakeDirectory: the wake directory's creation and the reader sockets' names and addresses.
#include "store/herald/WakeDirectory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "Region/Error.h"
#include "Region/ProcessStart.h"
#include "store/format/Layout.h"

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
   // Three non-empty runs of digits separated by single dashes.
   int runs = 0;
   size_t run = 0;
   for (const char c : name) {
      if (c >= '0' && c <= '9') {
         ++run;
      } else if (c == '-' && run > 0) {
         ++runs;
         run = 0;
      } else {
         return false;
      }
   }
   return run > 0 && runs == 2;
}

std::string processTag() {
   static std::mutex mutex;
   static pid_t cachedPid = 0;
   static std::string cached;
   const pid_t pid = ::getpid();
   std::lock_guard<std::mutex> lock(mutex);
   if (pid == cachedPid) return cached;
   const unsigned long long start = Region::processStartTime(pid);
   if (start == 0) throw Region::Error("/proc/self/stat: no start time");
   cachedPid = pid;
   cached = fmt::format("{}-{}", pid, start);
   return cached;
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
