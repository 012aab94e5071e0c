// WriterAllocator: the writer's 32 slab files: creation, attach and repair, store, alloc, free.
#include "store/slab/WriterAllocator.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>

#include "Loom/CorruptionException.h"
#include "Region/Error.h"
#include "Region/StoreRoot.h"
#include "Spoor/Trace.h"
#include "Vela/Assert.h"
#include "store/format/SharedBytes.h"
#include "store/slab/EntryCheck.h"

namespace Tessel {

namespace {

Spoor::Handle& trace() {
   return Spoor::handle("Tessel");
}

bool exists(const std::string& path) {
   return ::access(path.c_str(), F_OK) == 0;
}

}  // namespace

WriterAllocator::WriterAllocator(std::string dir, LinearSizeConfig config, uint32_t relume)
    : dir_(std::move(dir)), config_(config), relume_(relume) {}

std::string WriterAllocator::slabPath(uint32_t slab) const {
   return dir_ + "/" + Dock::slabFileName(slab);
}

void WriterAllocator::detach() {
   for (auto& s : slabs_) s.reset();
   intent_.close();
   validated_ = 0;
   mode_ = Mode::kDetached;
}

std::unique_ptr<SlabWriter> WriterAllocator::makeSlab(uint32_t s) const {
   auto w = std::make_unique<SlabWriter>(slabPath(s), config_.entrySize(s), relume_);
   if (intent_.isOpen()) w->intentIs(intent_.word(), s);
   return w;
}

void WriterAllocator::removeFiles(const std::string& dir) {
   for (uint32_t s = 0; s < kNumClasses; ++s) ::unlink((dir + "/" + Dock::slabFileName(s)).c_str());
   ::unlink((dir + "/" + kIntentFile).c_str());
   removeStrayFiles(dir);
}

void WriterAllocator::create() {
   detach();
   Region::makeDirectories(dir_);
   for (uint32_t s = 0; s < kNumClasses; ++s) {
      const std::string path = slabPath(s);
      if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
         throw Region::Error::fromErrno("cannot remove", path, errno);
      }
   }
   strayRemoved_ = removeStrayFiles(dir_);
   // A fresh record: whatever the old one named is gone with the slabs.
   ::unlink((dir_ + "/" + kIntentFile).c_str());
   intent_.open(dir_);
   repairedOp_ = SlabOp::kIdle;
   mode_ = Mode::kCreated;
}

void WriterAllocator::repairInterrupted() {
   repairedOp_ = SlabOp::kIdle;
   const SlabOp op = intent_.op();
   if (op == SlabOp::kIdle) return;
   const uint32_t s = intent_.slab();
   if (s < kNumClasses && exists(slabPath(s))) {
      auto w = makeSlab(s);
      try {
         const bool changed = w->repair();
         SPOOR_TRACE(trace(), 0, "{}: {} interrupted by the previous writer {}", slabPath(s),
                     slabOpName(op), changed ? "repaired" : "had nothing to repair");
         slabs_[s] = std::move(w);
      } catch (const std::exception& e) {
         // Left unattached: its first use reports it, and the table is re-formatted.
         SPOOR_TRACE(trace(), 0, "{}: {} interrupted by the previous writer, not repairable: {}",
                     slabPath(s), slabOpName(op), e.what());
         return;
      }
   }
   repairedOp_ = op;
   repairedSlab_ = s;
   intent_.clear();
}

void WriterAllocator::attach() {
   detach();
   mode_ = Mode::kAttached;
   // The writer holds the owner file, so a temporary file belongs to a writer that died.
   strayRemoved_ = removeStrayFiles(dir_);
   intent_.open(dir_);
   repairInterrupted();
   // Re-stamp every slab whose header is sound now, so that readers of this writer generation
   // accept it; a slab whose header fails stays unattached and fails again on first use.
   for (uint32_t s = 0; s < kNumClasses; ++s) {
      const std::string path = slabPath(s);
      if (slabs_[s] || !exists(path)) continue;
      auto w = makeSlab(s);
      try {
         w->attach();
         slabs_[s] = std::move(w);
      } catch (const std::exception& e) {
         SPOOR_TRACE(trace(), 1, "{} not attached: {}", path, e.what());
      }
   }
}

void WriterAllocator::attachReadOnly() {
   detach();
   mode_ = Mode::kReadOnly;
}

