#include <gtest/gtest.h>

#include <array>
#include <deque>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/Errors.h"
#include "Wirekit/MplsLabelOperation.h"
#include "Wirekit/UnboundedMplsLabelOperation.h"
#include "testing/Expect.h"

using Testing::bytesOf;
using Testing::errorText;
using Wirekit::FormatError;
using Wirekit::LabelStackOverflow;
using Wirekit::MplsLabelOperation;
using Wirekit::MplsOpKind;
using Op = MplsLabelOperation;

namespace {

TEST(MplsLabelOperation, TextBytesAndKindFollowPopsAndPushes) {
   const std::vector<std::pair<Op, const char*>> rows = {
       {Op(), ""},
       {Op::swap({300, 400}), "swap 300 400"},
       {Op::pop(255), "pop 255"},
       {Op::popAndPush(2, std::vector<uint32_t>{5}), "pop 2 push 5"},
       {Op::push({0, 1048575}), "push 0 1048575"},
   };
   for (const auto& [op, text] : rows) {
      SCOPED_TRACE(text);
      EXPECT_EQ(Wirekit::valueToStrep(op), text);
      EXPECT_EQ(Testing::streamed(op), text);
      EXPECT_EQ(Op(text), op);
      EXPECT_EQ(Op::deserialize(bytesOf(op).data()), op);
   }
   // Blanks are free; "pop 1 push" is a swap.
   EXPECT_EQ(Op("  push   1  2 "), Op::push({1, 2}));
   EXPECT_EQ(Op("pop 1 push 5"), Op::swap({5}));
   EXPECT_EQ(Op("   "), Op());
   // The kind follows pops and pushes, whichever factory made the operation.
   EXPECT_EQ(Op::popAndPush(2, std::vector<uint32_t>{1}).kind(), MplsOpKind::pop);
   EXPECT_EQ(Op::popAndPush(1, std::vector<uint32_t>{1}), Op::swap({1}));
   EXPECT_EQ(Op::push(std::span<const uint32_t>()), Op());
   EXPECT_EQ(Op::swap(std::span<const uint32_t>()), Op::pop(1));
   EXPECT_EQ(Op::pop(0), Op());
   const Op op = Op::swap({7, 8, 9});
   EXPECT_EQ(op.kind(), MplsOpKind::swap);
   EXPECT_EQ(op.popCount(), 1u);
   EXPECT_EQ(op.label(2), 9u);
   EXPECT_DEATH(op.label(3), "i < labelCount\\(\\)");
   EXPECT_EQ(Wirekit::valueToStrep(MplsOpKind::swap), "swap");
   // Byte form: kind, count, pops, padding, then eleven label places (push bytes are pinned by
   // the via byte tests).
   using Bytes = std::array<uint8_t, 48>;  // unlisted bytes are zero
   EXPECT_EQ(bytesOf(Op::swap({0xFFFFF})), (Bytes{2, 1, 1, 0, 0xFF, 0xFF, 0x0F}));
   EXPECT_EQ(bytesOf(Op::pop(3)), (Bytes{3, 0, 3}));
   EXPECT_EQ(bytesOf(Op()), Bytes{});
}

TEST(MplsLabelOperation, RejectsBadTextLabelsAndOverfullStacks) {
   for (const char* t : {"push", "pop 256", "push -1", "push 01", "push 1,2", "Push 1",
                         "pop 1 swap 2", "pop 2 push", "push 1 pop 2", "push 4294967296"}) {
      EXPECT_THROW(Op{t}, Vela::ParseException) << t;
   }
   const auto parseError = [](const char* t) {
      return errorText<Vela::ParseException>([&] { Op{t}; });
   };
   EXPECT_EQ(parseError("push 1048576"),
             "invalid label operation 'push 1048576': bad label '1048576'");
   EXPECT_EQ(parseError("pop 0"), "invalid label operation 'pop 0': bad pop count '0'");
   EXPECT_EQ(parseError("jump 1"), "invalid label operation 'jump 1': unknown operation 'jump'");
   EXPECT_EQ(parseError("pop 1 1"), "invalid label operation 'pop 1 1': unexpected '1'");

   EXPECT_EQ(errorText<Vela::RangeException>([] { Op::push({1048576}); }),
             "Wirekit::MplsLabel::value < Wirekit::MplsLabel::min or > Wirekit::MplsLabel::max "
             "not allowed");
   EXPECT_THROW(Op::swap({5, 0xFFFFFFFF}), Vela::RangeException);
   const std::vector<uint32_t> eleven(11, 16), twelve(12, 16);
   EXPECT_EQ(Op::push(eleven).labelCount(), 11u);
   EXPECT_EQ(errorText<LabelStackOverflow>([&] { Op::swap(twelve); }),
             "label stack of 12 labels exceeds the capacity of 11");
   EXPECT_THROW(Op("push 1 2 3 4 5 6 7 8 9 10 11 12"), LabelStackOverflow);
   EXPECT_EQ(errorText<LabelStackOverflow>([] { Op::pop(256); }),
             "label operation pops 256 labels; at most 255 allowed");
}

// The stack a packet leaves with, topmost first, after `op` acts on `stack`; nullopt when it pops
// more labels than there are.
std::optional<std::deque<uint32_t>> apply(const Op& op, std::deque<uint32_t> stack) {
   if (op.popCount() > stack.size()) return std::nullopt;
   stack.erase(stack.begin(), stack.begin() + op.popCount());
   const auto l = op.labels();
   stack.insert(stack.begin(), l.begin(), l.end());
   return stack;
}

// Checked against a direct simulation of both operations on a stack of labels no operation pushes:
// the stack a result leaves determines its pops and labels, and the kind must be the one those
// give, so together with the text forms this pins every result of the joining rule.
TEST(MplsLabelOperation, SmushActsLikeApplyingOuterThenInner) {
   std::mt19937 rng(11);
   auto randomOp = [&] {
      const unsigned pops = rng() % 4 == 0 ? rng() % 4 : 0;
      std::vector<uint32_t> labels(rng() % 5);
      for (auto& l : labels) l = rng() % 1000;
      return Op::popAndPush(pops, labels);
   };
   std::deque<uint32_t> stack;
   for (uint32_t i = 0; i < 12; ++i) stack.push_back(5000 + i);
   for (int i = 0; i < 5000; ++i) {
      const Op outer = randomOp(), inner = randomOp();
      const Op joined = outer.smush(inner);
      const auto afterOuter = apply(outer, stack);
      ASSERT_TRUE(afterOuter.has_value());
      const auto viaBoth = apply(inner, *afterOuter);
      ASSERT_TRUE(viaBoth.has_value());
      ASSERT_EQ(apply(joined, stack), viaBoth) << outer << " / " << inner << " -> " << joined;
      ASSERT_EQ(joined.kind(), Wirekit::mplsOpKindOf(joined.popCount(), joined.labelCount()))
          << joined;
      ASSERT_EQ(Wirekit::smush(outer, inner), joined);
   }
   // What does not fit is refused; exactly full (eleven labels, 255 pops) is fine.
   const std::vector<uint32_t> six(6, 20), eleven(11, 21);
   EXPECT_EQ(errorText<LabelStackOverflow>([&] { Op::push(six).smush(Op::push(six)); }),
             "label stack of 12 labels exceeds the capacity of 11");
   EXPECT_EQ(Op::push(eleven).smush(Op::swap({1})).labelCount(), 11u);
   EXPECT_EQ(errorText<LabelStackOverflow>([] { Op::pop(200).smush(Op::pop(100)); }),
             "label operation pops 300 labels; at most 255 allowed");
   EXPECT_EQ(Op::pop(200).smush(Op::pop(55)), Op::pop(255));
}

// One byte of the two-label form changed, and the error it must give.
TEST(MplsLabelOperation, DeserializeRejectsEveryInconsistentHeaderAndLabel) {
   const struct {
      size_t pos;
      uint8_t value;
      const char* error;
   } cases[] = {
       {0, 4, "unknown kind 4"},
       {1, 12, "label count 12 exceeds the capacity of 11"},
       {0, 2, "kind 2 does not match 0 pops and 2 labels"},
       {2, 1, "kind 1 does not match 1 pops and 2 labels"},
       {3, 1, "padding byte set"},
       {6, 0x10, "label 1048676 out of range"},  // above 20 bits, in the first live place
   };
   const auto two = bytesOf(Op::push({100, 200}));
   for (const auto& c : cases) {
      auto b = two;
      b[c.pos] = c.value;
      EXPECT_EQ(errorText<FormatError>([&] { Op::deserialize(b.data()); }),
                std::string("Wirekit::MplsLabelOperation: ") + c.error);
   }
   // A byte in the last live place, and in the first and last unused place.
   auto full = bytesOf(Op::push(std::vector<uint32_t>(11, 7)));
   full[47] = 0x80;
   EXPECT_THROW(Op::deserialize(full.data()), FormatError);
   for (size_t pos : {12, 47}) {
      auto b = two;
      b[pos] = 1;
      EXPECT_EQ(errorText<FormatError>([&] { Op::deserialize(b.data()); }),
                "Wirekit::MplsLabelOperation: unused label place set")
          << pos;
   }
}

// The hash mixes kind, pops, count and labels from the seed. (The order, kind then pops then
// labels, is checked with the unbounded type's.)
TEST(MplsLabelOperation, HashCoversKindPopsAndLabelsFromTheSeed) {
   EXPECT_EQ(Op::swap({300, 400}).hash(9), Vela::HashMixer(9)
                                               .add(uint8_t{2})
                                               .add(uint8_t{1})
                                               .add(uint32_t{2})
                                               .add(uint32_t{300})
                                               .add(uint32_t{400})
                                               .finish());
}

namespace unbounded {

using Op = Wirekit::UnboundedMplsLabelOperation;

// The byte form, written over 0xEE bytes with room to spare, so a write past the end shows.
std::vector<uint8_t> bytesOf(const Op& op) {
   std::vector<uint8_t> b(op.serializeLen() + 4, 0xEE);
   op.serialize(b.data());
   b.resize(op.serializeLen());
   return b;
}

std::vector<uint32_t> labelRun(size_t n) {
   std::vector<uint32_t> v(n);
   for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint32_t>(16 + i);
   return v;
}

// Exact bytes (a push is pinned by the entry byte tests), and stacks far deeper than the bounded
// type's read back through every form.
TEST(UnboundedMplsLabelOperation, ByteFormIsHeaderCountAndLabels) {
   using Bytes = std::vector<uint8_t>;
   EXPECT_EQ(bytesOf(Op::pop(2)), (Bytes{3, 2, 0, 0, 0, 0, 0, 0}));
   EXPECT_EQ(bytesOf(Op()), Bytes(8, 0));
   EXPECT_EQ(bytesOf(Op::swap({0xFFFFF})), (Bytes{2, 1, 0, 0, 1, 0, 0, 0, 0xFF, 0xFF, 0x0F, 0}));
   for (size_t n : {12, 5000}) {
      const Op op = Op::popAndPush(255, labelRun(n));
      const auto b = bytesOf(op);
      ASSERT_EQ(b.size(), 8 + 4 * n);
      EXPECT_EQ(Op::deserializeLen(b.data(), static_cast<uint32_t>(b.size())), b.size());
      EXPECT_EQ(Op::deserialize(b.data(), static_cast<uint32_t>(b.size())), op);
      EXPECT_EQ(Op(op.stringValue()), op);
   }
}

TEST(UnboundedMplsLabelOperation, DeserializeRejectsBadContentAndWrongLengths) {
   const auto good = bytesOf(Op::push({100, 200}));
   const auto len = static_cast<uint32_t>(good.size());
   auto b = good;
   b.push_back(0);
   EXPECT_EQ(errorText<FormatError>([&] { Op::deserialize(b.data(), len + 1); }),
             "Wirekit::UnboundedMplsLabelOperation: record length does not match 17 bytes");
   // One byte changed, and the error it must give.
   const struct {
      size_t pos;
      uint8_t value;
      const char* error;
   } cases[] = {{0, 0, "kind 0 does not match 0 pops and 2 labels"},
                {0, 4, "kind 4 does not match 0 pops and 2 labels"},
                {1, 1, "kind 1 does not match 1 pops and 2 labels"},
                {2, 1, "padding bytes set"},
                {3, 1, "padding bytes set"},
                {14, 0x10, "label 1048776 out of range"}};
   for (const auto& c : cases) {
      b = good;
      b[c.pos] = c.value;
      EXPECT_EQ(errorText<FormatError>([&] { Op::deserialize(b.data(), len); }),
                std::string("Wirekit::UnboundedMplsLabelOperation: ") + c.error);
   }
   b = good;
   b[0] = 3;  // pop 255 push 100 200
   b[1] = 255;
   EXPECT_EQ(bytesOf(Op::deserialize(b.data(), len)), b);
   // A truncated record has length 0 and does not deserialize; more bytes than it needs give its
   // own length.
   for (uint32_t avail = 0; avail < len; ++avail) {
      EXPECT_EQ(Op::deserializeLen(good.data(), avail), 0u) << avail;
      EXPECT_THROW(Op::deserialize(good.data(), avail), FormatError) << avail;
   }
   b.resize(len + 9, 0x55);
   EXPECT_EQ(Op::deserializeLen(b.data(), len + 9), len);
   // A count so large that 8 + 4 * count wraps 32 bits is still truncated, not short.
   const std::vector<uint8_t> huge = {1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
   EXPECT_EQ(Op::deserializeLen(huge.data(), 12), 0u);
   const std::vector<uint8_t> wraps = {1, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0x3F, 0, 0, 0, 0};
   EXPECT_EQ(Op::deserializeLen(wraps.data(), 0xFFFFFFFF), 0u);
}

// Same value, text, kind, hash and order as the bounded type wherever both can hold the
// operation; a deeper stack does not convert.
TEST(UnboundedMplsLabelOperation, AgreesWithTheBoundedTypeAndConvertsOnlyWhenItFits) {
   using B = MplsLabelOperation;
   std::vector<B> sorted;
   for (const char* t : {"", "push 1", "push 1 2", "push 2", "swap 0", "swap 5 1", "pop 1", "pop 2",
                         "pop 2 push 3", "pop 3"}) {
      sorted.emplace_back(t);
   }
   Testing::expectStrictOrder(sorted);
   Testing::expectStrictOrder(std::vector<Op>(sorted.begin(), sorted.end()));
   for (const B& a : sorted) {
      const Op ua(a);
      EXPECT_EQ(ua.stringValue(), a.stringValue());
      EXPECT_EQ(Wirekit::valueToStrep(ua), Wirekit::valueToStrep(a));
      EXPECT_EQ(ua.kind(), a.kind());
      EXPECT_EQ(ua.hash(17), a.hash(17)) << a;
      EXPECT_EQ(ua.toBounded(), a);
   }
   EXPECT_EQ(Op::swap(labelRun(11)).toBounded(), MplsLabelOperation::swap(labelRun(11)));
   EXPECT_EQ(errorText<LabelStackOverflow>([] { Op::push(labelRun(12)).toBounded(); }),
             "label stack of 12 labels exceeds the capacity of 11");
   EXPECT_THROW(Op::pop(256), LabelStackOverflow);
   EXPECT_THROW(Op::push({1048576}), Vela::RangeException);
   EXPECT_EQ(Testing::streamed(Op::push({1, 2})), "push 1 2");
   EXPECT_LT(Op::push(labelRun(11)), Op::push(labelRun(12)));
   EXPECT_THROW(Op("push x"), Vela::ParseException);
}

}  // namespace unbounded

}  // namespace
