// SlabWriter: one slab file's free list, growth, shrinking, repair and validation.
#include "store/slab/SlabWriter.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <vector>

#include "Loom/CorruptionException.h"
#include "Region/Error.h"
#include "Spoor/Trace.h"
#include "Vela/Assert.h"
#include "store/format/Offset.h"
#include "store/format/SharedBytes.h"

namespace Tessel {

namespace {

Spoor::Handle& trace() {
   return Spoor::handle("Tessel");
}

std::string baseName(const std::string& path) {
   size_t slash = path.rfind('/');
   return slash == std::string::npos ? path : path.substr(slash + 1);
}

[[noreturn]] void corrupt(std::string text) {
   throw Loom::CorruptionException(std::move(text));
}

}  // namespace

SlabWriter::SlabWriter(std::string path, uint32_t entrySize, uint32_t relume)
    : path_(std::move(path)), name_(baseName(path_)), entrySize_(entrySize), relume_(relume) {
   VELA_ASSERT(entrySize % 8 == 0 && entrySize > Dock::kSlabEntryHeaderSize);
}

void SlabWriter::create() {
   const uint32_t n = initialEntries(entrySize_);
   // Formatted under a temporary name and renamed into place: a new file reads as zeros, i.e. as
   // entries of payload size 0 (occupied), so a writer killed between creating the file and
   // listing its entries as free would leave a slab that fails validation and costs the table.
   const std::string tmp = fmt::format("{}.{}.tmp", path_, ::getpid());
   file_ = Region::MappedFile::create(
       tmp, Region::checkedRegionSize(Dock::kSlabHeaderSize, n, entrySize_));
   mapped();
   formatSlabHeader(header(), relume_, entrySize_, n);
   addFreeEntries(0, n);
   if (::rename(tmp.c_str(), path_.c_str()) != 0) {
      const int err = errno;
      file_.close();
      mapped();
      ::unlink(tmp.c_str());
      throw Region::Error::fromErrno("cannot rename slab into place", path_, err);
   }
   file_ = Region::MappedFile::openReadWrite(path_);
   mapped();
   SPOOR_TRACE(trace(), 5, "{}::create() entrySize: {} entries: {}", name_, entrySize_, n);
}

void SlabWriter::checkHeader(uint32_t wantedRelume) {
   std::string reason;
   if (!validateSlabHeader(*header(), file_.size(), wantedRelume, reason)) corrupt(reason);
   if (header()->entrySize != entrySize_) {
      corrupt(fmt::format("{}::attach() entrySize: {} but expected: {}", name_, header()->entrySize,
                          entrySize_));
   }
}

template <class F>
void SlabWriter::closeIfThrows(F&& check) {
   try {
      check();
   } catch (...) {
      file_.close();
      mapped();
      throw;
   }
}

void SlabWriter::open(bool readOnly) {
   file_ = readOnly ? Region::MappedFile::openReadOnly(path_)
                    : Region::MappedFile::openReadWrite(path_);
   mapped();
   // A restarted writer keeps files of an earlier generation: any relume is accepted here.
   closeIfThrows([&] { checkHeader(0); });
}

void SlabWriter::attach() {
   open(false);
   stampSlabRelume(header(), relume_);
}

void SlabWriter::attachReadOnly() {
   open(true);
}

bool SlabWriter::repair() {
   file_ = Region::MappedFile::openReadWrite(path_);
   mapped();
   SlabHeader* h = header();
   closeIfThrows([&] {
      // What no operation changes must hold before the rest is rebuilt from it.
      if (file_.size() < Dock::kSlabHeaderSize ||
          h->magic.load(std::memory_order_acquire) != Dock::kSlabMagic ||
          h->version != Dock::kSlabVersion || h->hash != slabChecksum(h->entrySize) ||
          h->entrySize != entrySize_ || numEntries() > mappedEntries_) {
         checkHeader(0);  // throws the reason
         corrupt(fmt::format("{}::repair() numEntries: {} but the file holds {}", name_,
                             numEntries(), mappedEntries_));
      }
   });
   const uint32_t n = numEntries();
   const uint32_t oldHead = h->freeList.load(std::memory_order_relaxed);
   const uint32_t oldOccupied = numOccupied();
   uint32_t head = Dock::kNone;
   uint32_t occupied = 0;
   for (uint32_t i = n; i-- > 0;) {
      SlabEntryHeader* e = entry(i);
      if (e->payloadSize.load(std::memory_order_relaxed) < 0) {
         e->clientData.store(head, std::memory_order_relaxed);
         head = i;
      } else {
         ++occupied;
      }
   }
   h->freeList.store(head, std::memory_order_relaxed);
   h->numOccupied.store(occupied, std::memory_order_relaxed);
   SPOOR_TRACE(trace(), 1, "{}::repair() freeList: {} -> {} numOccupied: {} -> {}", name_, oldHead,
               head, oldOccupied, occupied);
   closeIfThrows([&] { checkHeader(0); });
   stampSlabRelume(h, relume_);
   return oldHead != head || oldOccupied != occupied;
}

void SlabWriter::detach() {
   file_.close();
   mapped();
}

void SlabWriter::mapped() {
   mappedEntries_ = uint32_t(std::min<uint64_t>(entriesIn(file_.size(), entrySize_), UINT32_MAX));
}

void SlabWriter::beyond(uint32_t index) const {
   const uint64_t limit = std::min<uint64_t>(numEntries(), mappedEntries_);
   corrupt(fmt::format("{}::getEntry() index: {} is beyond farthest possible index: {}", name_,
                       index, int64_t(limit) - 1));
}

SlabEntryHeader* SlabWriter::lookup(uint32_t index) {
   SlabEntryHeader* e = getEntry(index);
   const int32_t size = e->payloadSize.load(std::memory_order_relaxed);
   if (size < 0) {
      corrupt(fmt::format("{}::lookup() entry at index: {} is marked unoccupied", name_, index));
   }
   if (uint32_t(size) > maxPayload()) {
      corrupt(
          fmt::format("{}::lookup() encountered payloadSize: {}, but max payloadSize:{} at "
                      "index: {}",
                      name_, size, maxPayload(), index));
   }
   return e;
}

uint32_t SlabWriter::alloc() {
   VELA_ASSERT(file_ && !file_.readOnly() && "slab is not attached read-write");
   SlabHeader* h = header();
   if (h->freeList.load(std::memory_order_relaxed) == Dock::kNone) {
      const uint32_t n = numEntries();
      if (n > Offset::kMaxIndex) {
         throw Region::Error(fmt::format("{}: slab is full at {} entries", path_, n));
      }
      resize(uint32_t(std::min<uint64_t>(uint64_t(n) + growthStep(n, entrySize_),
                                         uint64_t(Offset::kMaxIndex) + 1)));
      h = header();
   }
   const uint32_t index = h->freeList.load(std::memory_order_relaxed);
   SlabEntryHeader* e = getEntry(index);
   if (e->payloadSize.load(std::memory_order_relaxed) >= 0) {
      corrupt(fmt::format("{}::alloc() free-list entry at index: {} is occupied", name_, index));
   }
   // Release fence: pairs with the acquire fence of the reader's re-check (SeqRead::unchanged,
   // format/SeqRead.h). A reader still copying this entry's previous value that sees any byte
   // written from here on is then guaranteed to see the slot flags change that retired the
   // previous value, and discards its copy.
   std::atomic_thread_fence(std::memory_order_release);
   // Bookkeeping, in this order, inside the intent record: freeList, clientData, payloadSize,
   // numOccupied.
   intent_.begin(SlabOp::kAlloc, slabNumber_);
   h->freeList.store(e->clientData.load(std::memory_order_relaxed), std::memory_order_relaxed);
   storePoint(StorePoint::kAllocPopped);
   e->clientData.store(Dock::kNone, std::memory_order_relaxed);
   storePoint(StorePoint::kAllocUnlinked);
   e->payloadSize.store(0, std::memory_order_relaxed);
   storePoint(StorePoint::kAllocSized);
   h->numOccupied.store(h->numOccupied.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
   storePoint(StorePoint::kAllocCounted);
   intent_.end();
   return index;
}

void SlabWriter::free(uint32_t index) {
   VELA_ASSERT(file_ && !file_.readOnly() && "slab is not attached read-write");
   SlabEntryHeader* e = getEntry(index);
   const int32_t size = e->payloadSize.load(std::memory_order_relaxed);
   if (size < 0) VELA_FAIL("freeing unoccupied entry {} of {}", index, name_);
   SlabHeader* h = header();
   // Bookkeeping, in this order, inside the intent record: payloadSize, clientData, freeList,
   // numOccupied.
   intent_.begin(SlabOp::kFree, slabNumber_);
   e->payloadSize.store(-1, std::memory_order_relaxed);
   storePoint(StorePoint::kFreeMarked);
   e->clientData.store(h->freeList.load(std::memory_order_relaxed), std::memory_order_relaxed);
   storePoint(StorePoint::kFreeLinked);
   h->freeList.store(index, std::memory_order_relaxed);
   storePoint(StorePoint::kFreeHeaded);
   h->numOccupied.store(h->numOccupied.load(std::memory_order_relaxed) - 1,
                        std::memory_order_relaxed);
   storePoint(StorePoint::kFreeCounted);
   intent_.end();
   prefetchForReuse(e, uint32_t(size));
}

void SlabWriter::prefetchForReuse(const SlabEntryHeader* e, uint32_t payload) const {
   // The free list is last in, first out: the next allocation of this class takes this entry, and
   // a replacement's next value is usually about the size of the value freed. Its body is cold
   // (only the header line was touched), so the misses of those stores are started here, to
   // overlap with the next operation's index look-ups. At most the distance the copy prefetches
   // ahead of itself (format/SharedBytes.h), which takes over from there.
   constexpr uintptr_t kLine = 64, kMost = Dock::kWriteAhead;
   const auto first = reinterpret_cast<uintptr_t>(e) & ~(kLine - 1);
   const uintptr_t end = reinterpret_cast<uintptr_t>(e) + Dock::kSlabEntryHeaderSize +
                         std::min<uintptr_t>(payload, kMost);
   for (uintptr_t line = first + kLine; line < end; line += kLine) {
      __builtin_prefetch(reinterpret_cast<const void*>(line), 1);
   }
}

void SlabWriter::addFreeEntries(uint32_t start, uint32_t end) {
   SPOOR_TRACE(trace(), 5, "{}::addFreeEntries() start: {} end: {}", name_, start, end);
   SlabHeader* h = header();
   if (h->freeList.load(std::memory_order_relaxed) != Dock::kNone) {
      corrupt(fmt::format("{}::addFreeEntries() free-list isn't empty", name_));
   }
   VELA_ASSERT(start <= end && end <= entriesIn(file_.size(), entrySize_));
   const uint32_t half = start + (end - start) / 2;
   for (uint32_t i = start; i < end; ++i) {
      if (i == half) storePoint(StorePoint::kGrowHalfFormatted);
      SlabEntryHeader* e = entry(i);
      e->payloadSize.store(-1, std::memory_order_relaxed);
      e->clientData.store(i + 1 < end ? i + 1 : Dock::kNone, std::memory_order_relaxed);
   }
   if (start < end) h->freeList.store(start, std::memory_order_relaxed);
   storePoint(StorePoint::kGrowListed);
}

void SlabWriter::resize(uint32_t newNumEntries) {
   const uint32_t old = numEntries();
   VELA_ASSERT(newNumEntries > old);
   // In this order, inside the intent record: the file grows, the new entries are formatted and
   // listed (freeList), numEntries, the resize counter. Until numEntries is stored the new tail
   // is outside the slab, so an interrupted growth is rolled back by ignoring it.
   intent_.begin(SlabOp::kGrow, slabNumber_);
   file_.resize(Region::checkedRegionSize(Dock::kSlabHeaderSize, newNumEntries, entrySize_));
   mapped();
   storePoint(StorePoint::kGrowExtended);
   addFreeEntries(old, newNumEntries);
   SlabHeader* h = header();
   h->numEntries.store(newNumEntries, std::memory_order_relaxed);
   storePoint(StorePoint::kGrowCounted);
   // Release: a reader that sees the new counter (SlabReader::headerCopy, format/SeqRead.h) sees
   // the grown file's new entries and numEntries. The fence after it orders the counter before any
   // later header store, so a header copy that sees a later store also sees the new counter.
   h->resizeCounter.store(h->resizeCounter.load(std::memory_order_relaxed) + 1,
                          std::memory_order_release);
   std::atomic_thread_fence(std::memory_order_release);
   storePoint(StorePoint::kGrowVersioned);
   intent_.end();
   SPOOR_TRACE(trace(), 5, "{}::resize() from {} entries to {}", name_, old, newNumEntries);
}

uint32_t SlabWriter::linkFreeBelow(uint32_t end) {
   uint32_t head = Dock::kNone;
   for (uint32_t i = end; i-- > 0;) {
      SlabEntryHeader* e = entry(i);
      if (e->payloadSize.load(std::memory_order_relaxed) < 0) {
         e->clientData.store(head, std::memory_order_relaxed);
         head = i;
      }
   }
   return head;
}

void SlabWriter::relinkFreeList() {
   VELA_ASSERT(file_ && !file_.readOnly() && "slab is not attached read-write");
   // In this order, inside the intent record: the free entries' links, freeList. Until freeList
   // is stored the old list may be cut short by a relinked entry; the record makes repair()
   // rebuild it.
   intent_.begin(SlabOp::kShrink, slabNumber_);
   const uint32_t head = linkFreeBelow(numEntries());
   storePoint(StorePoint::kShrinkRelinked);
   header()->freeList.store(head, std::memory_order_relaxed);
   storePoint(StorePoint::kShrinkHeaded);
   intent_.end();
}

bool SlabWriter::shrink() {
   VELA_ASSERT(file_ && !file_.readOnly() && "slab is not attached read-write");
   const uint32_t n = numEntries();
   uint32_t used = n;  // one past the last occupied entry
   while (used > 0 && entry(used - 1)->payloadSize.load(std::memory_order_relaxed) < 0) --used;
   // Keep two to four times the used prefix, as the slot table does with its occupancy.
   const uint32_t target = std::max(initialEntries(entrySize_), used * 2);
   if (uint64_t(used) * 4 > n || target >= n) return false;
   // Rebuild the free list from the entries that remain, ascending. In this order, inside the
   // intent record: the free entries' links, freeList, numEntries, the resize counter.
   intent_.begin(SlabOp::kShrink, slabNumber_);
   SlabHeader* h = header();
   const uint32_t head = linkFreeBelow(target);
   storePoint(StorePoint::kShrinkRelinked);
   h->freeList.store(head, std::memory_order_relaxed);
   storePoint(StorePoint::kShrinkHeaded);
   h->numEntries.store(target, std::memory_order_relaxed);
   storePoint(StorePoint::kShrinkCounted);
   // Release: pairs with the first load of SlabReader::headerCopy (see resize).
   h->resizeCounter.store(h->resizeCounter.load(std::memory_order_relaxed) + 1,
                          std::memory_order_release);
   std::atomic_thread_fence(std::memory_order_release);
   intent_.end();
   // No slot names an entry past target (they are all free), so their pages can go. The file
   // keeps its length: a reader that has not yet seen the new counter may still copy from the
   // tail, and reads zeros there (its re-check then fails) instead of taking SIGBUS.
   file_.resize(Dock::kSlabHeaderSize + size_t(entrySize_) * target);
   mapped();
   SPOOR_TRACE(trace(), 5, "{}::shrink() from {} entries to {}", name_, n, target);
   return true;
}

void SlabWriter::validate() {
   checkHeader(file_.readOnly() ? 0 : relume_);
   const SlabHeader* h = header();
   const uint32_t n = numEntries();
   // A live writer may have grown the file since it was mapped read-only: walk only mapped entries.
   if (n > mappedEntries_) beyond(n - 1);
   std::vector<bool> onFreeList(n, false);
   uint32_t freeCount = 0;
   for (uint32_t i = h->freeList.load(std::memory_order_relaxed); i != Dock::kNone;) {
      if (i >= n) {
         corrupt(fmt::format("{}::validate() free-list index: {} is beyond numEntries: {}", name_,
                             i, n));
      }
      if (onFreeList[i]) {
         corrupt(fmt::format("{}::validate() free-list visits index: {} twice", name_, i));
      }
      const SlabEntryHeader* e = entry(i);
      if (e->payloadSize.load(std::memory_order_relaxed) >= 0) {
         corrupt(fmt::format("{}::validate() found occupied entry with index: {} on free-list",
                             name_, i));
      }
      onFreeList[i] = true;
      ++freeCount;
      i = e->clientData.load(std::memory_order_relaxed);
   }
   uint32_t occupied = 0;
   for (uint32_t i = 0; i < n; ++i) {
      const int32_t size = entry(i)->payloadSize.load(std::memory_order_relaxed);
      if (size < 0) continue;
      if (uint32_t(size) > maxPayload()) {
         corrupt(fmt::format(
             "{}::validate() found occupied entry with payloadSize:{}, but max payloadSize:{}",
             name_, size, maxPayload()));
      }
      ++occupied;
   }
   const uint32_t headerOccupied = numOccupied();
   if (occupied != headerOccupied) {
      corrupt(fmt::format("{}::validate() found {} occupied entries, but header's numOccupied: {}",
                          name_, occupied, headerOccupied));
   }
   if (uint64_t(freeCount) + occupied != n) {
      corrupt(fmt::format(
          "{}::validate() found {} entries on free-list and {} occupied entries, but header's "
          "numEntries: {}",
          name_, freeCount, occupied, n));
   }
}

void validateUnattached(const std::string& path, uint32_t entrySize) {
   SlabWriter slab(path, entrySize, 0);
   Region::MappedFile probe;
   try {
      probe = Region::MappedFile::openReadOnly(path);
   } catch (const Region::Error& e) {
      struct stat st {};
      ::stat(path.c_str(), &st);
      corrupt(fmt::format("{}::validateUnattached() cannot attach to shmem {} size:{}: {}",
                          slab.name(), path, st.st_size, e.what()));
   }
   // Empty means no occupied entry according to a header that is at least readable.
   const bool empty = probe.size() >= Dock::kSlabHeaderSize &&
                      reinterpret_cast<const SlabHeader*>(probe.data())
                              ->numOccupied.load(std::memory_order_relaxed) == 0;
   try {
      slab.attachReadOnly();
      slab.validate();
   } catch (const Loom::CorruptionException& e) {
      if (!empty) throw;
      corrupt(fmt::format("{}::validateUnattached, validation failed on an empty slab, reason: {}",
                          slab.name(), e.what()));
   }
}

}  // namespace Tessel
