// WakeDirectory: where a table's readers leave their wake-up sockets, and how both sides name them.
//
// Each attached reader binds a unix datagram socket in <table dir>/wake, named
// "<pid>-<start>-<n>" (start: the process's start time in clock ticks since boot, field 22 of
// /proc/<pid>/stat; n counts the reader's attaches within its process), and watches it in its own
// event loop. A pid alone is reused; (pid, start time) names one process for the life of the
// system, because the kernel hands pids out cyclically and cannot come back to the same pid within
// one clock tick. So a name is never bound twice, and the writer removing a dead reader's name
// (after its send is refused) can never remove the name of a live reader. The
// writer sends one datagram to every socket there after each batch of notifications: a single
// wake-up from the writer's system call to the reader's event loop. See WakeSocket (reader side),
// WakeFanout (writer side) and WakeWatcher (how the writer learns of joining and leaving readers).
//
// The directory is made with mode 01777: readers need no write access to the table's files, yet
// must create their socket here; the sticky bit keeps readers from removing each other's names,
// while the writer, which owns the directory, removes the names of readers that died.
//
// Socket addresses are limited to 108 bytes. A longer path is reached through the directory's open
// descriptor instead ("/proc/self/fd/<fd>/<name>"), which the kernel resolves like any path.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

namespace Dock::Wake {

// <tableDir>/wake
std::string directory(const std::string& tableDir);

// Makes the wake directory when it is missing (mode 01777). Throws Region::Error.
void ensureDirectory(const std::string& wakeDir);

// Opens the directory as an O_PATH descriptor. Throws Region::Error.
int openDirectory(const std::string& wakeDir);

// Whether `name` has the form of a reader's socket name, "<digits>-<digits>-<digits>".
bool isReaderName(const std::string& name);

// "<pid>-<start>" of the calling process (computed again after a fork). Throws Region::Error when
// /proc/self/stat cannot be read.
std::string processTag();

// The socket address of `name` in `wakeDir` (open as `dirFd`); returns the address length.
socklen_t address(const std::string& wakeDir, int dirFd, const std::string& name, sockaddr_un& out);

}  // namespace Dock::Wake
