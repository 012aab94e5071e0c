// BucketReader: a plain reader's read-only view of a table's bucket file (the heads of the
// writer's key hash chains; layout in BucketWriter.h and store/format/Layout.h).
//
// The writer brackets a change of the bucket count with two increments of the resize counter in
// sizeWord (odd while chains move). A walk is trusted only if sizeWord is unchanged at its end; one
// under an odd word walks both candidate buckets of a key (see ReaderHashMap).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "store/format/Layout.h"

namespace Region {
class MappedFile;
}

namespace Dock {

class BucketReader {
  public:
   BucketReader();
   ~BucketReader();

   // Maps <dir>/buckets read-only. False with the reason when it cannot.
   bool attach(const std::string& dir, std::string& reason);
   // Checks magic, version, relume, hash seed and check word, and the count against the file.
   bool validate(uint32_t relume, uint32_t hashSeed, std::string& reason) const;
   void detach();
   bool attached() const { return header_ != nullptr; }

   // sizeWord, acquire: pairs with the writer's release stores around a rehash.
   uint64_t sizeWord() const { return header_->sizeWord.load(std::memory_order_acquire); }
   // The bucket count this reader has mapped.
   uint32_t numBuckets() const { return numBuckets_; }
   // Follows the header's count ("found mismatch, local numBuckets:{} header numBuckets:{}"),
   // re-mapping the file when it grew (a rehash grows the file before it publishes the count,
   // so an odd sizeWord's count is followed too). Never beyond the mapped heads.
   void follow(uint32_t count);
   // Head of a chain, acquire: pairs with the writer's release store when it links a slot.
   uint32_t head(uint32_t bucket) const {
      return bucket < mappedBuckets_ ? heads_[bucket].load(std::memory_order_acquire) : kNone;
   }
   const BucketHeader* header() const { return header_; }

   static uint32_t checkOf(uint64_t magic, uint32_t version, uint32_t relume, uint32_t hashSeed);

  private:
   void map();

   std::unique_ptr<Region::MappedFile> file_;
   const BucketHeader* header_ = nullptr;
   const std::atomic<uint32_t>* heads_ = nullptr;
   uint32_t mappedBuckets_ = 0;
   uint32_t numBuckets_ = 0;
};

}  // namespace Dock