SlabWriter* WriterAllocator::firstUse(uint32_t s, bool create) {
   VELA_ASSERT(mode_ != Mode::kDetached && "slab allocator is not attached");
   const uint32_t bit = 1u << s;
   if (slabs_[s] && (validated_ & bit)) return slabs_[s].get();
   const std::string path = slabPath(s);
   if (!slabs_[s]) {
      auto w = makeSlab(s);
      if (!exists(path)) {
         if (!create) return nullptr;
         w->create();
         slabs_[s] = std::move(w);
         validated_ |= bit;
         return slabs_[s].get();
      }
      try {
         if (mode_ == Mode::kReadOnly) {
            w->attachReadOnly();
         } else {
            w->attach();
         }
      } catch (const std::exception& e) {
         SPOOR_TRACE(trace(), 0, "{} failed validation: {}", path, e.what());
         throw Loom::CorruptionException(
             fmt::format("corrupted slab: {} was detected when lazily attaching", path));
      }
      slabs_[s] = std::move(w);
   }
   try {
      slabs_[s]->validate();
   } catch (const std::exception& e) {
      SPOOR_TRACE(trace(), 0, "{} failed validation: {}", path, e.what());
      slabs_[s].reset();
      throw Loom::CorruptionException(
          fmt::format("corrupted slab: {} was detected when lazily attaching", path));
   }
   validated_ |= bit;
   return slabs_[s].get();
}

SlabValue WriterAllocator::store(uint32_t client, const uint8_t* bytes, uint32_t length) {
   // alloc's release fence (SlabWriter::alloc) orders the stores below after every earlier slot
   // flags store, so a reader still copying a reused entry sees its slot change on its re-check.
   // The bytes go in with atomic stores (format/SharedBytes.h) since such a reader may be copying
   // them. The entry's check is folded in the same pass (EntryCheck.h).
   const Offset offset = alloc(length + kEntryOverhead);
   // The entry alloc just reserved: in range and mapped, so the slab's getEntry, without
   // lookup's occupancy checks and second slab look-up.
   SlabEntryHeader* entry = slabs_[offset.slab()]->getEntry(offset.index());
   EntryCheck check(int32_t(length), client);
   Dock::copyToSharedFolding(reinterpret_cast<uint8_t*>(entry) + Dock::kSlabEntryHeaderSize, bytes,
                             length, check);
   entry->check.store(check.value(), std::memory_order_relaxed);
   entry->clientData.store(client, std::memory_order_relaxed);
   // Release: a reader that sees this size (acquire) sees the payload, check and clientData.
   entry->payloadSize.store(int32_t(length), std::memory_order_release);
   return SlabValue{offset, length};
}

Offset WriterAllocator::alloc(uint32_t size) {
   if (size == 0) VELA_FAIL("doing an allocation of size 0 is forbidden");
   if (size > config_.maxAllocSize()) VELA_FAIL("Unhandled allocation size: {}", size);
   VELA_ASSERT((mode_ == Mode::kCreated || mode_ == Mode::kAttached) &&
               "slab allocator is not attached for writing");
   const uint32_t cls = config_.classOf(size);
   return Offset::make(cls, slab(cls, true)->alloc());
}

void WriterAllocator::free(Offset offset) {
   VELA_ASSERT((mode_ == Mode::kCreated || mode_ == Mode::kAttached) &&
               "slab allocator is not attached for writing");
   SlabWriter* w = slab(offset.slab(), false);
   if (!w)
      VELA_FAIL("freeing {} in {} which does not exist", offset.toString(),
                slabPath(offset.slab()));
   w->free(offset.index());
}

SlabEntryHeader* WriterAllocator::lookup(Offset offset) {
   SlabWriter* w = slab(offset.slab(), false);
   if (!w) {
      // A slab that was never created holds no index at all.
      throw Loom::CorruptionException(
          fmt::format("{}::getEntry() index: {} is beyond farthest possible index: {}",
                      Dock::slabFileName(offset.slab()), offset.index(), -1));
   }
   return w->lookup(offset.index());
}

uint8_t* WriterAllocator::payload(Offset offset) {
   return reinterpret_cast<uint8_t*>(lookup(offset)) + Dock::kSlabEntryHeaderSize;
}

void WriterAllocator::validate() {
   VELA_ASSERT(mode_ != Mode::kDetached && "slab allocator is not attached");
   for (uint32_t s = 0; s < kNumClasses; ++s) {
      if (slabs_[s]) {
         slabs_[s]->validate();
         validated_ |= 1u << s;
      } else if (exists(slabPath(s))) {
         validateUnattached(slabPath(s), config_.entrySize(s));
      }
   }
}

void WriterAllocator::prepareShrink() {
   for (auto& s : slabs_) {
      if (s && !s->readOnly() && s->numEntries() > initialEntries(s->entrySize()) &&
          uint64_t(s->numOccupied()) * 4 <= s->numEntries()) {
         s->relinkFreeList();
      }
   }
}

uint32_t WriterAllocator::shrink() {
   uint32_t shrunk = 0;
   for (auto& s : slabs_) {
      if (s && !s->readOnly() && s->shrink()) ++shrunk;
   }
   return shrunk;
}

uint64_t WriterAllocator::numOccupied() {
   uint64_t total = 0;
   for (uint32_t s = 0; s < kNumClasses; ++s) {
      if (SlabWriter* w = slab(s, false)) total += w->numOccupied();
   }
   return total;
}

}  // namespace Tessel
