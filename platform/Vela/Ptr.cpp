#include "Vela/Ptr.h"

namespace Vela {

namespace detail {
std::atomic<bool> threadSafePtrSwitch{false};
}

void threadSafePtrIs(bool on) noexcept {
   detail::threadSafePtrSwitch.store(on, std::memory_order_relaxed);
}

}  // namespace Vela
