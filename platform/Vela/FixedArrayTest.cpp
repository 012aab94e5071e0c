#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Vela/FixedArray.h"
#include "testing/Expect.h"

// The arrays every entry's vias and tunnel ids live in: the deletion rule, revival of stale places,
// the storage never written, copies and bulk writes. (The bounded index of a real via array, and
// its capacity of 600, are pinned through the entries.)
namespace {

// An element whose empty value is not all-zero bytes, so a place nobody constructed cannot pass
// for it by chance.
struct Tagged {
   uint32_t v = 0x5a5a5a5a;
   friend bool operator==(const Tagged&, const Tagged&) = default;
};
using Places = Vela::FixedArray<Tagged, uint32_t, 8>;
const Tagged e{};  // the empty value
Tagged t(uint32_t n) {
   return Tagged{n};
}
std::vector<Tagged> live(const Places& a) {
   return {a.begin(), a.end()};
}

// Makes the compiler treat the memory at p as read and written elsewhere, so filling storage
// before an array is built in it, and reading the storage afterwards, are not optimised away.
void escape(void* p) {
   __asm__ __volatile__("" : : "r"(p) : "memory");
}

// An array built in storage filled with 0xab: whatever the array never wrote stays 0xab.
class Dirty {
  public:
   Dirty() { a_ = ::new (prepare()) Places(); }
   explicit Dirty(const Places& from) { a_ = ::new (prepare()) Places(from); }
   Places& operator*() { return *a_; }
   Places* operator->() { return a_; }
   // True if no byte of places [from, capacity) was written.
   bool untouchedFrom(size_t from) {
      escape(bytes_);
      const auto* places = reinterpret_cast<const unsigned char*>(a_->data());
      return std::all_of(places + from * sizeof(Tagged), places + 8 * sizeof(Tagged),
                         [](unsigned char b) { return b == 0xab; });
   }

