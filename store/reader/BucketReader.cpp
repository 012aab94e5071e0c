// BucketReader: mapping, checking and following the bucket file.
#include "store/reader/BucketReader.h"

#include "Region/MappedFile.h"
#include "Spoor/Trace.h"
#include "Vela/Exception.h"

namespace Dock {

BucketReader::BucketReader() = default;
BucketReader::~BucketReader() = default;

uint32_t BucketReader::checkOf(uint64_t magic, uint32_t version, uint32_t relume,
                               uint32_t hashSeed) {
   // FNV-1a over magic..relume and hashSeed, as the writer stamps it.
   uint32_t x = 0x811c9dc5u;
   auto feed = [&x](uint64_t v, int bytes) {
      for (int i = 0; i < bytes; ++i) {
         x ^= uint8_t(v >> (8 * i));
         x *= 0x01000193u;
      }
   };
   feed(magic, 8);
   feed(version, 4);
   feed(relume, 4);
   feed(hashSeed, 4);
   return x;
}

bool BucketReader::attach(const std::string& dir, std::string& reason) {
   detach();
   try {
      file_ = std::make_unique<Region::MappedFile>(
          Region::MappedFile::openReadOnly(dir + "/" + kBucketsFile));
   } catch (const Vela::Exception& e) {
      reason = e.what();
      file_.reset();
      return false;
   }
   if (file_->size() < kBucketHeaderSize) {
      reason = fmt::format("bad header file size: {} wanted:{}", file_->size(), kBucketHeaderSize);
      file_.reset();
      return false;
   }
   map();
   numBuckets_ = std::min(mappedBuckets_, sizeWordNumSlots(sizeWord()));
   return true;
}

void BucketReader::map() {
   header_ = reinterpret_cast<const BucketHeader*>(file_->data());
   heads_ = reinterpret_cast<const std::atomic<uint32_t>*>(file_->data() + kBucketHeaderSize);
   mappedBuckets_ = uint32_t((file_->size() - kBucketHeaderSize) / sizeof(uint32_t));
}

bool BucketReader::validate(uint32_t relume, uint32_t hashSeed, std::string& reason) const {
   const BucketHeader& h = *header_;
   if (h.magic != kBucketMagic) {
      reason = fmt::format("bad magic: {:x}", h.magic);
      return false;
   }
   if (h.version != kBucketVersion) {
      reason = fmt::format("bad version: {}", h.version);
      return false;
   }
   if (h.relume != relume) {
      reason = fmt::format("bad relume:{} wanted:{}", h.relume, relume);
      return false;
   }
   const uint32_t check = checkOf(h.magic, h.version, h.relume, h.hashSeed);
   if (h.hashSeed != hashSeed || h.check != check) {
      reason = fmt::format("checksum fail: {:x} != {:x}", check, h.check);
      return false;
   }
   const uint32_t n = sizeWordNumSlots(sizeWord());
   if (n == 0 || (n & (n - 1)) != 0 ||
       file_->fileSize() < kBucketHeaderSize + uint64_t(n) * sizeof(uint32_t)) {
      reason = fmt::format("bad numBuckets: {} file size:{}", n, file_->fileSize());
      return false;
   }
   return true;
}

void BucketReader::follow(uint32_t count) {
   if (count == numBuckets_) return;
   SPOOR_TRACE(Spoor::handle("DockReader"), 7,
               "found mismatch, local numBuckets:{} header numBuckets:{}", numBuckets_, count);
   if (count > mappedBuckets_) {
      file_->remap();
      map();
   }
   numBuckets_ = std::min(count, mappedBuckets_);
}

void BucketReader::detach() {
   file_.reset();
   header_ = nullptr;
   heads_ = nullptr;
   mappedBuckets_ = numBuckets_ = 0;
}

}  // namespace Dock
