// The writer's trace handle (module "Dock"); the writer itself is the template in DockWriter.h.
#include "store/writer/DockWriter.h"

namespace Dock {

Spoor::Handle& writerTrace() {
   static Spoor::Handle& h = Spoor::handle("Dock");
   return h;
}

}  // namespace Dock
