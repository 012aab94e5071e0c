// The allocator a Pike entity takes its shared-memory image from, made current per thread.
//
// Entity constructors take only their keys (the framework's factories call them with a name), so
// the store an entity lands in is not an argument: whoever creates one makes the store's allocator
// current for the thread (AllocatorScope), and the entity binds to it in doPikeInit(). The scope
// restores the previous allocator when it ends, also when the construction throws, so a failed
// creation never leaves a later unrelated construction bound to this store. Per thread, because
// the writer's agent and, in tests, other stores may create entities on other threads.
#pragma once

#include <cstdint>

#include "Vela/Ptr.h"

namespace Pike {

class PikeWriter;

class Allocator {
  public:
   virtual ~Allocator() = default;
   // A new entity id, never 0 and never one this store handed out before.
   virtual uint64_t allocateId() = 0;
   virtual PikeWriter& store() noexcept = 0;

   static Allocator* current() noexcept;

  private:
   friend class AllocatorScope;
   static Allocator*& slot() noexcept;
};

class AllocatorScope {
  public:
   explicit AllocatorScope(Allocator* allocator) noexcept : previous_(Allocator::slot()) {
      Allocator::slot() = allocator;
   }
   ~AllocatorScope() { Allocator::slot() = previous_; }
   AllocatorScope(const AllocatorScope&) = delete;
   AllocatorScope& operator=(const AllocatorScope&) = delete;

  private:
   Allocator* previous_;
};

// Constructs T with `allocator` current and binds it to the store (doPikeInit).
template <class T, class... Args>
Vela::Ptr<T> pikeNew(Allocator& allocator, Args&&... args) {
   AllocatorScope scope(&allocator);
   Vela::Ptr<T> entity(new T(std::forward<Args>(args)...));
   entity->doPikeInit();
   return entity;
}

}  // namespace Pike
