// Assertions: programming errors end the process after writing their text, source file and line.
//
// VELA_ASSERT(cond) prints the condition as written, so the condition itself is the message:
//    VELA_ASSERT(0 && "Must give a valid TunnelTableIdentifier.");
// VELA_ASSERT_AT(cond, file, line) names a fixed source position instead of this file's, for the
// assertions whose position is part of the system's contract. VELA_FAIL(fmt, args...) fails with a
// formatted message. All of them are active in every build type.
//
// The line written to stderr is exactly:
//    assertion failed: <text> (<file>:<line>)
#pragma once

#include <fmt/format.h>

#include <string>

namespace Vela {

[[noreturn]] void assertionFailed(const std::string& text, const char* file, int line);

}  // namespace Vela

#define VELA_ASSERT(cond)                                    \
   do {                                                      \
      if (!(cond)) [[unlikely]] {                            \
         ::Vela::assertionFailed(#cond, __FILE__, __LINE__); \
      }                                                      \
   } while (0)

#define VELA_ASSERT_AT(cond, file, line)             \
   do {                                              \
      if (!(cond)) [[unlikely]] {                    \
         ::Vela::assertionFailed(#cond, file, line); \
      }                                              \
   } while (0)

#define VELA_FAIL(...) ::Vela::assertionFailed(fmt::format(__VA_ARGS__), __FILE__, __LINE__)
