// The exception a shared-memory structure throws when it finds its mapped state inconsistent (a
// chain that loops, a slot that should be occupied and is not, a header that fails its checks).
// It is not recoverable in place: the tables catch it, run their corruption handler with what()
// and end the process on their fatal assertion. The text is the finder's own description.
#pragma once

#include "Vela/Exception.h"

namespace Loom {

class CorruptionException : public Vela::Exception {
  public:
   using Vela::Exception::Exception;
};

}  // namespace Loom
