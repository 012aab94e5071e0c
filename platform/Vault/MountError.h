// Vault::MountError: a mount, unmount or cleanup that cannot be done as asked (unknown type, a
// type that cannot be mounted, a path mounted in another mode or with another type, a bad path).
// The text names the path.
#pragma once

#include "Vela/Exception.h"

namespace Vault {

class MountError : public Vela::Exception {
  public:
   using Vela::Exception::Exception;
};

}  // namespace Vault
