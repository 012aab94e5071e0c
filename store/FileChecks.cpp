// Checks of the relume, herald, bucket and intent files.
#include "store/FileChecks.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "Loom/CorruptionException.h"
#include "Region/Error.h"
#include "Region/MappedFile.h"
#include "Vela/Hash.h"
#include "store/format/SeqRead.h"
#include "store/herald/Herald.h"
#include "store/herald/HeraldWriter.h"
#include "store/reader/BucketReader.h"
#include "store/slab/SlabIntent.h"

namespace Dock {

namespace {

[[noreturn]] void corrupt(const char* file, const std::string& text) {
   throw Loom::CorruptionException(fmt::format("{}: {}", file, text));
}

// Reads up to `len` bytes at `offset` of `path` into `buf` (zeroed first: bytes past the file's
// end stay zero) and returns the file's size, or -1 when the file is missing and `optional`.
// Throws Region::Error when it cannot be opened or read.
int64_t readAt(const std::string& path, void* buf, size_t len, uint64_t offset, bool optional) {
   std::memset(buf, 0, len);
   const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) {
      if (optional && errno == ENOENT) return -1;
      throw Region::Error::fromErrno("cannot open", path, errno);
   }
   struct stat st {};
   int err = 0;
   if (::fstat(fd, &st) != 0 || ::pread(fd, buf, len, off_t(offset)) < 0) err = errno;
   ::close(fd);
   if (err != 0) throw Region::Error::fromErrno("cannot read", path, err);
   return int64_t(st.st_size);
}

}  // namespace

uint32_t checkRelumeFile(const std::string& dir) {
   RelumeRecord r;
   const int64_t size = readAt(dir + "/" + kRelumeFile, &r, sizeof r, 0, false);
   if (size != int64_t(sizeof r)) {
      corrupt(kRelumeFile, fmt::format("bad header file size: {} wanted:{}", size, sizeof r));
   }
   if (r.magic != Region::kRelumeMagic)
      corrupt(kRelumeFile, fmt::format("bad magic: {:x}", r.magic));
   const uint32_t check = Vela::oneAtATimeOf(r.relume);
   if (r.check != check) {
      corrupt(kRelumeFile, fmt::format("checksum fail: {:x} != {:x}", check, r.check));
   }
   if (r.relume == 0) corrupt(kRelumeFile, "bad relume:0");  // 0 names no writer
   return r.relume;
}

void checkHeraldFile(const std::string& dir, uint32_t wantedRelume) {
   const std::string path = Herald::path(dir);
   HeaderCopy<HeraldHeader> copy;
   const auto size = uint64_t(readAt(path, copy.bytes, sizeof copy.bytes, 0, false));
   const HeraldHeader& h = *copy;
   std::string reason;
   if (!Herald::validate(h, size, wantedRelume, reason)) corrupt(kHeraldFile, reason);
   if (size >= Region::kLargestMapping) corrupt(kHeraldFile, fmt::format("bad file size:{}", size));
   const uint64_t pos = h.writerPos.load(std::memory_order_relaxed);
   if (pos != 0) {
      HeaderCopy<Notification> latest;
      const uint64_t index = (pos - 1) & (h.capacity - 1);
      readAt(path, latest.bytes, sizeof latest.bytes,
             kHeraldHeaderSize + index * sizeof(Notification), false);
      const uint64_t seq = latest->seq.load(std::memory_order_relaxed);
      if (seq != h.seqBase + pos - 1) {
         corrupt(kHeraldFile,
                 fmt::format("bad writerPos: {} latest notification seq:{:#x} wanted:{:#x}", pos,
                             seq, h.seqBase + pos - 1));
      }
   }
   const std::pair<const char*, uint64_t> marks[] = {
       {"shrinkStart", h.shrinkStart.load(std::memory_order_relaxed)},
       {"shrinkEnd", h.shrinkEnd.load(std::memory_order_relaxed)}};
   for (const auto& [name, mark] : marks) {
      if (mark != kNoShrinkMark && mark >= pos) {
         corrupt(kHeraldFile, fmt::format("bad {}: {} writerPos: {}", name, mark, pos));
      }
   }
}

