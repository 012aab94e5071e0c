// The shared bucket file: creation in place, resizing brackets, header check.
#include "store/writer/BucketWriter.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "Region/MappedFile.h"
#include "Vela/Assert.h"

namespace Dock {

BucketWriter::BucketWriter() = default;
BucketWriter::~BucketWriter() = default;

namespace {
size_t fileSizeFor(uint32_t numBuckets) {
   return kBucketHeaderSize + size_t(numBuckets) * sizeof(uint32_t);
}
bool exists(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0;
}
}  // namespace

uint32_t BucketWriter::checkOf(const BucketHeader& h) {
   // FNV-1a over magic..relume and hashSeed.
   uint32_t x = 0x811c9dc5u;
   auto feed = [&x](const void* p, size_t n) {
      const auto* b = static_cast<const unsigned char*>(p);
      for (size_t i = 0; i < n; ++i) {
         x ^= b[i];
         x *= 0x01000193u;
      }
   };
   const uint64_t magic = h.magic.load(std::memory_order_relaxed);
   const uint32_t version = h.version.load(std::memory_order_relaxed);
   const uint32_t relume = h.relume.load(std::memory_order_relaxed);
   const uint32_t seed = h.hashSeed.load(std::memory_order_relaxed);
   feed(&magic, sizeof magic);
   feed(&version, sizeof version);
   feed(&relume, sizeof relume);
   feed(&seed, sizeof seed);
   return x;
}

void BucketWriter::map() {
   header_ = reinterpret_cast<BucketHeader*>(file_->data());
   heads_ = reinterpret_cast<std::atomic<uint32_t>*>(file_->data() + kBucketHeaderSize);
}

void BucketWriter::reserveMirror(uint32_t count, CriticalYield* yield) {
   if (count <= mirrorCapacity_) return;
   // Huge pages once the mirror is large enough to be worth a 2 MiB page.
   const size_t bytes = size_t(count) * sizeof(ChainStart);
   HugePageBuffer grown(bytes, bytes >= HugePageBuffer::kHugePage / 2);
   // Faulted in first, a huge page at a time; then copied in pieces of a millisecond or less.
   if (yield) grown.faultIn(0, grown.size(), *yield);
   constexpr uint32_t kPiece = 1u << 15;
   for (uint32_t i = 0; mirror_ && i < numBuckets_; i += kPiece) {
      std::memcpy(grown.as<ChainStart>() + i, mirror_ + i,
                  size_t(std::min(kPiece, numBuckets_ - i)) * sizeof(ChainStart));
      if (yield) yield->check();
   }
   mirrorBuffer_ = std::move(grown);
   mirror_ = mirrorBuffer_.as<ChainStart>();
   mirrorCapacity_ =
       uint32_t(std::min<size_t>(mirrorBuffer_.size() / sizeof(ChainStart), UINT32_MAX));
}

void BucketWriter::create(const std::string& path, uint32_t relume, uint32_t hashSeed,
                          uint32_t numBuckets) {
   VELA_ASSERT(numBuckets > 0 && (numBuckets & (numBuckets - 1)) == 0);
   const size_t size = fileSizeFor(numBuckets);
   if (exists(path)) {
      file_ = std::make_unique<Region::MappedFile>(Region::MappedFile::openReadWrite(path));
      if (file_->fileSize() < size) file_->resize(size);
   } else {
      file_ = std::make_unique<Region::MappedFile>(Region::MappedFile::create(path, size));
   }
   map();
   // An odd counter while the header and heads are rewritten: a plain reader retries.
   const uint64_t old =
       file_->size() >= kBucketHeaderSize ? header_->sizeWord.load(std::memory_order_relaxed) : 0;
   uint32_t counter = sizeWordCounter(old) | 1u;
   header_->sizeWord.store(makeSizeWord(counter, numBuckets), std::memory_order_relaxed);
   releaseFence();  // pairs with the reader's acquire fence
   // The file may be rewritten in place under readers (a restarted writer): atomic stores, so
   // that a reader's concurrent copy is a race-free, retried read rather than a data race.
   header_->magic.store(kBucketMagic, std::memory_order_relaxed);
   header_->version.store(kBucketVersion, std::memory_order_relaxed);
   header_->relume.store(relume, std::memory_order_relaxed);
   header_->hashSeed.store(hashSeed, std::memory_order_relaxed);
   header_->check.store(checkOf(*header_), std::memory_order_relaxed);
   numBuckets_ = 0;
   reserveMirror(numBuckets);
   for (uint32_t i = 0; i < numBuckets; ++i) {
      heads_[i].store(kNone, std::memory_order_relaxed);
      mirror_[i] = ChainStart{};
   }
   numBuckets_ = numBuckets;
   header_->sizeWord.store(makeSizeWord(counter + 1, numBuckets), std::memory_order_release);
}

void BucketWriter::detach() {
   file_.reset();
   header_ = nullptr;
   heads_ = nullptr;
   numBuckets_ = 0;
   mirrorBuffer_ = HugePageBuffer();
   mirror_ = nullptr;
   mirrorCapacity_ = 0;
}

void BucketWriter::beginResize(uint32_t newCount, CriticalYield* yield) {
   VELA_ASSERT(newCount > 0 && (newCount & (newCount - 1)) == 0);
   const size_t size = fileSizeFor(newCount);
   if (file_->fileSize() < size) {
      file_->resize(size);
      map();
      if (yield) yield->runNow();
   }
   reserveMirror(newCount, yield);
   for (uint32_t i = numBuckets_; i < newCount; ++i) {
      heads_[i].store(kNone, std::memory_order_relaxed);
      mirror_[i] = ChainStart{};
      if (yield && i % 8192 == 8191) yield->check();
   }
   const uint64_t old = header_->sizeWord.load(std::memory_order_relaxed);
   // Release: the emptied heads are visible with the new count. The fence orders the odd
   // counter before the relinking stores; it pairs with the reader's acquire fence before its
   // second load of sizeWord.
   header_->sizeWord.store(makeSizeWord(sizeWordCounter(old) + 1, newCount),
                           std::memory_order_release);
   releaseFence();
   numBuckets_ = newCount;
}

void BucketWriter::endResize(uint32_t finalCount) {
   VELA_ASSERT(finalCount > 0 && finalCount <= numBuckets_);
   numBuckets_ = finalCount;
   const uint64_t old = header_->sizeWord.load(std::memory_order_relaxed);
   // Release: the relinked chains are visible before the even counter.
   header_->sizeWord.store(makeSizeWord(sizeWordCounter(old) + 1, finalCount),
                           std::memory_order_release);
}

bool BucketWriter::validate(uint32_t relume, uint32_t hashSeed, std::string& reason) const {
   if (header_ == nullptr || file_->size() < kBucketHeaderSize) {
      reason = "bucket file too short";
      return false;
   }
   if (header_->magic != kBucketMagic) {
      reason = fmt::format("bad magic: {:x}", header_->magic);
      return false;
   }
   if (header_->version != kBucketVersion) {
      reason = fmt::format("bad version: {}", header_->version);
      return false;
   }
   if (header_->relume != relume) {
      reason = fmt::format("bad relume:{} wanted:{}", header_->relume, relume);
      return false;
   }
   if (header_->hashSeed != hashSeed || header_->check != checkOf(*header_)) {
      reason = fmt::format("checksum fail: {:x} != {:x}", checkOf(*header_), header_->check);
      return false;
   }
   const uint32_t n = sizeWordNumSlots(header_->sizeWord.load(std::memory_order_relaxed));
   if (n == 0 || (n & (n - 1)) != 0 || file_->fileSize() < fileSizeFor(n)) {
      reason = fmt::format("bad numBuckets: {} file size:{}", n, file_->fileSize());
      return false;
   }
   return true;
}

}  // namespace Dock
