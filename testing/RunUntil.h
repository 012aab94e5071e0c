// Runs an event loop until a condition holds, bounded in time so that no test can hang: tests
// assert the result, never how long it took.
#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>

#include "Loom/EventLoop.h"

namespace Testing {

// Runs turns of `loop` (each waiting at most `turn` for work) until done() holds or `limit` has
// passed; returns done().
inline bool runUntil(Loom::EventLoop& loop, const std::function<bool()>& done,
                     std::chrono::milliseconds limit = std::chrono::seconds(20),
                     std::chrono::milliseconds turn = std::chrono::milliseconds(10)) {
   const auto deadline = std::chrono::steady_clock::now() + limit;
   while (!done() && std::chrono::steady_clock::now() < deadline) loop.runOnce(turn);
   return done();
}

// Runs turns of `loop` until child `pid` ends, so that this process keeps serving (its readers
// keep up with a writer child) meanwhile; returns the child's exit code, or 128 + the signal that
// ended it, as waitChild does. A child still running after `limit` is killed: -1.
inline int runUntilExit(Loom::EventLoop& loop, pid_t pid,
                        std::chrono::milliseconds limit = std::chrono::seconds(300)) {
   int status = 0;
   bool ended = false;  // waitpid reaps once: later calls would fail
   const auto reaped = [&] { return ended || (ended = ::waitpid(pid, &status, WNOHANG) == pid); };
   if (!runUntil(loop, reaped, limit, std::chrono::milliseconds(5))) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace Testing
