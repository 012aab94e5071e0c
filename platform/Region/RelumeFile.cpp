#include "Region/RelumeFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Region/Error.h"
#include "Vela/Assert.h"
#include "Vela/Hash.h"

namespace Region {

uint32_t RelumeFile::read(const std::string& dir) {
   int fd = ::open((dir + "/" + kRelumeFile).c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) return 0;
   RelumeRecord r{};
   ssize_t n = ::pread(fd, &r, sizeof r, 0);
   ::close(fd);
   if (n != ssize_t(sizeof r) || r.magic != kRelumeMagic ||
       r.check != Vela::oneAtATimeOf(r.relume)) {
      return 0;
   }
   return r.relume;
}

void RelumeFile::write(const std::string& dir, uint32_t relume) {
   VELA_ASSERT(relume != 0 && "relume 0 means none");
   const std::string path = dir + "/" + kRelumeFile;
   const std::string tmp = path + ".tmp." + std::to_string(::getpid());
   RelumeRecord r{kRelumeMagic, relume, Vela::oneAtATimeOf(relume)};
   int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   if (fd < 0) throw Error::fromErrno("cannot create", tmp, errno);
   // Readers of any user read it: 0644 whatever the umask.
   bool ok = ::fchmod(fd, 0644) == 0 && ::pwrite(fd, &r, sizeof r, 0) == ssize_t(sizeof r);
   int err = errno;
   ::close(fd);
   if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
      err = ok ? errno : err;
      ::unlink(tmp.c_str());
      throw Error::fromErrno("cannot write relume file", path, err);
   }
}

uint32_t RelumeFile::next(uint32_t previous) {
   for (;;) {
      uint32_t r = 0;
      if (::getrandom(&r, sizeof r, 0) != ssize_t(sizeof r)) {
         // No entropy source: mix the clock and the pid, still never 0 nor previous.
         r = Vela::oneAtATimeOf(uint64_t(::getpid()) << 32 ^ uint64_t(::time(nullptr)) ^ previous);
      }
      if (r != 0 && r != previous) return r;
   }
}

}  // namespace Region
