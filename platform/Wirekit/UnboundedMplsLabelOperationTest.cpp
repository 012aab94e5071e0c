#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Vela/Exception.h"
#include "Wirekit/Errors.h"
#include "Wirekit/UnboundedMplsLabelOperation.h"
#include "testing/Expect.h"

using Testing::errorText;
using Wirekit::FormatError;
using Wirekit::LabelStackOverflow;
using Wirekit::MplsLabelOperation;
using Wirekit::UnboundedMplsLabelOperation;
using Op = UnboundedMplsLabelOperation;

namespace {

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

TEST(UnboundedMplsLabelOperation, TruncatedRecordsHaveLengthZero) {
   const auto b = bytesOf(Op::push({1, 2, 3}));
   const auto len = static_cast<uint32_t>(b.size());
   for (uint32_t avail = 0; avail < len; ++avail) {
      EXPECT_EQ(Op::deserializeLen(b.data(), avail), 0u) << avail;
      EXPECT_THROW(Op::deserialize(b.data(), avail), FormatError) << avail;
   }
   EXPECT_EQ(Op::deserializeLen(b.data(), len), len);
   // More bytes available than the record needs: the record's own length.
   std::vector<uint8_t> longer = b;
   longer.resize(b.size() + 9, 0x55);
   EXPECT_EQ(Op::deserializeLen(longer.data(), static_cast<uint32_t>(longer.size())), len);
   // A count so large that 8 + 4 * count wraps 32 bits is still truncated, not short.
   const std::vector<uint8_t> huge = {1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
   EXPECT_EQ(Op::deserializeLen(huge.data(), 12), 0u);
   const std::vector<uint8_t> wraps = {1, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0x3F, 0, 0, 0, 0};
   EXPECT_EQ(Op::deserializeLen(wraps.data(), 0xFFFFFFFF), 0u);
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

}  // namespace
