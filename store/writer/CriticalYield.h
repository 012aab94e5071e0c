// CriticalYield: lets the process's critical-priority tasks run during the writer's long steps
// (slot-file growth, bucket rehash, shrink).
//
// One object spans one long step, and a step that chains several pieces (slot-file growth, then
// the private records, then a rehash) passes the same object down so that the pieces share one
// budget. Construction runs the critical tasks already pending, so the time spent before the step
// in the same loop task never adds to the step's first budget. After that, every check() that
// finds 10 ms (0.01 of the calibrated tick rate) gone since the last run runs them again and
// starts a new budget. Callers check often enough that one piece of work between two checks stays
// well under a millisecond, and bracket what cannot be cut with runNow(): the longest gap between
// critical runs is then the budget plus such a piece, or one uncut piece.
#pragma once

#include <cstdint>

#include "Loom/Clock.h"
#include "Loom/EventLoop.h"

namespace Dock {

class CriticalYield {
  public:
   explicit CriticalYield(bool enabled) : enabled_(enabled) {
      if (enabled_) {
         budget_ = uint64_t(0.01 * Loom::Clock::ticksPerSecond());
         if (Loom::runPendingCriticalTasks() > 0) ++yields_;
         start_ = Loom::Clock::ticks();
      }
   }
   // Between two units of work.
   void check() {
      if (!enabled_) return;
      const uint64_t now = Loom::Clock::ticks();
      if (now - start_ >= budget_) {
         Loom::runPendingCriticalTasks();
         ++yields_;
         start_ = Loom::Clock::ticks();
      }
   }
   // At the edge of a piece that cannot be cut: the pending tasks run now and a new budget
   // starts, so that the gap such a piece makes is the piece itself, never the piece on top of a
   // budget already nearly spent. Called after resizing a mapped file (ftruncate and mremap,
   // which may move the mapping) and before each first touch of a 2 MiB huge page (one fault
   // that clears the whole page: several milliseconds when a hypervisor must back it too).
   void runNow() {
      if (!enabled_) return;
      if (Loom::runPendingCriticalTasks() > 0) ++yields_;
      start_ = Loom::Clock::ticks();
   }
   // Budgets that ran out, plus the start if tasks were pending then.
   uint64_t yields() const { return yields_; }

  private:
   bool enabled_;
   uint64_t budget_ = 0;
   uint64_t start_ = 0;
   uint64_t yields_ = 0;
};

}  // namespace Dock
