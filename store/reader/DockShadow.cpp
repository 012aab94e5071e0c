// DockShadow: the pieces of the key-shadowing reader that do not depend on its types.
#include "store/reader/DockShadow.h"

namespace Dock {

const char* readerStateName(ReaderState state) {
   switch (state) {
      case ReaderState::kDetached:
         return "detached";
      case ReaderState::kAttached:
         return "attached";
      case ReaderState::kSynchronizing:
         return "synchronizing";
      case ReaderState::kSynchronized:
         return "synchronized";
      case ReaderState::kQuiesced:
         return "quiesced";
   }
   return "unknown";
}

namespace ShadowDetail {
Spoor::Handle& trace() {
   return Spoor::handle("DockShadow");
}
}  // namespace ShadowDetail

}  // namespace Dock
