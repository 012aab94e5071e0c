#include "testing/TempRoot.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string_view>

namespace Testing {

TempRoot::TempRoot() {
   // tmpfs, like the production store root, when the machine has it.
   std::filesystem::path base = std::filesystem::is_directory("/dev/shm")
                                    ? std::filesystem::path("/dev/shm")
                                    : std::filesystem::temp_directory_path();
   // Made while another test root is the store root - in a death test's child, which runs the
   // test again and dies without cleaning up - it goes inside that root, so removing the outer
   // root removes what the child left.
   if (const char* outer = std::getenv("TUNNEL_SHMEM_ROOT");
       outer && std::string_view(outer).find("/tunnel-test-") != std::string_view::npos &&
       std::filesystem::is_directory(outer)) {
      base = outer;
   }
   std::string tmpl = (base / "tunnel-test-XXXXXX").string();
   if (!::mkdtemp(tmpl.data())) {
      std::perror("mkdtemp");
      std::abort();
   }
   path_ = tmpl;
   if (const char* old = std::getenv("TUNNEL_SHMEM_ROOT")) {
      previous_ = old;
      hadPrevious_ = true;
   }
   ::setenv("TUNNEL_SHMEM_ROOT", path_.c_str(), 1);
}

TempRoot::~TempRoot() {
   std::error_code ec;
   std::filesystem::remove_all(path_, ec);
   if (hadPrevious_) {
      ::setenv("TUNNEL_SHMEM_ROOT", previous_.c_str(), 1);
   } else {
      ::unsetenv("TUNNEL_SHMEM_ROOT");
   }
}

pid_t forkChild(const std::function<int()>& body) {
   std::fflush(nullptr);
   pid_t pid = ::fork();
   if (pid == 0) {
      int rc = 99;
      try {
         rc = body();
      } catch (const std::exception& e) {
         std::fprintf(stderr, "child %d threw: %s\n", ::getpid(), e.what());
      }
      std::fflush(nullptr);
      ::_exit(rc);
   }
   return pid;
}

int waitChild(pid_t pid) {
   int status = 0;
   while (::waitpid(pid, &status, 0) < 0) {
   }
   if (WIFEXITED(status)) return WEXITSTATUS(status);
   if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
   return -1;
}

Pipe::Pipe() {
   int fds[2];
   if (::pipe(fds) == 0) read_ = fds[0], write_ = fds[1];
}

Pipe::~Pipe() {
   ::close(read_);
   ::close(write_);
}

bool Pipe::send(char c) const {
   return ::write(write_, &c, 1) == 1;
}

char Pipe::receive(std::chrono::milliseconds timeout) const {
   pollfd p{read_, POLLIN, 0};
   if (::poll(&p, 1, int(timeout.count())) != 1) return 0;
   char c = 0;
   return ::read(read_, &c, 1) == 1 ? c : 0;
}

std::string sourcePath(const std::string& relative) {
#ifdef TUNNEL_SOURCE_DIR
   return std::string(TUNNEL_SOURCE_DIR) + "/" + relative;
#else
   return relative;
#endif
}

}  // namespace Testing
