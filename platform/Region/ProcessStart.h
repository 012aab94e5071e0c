// The start time of a process: field 22 of /proc/<pid>/stat, in clock ticks since boot. With the
// pid it names one process for good: a recycled pid comes back with another start time. Owner
// files record it, reader wake sockets carry it in their names, and tools compare both with it.
#pragma once

#include <sys/types.h>

namespace Region {

// 0 when no such process runs: it does not exist, its stat line cannot be read, or it has ended
// (a zombie, killed but not yet reaped by its parent, has ended all the same).
unsigned long long processStartTime(pid_t pid);

}  // namespace Region
