// Failures of the shared-memory file layer: a file that cannot be opened, sized or mapped, and a
// table whose owner file is held by a live writer. The text always names the file and, for system
// call failures, carries the errno text.
#pragma once

#include <string>

#include "Vela/Exception.h"

namespace Region {

class Error : public Vela::Exception {
  public:
   using Vela::Exception::Exception;
   // "<what> <path>: <strerror(err)>"
   static Error fromErrno(const std::string& what, const std::string& path, int err);
};

// A second writer for a table whose owner file is locked by a live process.
class OwnerError : public Error {
  public:
   using Error::Error;
};

}  // namespace Region
