// The slab file header: growth steps, formatting, relume stamps and validation.
#include "store/slab/Slab.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>

#include "Region/MappedFile.h"
#include "Spoor/Trace.h"
#include "Vela/Hash.h"

namespace Tessel {

namespace {

constexpr uint32_t kInitialBytes = 16 * 1024;
constexpr uint32_t kMinInitialEntries = 8;
// A growth step formats every new entry, and the first touch of each fresh page of the shared file
// is a page fault: about 1.3 ms per MiB on a quiet machine and several times that on a loaded one,
// all inside one write, with no critical-task yield in the slab layer. 512 KiB keeps a growth step
// near a millisecond, a small part of the writer's critical-task budget; a larger table just grows
// more often (one ftruncate and mremap a step).
constexpr uint32_t kMaxStepBytes = 512 * 1024;

uint64_t loadMagic(const SlabHeader& h) {
   return h.magic.load(std::memory_order_acquire);
}

}  // namespace

uint32_t initialEntries(uint32_t entrySize) {
   return std::max(kMinInitialEntries, (kInitialBytes - Dock::kSlabHeaderSize) / entrySize);
}

uint32_t growthStep(uint32_t numEntries, uint32_t entrySize) {
   const uint32_t initial = initialEntries(entrySize);
   const uint32_t most = std::max(initial, kMaxStepBytes / entrySize);
   return std::clamp(numEntries, initial, most);
}

uint32_t slabChecksum(uint32_t entrySize) {
   return Vela::oneAtATimeOf(entrySize);
}

void formatSlabHeader(SlabHeader* h, uint32_t relume, uint32_t entrySize, uint32_t numEntries) {
   h->magic.store(0, std::memory_order_relaxed);
   h->version = Dock::kSlabVersion;
   h->relume.store(relume, std::memory_order_relaxed);
   h->resizeCounter.store(0, std::memory_order_relaxed);
   h->numEntries.store(numEntries, std::memory_order_relaxed);
   h->numOccupied.store(0, std::memory_order_relaxed);
   h->entrySize = entrySize;
   h->hash = slabChecksum(entrySize);
   h->freeList.store(Dock::kNone, std::memory_order_relaxed);
   // Release: pairs with the acquire load of the magic in validateSlabHeader.
   h->magic.store(Dock::kSlabMagic, std::memory_order_release);
}

uint32_t slabRelume(const SlabHeader& h) {
   return h.relume.load(std::memory_order_relaxed);
}

void stampSlabRelume(SlabHeader* h, uint32_t relume) {
   h->relume.store(relume, std::memory_order_release);
}

bool validateSlabHeader(const SlabHeader& h, size_t fileSize, uint32_t wantedRelume,
                        std::string& reason) {
   auto fail = [&](std::string text) {
      reason = std::move(text);
      SPOOR_TRACE(Spoor::handle("Tessel"), 5, "slab header validation failed: {}", reason);
      return false;
   };
   if (fileSize < Dock::kSlabHeaderSize) {
      return fail(
          fmt::format("bad header file size: {} wanted: {}", fileSize, Dock::kSlabHeaderSize));
   }
   if (fileSize >= Region::kLargestMapping) return fail(fmt::format("bad file size:{}", fileSize));
   const uint64_t magic = loadMagic(h);
   if (magic != Dock::kSlabMagic) {
      return fail(fmt::format("bad magic: {:x} wanted: {:x}", magic, Dock::kSlabMagic));
   }
   if (h.version != Dock::kSlabVersion) {
      return fail(fmt::format("bad version: {} wanted: {}", h.version, Dock::kSlabVersion));
   }
   const uint32_t relume = slabRelume(h);
   if (wantedRelume != 0 && relume != wantedRelume) {
      return fail(fmt::format("bad relume:{} wanted:{}", relume, wantedRelume));
   }
   const uint32_t sum = slabChecksum(h.entrySize);
   if (sum != h.hash) return fail(fmt::format("checksum fail: {:x} != {:x}", sum, h.hash));
   const uint32_t numEntries = h.numEntries.load(std::memory_order_relaxed);
   const uint32_t numOccupied = h.numOccupied.load(std::memory_order_relaxed);
   if (numOccupied > numEntries) {
      return fail(fmt::format("bad numOccupied: {} but numEntries: {}", numOccupied, numEntries));
   }
   const uint32_t freeList = h.freeList.load(std::memory_order_relaxed);
   if (freeList != Dock::kNone && freeList >= numEntries) {
      return fail(fmt::format("bad freeList: {} maxIndex: {}", freeList, int64_t(numEntries) - 1));
   }
   uint64_t wanted = 0;
   try {
      wanted = Region::checkedRegionSize(Dock::kSlabHeaderSize, numEntries, h.entrySize);
   } catch (const std::exception& e) {
      return fail(fmt::format("bad numEntries: {} message: {}", numEntries, e.what()));
   }
   if (fileSize < wanted) {
      return fail(fmt::format("bad shmem size: {} wanted: {} for {} entries", fileSize, wanted,
                              numEntries));
   }
   return true;
}

std::string slabHeaderString(const SlabHeader& h) {
   return fmt::format("magic:{:x} version:{} relume:{} numEntries:{} entrySize:{} freeList:{}",
                      loadMagic(h), h.version, slabRelume(h),
                      h.numEntries.load(std::memory_order_relaxed), h.entrySize,
                      h.freeList.load(std::memory_order_relaxed));
}

}  // namespace Tessel
