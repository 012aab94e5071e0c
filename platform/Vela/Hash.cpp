#include "Vela/Hash.h"

namespace Vela {

uint32_t oneAtATime(const void* data, size_t len, uint32_t seed) noexcept {
   const auto* p = static_cast<const uint8_t*>(data);
   uint32_t h = seed;
   for (size_t i = 0; i < len; ++i) {
      h = oneAtATimeStep(h, p[i]);
   }
   return oneAtATimeFinish(h);
}

HashMixer& HashMixer::addBytes(const void* data, size_t len) noexcept {
   const auto* p = static_cast<const uint8_t*>(data);
   for (size_t i = 0; i < len; ++i) {
      h_ = oneAtATimeStep(h_, p[i]);
   }
   return *this;
}

}  // namespace Vela
