// Bounded little-endian cursors for the byte forms of tunnel values and entries.
//
// Every record that lives in shared memory is written with a ByteWriter and read back with a
// ByteReader. Integers are little-endian in their declared width whatever the host order, booleans
// take one byte (0 or 1), floats are their IEEE-754 bit pattern as a 32-bit integer, and fixed
// blocks (vias, addresses, endpoints) are written through their own serialize/deserialize.
//
// The writer sizes nothing: the caller hands it a buffer of serializeLen() bytes, so running past
// the end is a programming error and asserts. The reader works on bytes another process wrote and
// that may be truncated or corrupt: it never reads past its length. Its plain readers throw
// ByteFormatError on overrun; the try* readers report overrun by returning false and are noexcept,
// for deserializeLen, which must answer 0 for a truncated record rather than throw.
//
// Collections (a u32 count, then the live places in index order, each in its block size) are
// written and read by writeCollection/readCollection; a count above the capacity is refused with
// the array library's size error.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "Vela/ArraySizeError.h"
#include "Vela/Assert.h"
#include "Vela/Exception.h"
#include "Vela/FixedArray.h"

namespace Tunnel::TunnelTable {

// Bytes that cannot be the byte form of the value being read (truncated, or holding a field value
// the type cannot take).
class ByteFormatError : public Vela::Exception {
  public:
   using Vela::Exception::Exception;
};

// On a little-endian host (outside constant evaluation) an integer's byte form is its own image,
// so each is one move; otherwise the bytes are assembled one by one.
template <typename T>
constexpr void storeLe(uint8_t* p, T v) noexcept {
   if (std::endian::native == std::endian::little && !std::is_constant_evaluated()) {
      std::memcpy(p, &v, sizeof(T));
   } else {
      for (size_t i = 0; i < sizeof(T); ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
   }
}
template <typename T>
constexpr T loadLe(const uint8_t* p) noexcept {
   if (std::endian::native == std::endian::little && !std::is_constant_evaluated()) {
      T v;
      std::memcpy(&v, p, sizeof(T));
      return v;
   }
   T v = 0;
   for (size_t i = sizeof(T); i-- > 0;) v = static_cast<T>((v << 8) | p[i]);
   return v;
}
constexpr void storeLe16(uint8_t* p, uint16_t v) noexcept {
   storeLe(p, v);
}
constexpr void storeLe32(uint8_t* p, uint32_t v) noexcept {
   storeLe(p, v);
}
constexpr void storeLe64(uint8_t* p, uint64_t v) noexcept {
   storeLe(p, v);
}
constexpr uint16_t loadLe16(const uint8_t* p) noexcept {
   return loadLe<uint16_t>(p);
}
constexpr uint32_t loadLe32(const uint8_t* p) noexcept {
   return loadLe<uint32_t>(p);
}
constexpr uint64_t loadLe64(const uint8_t* p) noexcept {
   return loadLe<uint64_t>(p);
}

class ByteWriter {
  public:
   // REQUIRES: `buffer` holds at least `capacity` writable bytes.
   ByteWriter(void* buffer, size_t capacity) noexcept
       : p_(static_cast<uint8_t*>(buffer)), capacity_(capacity) {}

   void u8(uint8_t v) { *reserve(1) = v; }
   void u16(uint16_t v) { storeLe16(reserve(2), v); }
   void u32(uint32_t v) { storeLe32(reserve(4), v); }
   void u64(uint64_t v) { storeLe64(reserve(8), v); }
   void f32(float v) { u32(std::bit_cast<uint32_t>(v)); }
   void boolean(bool v) { u8(v ? 1 : 0); }
   void bytes(const void* data, size_t n) {
      if (n != 0) std::memcpy(reserve(n), data, n);
   }
   void zeros(size_t n) {
      if (n != 0) std::memset(reserve(n), 0, n);
   }
   // A fixed block: Block::kSerializedSize bytes written by Block::serialize(uint8_t*).
   template <typename Block>
   void block(const Block& b) {
      b.serialize(reserve(Block::kSerializedSize));
   }
   // Hands out the next n bytes for the caller to fill, and moves past them.
   uint8_t* reserve(size_t n) {
      VELA_ASSERT(n <= capacity_ - offset_ && "byte form runs past the end of its buffer");
      uint8_t* at = p_ + offset_;
      offset_ += n;
      return at;
   }

   size_t offset() const noexcept { return offset_; }
   size_t remaining() const noexcept { return capacity_ - offset_; }

  private:
   uint8_t* p_;
   size_t capacity_;
   size_t offset_ = 0;
};

class ByteReader {
  public:
   // Reads at most `length` bytes from `buffer`.
   ByteReader(const void* buffer, size_t length) noexcept
       : p_(static_cast<const uint8_t*>(buffer)), length_(length) {}

   uint8_t u8() { return *take(1); }
   uint16_t u16() { return loadLe16(take(2)); }
   uint32_t u32() { return loadLe32(take(4)); }
   uint64_t u64() { return loadLe64(take(8)); }
   float f32() { return std::bit_cast<float>(u32()); }
   // A boolean byte must be 0 or 1: anything else is not a byte form this library wrote.
   bool boolean() {
      const uint8_t v = u8();
      if (v > 1) [[unlikely]]
         throwNotBoolean(v);
      return v == 1;
   }
   void bytes(void* out, size_t n) {
      if (n != 0) std::memcpy(out, take(n), n);
   }
   template <typename Block>
   Block block() {
      return Block::deserialize(take(Block::kSerializedSize));
   }
   // The next n bytes, in place, and moves past them; throws if fewer remain.
   const uint8_t* take(size_t n) {
      if (n > length_ - offset_) [[unlikely]]
         throwTruncated(n);
      const uint8_t* at = p_ + offset_;
      offset_ += n;
      return at;
   }
   void skip(size_t n) { (void)take(n); }

   // Non-throwing forms: false (and the cursor unmoved) when the bytes are not there.
   bool has(size_t n) const noexcept { return n <= length_ - offset_; }
   bool trySkip(size_t n) noexcept {
      if (!has(n)) return false;
      offset_ += n;
      return true;
   }
   bool tryU8(uint8_t& out) noexcept {
      if (!has(1)) return false;
      out = p_[offset_++];
      return true;
   }
   bool tryU16(uint16_t& out) noexcept {
      if (!has(2)) return false;
      out = loadLe16(p_ + offset_);
      offset_ += 2;
      return true;
   }
   bool tryU32(uint32_t& out) noexcept {
      if (!has(4)) return false;
      out = loadLe32(p_ + offset_);
      offset_ += 4;
      return true;
   }
   bool tryU64(uint64_t& out) noexcept {
      if (!has(8)) return false;
      out = loadLe64(p_ + offset_);
      offset_ += 8;
      return true;
   }

   const uint8_t* data() const noexcept { return p_; }
   size_t offset() const noexcept { return offset_; }
   size_t length() const noexcept { return length_; }
   size_t remaining() const noexcept { return length_ - offset_; }

  private:
   // The errors are built out of line, so that the readers stay small enough to inline.
   [[noreturn, gnu::cold, gnu::noinline]] void throwTruncated(size_t n) const {
      throw ByteFormatError("byte form truncated: " + std::to_string(n) +
                            " bytes needed at offset " + std::to_string(offset_) + " of " +
                            std::to_string(length_));
   }
   [[noreturn, gnu::cold, gnu::noinline]] void throwNotBoolean(uint8_t v) const {
      throw ByteFormatError("boolean byte " + std::to_string(v) + " at offset " +
                            std::to_string(offset_ - 1) + " is neither 0 nor 1");
   }

   const uint8_t* p_;
   size_t length_;
   size_t offset_ = 0;
};

// Writes a fixed-capacity array of fixed blocks: its count, then every live place in index order.
template <typename T, typename Index, size_t Capacity>
void writeCollection(ByteWriter& w, const Vela::FixedArray<T, Index, Capacity>& array) {
   w.u32(static_cast<uint32_t>(array.count()));
   for (const T& element : array) w.block(element);
}

// Bytes of a collection of Block at the reader's position; moves past it. False (cursor
// position unspecified) when the count exceeds `capacity` or the elements run past the end.
template <typename Block>
bool trySkipCollection(ByteReader& r, size_t capacity) noexcept {
   uint32_t count = 0;
   if (!r.tryU32(count) || count > capacity) return false;
   return r.trySkip(size_t{count} * Block::kSerializedSize);
}

// Replaces the contents of `array` with the collection at the reader's position. A count above
// the capacity throws Vela::ArraySizeError naming the capacity and the count.
template <typename T, typename Index, size_t Capacity>
void readCollection(ByteReader& r, Vela::FixedArray<T, Index, Capacity>& array) {
   const size_t countAt = r.offset();
   const uint32_t count = r.u32();
   if (count > Capacity) {
      throw Vela::ArraySizeError::make(Capacity, count, r.data() + countAt, r.length() - countAt);
   }
   array.delAll();
   for (uint32_t i = 0; i < count; ++i) array.is(Index(i), r.block<T>());
}

// Host byte order, for the records whose layout is the value's own in-memory image (the RIB and
// FIB entries keep their counts so).
inline uint32_t loadHost32(const uint8_t* p) noexcept {
   uint32_t v;
   std::memcpy(&v, p, 4);
   return v;
}
inline void storeHost32(uint8_t* p, uint32_t v) noexcept {
   std::memcpy(p, &v, 4);
}

// Reads a host-order collection count at the reader's position; a count above `capacity` is the
// array library's size error, dumping the bytes from the count on.
inline uint32_t readHostCount(ByteReader& r, uint32_t capacity) {
   const size_t at = r.offset();
   const uint32_t count = loadHost32(r.take(4));
   if (count > capacity) {
      throw Vela::ArraySizeError::make(capacity, count, r.data() + at, r.length() - at);
   }
   return count;
}

}  // namespace Tunnel::TunnelTable
