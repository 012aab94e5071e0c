// The exceptions of the network value types.
//
// FormatError: a byte form that no value could have written (unknown family, prefix length too
// long, label count above capacity, stray bits in padding ...). Readers of shared memory and files
// turn bytes back into values through deserialize, so bad bytes surface here and never as an
// out-of-range value or a crash.
//
// LabelStackOverflow: a label operation that does not fit the bounded stack of
// MplsLabelOperation. It is refused as a whole, never truncated.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Vela/Exception.h"

namespace Wirekit {

class FormatError : public Vela::Exception {
  public:
   using Vela::Exception::Exception;
};

class LabelStackOverflow : public Vela::Exception {
  public:
   using Vela::Exception::Exception;
   // "label stack of <needed> labels exceeds the capacity of <capacity>"
   static LabelStackOverflow labels(size_t needed, size_t capacity);
   // "label operation pops <needed> labels; at most <capacity> allowed"
   static LabelStackOverflow pops(size_t needed, size_t capacity);
};

// Text echoed in a parse error: bytes outside printable ASCII become '?', so a message never
// carries a NUL or a control character.
std::string printableText(std::string_view text);

}  // namespace Wirekit
