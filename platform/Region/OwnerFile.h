// One writer per table. The writer holds an exclusive, non-blocking flock on <dir>/owner for its
// whole life; the kernel drops the lock when the process dies, however it dies, so a crashed
// writer's table is taken over by the next one without any stale-lock cleanup. The file's text
// names the holder for people and tools:
//
//    pid:<pid> host:<hostname> start:<process start time in clock ticks since boot>
//
// The start time tells a recycled pid from the original process.
#pragma once

#include <sys/types.h>

#include <string>

namespace Region {

struct OwnerText {
   pid_t pid = 0;
   std::string host;
   unsigned long long start = 0;
   std::string text() const;
   // Parses the text form; false when it is not exactly that form.
   static bool parse(const std::string& text, OwnerText& out);
   static OwnerText self();
};

class OwnerFile {
  public:
   OwnerFile() = default;
   ~OwnerFile();
   OwnerFile(OwnerFile&& other) noexcept;
   OwnerFile& operator=(OwnerFile&& other) noexcept;
   OwnerFile(const OwnerFile&) = delete;
   OwnerFile& operator=(const OwnerFile&) = delete;

   // Locks <dir>/owner (creating it) and writes this process's text. Throws Region::OwnerError
   // naming the directory and the holder's pid when a live writer holds the lock, Region::Error
   // for other failures or when the text read back does not match what was written.
   static OwnerFile acquire(const std::string& dir);
   // The text of <dir>/owner, or "" when there is none.
   static std::string read(const std::string& dir);

   void release();
   bool held() const { return fd_ >= 0; }
   pid_t owner() const { return owner_.pid; }
   std::string text() const { return owner_.text(); }
   const std::string& path() const { return path_; }

  private:
   std::string path_;
   int fd_ = -1;
   OwnerText owner_;
};

}  // namespace Region
