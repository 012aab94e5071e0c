#include "Pike/PikeAllocator.h"

namespace Pike {

Allocator*& Allocator::slot() noexcept {
   thread_local Allocator* current = nullptr;
   return current;
}

Allocator* Allocator::current() noexcept {
   return slot();
}

}  // namespace Pike
