// A file mapped MAP_SHARED into this process: the unit every store file is accessed through.
//
// The writer creates and resizes its files; readers map them PROT_READ and follow the writer's
// resizes with remap(). A file is never truncated below a size a reader may have mapped: shrinking
// keeps the file's length and releases the tail pages with FALLOC_FL_PUNCH_HOLE, so a reader that
// still touches the tail reads zeros instead of taking SIGBUS. The mapping may move on resize or
// remap; callers re-derive their pointers from data() afterwards.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Region {

// Largest file this layer maps: 64 GiB. A header that claims a larger file is corrupt, and a
// size computed from header fields that reaches it counts as an overflow.
constexpr uint64_t kLargestMapping = uint64_t(1) << 36;

// header + count * each, or throws Region::Error ("{} + {} * {} reaches the largest mapping size
// {}") when the result is not below kLargestMapping.
uint64_t checkedRegionSize(uint64_t header, uint64_t count, uint64_t each);

class MappedFile {
  public:
   MappedFile() = default;
   ~MappedFile();
   MappedFile(MappedFile&& other) noexcept;
   MappedFile& operator=(MappedFile&& other) noexcept;
   MappedFile(const MappedFile&) = delete;
   MappedFile& operator=(const MappedFile&) = delete;

   // Creates `path` as a new file of `size` zero bytes and maps it read-write. An existing file
   // is unlinked first, never truncated, so readers that still map it keep valid pages. The file
   // gets exactly `mode`, whatever the umask; when sizing or mapping fails it is removed again.
   static MappedFile create(const std::string& path, size_t size, mode_t mode = 0644);
   // Maps an existing file at its current size.
   static MappedFile openReadWrite(const std::string& path);
   static MappedFile openReadOnly(const std::string& path);  // PROT_READ mapping

   uint8_t* data() const { return data_; }
   size_t size() const { return size_; }  // mapped bytes
   size_t fileSize() const;               // the file's current length (fstat)
   bool readOnly() const { return readOnly_; }
   int fd() const { return fd_; }
   const std::string& path() const { return path_; }
   explicit operator bool() const { return fd_ >= 0; }

   // Writer. Growing extends the file and the mapping (which may move). Shrinking keeps the file
   // length and the mapping and punches out the whole pages past newSize, which then read as zeros.
   // REQUIRES: !readOnly().
   void resize(size_t newSize);
   // Reader (or writer): map the file's current length. Returns true when the mapping moved.
   bool remap();
   // Unmaps and closes; the object becomes empty.
   void close();

  private:
   MappedFile(std::string path, int fd, bool readOnly);
   void mapAt(size_t size);

   std::string path_;
   int fd_ = -1;
   bool readOnly_ = false;
   uint8_t* data_ = nullptr;
   size_t size_ = 0;
};

}  // namespace Region