void checkBucketChains(const std::atomic<uint32_t>* heads, uint32_t numBuckets, const Slot* slots,
                       uint32_t numSlots) {
   std::vector<bool> reached(numSlots, false);
   for (uint32_t b = 0; b < numBuckets; ++b) {
      uint32_t s = heads[b].load(std::memory_order_acquire);
      if (s != kNone && s >= numSlots) {
         corrupt(kBucketsFile,
                 fmt::format("bad head: {} of bucket {} numSlots: {}", s, b, numSlots));
      }
      for (uint32_t steps = 0; s != kNone; ++steps) {
         if (steps == numSlots) corrupt(kBucketsFile, fmt::format("chain of bucket {} loops", b));
         if ((slots[s].keyHash.load(std::memory_order_relaxed) & (numBuckets - 1)) == b) {
            reached[s] = true;
         }
         const uint32_t next = slots[s].next.load(std::memory_order_relaxed);
         if (next != kNone && next >= numSlots) {
            corrupt(kBucketsFile, fmt::format("bad next: {} of slot {} in bucket {} numSlots: {}",
                                              next, s, b, numSlots));
         }
         s = next;
      }
   }
   for (uint32_t s = 0; s < numSlots; ++s) {
      if (reached[s] || !(slots[s].flags.load(std::memory_order_relaxed) & kOccupied)) continue;
      const uint32_t hash = slots[s].keyHash.load(std::memory_order_relaxed);
      corrupt(kBucketsFile,
              fmt::format("occupied slot {} with keyHash {:#x} is not reachable from bucket {}", s,
                          hash, hash & (numBuckets - 1)));
   }
}

void checkBucketFile(const std::string& dir, uint32_t relume, uint32_t hashSeed, const Slot* slots,
                     uint32_t numSlots) {
   BucketReader reader;
   std::string reason;
   if (!reader.attach(dir, reason) || !reader.validate(relume, hashSeed, reason)) {
      corrupt(kBucketsFile, reason);
   }
   const uint32_t n = sizeWordNumSlots(reader.sizeWord());
   reader.follow(n);
   if (reader.numBuckets() != n) {
      corrupt(kBucketsFile, fmt::format("bad numBuckets: {} mapped: {}", n, reader.numBuckets()));
   }
   const auto* heads = reinterpret_cast<const std::atomic<uint32_t>*>(
       reinterpret_cast<const uint8_t*>(reader.header()) + kBucketHeaderSize);
   checkBucketChains(heads, n, slots, numSlots);
}

void checkIntentFile(const std::string& dir) {
   HeaderCopy<IntentRecord> copy;
   const int64_t size = readAt(dir + "/" + kIntentFile, copy.bytes, sizeof copy.bytes, 0, true);
   const IntentRecord& r = *copy;
   if (size < 0) return;  // made by the next writer; nothing to repair from
   if (size < int64_t(kIntentSize)) {
      corrupt(kIntentFile, fmt::format("bad header file size: {} wanted:{}", size, kIntentSize));
   }
   if (r.magic != kIntentMagic) corrupt(kIntentFile, fmt::format("bad magic: {:x}", r.magic));
   if (r.version != kIntentVersion) corrupt(kIntentFile, fmt::format("bad version: {}", r.version));
   const uint32_t op = r.op.load(std::memory_order_relaxed);
   if (op != 0 && ((op >> 8) > uint32_t(Tessel::SlabOp::kShrink) || (op >> 8) == 0 ||
                   (op & 0xff) >= kNumSlabs)) {
      corrupt(kIntentFile, fmt::format("bad op: {:#x}", op));
   }
}

}  // namespace Dock
