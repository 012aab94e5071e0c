#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Vela/FixedArray.h"

namespace {

struct ViaTag {
   static constexpr const char* typeName = "Tunnel::TunnelTable::ViaIndex";
};
using ViaIndex = Vela::BoundedIndex<ViaTag, uint16_t, 0, 599>;
using Vias = Vela::FixedArray<uint32_t, ViaIndex, 600>;

std::vector<uint32_t> live(const Vias& a) {
   return {a.begin(), a.end()};
}

TEST(FixedArray, SetGrowsCountToHighestPlace) {
   Vias a;
   EXPECT_EQ(a.count(), 0u);
   EXPECT_TRUE(a.empty());
   EXPECT_EQ(a.is(2, 30), 30u);
   EXPECT_EQ(a.count(), 3u);
   EXPECT_EQ(live(a), (std::vector<uint32_t>{0, 0, 30}));
   a.is(0, 10);
   EXPECT_EQ(a.count(), 3u);
   EXPECT_EQ(a[ViaIndex(0)], 10u);
   EXPECT_EQ(a[ViaIndex(5)], 0u);  // past the count: the empty value
   a.is(599, 7);
   EXPECT_EQ(a.count(), 600u);
   EXPECT_THROW(a.is(600, 1), Vela::RangeException);
   EXPECT_EQ(a.count(), 600u);
}

TEST(FixedArray, DeletingLastDropsTrailingHoles) {
   Vias a;  // [a, 0, b]
   a.is(0, 11);
   a.is(2, 22);
   EXPECT_EQ(a.del(2), 22u);
   EXPECT_EQ(a.count(), 1u);
   EXPECT_EQ(live(a), (std::vector<uint32_t>{11}));
   EXPECT_EQ(a.del(0), 11u);
   EXPECT_EQ(a.count(), 0u);
}

TEST(FixedArray, DeletingInsideLeavesHoleAndKeepsCount) {
   Vias a;  // [a, b]
   a.is(0, 11);
   a.is(1, 22);
   EXPECT_EQ(a.del(0), 11u);
   EXPECT_EQ(a.count(), 2u);
   EXPECT_EQ(live(a), (std::vector<uint32_t>{0, 22}));
   // Deleting a hole returns the empty value and changes nothing.
   EXPECT_EQ(a.del(0), 0u);
   EXPECT_EQ(a.count(), 2u);
   // Now the last place goes and the hole before it with it.
   EXPECT_EQ(a.del(1), 22u);
   EXPECT_EQ(a.count(), 0u);
}

TEST(FixedArray, DeletingAtOrPastCountChangesNothing) {
   Vias a;
   a.is(0, 11);
   a.is(1, 22);
   EXPECT_EQ(a.del(2), 0u);
   EXPECT_EQ(a.del(599), 0u);
   EXPECT_EQ(live(a), (std::vector<uint32_t>{11, 22}));
}

TEST(FixedArray, SettingPastCountRevivesStalePlaces) {
   Vias a;
   a.is(0, 11);
   a.is(1, 22);
   a.is(2, 33);
   a.del(2);
   a.del(1);
   EXPECT_EQ(a.count(), 1u);
   a.is(3, 44);  // places 1 and 2 come back with what they held
   EXPECT_EQ(live(a), (std::vector<uint32_t>{11, 22, 33, 44}));
   a.delAll();
   EXPECT_EQ(a.count(), 0u);
   a.is(1, 55);
   EXPECT_EQ(live(a), (std::vector<uint32_t>{11, 55}));
}

TEST(FixedArray, EqualityLooksOnlyAtLivePlaces) {
   Vias a, b;
   a.is(0, 1);
   b.is(0, 1);
   a.is(1, 2);
   EXPECT_NE(a, b);
   a.del(1);  // a keeps the stale 2 past its count
   EXPECT_EQ(a, b);
   b.is(1, 0);  // same live values, different count
   EXPECT_NE(a, b);
   a.is(1, 0);
   EXPECT_EQ(a, b);
}

TEST(FixedArray, DeletingThroughIteratorContinuesAtNextPlace) {
   Vias a;
   for (uint32_t i = 0; i < 5; ++i) a.is(i, i + 1);
   for (auto it = a.begin(); it != a.end();) {
      it = *it % 2 == 1 ? a.del(it) : it + 1;  // drop the odd values 1, 3 and 5
   }
   EXPECT_EQ(live(a), (std::vector<uint32_t>{0, 2, 0, 4}));
   for (auto it = a.begin(); it != a.end();) it = a.del(it);
   EXPECT_EQ(a.count(), 0u);
}

TEST(FixedArray, PlainIntegerIndexAndCharacters) {
   Vela::FixedArray<char, uint8_t, 4> name;
   for (char c : std::string("ldp")) name.is(name.count(), c);
   EXPECT_EQ(std::string(name.begin(), name.end()), "ldp");
   EXPECT_DEATH(name.is(4, 'x'), "assertion failed: p < Capacity");
   EXPECT_DEATH(name.at(4), "assertion failed: i < Capacity");
}

TEST(FixedArray, DeserializedCountIsValidated) {
   Vias a;
   a.at(0) = 9;
   a.setCountUnchecked(600);
   EXPECT_NO_THROW(a.validateSize());
   a.setCountUnchecked(601);
   EXPECT_EQ(std::distance(a.begin(), a.end()), 600);  // iteration never leaves the storage
   const uint8_t wire[3] = {0x59, 0x02, 0xab};
   try {
      a.validateSize(wire, sizeof wire);
      FAIL() << "601 accepted";
   } catch (const Vela::ArraySizeError& e) {
      EXPECT_EQ(e.what(), fmt::format("expected size <= 600, instead got 601. Buffer is at "
                                      "address: {} with contents: 5902ab",
                                      fmt::ptr(static_cast<const void*>(wire))));
   }
   EXPECT_THROW(a.validateSize(), std::runtime_error);
}

TEST(ArraySizeError, TextHasAddressAndCappedLowerCaseDump) {
   std::vector<uint8_t> buf(300);
   for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<uint8_t>(i);
   const std::string text = Vela::ArraySizeError::make(600, 70000, buf.data(), buf.size()).what();
   const std::string prefix = "expected size <= 600, instead got 70000. Buffer is at address: ";
   ASSERT_EQ(text.substr(0, prefix.size()), prefix);
   char address[32];
   std::snprintf(address, sizeof address, "%p", static_cast<const void*>(buf.data()));
   const std::string rest = text.substr(prefix.size());
   ASSERT_EQ(rest.substr(0, std::strlen(address)), address);
   const std::string dump = rest.substr(rest.find("contents: ") + 10);
   EXPECT_EQ(dump.size(), 512u);
   EXPECT_EQ(dump.substr(0, 8), "00010203");
   EXPECT_EQ(dump.substr(dump.size() - 4), "feff");
   EXPECT_EQ(Vela::ArraySizeError::make(1, 2, nullptr, 0).what(),
             std::string("expected size <= 1, instead got 2. Buffer is at address: 0x0 with "
                         "contents: "));
}

}  // namespace
