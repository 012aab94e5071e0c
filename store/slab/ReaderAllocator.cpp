// ReaderAllocator: a reader's slab files, attached on first use, and its copies of entries.
#include "store/slab/ReaderAllocator.h"

#include <algorithm>
#include <atomic>

#include "store/format/SharedBytes.h"
#include "store/slab/EntryCheck.h"

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

int64_t ReaderAllocator::copy(Offset offset, uint8_t* out, uint32_t maxLen, Copied& entry) {
   SlabReader* r = slab(offset.slab());
   if (!r) return -1;
   const SlabEntryHeader* e = r->getEntry(offset.index());
   if (!e) return -1;
   // Relaxed: the caller copies under the flags word of the slot that names the entry (SeqRead);
   // its re-check discards the copy when the entry was reused meanwhile.
   const int32_t size = e->payloadSize.load(std::memory_order_relaxed);
   if (size < 0 || uint32_t(size) > r->maxPayload()) return -1;
   entry.clientData = e->clientData.load(std::memory_order_relaxed);
   entry.stored = e->check.load(std::memory_order_relaxed);
   EntryCheck check(size, entry.clientData);
   Dock::copyFromSharedFolding(out, payloadOf(*e), std::min<uint32_t>(uint32_t(size), maxLen),
                               check);
   entry.computed = check.value();
   return size;
}

}  // namespace Tessel
