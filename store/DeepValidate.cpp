// The deep check of a table's files, and its walk against a live writer (see the header).
#include "store/DeepValidate.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <thread>
#include <vector>

#include "Loom/CorruptionException.h"
#include "Region/MappedFile.h"
#include "store/FileChecks.h"
#include "store/format/Offset.h"
#include "store/format/SeqRead.h"
#include "store/format/SharedBytes.h"
#include "store/format/SlotTable.h"
#include "store/slab/SlotEntryCheck.h"

namespace Dock {

namespace {

[[noreturn]] void corrupt(std::string text) {
   throw Loom::CorruptionException(std::move(text));
}

// The slot walk over `n` slots. A finding on a slot whose flags word changed while it was made
// sets `moved` and skips the slot (only a live writer changes it).
DeepValidateCounts walkSlots(const SlotTableHeader& header, const Slot* slots, uint32_t n,
                             Tessel::WriterAllocator& slabs, bool& moved,
                             const KeyHashOf& keyHash = {}) {
   DeepValidateCounts counts;
   std::vector<uint8_t> value;
   std::vector<bool> free(n, false);
   for (uint32_t i = header.freeSlots.load(std::memory_order_acquire); i != kNone;) {
      if (i >= n)
         corrupt(fmt::format("corrupted free slot detected with out of bound index: {}", i));
      if (free[i]) corrupt(fmt::format("duplicate freeSlot detected: {}", i));
      free[i] = true;
      ++counts.freeSlots;
      i = slots[i].next.load(std::memory_order_relaxed);
   }

   for (uint32_t i = 0; i < n; ++i) {
      const SeqRead<uint32_t> read(slots[i].flags);
      const uint32_t flags = read.begin();
      try {
         if (free[i]) {
            // Reached once through the free list and once more as an occupied slot.
            if (flags & kOccupied) corrupt(fmt::format("duplicate slot: {}", i));
            continue;
         }
         if (!(flags & kOccupied)) corrupt(fmt::format("missing OCCUPIED bit: {:#x}", flags));
         if (flags & kLookaside) corrupt(fmt::format("stuck LOOKASIDE bit: {:#x}", flags));
         const auto offset = Tessel::Offset::fromWord(read.load(slots[i].offset));
         const uint32_t length = read.load(slots[i].length);
         Tessel::checkSlotEntry(i, offset, length, *slabs.lookup(offset), slabs.maxPayload(offset));
         if (keyHash) {
            value.resize(length);
            copyFromShared(value.data(), slabs.payload(offset), length);
            const uint32_t stored = read.load(slots[i].keyHash);
            const uint32_t computed = keyHash(value.data(), length, header.hashSeed);
            if (stored != computed) corrupt(keyHashMismatch(i, stored, computed));
         }
      } catch (const std::exception&) {
         if (read.unchanged()) throw;
         moved = true;
      }
      ++counts.occupiedSlots;
      ++counts.slabEntries;
   }

   const uint32_t occupied = header.occupiedSlots.load(std::memory_order_relaxed);
   if (uint64_t(counts.freeSlots) + occupied != n) {
      corrupt(
          fmt::format("numSlots mismatch, length of freeList: {}, occupiedSlots: {} do not add up "
                      "to numSlots: {}",
                      counts.freeSlots, occupied, n));
   }

   slabs.validate();
   const uint64_t expected = slabs.numOccupied();
   if (counts.slabEntries < expected) {
      corrupt(fmt::format("validation failed, expected: {} allocated SlabEntries but only saw: {}",
                          expected, counts.slabEntries));
   }
   return counts;
}

// Identity, size and leading bytes of each file of the table: the version state a walk must
// leave unchanged to count (see the header).
std::string tableState(const std::string& dir) {
   std::string state;
   auto add = [&](const std::string& name, size_t headerBytes) {
      std::string bytes(headerBytes, '\0');
      struct stat st {};
      const int fd = ::open((dir + "/" + name).c_str(), O_RDONLY | O_CLOEXEC);
      if (fd >= 0) {
         if (::fstat(fd, &st) != 0 || ::pread(fd, bytes.data(), headerBytes, 0) < 0) st = {};
         ::close(fd);
      }
      const uint64_t id[] = {uint64_t(fd >= 0), uint64_t(st.st_ino), uint64_t(st.st_size)};
      state.append(reinterpret_cast<const char*>(id), sizeof id);
      state += bytes;
   };
   add(kSlotsFile, kSlotHeaderSize);
   add(kRelumeFile, sizeof(RelumeRecord));
   add(kHeraldFile, kHeraldHeaderSize);
   add(kBucketsFile, kBucketHeaderSize);
   add(kIntentFile, kIntentSize);
   for (uint32_t s = 0; s < kNumSlabs; ++s) add(slabFileName(s), kSlabHeaderSize);
   return state;
}

struct Walk {
   DeepValidateCounts counts;
   std::exception_ptr finding;  // null when the walk found nothing
   std::string text;
   bool moved = false;  // a slot changed while its finding was made
};

Walk walkOnce(const std::string& dir, uint32_t maxAllocSize, const KeyHashOf& keyHash) {
   Walk w;
   try {
      const std::string path = dir + "/" + kSlotsFile;
      const SlotTable::FileHeader file = SlotTable::readFileHeader(path);
      std::string reason;
      if (!SlotTable::validateHeader(*file.header, file.fileSize, 0, reason)) corrupt(reason);
      const uint32_t stamped = file.header->relume.load(std::memory_order_relaxed);

      const auto map = Region::MappedFile::openReadOnly(path);
      const auto* header = reinterpret_cast<const SlotTableHeader*>(map.data());
      const uint32_t n = SlotTable::numSlots(*header);
      if (map.size() < SlotTable::fileSizeFor(n)) {
         corrupt(fmt::format("bad shmem size:{} wanted:{} for {} slots", map.size(),
                             SlotTable::fileSizeFor(n), n));
      }
      Tessel::WriterAllocator slabs(dir, Tessel::LinearSizeConfig(maxAllocSize), stamped);
      slabs.attachReadOnly();
      w.counts = walkSlots(*header, SlotTable::slots(header), n, slabs, w.moved, keyHash);
      // Every file carries the relume of the writer the relume file names.
      const uint32_t relume = checkRelumeFile(dir);
      if (stamped != relume) corrupt(fmt::format("bad relume:{} wanted:{}", stamped, relume));
      for (uint32_t c = 0; c < Tessel::kNumClasses; ++c) {
         const Tessel::SlabWriter* slab = slabs.attachedSlab(c);
         if (slab && Tessel::slabRelume(*slab->header()) != relume) {
            corrupt(fmt::format("{}: bad relume:{} wanted:{}", slab->name(),
                                Tessel::slabRelume(*slab->header()), relume));
         }
      }
      checkBucketFile(dir, relume, file.header->hashSeed, SlotTable::slots(header), n);
      checkHeraldFile(dir, relume);
      checkIntentFile(dir);
   } catch (const std::exception& e) {
      w.finding = std::current_exception();
      w.text = e.what();
   }
   return w;
}

}  // namespace

std::string keyHashMismatch(uint32_t slot, uint32_t stored, uint32_t computed) {
   return fmt::format("slot:{} keyHash:{:#x} but its key hashes to {:#x}", slot, stored, computed);
}

DeepValidateCounts deepValidate(const SlotTableHeader& header, Tessel::WriterAllocator& slabs) {
   bool moved = false;
   return walkSlots(header, SlotTable::slots(&header), SlotTable::numSlots(header), slabs, moved);
}

DeepValidateCounts validateTableFiles(const std::string& dir, uint32_t maxAllocSize,
                                      const ValidatePatience& patience, const KeyHashOf& keyHash) {
   for (uint32_t walk = 1; walk <= patience.walks; ++walk) {
      const std::string before = tableState(dir);
      Walk w = walkOnce(dir, maxAllocSize, keyHash);
      if (!w.finding) {
         w.counts.walks = walk;
         return w.counts;
      }
      bool still = !w.moved && tableState(dir) == before;
      for (const auto pause : patience.confirm) {
         if (!still) break;
         std::this_thread::sleep_for(pause);
         const Walk again = walkOnce(dir, maxAllocSize, keyHash);
         still = again.finding && again.text == w.text && !again.moved && tableState(dir) == before;
      }
      if (still) std::rethrow_exception(w.finding);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   throw TableBusy(
       fmt::format("busy, try again: {} changed during each of {} walks", dir, patience.walks));
}

}  // namespace Dock
