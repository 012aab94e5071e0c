// The array library's size error: a stored collection claims more elements than its capacity.
// Raised while reading a byte form, so the text carries the buffer for post-mortem inspection:
//    "expected size <= 600, instead got 601. Buffer is at address: 0x7f... with contents: 0a00..."
// The hex dump is lower-case, two digits per byte, no separators, and stops after 256 bytes.
#pragma once

#include <cstddef>

#include "Vela/Exception.h"

namespace Vela {

class ArraySizeError : public Exception {
  public:
   using Exception::Exception;
   static constexpr size_t maxDumpBytes = 256;
   static ArraySizeError make(size_t max, size_t got, const void* buffer, size_t bufferLen);
};

}  // namespace Vela
