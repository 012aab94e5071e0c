// Intrusive reference counting: Vela::RefCounted carries the count, Vela::Ptr<T> holds one
// reference. When the count reaches zero the object's onZeroReferences() runs; by default it
// deletes the object.
//
// Most agents run one thread, so counting is atomic only when the process-wide switch
// threadSafePtrIs(true) is on. The count is always a std::atomic<uint32_t>, so even with the switch
// off there is no data race in the language's sense:
//   off: relaxed load then relaxed store (a plain increment, correct while one thread owns it);
//   on:  fetch_add(relaxed) to take a reference, fetch_sub(acq_rel) to drop one, so every write
//        made through a reference happens before the object's destruction by the last holder.
// REQUIRES: the switch is set before objects are shared between threads, and not turned off while
// they are.
#pragma once

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

#include "Vela/Assert.h"

namespace Vela {

namespace detail {
extern std::atomic<bool> threadSafePtrSwitch;
}

// The process-wide thread-safe-pointer switch (off at start).
void threadSafePtrIs(bool on) noexcept;
inline bool threadSafePtr() noexcept {
   // Relaxed: the switch is set before sharing begins; that hand-over orders it.
   return detail::threadSafePtrSwitch.load(std::memory_order_relaxed);
}

class RefCounted {
  public:
   RefCounted() noexcept = default;
   // A copy is a new object: it starts without references.
   RefCounted(const RefCounted&) noexcept {}
   RefCounted& operator=(const RefCounted&) noexcept { return *this; }

   uint32_t references() const noexcept { return count_.load(std::memory_order_relaxed); }

   void ref() const noexcept {
      if (threadSafePtr()) {
         count_.fetch_add(1, std::memory_order_relaxed);
      } else {
         count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      }
   }

   void unref() const {
      uint32_t previous;
      if (threadSafePtr()) {
         // acq_rel: release publishes this holder's writes; the acquire of the last decrement
         // pairs with every other holder's release before the object is destroyed.
         previous = count_.fetch_sub(1, std::memory_order_acq_rel);
      } else {
         previous = count_.load(std::memory_order_relaxed);
         count_.store(previous - 1, std::memory_order_relaxed);
      }
      VELA_ASSERT(previous != 0 && "unref of an object without references");
      if (previous == 1) const_cast<RefCounted*>(this)->onZeroReferences();
   }

  protected:
   virtual ~RefCounted() = default;
   // Runs when the last reference goes. The default deletes the object.
   virtual void onZeroReferences() { delete this; }

  private:
   mutable std::atomic<uint32_t> count_{0};
};

template <typename T>
class Ptr {
  public:
   using element_type = T;

   constexpr Ptr() noexcept = default;
   constexpr Ptr(std::nullptr_t) noexcept {}  // NOLINT: implicit like a raw null
   // Taking a raw pointer is safe any number of times: the count lives in the object.
   Ptr(T* p) noexcept : p_(p) {  // NOLINT: implicit by design
      if (p_) p_->ref();
   }
   Ptr(const Ptr& o) noexcept : Ptr(o.p_) {}
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <typename U>
   requires std::convertible_to<U*, T*> Ptr(const Ptr<U>& o)
   noexcept : Ptr(o.get()) {}  // NOLINT
   template <typename U>
   requires std::convertible_to<U*, T*> Ptr(Ptr<U>&& o)
   noexcept : p_(o.release()) {}  // NOLINT
   ~Ptr() {
      if (p_) p_->unref();
   }

   Ptr& operator=(Ptr o) noexcept {
      std::swap(p_, o.p_);
      return *this;
   }

   T* get() const noexcept { return p_; }
   T* operator->() const noexcept {
      VELA_ASSERT(p_ != nullptr);
      return p_;
   }
   T& operator*() const noexcept {
      VELA_ASSERT(p_ != nullptr);
      return *p_;
   }
   explicit operator bool() const noexcept { return p_ != nullptr; }

   // Gives up the reference without dropping it; the caller owns it now.
   T* release() noexcept { return std::exchange(p_, nullptr); }

   template <typename U>
   friend bool operator==(const Ptr& a, const Ptr<U>& b) noexcept {
      return a.get() == b.get();
   }
   friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
   template <typename U>
   friend std::strong_ordering operator<=>(const Ptr& a, const Ptr<U>& b) noexcept {
      return std::compare_three_way()(a.get(), b.get());
   }

  private:
   T* p_ = nullptr;
};

template <typename T, typename... Args>
Ptr<T> makePtr(Args&&... args) {
   return Ptr<T>(new T(std::forward<Args>(args)...));
}

// dynamic_cast between Ptr types; a null Ptr when the object is not a U.
template <typename U, typename T>
Ptr<U> dynamicPtrCast(const Ptr<T>& p) {
   return Ptr<U>(dynamic_cast<U*>(p.get()));
}

}  // namespace Vela

template <typename T>
struct std::hash<Vela::Ptr<T>> {
   size_t operator()(const Vela::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.get()); }
};
