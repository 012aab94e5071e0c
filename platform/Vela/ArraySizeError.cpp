#include "Vela/ArraySizeError.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

namespace Vela {

ArraySizeError ArraySizeError::make(size_t max, size_t got, const void* buffer, size_t bufferLen) {
   static constexpr char digits[] = "0123456789abcdef";
   const auto* bytes = static_cast<const unsigned char*>(buffer);
   const size_t n = bytes ? std::min(bufferLen, maxDumpBytes) : 0;
   std::string dump;
   dump.reserve(2 * n);
   for (size_t i = 0; i < n; ++i) {
      dump.push_back(digits[bytes[i] >> 4]);
      dump.push_back(digits[bytes[i] & 0xf]);
   }
   return ArraySizeError(fmt::format(
       "expected size <= {}, instead got {}. Buffer is at address: {} with contents: {}", max, got,
       fmt::ptr(buffer), dump));
}

}  // namespace Vela