  private:
   void* prepare() {
      std::memset(bytes_, 0xab, sizeof bytes_);
      escape(bytes_);
      return bytes_;
   }
   alignas(Places) unsigned char bytes_[sizeof(Places)];
   Places* a_;
};

TEST(FixedArray, PlacesNeverWrittenReadAsEmptyValueAndStayUntouched) {
   Dirty a;
   EXPECT_TRUE(a.untouchedFrom(0));
   EXPECT_EQ(std::as_const(*a).at(5), e);
   EXPECT_EQ((*a)[5], e);
   a->is(3, t(3));
   EXPECT_EQ(live(*a), (std::vector<Tagged>{e, e, e, t(3)}));
   EXPECT_TRUE(a.untouchedFrom(4));
   // A writable place is the empty value until written, and so are those it reached past.
   EXPECT_EQ(a->at(6), e);
   a->at(6) = t(6);
   EXPECT_EQ(std::as_const(*a).at(5), e);
   EXPECT_EQ(a->count(), 4u);
   a->is(7, t(7));  // place 6 was written past the count: it revives
   EXPECT_EQ(live(*a), (std::vector<Tagged>{e, e, e, t(3), e, e, t(6), t(7)}));
   EXPECT_DEATH(a->is(8, e), "assertion failed: p < Capacity");
   EXPECT_DEATH(a->at(8), "assertion failed: i < Capacity");
}

// The deletion rule: deleting the last place drops the holes before it; deleting inside leaves a
// hole; deleting a hole or a place at or past the count changes nothing; setting past the count
// revives the stale places in between, also after delAll. Deleting through an iterator continues
// at the next place.
TEST(FixedArray, DeletionRuleAndRevivalOfStalePlaces) {
   constexpr uint32_t E = Tagged{}.v;
   struct Step {
      char op;                // 's'et, 'd'elete, 'a'll deleted
      uint32_t place, value;  // set: the value; delete: the value returned
      std::vector<uint32_t> live;
   };
   const std::vector<Step> steps = {
       {'s', 0, 11, {11}},
       {'s', 2, 22, {11, E, 22}},
       {'d', 2, 22, {11}},  // hole 1 too
       {'d', 2, E, {11}},
       {'d', 7, E, {11}},
       {'s', 1, 22, {11, 22}},
       {'s', 2, 33, {11, 22, 33}},
       {'d', 2, 33, {11, 22}},
       {'d', 1, 22, {11}},
       {'s', 3, 44, {11, 22, 33, 44}},  // places 1 and 2 come back with what they held
       {'a', 0, 0, {}},
       {'s', 1, 55, {11, 55}},  // and place 0 after delAll
       {'d', 0, 11, {E, 55}},
       {'d', 0, E, {E, 55}},
       {'d', 1, 55, {}},
   };
   Places a;
   for (size_t i = 0; i < steps.size(); ++i) {
      const Step& s = steps[i];
      SCOPED_TRACE(::testing::Message() << "step " << i);
      if (s.op == 's') {
         EXPECT_EQ(a.is(s.place, t(s.value)), t(s.value));
      } else if (s.op == 'd') {
         EXPECT_EQ(a.del(s.place), t(s.value));
      } else {
         a.delAll();
      }
      std::vector<uint32_t> values;
      for (const Tagged& x : a) values.push_back(x.v);
      EXPECT_EQ(values, s.live);
   }
   for (uint32_t i = 0; i < 5; ++i) a.is(i, t(i + 1));
   for (auto it = a.begin(); it != a.end();) it = it->v % 2 == 1 ? a.del(it) : it + 1;
   EXPECT_EQ(live(a), (std::vector<Tagged>{e, t(2), e, t(4)}));
}

// A copy writes only the live places; assignment also drops the target's own stale places, and
// the original keeps its own, also through assignment to itself.
TEST(FixedArray, CopiesWriteOnlyLivePlaces) {
   Places src;  // live [t0, t1], stale t2 and t3 past the count
   for (uint32_t i = 0; i < 4; ++i) src.is(i, t(i));
   src.del(3);
   src.del(2);
   Dirty copy(src);
   EXPECT_TRUE(copy.untouchedFrom(2));
   EXPECT_EQ(*copy, src);
   Places target;
   for (uint32_t i = 0; i < 6; ++i) target.is(i, t(i + 10));
   target.delAll();
   target = src;
   target.is(5, t(9));
   EXPECT_EQ(live(target), (std::vector<Tagged>{t(0), t(1), e, e, e, t(9)}));
   const Places& same = src;
   src = same;
   src.is(4, t(9));
   EXPECT_EQ(live(src), (std::vector<Tagged>{t(0), t(1), t(2), t(3), t(9)}));
   // Equality compares the counts too, not just the places of the shorter one.
   src.delAll();
   target.delAll();
   target.is(0, e);
   EXPECT_NE(src, target);
}

// Deserializers write the storage, then declare the count; a lowered count keeps the places
// written (they revive). A count past the capacity is refused with a size error that carries the
// buffer's address and a lower-case hex dump stopping after 256 bytes (empty for a null buffer);
// iteration never leaves the storage meanwhile.
TEST(FixedArray, BulkWritesAreDeclaredBySettingTheCountAndValidated) {
   Dirty a;
   const Tagged wire[3] = {t(7), t(8), t(9)};
   std::memcpy(a->data(), wire, sizeof wire);
   a->setCountUnchecked(3);
   EXPECT_EQ(live(*a), (std::vector<Tagged>{t(7), t(8), t(9)}));
   a->setCountUnchecked(1);
   a->is(4, t(5));
   EXPECT_EQ(live(*a), (std::vector<Tagged>{t(7), t(8), t(9), e, t(5)}));
   EXPECT_TRUE(a.untouchedFrom(5));

   a->setCountUnchecked(8);
   EXPECT_NO_THROW(a->validateSize());
   a->setCountUnchecked(9);
   EXPECT_EQ(std::distance(a->begin(), a->end()), 8);
   EXPECT_THROW(a->validateSize(), std::runtime_error);
   const auto text = [&](const uint8_t* buffer, size_t len) {
      return Testing::errorText<Vela::ArraySizeError>([&] { a->validateSize(buffer, len); });
   };
   const std::string prefix = "expected size <= 8, instead got 9. Buffer is at address: ";
   std::vector<uint8_t> big(300);
   std::string dump;
   for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i);
   for (size_t i = 0; i < 256; ++i) dump += fmt::format("{:02x}", i);
   EXPECT_EQ(text(big.data(), big.size()),
             prefix + fmt::format("{}", fmt::ptr(big.data())) + " with contents: " + dump);
   EXPECT_EQ(text(nullptr, 0), prefix + "0x0 with contents: ");
}

}  // namespace
