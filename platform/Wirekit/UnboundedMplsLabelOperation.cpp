#include "Wirekit/UnboundedMplsLabelOperation.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>

#include "Vela/Hash.h"
#include "Wirekit/ByteForm.h"
#include "Wirekit/Errors.h"

namespace Wirekit {

UnboundedMplsLabelOperation UnboundedMplsLabelOperation::popAndPush(
    unsigned pops, std::span<const uint32_t> labels) {
   checkMplsPopCount(pops);
   for (uint32_t l : labels) checkMplsLabel(l);
   UnboundedMplsLabelOperation op;
   op.pops_ = static_cast<uint8_t>(pops);
   op.labels_.assign(labels.begin(), labels.end());
   return op;
}

UnboundedMplsLabelOperation::UnboundedMplsLabelOperation(const MplsLabelOperation& bounded)
    : pops_(static_cast<uint8_t>(bounded.popCount())),
      labels_(bounded.labels().begin(), bounded.labels().end()) {}

UnboundedMplsLabelOperation::UnboundedMplsLabelOperation(std::string_view text) {
   unsigned pops;
   MplsText::parse(text, pops, labels_);
   pops_ = static_cast<uint8_t>(pops);  // the parser caps pops at kMaxMplsPopCount
}

UnboundedMplsLabelOperation UnboundedMplsLabelOperation::push(std::span<const uint32_t> labels) {
   return popAndPush(0, labels);
}

UnboundedMplsLabelOperation UnboundedMplsLabelOperation::swap(std::span<const uint32_t> labels) {
   return popAndPush(1, labels);
}

UnboundedMplsLabelOperation UnboundedMplsLabelOperation::pop(unsigned count) {
   return popAndPush(count, {});
}

MplsLabelOperation UnboundedMplsLabelOperation::toBounded() const {
   return MplsLabelOperation::popAndPush(pops_, labels_);
}

uint32_t UnboundedMplsLabelOperation::hash(uint32_t seed) const noexcept {
   Vela::HashMixer h(seed);
   h.add(static_cast<uint8_t>(kind())).add(pops_).add(static_cast<uint32_t>(labels_.size()));
   for (uint32_t l : labels_) h.add(l);
   return h.finish();
}

std::string UnboundedMplsLabelOperation::stringValue() const {
   return MplsText::format(pops_, labels_);
}

uint32_t UnboundedMplsLabelOperation::serializeLen() const noexcept {
   return kHeaderSize + 4 * static_cast<uint32_t>(labels_.size());
}

void UnboundedMplsLabelOperation::serialize(void* out) const noexcept {
   auto* p = static_cast<uint8_t*>(out);
   p[0] = static_cast<uint8_t>(kind());
   p[1] = pops_;
   p[2] = p[3] = 0;
   ByteForm::storeLe<uint32_t>(p + 4, static_cast<uint32_t>(labels_.size()));
   for (size_t i = 0; i < labels_.size(); ++i) {
      ByteForm::storeLe<uint32_t>(p + kHeaderSize + 4 * i, labels_[i]);
   }
}

uint32_t UnboundedMplsLabelOperation::deserializeLen(const void* in, uint32_t available) noexcept {
   if (available < kHeaderSize) return 0;
   const auto count = ByteForm::loadLe<uint32_t>(static_cast<const uint8_t*>(in) + 4);
   // 64-bit so that a huge count cannot wrap around to a small length.
   const uint64_t len = kHeaderSize + 4 * uint64_t{count};
   return len <= available ? static_cast<uint32_t>(len) : 0;
}

UnboundedMplsLabelOperation UnboundedMplsLabelOperation::deserialize(const void* in, uint32_t len) {
   const auto* p = static_cast<const uint8_t*>(in);
   if (deserializeLen(in, len) != len || len < kHeaderSize) {
      throw FormatError(fmt::format(
          "Wirekit::UnboundedMplsLabelOperation: record length does not match {} bytes", len));
   }
   const unsigned kind = p[0];
   const unsigned pops = p[1];
   const auto count = ByteForm::loadLe<uint32_t>(p + 4);
   if (kind > static_cast<unsigned>(MplsOpKind::pop) ||
       static_cast<unsigned>(mplsOpKindOf(pops, count)) != kind) {
      throw FormatError(fmt::format(
          "Wirekit::UnboundedMplsLabelOperation: kind {} does not match {} pops and {} labels",
          kind, pops, count));
   }
   if (p[2] != 0 || p[3] != 0) {
      throw FormatError("Wirekit::UnboundedMplsLabelOperation: padding bytes set");
   }
   UnboundedMplsLabelOperation op;
   op.pops_ = static_cast<uint8_t>(pops);
   op.labels_.resize(count);
   for (uint32_t i = 0; i < count; ++i) {
      const auto l = ByteForm::loadLe<uint32_t>(p + kHeaderSize + 4 * i);
      if (l > kMaxMplsLabel) {
         throw FormatError(
             fmt::format("Wirekit::UnboundedMplsLabelOperation: label {} out of range", l));
      }
      op.labels_[i] = l;
   }
   return op;
}

std::strong_ordering operator<=>(const UnboundedMplsLabelOperation& a,
                                 const UnboundedMplsLabelOperation& b) noexcept {
   if (auto c = a.kind() <=> b.kind(); c != 0) return c;
   if (auto c = a.pops_ <=> b.pops_; c != 0) return c;
   return std::lexicographical_compare_three_way(a.labels_.begin(), a.labels_.end(),
                                                 b.labels_.begin(), b.labels_.end());
}

std::string valueToStrep(const UnboundedMplsLabelOperation& op) {
   return op.stringValue();
}

std::ostream& operator<<(std::ostream& os, const UnboundedMplsLabelOperation& op) {
   return os << op.stringValue();
}

}  // namespace Wirekit
