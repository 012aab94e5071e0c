// MplsLabelOperation: what a via does to the label stack, bounded to kMaxLabels pushed labels so
// that it is a fixed 48-byte value and fits a via in shared memory. See MplsLabel.h for the kinds.
//
// Byte form (kSerializedSize = 48, little-endian):
//    struct {
//       u8  kind;          // MplsOpKind, must agree with pops and count
//       u8  count;         // pushed labels, 0..11
//       u8  pops;          // labels popped first, 0..255
//       u8  pad;           // zero
//       u32 labels[11];    // outermost first; each <= 0xFFFFF; places >= count are zero
//    };
//
// smush joins the operations of a tunnel that rides on another tunnel (see smush below).
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "Wirekit/ByteForm.h"
#include "Wirekit/MplsLabel.h"

namespace Wirekit {

class MplsLabelOperation {
  public:
   static constexpr size_t kMaxLabels = 11;
   static constexpr size_t kSerializedSize = 48;

   // The operation that does nothing (kind none).
   constexpr MplsLabelOperation() noexcept = default;
   // Parses the text form ("", "push 100 200", "swap 300", "pop 1", "pop 2 push 5"); throws
   // Vela::ParseException on bad text and LabelStackOverflow beyond kMaxLabels.
   explicit MplsLabelOperation(std::string_view text);

   // Factories. Labels are outermost first. Each throws Vela::RangeException for a label above
   // kMaxMplsLabel and LabelStackOverflow for more than kMaxLabels labels or kMaxMplsPopCount pops.
   // An empty push is none; an empty swap is pop 1; pop 0 is none.
   static MplsLabelOperation push(std::span<const uint32_t> labels);
   static MplsLabelOperation push(std::initializer_list<uint32_t> labels) {
      return push(std::span<const uint32_t>(labels.begin(), labels.size()));
   }
   // Replaces the top label by `labels` (one label: a plain swap).
   static MplsLabelOperation swap(std::span<const uint32_t> labels);
   static MplsLabelOperation swap(std::initializer_list<uint32_t> labels) {
      return swap(std::span<const uint32_t>(labels.begin(), labels.size()));
   }
   static MplsLabelOperation pop(unsigned count = 1);
   // The general form: pop `pops` labels, then push `labels`.
   static MplsLabelOperation popAndPush(unsigned pops, std::span<const uint32_t> labels);
   static MplsLabelOperation parse(std::string_view text) { return MplsLabelOperation(text); }

   constexpr MplsOpKind kind() const noexcept { return static_cast<MplsOpKind>(kind_); }
   constexpr bool isNone() const noexcept { return kind() == MplsOpKind::none; }
   constexpr unsigned popCount() const noexcept { return pops_; }
   constexpr size_t labelCount() const noexcept { return count_; }
   // Pushed labels, outermost first.
   std::span<const uint32_t> labels() const noexcept { return {labels_.data(), count_}; }
   // REQUIRES: i < labelCount().
   uint32_t label(size_t i) const;

   // The operation of a tunnel (this, the outer operation) carried over another tunnel whose via
   // does `inner`: first this operation is applied to the packet, then `inner`, so the inner
   // tunnel's labels end up above this one's. Throws LabelStackOverflow when the result would push
   // more than kMaxLabels labels or pop more than kMaxMplsPopCount. Rule table in the source.
   MplsLabelOperation smush(const MplsLabelOperation& inner) const;

   // One-at-a-time, continuing from `seed`, over kind, pops, count and the live labels (u32 each,
   // least significant byte first).
   uint32_t hash(uint32_t seed = 0) const noexcept;

   std::string stringValue() const;

   // Inline, as the readers are: entries write up to 600 operations in a row. On a
   // little-endian host the object's own image is the byte form (kind, count, pops, a zero pad
   // byte, the eleven places), so it goes out as three 16-byte moves instead of fifteen stores.
   void serialize(uint8_t* out) const noexcept {
      if constexpr (std::endian::native == std::endian::little) {
         std::memcpy(out, this, kSerializedSize);
      } else {
         out[0] = kind_;
         out[1] = count_;
         out[2] = pops_;
         out[3] = 0;
         for (size_t i = 0; i < kMaxLabels; ++i) {
            ByteForm::storeLe<uint32_t>(out + 4 + 4 * i, labels_[i]);
         }
      }
   }
   // Reads exactly kSerializedSize bytes; throws FormatError when they are not the byte form of
   // an operation (kind, count, pops and padding checked; labels range-checked; unused places 0).
   // Every byte is checked or kept, so an operation read is written back as the same bytes.
   static MplsLabelOperation deserialize(const uint8_t* in) {
      MplsLabelOperation op;
      if (op.readWellFormed(in)) [[likely]]
         return op;
      return deserializeChecked(in);
   }

