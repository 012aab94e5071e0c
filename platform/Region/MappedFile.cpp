#include "Region/MappedFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Region/Error.h"
#include "Vela/Assert.h"

namespace Region {

uint64_t checkedRegionSize(uint64_t header, uint64_t count, uint64_t each) {
   uint64_t product = 0;
   if (header >= kLargestMapping || __builtin_mul_overflow(count, each, &product) ||
       product >= kLargestMapping - header) {
      throw Error(fmt::format("{} + {} * {} reaches the largest mapping size {}", header, count,
                              each, kLargestMapping));
   }
   return header + product;
}

namespace {

size_t pageSize() {
   static const size_t page = size_t(::sysconf(_SC_PAGESIZE));
   return page;
}

size_t statSize(int fd, const std::string& path) {
   struct stat st;
   if (::fstat(fd, &st) != 0) throw Error::fromErrno("cannot stat", path, errno);
   return size_t(st.st_size);
}

}  // namespace

MappedFile::MappedFile(std::string path, int fd, bool readOnly)
    : path_(std::move(path)), fd_(fd), readOnly_(readOnly) {}

MappedFile::~MappedFile() {
   close();
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : path_(std::move(other.path_)),
      fd_(std::exchange(other.fd_, -1)),
      readOnly_(other.readOnly_),
      data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
   if (this != &other) {
      close();
      path_ = std::move(other.path_);
      fd_ = std::exchange(other.fd_, -1);
      readOnly_ = other.readOnly_;
      data_ = std::exchange(other.data_, nullptr);
      size_ = std::exchange(other.size_, 0);
   }
   return *this;
}

void MappedFile::close() {
   if (data_) ::munmap(data_, size_);
   if (fd_ >= 0) ::close(fd_);
   data_ = nullptr;
   size_ = 0;
   fd_ = -1;
}

void MappedFile::mapAt(size_t size) {
   if (size == size_ && data_) return;
   if (size >= kLargestMapping) {
      throw Error(fmt::format("cannot map {}: size {} reaches the largest mapping size {}", path_,
                              size, kLargestMapping));
   }
   if (size == 0) {
      if (data_) ::munmap(data_, size_);
      data_ = nullptr;
      size_ = 0;
      return;
   }
   void* p;
   if (data_) {
      p = ::mremap(data_, size_, size, MREMAP_MAYMOVE);
   } else {
      p = ::mmap(nullptr, size, readOnly_ ? PROT_READ : PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
   }
   if (p == MAP_FAILED) throw Error::fromErrno("cannot map", path_, errno);
   data_ = static_cast<uint8_t*>(p);
   size_ = size;
}

MappedFile MappedFile::create(const std::string& path, size_t size, mode_t mode) {
   // A new file, never the old one truncated: readers may still map the old file, and a
   // truncated mapping raises SIGBUS. They keep the old pages until they notice the change.
   if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
      throw Error::fromErrno("cannot replace", path, errno);
   }
   int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
   if (fd < 0) throw Error::fromErrno("cannot create", path, errno);
   MappedFile f(path, fd, false);
   try {
      // open() applies the process umask; the mode readers rely on is set exactly.
      if (::fchmod(fd, mode) != 0) throw Error::fromErrno("cannot set the mode of", path, errno);
      if (::ftruncate(fd, off_t(size)) != 0) throw Error::fromErrno("cannot size", path, errno);
      f.mapAt(size);
   } catch (...) {
      // A file this call made and could not finish is not left behind.
      f.close();
      ::unlink(path.c_str());
      throw;
   }
   return f;
}

MappedFile MappedFile::openReadWrite(const std::string& path) {
   int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
   if (fd < 0) throw Error::fromErrno("cannot open", path, errno);
   MappedFile f(path, fd, false);
   f.mapAt(statSize(fd, path));
   return f;
}

MappedFile MappedFile::openReadOnly(const std::string& path) {
   int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) throw Error::fromErrno("cannot open", path, errno);
   MappedFile f(path, fd, true);
   f.mapAt(statSize(fd, path));
   return f;
}

size_t MappedFile::fileSize() const {
   VELA_ASSERT(fd_ >= 0 && "MappedFile is not open");
   return statSize(fd_, path_);
}

void MappedFile::resize(size_t newSize) {
   VELA_ASSERT(fd_ >= 0 && !readOnly_ && "resize needs a file mapped read-write");
   const size_t current = statSize(fd_, path_);
   if (newSize >= current) {
      if (newSize >= kLargestMapping) {
         throw Error(fmt::format("cannot grow {} to {}: the largest mapping size is {}", path_,
                                 newSize, kLargestMapping));
      }
      if (newSize > current && ::ftruncate(fd_, off_t(newSize)) != 0) {
         throw Error::fromErrno("cannot grow", path_, errno);
      }
      mapAt(newSize);
      return;
   }
   // Shrink: the length stays (readers may have mapped it); whole pages past newSize are released.
   // The hole runs to the end of the last page: a hole that stops at a length inside a page only
   // zeroes that page, and it stays allocated.
   const size_t from = (newSize + pageSize() - 1) / pageSize() * pageSize();
   const size_t to = (current + pageSize() - 1) / pageSize() * pageSize();
   if (from < current && ::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(from),
                                     off_t(to - from)) != 0) {
      throw Error::fromErrno("cannot release the tail of", path_, errno);
   }
   if (size_ < current) mapAt(current);
}

bool MappedFile::remap() {
   VELA_ASSERT(fd_ >= 0 && "MappedFile is not open");
   uint8_t* before = data_;
   mapAt(statSize(fd_, path_));
   return before != nullptr && data_ != before;
}

}  // namespace Region
