// UnboundedMplsLabelOperation: a label operation with a label stack of any depth, for the places
// that store a stack whose depth a protocol decides (a BGP labelled-unicast route's labels, the
// FIB's label stack encapsulations). Same kinds and text form as MplsLabelOperation (MplsLabel.h);
// it converts to the bounded type when it fits.
//
// Variable byte form (little-endian), serializeLen() = 8 + 4 * count:
//    struct {
//       u8  kind;          // MplsOpKind, must agree with pops and count
//       u8  pops;          // labels popped first, 0..255
//       u16 pad;           // zero
//       u32 count;         // pushed labels
//       u32 labels[count]; // outermost first, each <= 0xFFFFF
//    };
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Wirekit/MplsLabel.h"
#include "Wirekit/MplsLabelOperation.h"

namespace Wirekit {

class UnboundedMplsLabelOperation {
  public:
   static constexpr uint32_t kHeaderSize = 8;

   UnboundedMplsLabelOperation() = default;
   // The same operation as the bounded one.
   UnboundedMplsLabelOperation(const MplsLabelOperation& bounded);  // NOLINT: lossless, implicit
   // Parses the text form of MplsLabel.h; throws Vela::ParseException on bad text.
   explicit UnboundedMplsLabelOperation(std::string_view text);

   // Factories as for MplsLabelOperation, with no limit on the number of labels (pops are still
   // at most kMaxMplsPopCount). Labels outermost first.
   static UnboundedMplsLabelOperation push(std::span<const uint32_t> labels);
   static UnboundedMplsLabelOperation push(std::initializer_list<uint32_t> labels) {
      return push(std::span<const uint32_t>(labels.begin(), labels.size()));
   }
   static UnboundedMplsLabelOperation swap(std::span<const uint32_t> labels);
   static UnboundedMplsLabelOperation swap(std::initializer_list<uint32_t> labels) {
      return swap(std::span<const uint32_t>(labels.begin(), labels.size()));
   }
   static UnboundedMplsLabelOperation pop(unsigned count = 1);
   static UnboundedMplsLabelOperation popAndPush(unsigned pops, std::span<const uint32_t> labels);
   static UnboundedMplsLabelOperation parse(std::string_view text) {
      return UnboundedMplsLabelOperation(text);
   }

   MplsOpKind kind() const noexcept { return mplsOpKindOf(pops_, labels_.size()); }
   bool isNone() const noexcept { return kind() == MplsOpKind::none; }
   unsigned popCount() const noexcept { return pops_; }
   size_t labelCount() const noexcept { return labels_.size(); }
   std::span<const uint32_t> labels() const noexcept { return labels_; }

   // The bounded operation; throws LabelStackOverflow when more than
   // MplsLabelOperation::kMaxLabels labels are pushed.
   MplsLabelOperation toBounded() const;

   // Same value as MplsLabelOperation::hash for an operation that fits both.
   uint32_t hash(uint32_t seed = 0) const noexcept;

   std::string stringValue() const;

   uint32_t serializeLen() const noexcept;
   // REQUIRES: `out` holds serializeLen() bytes.
   void serialize(void* out) const noexcept;
   // Bytes the record at `in` occupies, read from its count; 0 when fewer than that (or fewer than
   // the header) are available. Reads at most kHeaderSize bytes.
   static uint32_t deserializeLen(const void* in, uint32_t available) noexcept;
   // Rebuilds the operation from exactly `len` bytes; throws FormatError when `len` is not the
   // record's length or the content is not a valid operation.
   static UnboundedMplsLabelOperation deserialize(const void* in, uint32_t len);

   friend bool operator==(const UnboundedMplsLabelOperation&,
                          const UnboundedMplsLabelOperation&) noexcept = default;
   // Same order as MplsLabelOperation: kind, pops, then labels lexicographically.
   friend std::strong_ordering operator<=>(const UnboundedMplsLabelOperation& a,
                                           const UnboundedMplsLabelOperation& b) noexcept;

  private:
   uint8_t pops_ = 0;
   std::vector<uint32_t> labels_;
};

std::string valueToStrep(const UnboundedMplsLabelOperation& op);
std::ostream& operator<<(std::ostream& os, const UnboundedMplsLabelOperation& op);

}  // namespace Wirekit
