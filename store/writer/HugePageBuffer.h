// HugePageBuffer: private, zero-filled memory for the writer's large in-process indexes (the slot
// records and the mirror of the bucket heads), placed so that the kernel can back it with 2 MiB
// transparent huge pages.
//
// Why: a replacement in a table of a million keys reads one bucket head and one or two slot
// records at random. With 4 KiB pages each of those reads also misses the TLB, and under a
// hypervisor's nested paging the page walk costs as much as the cache miss itself. The buffer is
// rounded up to whole 2 MiB units, aligned to 2 MiB and advised with MADV_HUGEPAGE, which is what
// the kernel's "madvise" policy needs to use huge pages. Where huge pages are unavailable the
// advice is ignored and the buffer is ordinary anonymous memory: only speed depends on it.
//
// Never shared with readers: shared files stay on their own mappings.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "store/writer/CriticalYield.h"

namespace Dock {

class HugePageBuffer {
  public:
   static constexpr size_t kHugePage = size_t(2) << 20;

   HugePageBuffer() = default;
   // Zero-filled memory of at least `bytes` bytes. Throws std::bad_alloc. With `huge` false the
   // buffer is whole 4 KiB pages without advice: a small table's index then costs the pages it
   // touches, not a 2 MiB huge page for its first byte.
   explicit HugePageBuffer(size_t bytes, bool huge = true) {
      if (bytes == 0) return;
      if (!huge) {
         const size_t page = size_t(::sysconf(_SC_PAGESIZE));
         size_ = (bytes + page - 1) / page * page;
         void* p =
             ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         if (p == MAP_FAILED) throw std::bad_alloc();
         data_ = static_cast<uint8_t*>(p);
         return;
      }
      size_ = (bytes + kHugePage - 1) & ~(kHugePage - 1);
      // Over-map by one huge page and trim, for the 2 MiB alignment mmap does not promise.
      const size_t mapped = size_ + kHugePage;
      void* p = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (p == MAP_FAILED) throw std::bad_alloc();
      const uintptr_t raw = reinterpret_cast<uintptr_t>(p);
      const uintptr_t aligned = (raw + kHugePage - 1) & ~uintptr_t(kHugePage - 1);
      if (aligned > raw) ::munmap(p, aligned - raw);
      const uintptr_t end = raw + mapped, used = aligned + size_;
      if (end > used) ::munmap(reinterpret_cast<void*>(used), end - used);
      data_ = reinterpret_cast<uint8_t*>(aligned);
      ::madvise(data_, size_, MADV_HUGEPAGE);  // advice only: failure leaves 4 KiB pages
   }
   ~HugePageBuffer() { release(); }
   HugePageBuffer(HugePageBuffer&& o) noexcept
       : data_(std::exchange(o.data_, nullptr)), size_(std::exchange(o.size_, 0)) {}
   HugePageBuffer& operator=(HugePageBuffer&& o) noexcept {
      if (this != &o) {
         release();
         data_ = std::exchange(o.data_, nullptr);
         size_ = std::exchange(o.size_, 0);
      }
      return *this;
   }
   HugePageBuffer(const HugePageBuffer&) = delete;
   HugePageBuffer& operator=(const HugePageBuffer&) = delete;

   // Faults in the pages of bytes [from, to) now, one 2 MiB unit at a time, with the pending
   // critical tasks run before each unit (`yield` may be disabled). The kernel clears a huge page
   // in a single fault that no check can cut, and under a hypervisor that must back the page
   // too it takes several milliseconds; after this, the caller's loops over the range take no
   // faults. Contents are kept: MADV_POPULATE_WRITE, or where the kernel lacks it a read and
   // write back of one byte per page (the buffer is private to this thread).
   void faultIn(size_t from, size_t to, CriticalYield& yield) {
      to = std::min(to, size_);
      const size_t page = size_t(::sysconf(_SC_PAGESIZE));
      for (size_t unit = from & ~(kHugePage - 1); unit < to; unit += kHugePage) {
         yield.runNow();
         const size_t begin = std::max(unit, from) & ~(page - 1);
         const size_t end = std::min(unit + kHugePage, to);
         if (populateForWriting(data_ + begin, end - begin)) continue;
         for (size_t at = begin; at < end; at += page) {
            volatile uint8_t* const p = data_ + at;
            *p = *p;
         }
      }
   }

   uint8_t* data() const { return data_; }
   size_t size() const { return size_; }
   template <class T>
   T* as() const {
      return reinterpret_cast<T*>(data_);
   }

  private:
   // False where the kernel (or the C library's headers) lack MADV_POPULATE_WRITE.
   static bool populateForWriting(uint8_t* at, size_t length) {
#ifdef MADV_POPULATE_WRITE
      return ::madvise(at, length, MADV_POPULATE_WRITE) == 0;
#else
      (void)at;
      (void)length;
      return false;
#endif
   }
   void release() {
      if (data_) ::munmap(data_, size_);
      data_ = nullptr;
      size_ = 0;
   }

   uint8_t* data_ = nullptr;
   size_t size_ = 0;
};

}  // namespace Dock
