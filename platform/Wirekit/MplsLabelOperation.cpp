#include "Wirekit/MplsLabelOperation.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>
#include <vector>

#include "Vela/Assert.h"
#include "Vela/Hash.h"
#include "Wirekit/ByteForm.h"
#include "Wirekit/Errors.h"

namespace Wirekit {

static_assert(sizeof(MplsLabelOperation) == MplsLabelOperation::kSerializedSize,
              "the in-memory value is its byte form's size");

MplsLabelOperation MplsLabelOperation::popAndPush(unsigned pops, std::span<const uint32_t> labels) {
   checkMplsPopCount(pops);
   if (labels.size() > kMaxLabels) throw LabelStackOverflow::labels(labels.size(), kMaxLabels);
   for (uint32_t l : labels) checkMplsLabel(l);
   MplsLabelOperation op;
   op.pops_ = static_cast<uint8_t>(pops);
   op.count_ = static_cast<uint8_t>(labels.size());
   op.kind_ = static_cast<uint8_t>(mplsOpKindOf(pops, labels.size()));
   std::copy(labels.begin(), labels.end(), op.labels_.begin());
   return op;
}

MplsLabelOperation::MplsLabelOperation(std::string_view text) {
   unsigned pops;
   std::vector<uint32_t> labels;
   MplsText::parse(text, pops, labels);
   *this = popAndPush(pops, labels);
}

MplsLabelOperation MplsLabelOperation::push(std::span<const uint32_t> labels) {
   return popAndPush(0, labels);
}

MplsLabelOperation MplsLabelOperation::swap(std::span<const uint32_t> labels) {
   return popAndPush(1, labels);
}

MplsLabelOperation MplsLabelOperation::pop(unsigned count) {
   return popAndPush(count, {});
}

uint32_t MplsLabelOperation::label(size_t i) const {
   VELA_ASSERT(i < labelCount());
   return labels_[i];
}

// Joining the operation of an outer tunnel with the via of the tunnel it rides on. Every
// operation is "pop p, then push P" (P outermost first); the outer one (pa, A) acts first, the
// inner one (pb, B) second:
//
//    pb <= |A|:  pop pa, push B ++ A[pb..]      the inner pops eat the outer's pushed labels
//    pb >  |A|:  pop pa + pb - |A|, push B      ... and then labels that were already there
//
// By kind (outer then inner -> result):
//    none        + X           -> X                    X + none -> X
//    push A      + push B      -> push B A             (B outermost: the inner tunnel's label)
//    push A      + swap B      -> push B A[1..]        (the swap replaces A's outermost label)
//    push A      + pop n       -> push A[n..]; none when n == |A|; pop n-|A| when n > |A|
//    swap A      + push B      -> swap B A
//    swap A      + swap B      -> swap B A[1..]
//    swap A      + pop n       -> swap A[n..]; pop 1 when n == |A|; pop 1+n-|A| when n > |A|
//    pop m [P]   + push B      -> pop m push B P       (m == 1: swap B P)
//    pop m       + swap B      -> pop m+1 push B
//    pop m       + pop n       -> pop m+n
// A result above kMaxLabels labels or kMaxMplsPopCount pops is refused, never truncated.
MplsLabelOperation MplsLabelOperation::smush(const MplsLabelOperation& inner) const {
   const size_t pa = pops_;
   const size_t pb = inner.pops_;
   const auto a = labels();
   const auto b = inner.labels();
   if (pb > a.size()) {
      checkMplsPopCount(pa + pb - a.size());
      return popAndPush(static_cast<unsigned>(pa + pb - a.size()), b);
   }
   const size_t total = b.size() + (a.size() - pb);
   if (total > kMaxLabels) throw LabelStackOverflow::labels(total, kMaxLabels);
   std::array<uint32_t, kMaxLabels> joined{};
   std::copy(b.begin(), b.end(), joined.begin());
   std::copy(a.begin() + static_cast<ptrdiff_t>(pb), a.end(),
             joined.begin() + static_cast<ptrdiff_t>(b.size()));
   return popAndPush(static_cast<unsigned>(pa), std::span<const uint32_t>(joined.data(), total));
}

uint32_t MplsLabelOperation::hash(uint32_t seed) const noexcept {
   Vela::HashMixer h(seed);
   h.add(kind_).add(pops_).add(static_cast<uint32_t>(count_));
   for (uint32_t l : labels()) h.add(l);
   return h.finish();
}

std::string MplsLabelOperation::stringValue() const {
   return MplsText::format(pops_, labels());
}

MplsLabelOperation MplsLabelOperation::deserializeChecked(const uint8_t* in) {
   const unsigned kind = in[0];
   const unsigned count = in[1];
   const unsigned pops = in[2];
   if (kind > static_cast<unsigned>(MplsOpKind::pop)) {
      throw FormatError(fmt::format("Wirekit::MplsLabelOperation: unknown kind {}", kind));
   }
   if (count > kMaxLabels) {
      throw FormatError(
          fmt::format("Wirekit::MplsLabelOperation: label count {} exceeds the capacity of {}",
                      count, kMaxLabels));
   }
   if (static_cast<unsigned>(mplsOpKindOf(pops, count)) != kind) {
      throw FormatError(
          fmt::format("Wirekit::MplsLabelOperation: kind {} does not match {} pops and {} labels",
                      kind, pops, count));
   }
   if (in[3] != 0) throw FormatError("Wirekit::MplsLabelOperation: padding byte set");
   MplsLabelOperation op;
   op.kind_ = static_cast<uint8_t>(kind);
   op.count_ = static_cast<uint8_t>(count);
   op.pops_ = static_cast<uint8_t>(pops);
   for (size_t i = 0; i < kMaxLabels; ++i) {
      const auto l = ByteForm::loadLe<uint32_t>(in + 4 + 4 * i);
      if (i < count && l > kMaxMplsLabel) {
         throw FormatError(fmt::format("Wirekit::MplsLabelOperation: label {} out of range", l));
      }
      if (i >= count && l != 0) {
         throw FormatError("Wirekit::MplsLabelOperation: unused label place set");
      }
      op.labels_[i] = l;
   }
   return op;
}

std::strong_ordering operator<=>(const MplsLabelOperation& a,
                                 const MplsLabelOperation& b) noexcept {
   if (auto c = a.kind_ <=> b.kind_; c != 0) return c;
   if (auto c = a.pops_ <=> b.pops_; c != 0) return c;
   const auto la = a.labels();
   const auto lb = b.labels();
   return std::lexicographical_compare_three_way(la.begin(), la.end(), lb.begin(), lb.end());
}

std::string valueToStrep(const MplsLabelOperation& op) {
   return op.stringValue();
}

std::ostream& operator<<(std::ostream& os, const MplsLabelOperation& op) {
   return os << op.stringValue();
}

}  // namespace Wirekit
