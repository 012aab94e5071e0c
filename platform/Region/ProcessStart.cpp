// The one reader of /proc/<pid>/stat's start time.
#include "Region/ProcessStart.h"

#include <fmt/format.h>

#include <fstream>
#include <sstream>
#include <string>

namespace Region {

unsigned long long processStartTime(pid_t pid) {
   std::ifstream in(fmt::format("/proc/{}/stat", pid));
   std::string line;
   if (!std::getline(in, line)) return 0;
   // "pid (comm) state ppid ...": comm may hold blanks and parentheses, so the fields are counted
   // after its last ')': state is field 3, the start time field 22.
   const size_t close = line.rfind(')');
   if (close == std::string::npos) return 0;
   std::istringstream rest(line.substr(close + 1));
   std::string field;
   if (!(rest >> field) || field == "Z" || field == "X") return 0;
   for (int i = 4; i < 22 && rest >> field; ++i) {
   }
   unsigned long long start = 0;
   rest >> start;
   return start;
}

}  // namespace Region
