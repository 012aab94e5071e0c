#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Vela/FixedArray.h"
#include "testing/Expect.h"

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
   EXPECT_TRUE(a.empty());
   EXPECT_EQ(a.is(2, 30), 30u);
   EXPECT_EQ(live(a), (std::vector<uint32_t>{0, 0, 30}));
   a.is(0, 10);  // inside the count: the count stays
   EXPECT_EQ(live(a), (std::vector<uint32_t>{10, 0, 30}));
   EXPECT_EQ(a[ViaIndex(5)], 0u);  // past the count: the empty value
   a.is(599, 7);
   EXPECT_EQ(a.count(), 600u);
   EXPECT_THROW(a.is(600, 1), Vela::RangeException);
   EXPECT_EQ(a.count(), 600u);
}

// The deletion rule: deleting the last place drops the holes before it; deleting inside leaves a
// hole; deleting a hole or a place at or past the count changes nothing; setting past the count
// revives the stale places in between, also after delAll.
TEST(FixedArray, DeletionRuleAndRevivalOfStalePlaces) {
   struct Step {
      char op;  // 's'et, 'd'elete, 'a'll deleted
      uint16_t place;
      uint32_t value;  // set: the value; delete: the value returned
      std::vector<uint32_t> live;
   };
   const std::vector<Step> steps = {
       {'s', 0, 11, {11}},
       {'s', 2, 22, {11, 0, 22}},
       {'d', 2, 22, {11}},  // the hole at 1 goes with it
       {'d', 2, 0, {11}},
       {'d', 599, 0, {11}},
       {'s', 1, 22, {11, 22}},
       {'s', 2, 33, {11, 22, 33}},
       {'d', 2, 33, {11, 22}},
       {'d', 1, 22, {11}},
       {'s', 3, 44, {11, 22, 33, 44}},  // places 1 and 2 come back with what they held
       {'a', 0, 0, {}},
       {'s', 1, 55, {11, 55}},  // and place 0 after delAll
       {'d', 0, 11, {0, 55}},   // a hole inside
       {'d', 0, 0, {0, 55}},
       {'d', 1, 55, {}},
   };
   Vias a;
   for (size_t i = 0; i < steps.size(); ++i) {
      const Step& s = steps[i];
      SCOPED_TRACE(::testing::Message() << "step " << i);
      if (s.op == 's') {
         EXPECT_EQ(a.is(s.place, s.value), s.value);
      } else if (s.op == 'd') {
         EXPECT_EQ(a.del(s.place), s.value);
      } else {
         a.delAll();
      }
      EXPECT_EQ(live(a), s.live);
      EXPECT_EQ(a.count(), s.live.size());
   }
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

// The size error carries the buffer's address and a lower-case hex dump that stops after 256
// bytes; a null buffer has an empty dump.
TEST(FixedArray, DeserializedCountIsValidatedAndTheErrorDumpsTheBuffer) {
   Vias a;
   a.at(0) = 9;
   a.setCountUnchecked(600);
   EXPECT_NO_THROW(a.validateSize());
   a.setCountUnchecked(601);
   EXPECT_EQ(std::distance(a.begin(), a.end()), 600);  // iteration never leaves the storage
   EXPECT_THROW(a.validateSize(), std::runtime_error);
   const auto text = [&](const uint8_t* buffer, size_t len) {
      return Testing::errorText<Vela::ArraySizeError>([&] { a.validateSize(buffer, len); });
   };
   const auto at = [](const uint8_t* p) { return fmt::format("{}", fmt::ptr(p)); };
   const std::string prefix = "expected size <= 600, instead got 601. Buffer is at address: ";
   const uint8_t wire[3] = {0x59, 0x02, 0xab};
   EXPECT_EQ(text(wire, sizeof wire), prefix + at(wire) + " with contents: 5902ab");
   std::vector<uint8_t> big(300);
   std::string dump;
   for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i);
   for (size_t i = 0; i < 256; ++i) dump += fmt::format("{:02x}", i);
   EXPECT_EQ(text(big.data(), big.size()), prefix + at(big.data()) + " with contents: " + dump);
   EXPECT_EQ(text(nullptr, 0), prefix + "0x0 with contents: ");
}

// ---- lazily constructed places ----

// An element whose empty value is not all-zero bytes, so a place nobody constructed cannot pass
// for it by chance.
struct Tagged {
   uint32_t v = 0x5a5a5a5a;
   friend bool operator==(const Tagged&, const Tagged&) = default;
};

// Makes the compiler treat the memory at p as read and written elsewhere, so filling storage
// before an array is built in it, and reading the storage afterwards, are not optimised away.
void escape(void* p) {
   __asm__ __volatile__("" : : "r"(p) : "memory");
}

// An array built in storage filled with 0xab: whatever the array never wrote stays 0xab.
template <typename A>
class Dirty {
  public:
   Dirty() { a_ = ::new (prepare()) A(); }
   explicit Dirty(const A& from) { a_ = ::new (prepare()) A(from); }
   A& operator*() { return *a_; }
   A* operator->() { return a_; }
   // True if no byte of places [from, Capacity) was written.
   bool untouchedFrom(size_t from) {
      escape(bytes_);
      const auto* places = reinterpret_cast<const unsigned char*>(a_->data());
      const size_t size = A::capacity() * sizeof(typename A::value_type);
      const size_t start = from * sizeof(typename A::value_type);
      return std::all_of(places + start, places + size, [](unsigned char b) { return b == 0xab; });
   }

