// Herald: header checks shared by the queue's writer and readers.
#include "store/herald/Herald.h"

#include <fmt/format.h>

namespace Dock::Herald {

std::string path(const std::string& dir) {
   return dir + "/" + kHeraldFile;
}

bool validate(const HeraldHeader& header, size_t fileSize, uint32_t wantedRelume,
              std::string& reason) {
   if (fileSize < kHeraldHeaderSize) {
      reason = fmt::format("bad header file size: {} wanted:{}", fileSize, kHeraldHeaderSize);
      return false;
   }
   if (header.magic != kHeraldMagic) {
      reason = fmt::format("bad magic: {:x}", header.magic);
      return false;
   }
   if (header.version != kHeraldVersion) {
      reason = fmt::format("bad version: {}", header.version);
      return false;
   }
   const uint32_t relume = relumeOf(header);
   if (wantedRelume != 0 && relume != wantedRelume) {
      reason = fmt::format("bad relume:{} wanted:{}", relume, wantedRelume);
      return false;
   }
   const uint32_t capacity = header.capacity;
   if (capacity < 2 || (capacity & (capacity - 1)) != 0) {
      reason = fmt::format("bad capacity: {}", capacity);
      return false;
   }
   if (fileSize < fileSizeFor(capacity)) {
      reason = fmt::format("bad shmem size:{} wanted:{} for {} notifications", fileSize,
                           fileSizeFor(capacity), capacity);
      return false;
   }
   return true;
}

}  // namespace Dock::Herald
