// The slot table header: formatting, checksum, validation and the human-readable form.
#include "store/format/SlotTable.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "Region/Error.h"
#include "Region/MappedFile.h"
#include "Spoor/Trace.h"
#include "Vela/Exception.h"

namespace Dock::SlotTable {

namespace {

Spoor::Handle& trace() {
   return Spoor::handle("Dock");
}

constexpr uint32_t kFnvBasis = 0x811c9dc5u;
constexpr uint32_t kFnvPrime = 0x01000193u;

uint32_t fnv(uint32_t h, const void* data, size_t len) {
   const auto* p = static_cast<const uint8_t*>(data);
   for (size_t i = 0; i < len; ++i) {
      h ^= p[i];
      h *= kFnvPrime;
   }
   return h;
}

// The magic is the publication word of a freshly formatted header (see format).
uint64_t loadMagic(const Header& h) {
   return h.magic.load(std::memory_order_acquire);
}

}  // namespace

std::string platformName(uint32_t platform) {
   if (platform == kPlatform) return "linux-little-endian-64";
   return fmt::format("unknown-platform-{}", platform);
}

void format(Header* h, const std::string& valueType, uint32_t valueSize, uint32_t maxSlots,
            uint16_t constFlags, uint32_t relume, uint32_t hashSeed, uint32_t numSlots) {
   if (valueType.size() > kValueTypeSize - 1) {
      throw Vela::Exception(
          fmt::format("value typename {} exceeds {} characters", valueType, kValueTypeSize));
   }
   // Unpublish first: a reader that opens the file while it is re-formatted sees a bad magic.
   h->magic.store(0, std::memory_order_relaxed);
   h->version = kSlotVersion;
   h->relume.store(relume, std::memory_order_relaxed);
   h->platform = kPlatform;
   std::memset(h->valueType, 0, kValueTypeSize);
   std::memcpy(h->valueType, valueType.data(), valueType.size());
   h->valueSize = valueSize;
   h->slotSize = kSlotSize;
   h->maxSlots = maxSlots;
   h->constFlags = constFlags;
   h->runtimeFlags.store(0, std::memory_order_relaxed);
   h->occupiedSlots.store(0, std::memory_order_relaxed);
   h->freeSlots.store(kNone, std::memory_order_relaxed);
   h->mostSlots.store(numSlots, std::memory_order_relaxed);
   h->hashSeed = hashSeed;
   h->sizeWord.store(makeSizeWord(0, numSlots), std::memory_order_relaxed);
   h->lookaside.savedWord.store(0, std::memory_order_relaxed);
   h->lookaside.slot.store(kNone, std::memory_order_relaxed);
   h->lookaside.offset.store(0, std::memory_order_relaxed);
   h->lookaside.length.store(0, std::memory_order_relaxed);
   h->lookaside.directSlot.store(kNone, std::memory_order_relaxed);
   h->hash = checksum(*h);
   // Release: pairs with the acquire load of the magic in validateHeader; every field above is
   // visible to a reader that sees the magic.
   h->magic.store(kSlotMagic, std::memory_order_release);
}

uint32_t checksum(const Header& h) {
   uint32_t x = kFnvBasis;
   x = fnv(x, h.valueType, kValueTypeSize);
   x = fnv(x, &h.valueSize, sizeof h.valueSize);
   x = fnv(x, &h.slotSize, sizeof h.slotSize);
   x = fnv(x, &h.maxSlots, sizeof h.maxSlots);
   x = fnv(x, &h.constFlags, sizeof h.constFlags);
   x = fnv(x, &h.hashSeed, sizeof h.hashSeed);
   return x;
}

bool validateHeader(const Header& h, size_t fileSize, uint32_t wantedRelume, std::string& reason) {
   auto fail = [&](std::string text) {
      reason = std::move(text);
      SPOOR_TRACE(trace(), 5, "slot table header validation failed: {}", reason);
      return false;
   };
   const uint64_t magic = loadMagic(h);
   if (magic != kSlotMagic) return fail(fmt::format("bad magic: {:x}", magic));
   if (h.version != kSlotVersion) return fail(fmt::format("bad version: {}", h.version));
   if (wantedRelume != 0 && h.relume != wantedRelume) {
      return fail(fmt::format("bad relume:{} wanted:{}", h.relume, wantedRelume));
   }
   if (h.platform != kPlatform) {
      return fail(fmt::format("bad platform specification: {} expecting: {}",
                              platformName(h.platform), platformName(kPlatform)));
   }
   const uint32_t sum = checksum(h);
   if (sum != h.hash) return fail(fmt::format("checksum fail: {:x} != {:x}", sum, h.hash));
   const uint32_t occupied = h.occupiedSlots.load(std::memory_order_relaxed);
   const uint32_t n = numSlots(h);
   if (occupied > n) return fail(fmt::format("bad occupiedSlots: {} num slots: {}", occupied, n));
   const uint32_t freeSlots = h.freeSlots.load(std::memory_order_relaxed);
   if (freeSlots != kNone && freeSlots >= n) {
      return fail(fmt::format("bad freeSlots: {} slots: {}", freeSlots, n));
   }
   const uint32_t most = h.mostSlots.load(std::memory_order_relaxed);
   if (most < n) return fail(fmt::format("bad mostSlots:{} numSlots:{}", most, n));
   if (fileSize < kSlotHeaderSize) {
      return fail(fmt::format("bad header file size: {} wanted:{}", fileSize, kSlotHeaderSize));
   }
   if (fileSize >= Region::kLargestMapping) return fail(fmt::format("bad file size:{}", fileSize));
   uint64_t wanted = 0;
   try {
      wanted = Region::checkedRegionSize(kSlotHeaderSize, n, kSlotSize);
   } catch (const std::exception& e) {
      return fail(fmt::format("bad numSlots: {} message: {}", n, e.what()));
   }
   if (fileSize < wanted) {
      return fail(fmt::format("bad shmem size:{} wanted:{} for {} slots", fileSize, wanted, n));
   }
   return true;
}

FileHeader readFileHeader(const std::string& path) {
   FileHeader out;
   const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) throw Region::Error::fromErrno("cannot open", path, errno);
   struct stat st {};
   ssize_t got = 0;
   int err = 0;
   if (::fstat(fd, &st) != 0) {
      err = errno;
   } else {
      out.fileSize = size_t(st.st_size);
      // Bytes past the end of a short file stay zero; a partial read only happens at its end.
      got = ::pread(fd, out.header.bytes, sizeof out.header.bytes, 0);
      if (got < 0) err = errno;
   }
   ::close(fd);
   if (err != 0) throw Region::Error::fromErrno("cannot read", path, err);
   return out;
}

std::string headerString(const Header& h) {
   const std::string_view type(h.valueType, ::strnlen(h.valueType, kValueTypeSize));
   return fmt::format(
       "magic:{:#x} version:{} relume:{} platform:{} valueType:\"{}\" valueSize:{} slotSize:{} "
       "maxSlots:{} constFlags:{:#x} runtimeFlags:{:#x} hash:{:#x} occupiedSlots:{} freeSlots:{} "
       "mostSlots:{} hashSeed:{} numSlots:{}",
       loadMagic(h), h.version, h.relume, h.platform, type, h.valueSize, h.slotSize, h.maxSlots,
       h.constFlags, h.runtimeFlags.load(std::memory_order_relaxed), h.hash,
       h.occupiedSlots.load(std::memory_order_relaxed), h.freeSlots.load(std::memory_order_relaxed),
       h.mostSlots.load(std::memory_order_relaxed), h.hashSeed, numSlots(h));
}

}  // namespace Dock::SlotTable
