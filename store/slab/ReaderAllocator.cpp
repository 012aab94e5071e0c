// ReaderAllocator: a reader's slab files, attached on first use, and its copies of entries.
#include "store/slab/ReaderAllocator.h"

#include <algorithm>
#include <atomic>

#include "store/slab/SlabBytes.h"

namespace Tessel {

ReaderAllocator::ReaderAllocator(std::string dir, uint32_t relume)
    : dir_(std::move(dir)), relume_(relume) {}

void ReaderAllocator::detach() {
   for (auto& s : slabs_) s.reset();
}

SlabReader* ReaderAllocator::slab(uint32_t s) {
   if (slabs_[s]) return slabs_[s].get();
   auto r = std::make_unique<SlabReader>(dir_ + "/" + Dock::slabFileName(s), relume_);
   std::string reason;
   // A missing or not yet valid slab is retried on the next copy.
   if (!r->attach(reason)) return nullptr;
   slabs_[s] = std::move(r);
   return slabs_[s].get();
}

int64_t ReaderAllocator::copy(Offset offset, uint8_t* out, uint32_t maxLen) {
   uint32_t clientData = 0;
   return copy(offset, out, maxLen, clientData);
}

int64_t ReaderAllocator::copy(Offset offset, uint8_t* out, uint32_t maxLen, uint32_t& clientData) {
   SlabReader* r = slab(offset.slab());
   if (!r) return -1;
   const SlabEntryHeader* e = r->getEntry(offset.index());
   if (!e) return -1;
   // Acquire: pairs with the release store of payloadSize in WriterAllocator::store.
   const int32_t size = e->payloadSize.load(std::memory_order_acquire);
   if (size < 0 || uint32_t(size) > r->maxPayload()) return -1;
   clientData = e->clientData.load(std::memory_order_relaxed);
   copyFromShared(out, reinterpret_cast<const uint8_t*>(e) + Dock::kSlabEntryHeaderSize,
                  std::min<uint32_t>(uint32_t(size), maxLen));
   // Acquire fence: pairs with the release fence in SlabWriter::alloc. If any byte copied came
   // from a reuse of this entry, the caller's next load of the slot's flags word sees the change
   // that retired the value it was after.
   std::atomic_thread_fence(std::memory_order_acquire);
   return size;
}

}  // namespace Tessel