   // Inline, without building an error: reads a well-formed byte form into *this and answers
   // true, or answers false (*this is then unspecified, its pad byte possibly set: callers
   // discard it). The checks are masks over the image, gathered rather than branched on;
   // deserialize is the reader of record: it accepts the same bytes and names the first thing
   // wrong with the others.
   bool readWellFormed(const uint8_t* in) noexcept {
      const uint32_t head = ByteForm::loadLe<uint32_t>(in);
      const bool headerOk = isWellFormedHeader(head);
      const size_t row = headerOk ? uint8_t(head >> 8) : 0;
      if constexpr (std::endian::native == std::endian::little) {
         // The byte form is the object's image (serialize): one copy, then the image checked
         // eight bytes at a time from the bytes read. Nothing is stored into the copy afterwards
         // (a nonzero pad byte is refused, not cleared): a store into its middle would keep the
         // caller's read of the whole object from being forwarded.
         std::memcpy(this, in, kSerializedSize);
         const auto& forbidden = kForbiddenImage[row];
         const auto word = [&](size_t k) {
            return ByteForm::loadLe<uint64_t>(in + 8 * k) & forbidden[k];
         };
         const uint64_t stray = (word(0) | word(1)) | (word(2) | word(3)) | (word(4) | word(5));
         return headerOk && stray == 0;
      } else {
         kind_ = uint8_t(head);
         count_ = uint8_t(head >> 8);
         pops_ = uint8_t(head >> 16);
         uint32_t stray = head >> 24;
         for (size_t i = 0; i < kMaxLabels; ++i) {
            labels_[i] = ByteForm::loadLe<uint32_t>(in + 4 + 4 * i);
            stray |= labels_[i] & kForbiddenBits[row][i];
         }
         return headerOk && stray == 0;
      }
   }

   // For readers that check many operations of one header (a via array) and for
   // readWellFormed: a byte form is well formed when its first four bytes, read as a
   // little-endian word, are a consistent header (pad byte aside) and its image, read as six
   // little-endian words, sets none of the bits forbiddenImage(count) gives.
   static constexpr bool isWellFormedHeader(uint32_t head) noexcept {
      const uint8_t kind = uint8_t(head), count = uint8_t(head >> 8), pops = uint8_t(head >> 16);
      // mplsOpKindOf answers a kind, so an unknown kind code never matches it.
      return count <= kMaxLabels && static_cast<uint8_t>(mplsOpKindOf(pops, count)) == kind;
   }
   // REQUIRES: count <= kMaxLabels.
   static constexpr const std::array<uint64_t, 6>& forbiddenImage(size_t count) noexcept {
      return kForbiddenImage[count];
   }

   friend bool operator==(const MplsLabelOperation&, const MplsLabelOperation&) noexcept = default;
   // Kind, then pops, then the labels lexicographically (a shorter prefix first).
   friend std::strong_ordering operator<=>(const MplsLabelOperation& a,
                                           const MplsLabelOperation& b) noexcept;

  private:
   static MplsLabelOperation deserializeChecked(const uint8_t* in);
   // Row c: the bits each place may not hold when c labels are pushed (a pushed label none above
   // its 20 bits, an unused place none at all).
   static constexpr auto kForbiddenBits = [] {
      std::array<std::array<uint32_t, kMaxLabels>, kMaxLabels + 1> rows{};
      for (size_t c = 0; c <= kMaxLabels; ++c) {
         for (size_t i = 0; i < kMaxLabels; ++i) rows[c][i] = i < c ? ~kMaxMplsLabel : ~uint32_t{0};
      }
      return rows;
   }();
   // The same rows laid over the whole image as little-endian words: the pad byte, then each
   // place at byte 4 + 4i.
   static constexpr auto kForbiddenImage = [] {
      std::array<std::array<uint64_t, 6>, kMaxLabels + 1> rows{};
      for (size_t c = 0; c <= kMaxLabels; ++c) {
         rows[c][0] = uint64_t{0xFF} << 24;
         for (size_t i = 0; i < kMaxLabels; ++i) {
            const size_t bit = 32 * (i + 1);
            rows[c][bit / 64] |= uint64_t{kForbiddenBits[c][i]} << (bit % 64);
         }
      }
      return rows;
   }();

   uint8_t kind_ = 0;
   uint8_t count_ = 0;
   uint8_t pops_ = 0;
   uint8_t pad_ = 0;  // 0 in every operation handed out: serialize writes it as the pad byte
   std::array<uint32_t, kMaxLabels> labels_{};  // places >= count_ are zero
};
static_assert(std::is_trivially_copyable_v<MplsLabelOperation> &&
              sizeof(MplsLabelOperation) == MplsLabelOperation::kSerializedSize);

// smush(outer, inner) == outer.smush(inner).
inline MplsLabelOperation smush(const MplsLabelOperation& outer, const MplsLabelOperation& inner) {
   return outer.smush(inner);
}

std::string valueToStrep(const MplsLabelOperation& op);
std::ostream& operator<<(std::ostream& os, const MplsLabelOperation& op);

}  // namespace Wirekit
