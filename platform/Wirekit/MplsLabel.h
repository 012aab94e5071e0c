// What the two label operation types share: the 20-bit label range, the kinds of operation and
// the rule that names the kind of a stack operation.
//
// Every label operation is, in MPLS terms, "pop N labels, then push a stack" (N >= 0, the pushed
// stack listed outermost first). The kind is not stored freely but follows from that pair, so one
// operation has exactly one representation:
//
//    pops  pushed     kind   text
//    0     none       none   ""
//    0     1 or more  push   "push 100 200"        (100 ends up outermost)
//    1     1 or more  swap   "swap 300"            (the top label is replaced by the stack listed)
//    1+    none       pop    "pop 2"
//    2+    1 or more  pop    "pop 2 push 100"
//
// There is no separate "forward" kind: forwarding without touching the stack is `none`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Wirekit {

enum class MplsOpKind : uint8_t {
   none = 0,
   push = 1,
   swap = 2,
   pop = 3,
};

// Labels are 20-bit.
constexpr uint32_t kMinMplsLabel = 0;
constexpr uint32_t kMaxMplsLabel = 0xFFFFF;
// Most labels one operation may pop (the pop count is one byte in both byte forms).
constexpr unsigned kMaxMplsPopCount = 255;

constexpr MplsOpKind mplsOpKindOf(unsigned pops, size_t pushed) noexcept {
   if (pops == 0) return pushed == 0 ? MplsOpKind::none : MplsOpKind::push;
   if (pops == 1 && pushed != 0) return MplsOpKind::swap;
   return MplsOpKind::pop;
}

// Throws Vela::RangeException ("Wirekit::MplsLabel::value < Wirekit::MplsLabel::min or >
// Wirekit::MplsLabel::max not allowed") for a label above kMaxMplsLabel.
void checkMplsLabel(uint32_t label);
// Throws LabelStackOverflow above kMaxMplsPopCount.
void checkMplsPopCount(uint64_t pops);

namespace MplsText {
// The text form of the table above.
std::string format(unsigned pops, std::span<const uint32_t> labels);
// Reads that text form; throws Vela::ParseException on anything else (including labels out of
// range and "pop 0").
void parse(std::string_view text, unsigned& pops, std::vector<uint32_t>& labels);
}  // namespace MplsText

std::string valueToStrep(MplsOpKind kind);  // "none", "push", "swap", "pop"

}  // namespace Wirekit
