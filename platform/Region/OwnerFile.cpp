#include "Region/OwnerFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <sstream>
#include <utility>

#include "Region/Error.h"
#include "Region/ProcessStart.h"
#include "Spoor/Trace.h"

namespace Region {

namespace {

Spoor::Handle& trace() {
   return Spoor::handle("Region");
}

std::string readAll(int fd) {
   std::string text;
   char buf[256];
   off_t at = 0;
   for (;;) {
      ssize_t n = ::pread(fd, buf, sizeof buf, at);
      if (n <= 0) break;
      text.append(buf, size_t(n));
      at += n;
   }
   return text;
}

}  // namespace

std::string OwnerText::text() const {
   return fmt::format("pid:{} host:{} start:{}", pid, host, start);
}

bool OwnerText::parse(const std::string& text, OwnerText& out) {
   std::istringstream in(text);
   std::string p, h, s, extra;
   if (!(in >> p >> h >> s) || (in >> extra)) return false;
   if (p.rfind("pid:", 0) != 0 || h.rfind("host:", 0) != 0 || s.rfind("start:", 0) != 0) {
      return false;
   }
   OwnerText t;
   try {
      size_t used = 0;
      long pid = std::stol(p.substr(4), &used);
      if (used != p.size() - 4 || pid <= 0 || pid > INT_MAX) return false;
      t.pid = pid_t(pid);
      t.host = h.substr(5);
      t.start = std::stoull(s.substr(6), &used);
      if (used != s.size() - 6) return false;
   } catch (const std::exception&) {
      return false;
   }
   if (t.host.empty()) return false;
   out = t;
   return true;
}

OwnerText OwnerText::self() {
   OwnerText t;
   t.pid = ::getpid();
   char host[HOST_NAME_MAX + 1] = {};
   if (::gethostname(host, sizeof host - 1) != 0 || !host[0]) {
      t.host = "unknown";
   } else {
      t.host = host;
   }
   t.start = processStartTime(t.pid);
   return t;
}

OwnerFile::~OwnerFile() {
   release();
}

OwnerFile::OwnerFile(OwnerFile&& other) noexcept
    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)), owner_(other.owner_) {}

OwnerFile& OwnerFile::operator=(OwnerFile&& other) noexcept {
   if (this != &other) {
      release();
      path_ = std::move(other.path_);
      fd_ = std::exchange(other.fd_, -1);
      owner_ = other.owner_;
   }
   return *this;
}

OwnerFile OwnerFile::acquire(const std::string& dir) {
   OwnerFile f;
   f.path_ = dir + "/owner";
   f.fd_ = ::open(f.path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
   if (f.fd_ < 0) throw Error::fromErrno("cannot open owner file", f.path_, errno);
   // The lock belongs to this open file description: a second open, in this process or another,
   // is refused while it lives, and the kernel drops it when the holder dies. A tool asking
   // whether a writer lives takes a shared lock for an instant; a few short retries keep such a
   // probe from refusing a writer that starts at that very moment.
   int locked = ::flock(f.fd_, LOCK_EX | LOCK_NB);
   for (int retry = 0; locked != 0 && errno == EWOULDBLOCK && retry < 20; ++retry) {
      ::usleep(500);
      locked = ::flock(f.fd_, LOCK_EX | LOCK_NB);
   }
   if (locked != 0) {
      int err = errno;
      std::string holder = readAll(f.fd_);
      ::close(std::exchange(f.fd_, -1));
      if (err == EWOULDBLOCK) {
         OwnerText t;
         std::string pid = OwnerText::parse(holder, t) ? std::to_string(t.pid) : "unknown";
         throw OwnerError(
             fmt::format("table {} already has a live writer (pid {}); owner file says \"{}\"", dir,
                         pid, holder));
      }
      throw Error::fromErrno("cannot lock owner file", f.path_, err);
   }
   // Tools of any user read it: 0644 whatever the umask it was created under.
   struct stat st {};
   if (::fstat(f.fd_, &st) != 0 || ((st.st_mode & 07777) != 0644 && ::fchmod(f.fd_, 0644) != 0)) {
      throw Error::fromErrno("cannot set the mode of", f.path_, errno);
   }
   f.owner_ = OwnerText::self();
   const std::string text = f.owner_.text();
   if (::ftruncate(f.fd_, 0) != 0 ||
       ::pwrite(f.fd_, text.data(), text.size(), 0) != ssize_t(text.size())) {
      throw Error::fromErrno("cannot write owner file", f.path_, errno);
   }
   // Read it back: a file that does not hold exactly our text is not ours to trust.
   const std::string back = readAll(f.fd_);
   OwnerText parsed;
   if (back != text || !OwnerText::parse(back, parsed) || parsed.pid != f.owner_.pid) {
      SPOOR_TRACE(trace(), 0, "owner file validation failed, dumping owner file string: {}", back);
      throw Error(fmt::format("wrote to owner file but validation failed: {}", f.path_));
   }
   return f;
}

std::string OwnerFile::read(const std::string& dir) {
   int fd = ::open((dir + "/owner").c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) return "";
   std::string text = readAll(fd);
   ::close(fd);
   return text;
}

void OwnerFile::release() {
   if (fd_ < 0) return;
   // The text stays for post-mortems; the lock is what marks a live writer.
   ::flock(fd_, LOCK_UN);
   ::close(fd_);
   fd_ = -1;
}

}  // namespace Region
