#include "Region/RelumeFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Region/Error.h"
#include "Vela/Assert.h"
#include "Vela/Hash.h"
#include "store/Layout.h"

namespace Region {

namespace {

// The record as bytes: magic, relume, check, little-endian (the host order, see Layout.h).
struct RelumeBytes {
   uint64_t magic;
   uint32_t relume;
   uint32_t check;
};
static_assert(sizeof(RelumeBytes) == sizeof(Dock::RelumeRecord));

}  // namespace

uint32_t RelumeFile::read(const std::string& dir) {
   int fd = ::open((dir + "/" + Dock::kRelumeFile).c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) return 0;
   RelumeBytes r{};
   ssize_t n = ::pread(fd, &r, sizeof r, 0);
   ::close(fd);
   if (n != ssize_t(sizeof r) || r.magic != Dock::kRelumeMagic ||
       r.check != Vela::oneAtATimeOf(r.relume)) {
      return 0;
   }
   return r.relume;
}

void RelumeFile::write(const std::string& dir, uint32_t relume) {
   VELA_ASSERT(relume != 0 && "relume 0 means none");
   const std::string path = dir + "/" + Dock::kRelumeFile;
   const std::string tmp = path + ".tmp." + std::to_string(::getpid());
   RelumeBytes r{Dock::kRelumeMagic, relume, Vela::oneAtATimeOf(relume)};
   int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   if (fd < 0) throw Error::fromErrno("cannot create", tmp, errno);
   bool ok = ::pwrite(fd, &r, sizeof r, 0) == ssize_t(sizeof r);
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
