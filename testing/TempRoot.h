// Test helpers: a fresh store root per test, and child processes that report back.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

namespace Testing {

// A fresh directory that serves as the store root (TUNNEL_SHMEM_ROOT) while it lives; it and
// everything in it are removed when it goes away.
class TempRoot {
  public:
   TempRoot();
   ~TempRoot();
   TempRoot(const TempRoot&) = delete;
   TempRoot& operator=(const TempRoot&) = delete;
   const std::string& path() const { return path_; }

  private:
   std::string path_;
   std::string previous_;
   bool hadPrevious_ = false;
};

// Runs `body` in a forked child; the child exits with body's return value (or 99 if it threw).
pid_t forkChild(const std::function<int()>& body);

// Waits for a child; returns its exit code, or 128 + signal number if a signal ended it.
int waitChild(pid_t pid);

// A pipe over which a test and its child processes say "ready" and "go" to each other, one byte
// at a time; made before the fork, so both sides hold both ends.
class Pipe {
  public:
   Pipe();
   ~Pipe();
   Pipe(const Pipe&) = delete;
   Pipe& operator=(const Pipe&) = delete;
   bool send(char c = 'x') const;
   // The next byte, or 0 when none came within `timeout` (or the pipe failed).
   char receive(std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

  private:
   int read_ = -1, write_ = -1;
};

// Path of a file shipped with the sources (relative to the repository root).
std::string sourcePath(const std::string& relative);

}  // namespace Testing
