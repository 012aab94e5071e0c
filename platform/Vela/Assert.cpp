#include "Vela/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Vela {

void assertionFailed(const std::string& text, const char* file, int line) {
   // One write, flushed, so a death test or a log collector sees the whole line.
   std::fprintf(stderr, "assertion failed: %s (%s:%d)\n", text.c_str(), file, line);
   std::fflush(stderr);
   std::abort();
}

}  // namespace Vela
