#include <gtest/gtest.h>

#include <random>
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

TEST(UnboundedMplsLabelOperation, ByteFormIsHeaderCountAndLabels) {
   using Bytes = std::vector<uint8_t>;
   EXPECT_EQ(bytesOf(Op::push({100, 200})),
             (Bytes{1, 0, 0, 0, 2, 0, 0, 0, 100, 0, 0, 0, 200, 0, 0, 0}));
   EXPECT_EQ(bytesOf(Op::pop(2)), (Bytes{3, 2, 0, 0, 0, 0, 0, 0}));
   EXPECT_EQ(bytesOf(Op()), Bytes(8, 0));
   EXPECT_EQ(bytesOf(Op::swap({0xFFFFF})), (Bytes{2, 1, 0, 0, 1, 0, 0, 0, 0xFF, 0xFF, 0x0F, 0}));
}

TEST(UnboundedMplsLabelOperation, RoundTripsStacksOfAnyDepth) {
   for (size_t n : {0, 1, 11, 12, 600, 5000}) {
      for (unsigned pops : {0u, 1u, 2u, 255u}) {
         const Op op = Op::popAndPush(pops, labelRun(n));
         const auto b = bytesOf(op);
         ASSERT_EQ(op.serializeLen(), 8 + 4 * n);
         ASSERT_EQ(Op::deserializeLen(b.data(), static_cast<uint32_t>(b.size())), b.size());
         ASSERT_EQ(Op::deserialize(b.data(), static_cast<uint32_t>(b.size())), op);
         ASSERT_EQ(Op(op.stringValue()), op);
      }
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
   for (unsigned kind = 0; kind < 256; ++kind) {
      for (unsigned pops : {0u, 1u, 2u, 255u}) {
         b = good;
         b[0] = static_cast<uint8_t>(kind);
         b[1] = static_cast<uint8_t>(pops);
         const bool valid = kind == static_cast<unsigned>(Wirekit::mplsOpKindOf(pops, 2));
         if (valid) {
            EXPECT_EQ(bytesOf(Op::deserialize(b.data(), len)), b);
         } else {
            EXPECT_THROW(Op::deserialize(b.data(), len), FormatError) << kind << " " << pops;
         }
      }
   }
   // One byte changed, and the error it must give.
   const struct {
      size_t pos;
      uint8_t value;
      const char* error;
   } cases[] = {{0, 0, "kind 0 does not match 0 pops and 2 labels"},
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
   b[11] = 0x80;
   EXPECT_THROW(Op::deserialize(b.data(), len), FormatError);
}

TEST(UnboundedMplsLabelOperation, ConvertsToBoundedOnlyWhenItFits) {
   const Op eleven = Op::swap(labelRun(11));
   const MplsLabelOperation bounded = eleven.toBounded();
   EXPECT_EQ(bounded, MplsLabelOperation::swap(labelRun(11)));
   EXPECT_EQ(Op(bounded), eleven);
   EXPECT_EQ(errorText<LabelStackOverflow>([] { Op::push(labelRun(12)).toBounded(); }),
             "label stack of 12 labels exceeds the capacity of 11");
   EXPECT_EQ(Op().toBounded(), MplsLabelOperation());
   EXPECT_EQ(Op::pop(255).toBounded(), MplsLabelOperation::pop(255));
   EXPECT_THROW(Op::pop(256), LabelStackOverflow);
   EXPECT_THROW(Op::push({1048576}), Vela::RangeException);
}

TEST(UnboundedMplsLabelOperation, AgreesWithTheBoundedTypeOnTextHashAndOrder) {
   std::mt19937 rng(3);
   auto randomOp = [&] {
      const unsigned pops = rng() % 3 == 0 ? rng() % 3 : 0;
      std::vector<uint32_t> labels(rng() % 4);
      for (auto& l : labels) l = rng() % 3;
      return MplsLabelOperation::popAndPush(pops, labels);
   };
   for (int i = 0; i < 2000; ++i) {
      const MplsLabelOperation a = randomOp(), b = randomOp();
      const Op ua(a), ub(b);
      ASSERT_EQ(ua.stringValue(), a.stringValue());
      ASSERT_EQ(Wirekit::valueToStrep(ua), Wirekit::valueToStrep(a));
      ASSERT_EQ(ua.kind(), a.kind());
      ASSERT_EQ(ua.hash(17), a.hash(17));
      ASSERT_EQ(ua < ub, a < b) << a << " vs " << b;
      ASSERT_EQ(ua == ub, a == b) << a << " vs " << b;
   }
   EXPECT_EQ(Testing::streamed(Op::push({1, 2})), "push 1 2");
   EXPECT_LT(Op::push(labelRun(11)), Op::push(labelRun(12)));
   EXPECT_THROW(Op("push x"), Vela::ParseException);
}

}  // namespace