  private:
   void* prepare() {
      std::memset(bytes_, 0xab, sizeof bytes_);
      escape(bytes_);
      return bytes_;
   }
   alignas(A) unsigned char bytes_[sizeof(A)];
   A* a_;
};

template <typename T>
T valueOf(int n) {
   if constexpr (std::is_same_v<T, Tagged>) {
      return Tagged{static_cast<uint32_t>(n)};
   } else {
      return static_cast<T>('a' + n);
   }
}

template <typename T>
class FixedArrayPlaces : public ::testing::Test {
  public:
   using Array = Vela::FixedArray<T, uint32_t, 8>;
   static T v(int n) { return valueOf<T>(n); }
   static std::vector<T> live(const Array& a) { return {a.begin(), a.end()}; }
};
using ElementKinds = ::testing::Types<uint32_t, char, Tagged>;
TYPED_TEST_SUITE(FixedArrayPlaces, ElementKinds);

TYPED_TEST(FixedArrayPlaces, PlacesNeverWrittenReadAsEmptyValue) {
   using T = TypeParam;
   Dirty<typename TestFixture::Array> a;
   EXPECT_TRUE(a->empty());
   EXPECT_EQ(std::as_const(*a).at(5), T{});
   EXPECT_EQ((*a)[5], T{});
   a->is(3, this->v(3));
   EXPECT_EQ(this->live(*a), (std::vector<T>{T{}, T{}, T{}, this->v(3)}));
   EXPECT_EQ(std::as_const(*a).at(4), T{});
   // A writable place is the empty value until written, and so are those it reached past.
   EXPECT_EQ(a->at(6), T{});
   a->at(6) = this->v(6);
   EXPECT_EQ(std::as_const(*a).at(5), T{});
   EXPECT_EQ(std::as_const(*a).at(6), this->v(6));
   EXPECT_EQ(a->count(), 4u);
   a->is(7, this->v(7));  // place 6 was written past the count: it revives
   EXPECT_EQ(this->live(*a),
             (std::vector<T>{T{}, T{}, T{}, this->v(3), T{}, T{}, this->v(6), this->v(7)}));
}

TYPED_TEST(FixedArrayPlaces, CopiesCarryNoStalePlaces) {
   using T = TypeParam;
   using Array = typename TestFixture::Array;
   Array src;  // live [v0, v1], stale v2 and v3 past the count
   for (int i = 0; i < 4; ++i) src.is(i, this->v(i));
   src.del(3);
   src.del(2);

   Dirty<Array> copy(src);
   EXPECT_EQ(*copy, src);
   EXPECT_EQ(std::as_const(*copy).at(2), T{});
   copy->is(4, this->v(9));
   EXPECT_EQ(this->live(*copy), (std::vector<T>{this->v(0), this->v(1), T{}, T{}, this->v(9)}));

   // Assignment drops the target's own stale places too.
   Dirty<Array> target;
   for (int i = 0; i < 6; ++i) target->is(i, this->v(i + 10));
   target->delAll();
   *target = src;
   EXPECT_EQ(*target, src);
   target->is(5, this->v(9));
   EXPECT_EQ(this->live(*target),
             (std::vector<T>{this->v(0), this->v(1), T{}, T{}, T{}, this->v(9)}));

   // The original keeps its stale places, also through assignment to itself.
   const Array& same = src;
   src = same;
   src.is(4, this->v(9));
   EXPECT_EQ(this->live(src),
             (std::vector<T>{this->v(0), this->v(1), this->v(2), this->v(3), this->v(9)}));
}

TEST(FixedArray, ConstructionAndCopyTouchOnlyLivePlaces) {
   Dirty<Vias> empty;
   EXPECT_TRUE(empty.untouchedFrom(0));
   Vias src;
   for (uint32_t i = 0; i < 600; ++i) src.is(i, i + 1);
   for (uint32_t i = 599; i >= 2; --i) src.del(i);
   Dirty<Vias> copy(src);
   EXPECT_TRUE(copy.untouchedFrom(2));
   EXPECT_EQ(live(*copy), (std::vector<uint32_t>{1, 2}));
   Dirty<Vias> target;
   *target = src;
   EXPECT_TRUE(target.untouchedFrom(2));
   EXPECT_EQ(*target, src);
}

TEST(FixedArray, BulkWritesAreDeclaredBySettingTheCount) {
   Dirty<Vias> a;
   const uint32_t wire[3] = {7, 8, 9};
   std::memcpy(a->data(), wire, sizeof wire);
   a->setCountUnchecked(3);
   EXPECT_EQ(live(*a), (std::vector<uint32_t>{7, 8, 9}));
   // Lowering the count keeps the places written: they revive.
   a->setCountUnchecked(1);
   a->is(4, 5);
   EXPECT_EQ(live(*a), (std::vector<uint32_t>{7, 8, 9, 0, 5}));
   EXPECT_TRUE(a.untouchedFrom(5));
}

}  // namespace
