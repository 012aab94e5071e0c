// Properties every fixed byte form shares, checked for each type: deserialize reads no byte past
// kSerializedSize (the bytes sit against a page the process may not touch), and any bytes at all
// are either rejected with FormatError or are exactly the byte form of the value they yield, so
// bad bytes never turn into a value that would serialize differently.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <vector>

#include "Wirekit/Errors.h"
#include "Wirekit/IntfId.h"
#include "Wirekit/IpGenAddr.h"
#include "Wirekit/IpGenPrefix.h"
#include "Wirekit/MplsLabelOperation.h"

namespace {

using namespace Wirekit;

// Two pages, the second inaccessible; bytes placed at the end of the first.
class GuardedBytes {
  public:
   GuardedBytes() {
      page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
      void* p =
          mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (p == MAP_FAILED) throw std::runtime_error("mmap failed");
      base_ = static_cast<uint8_t*>(p);
      if (mprotect(base_ + page_, page_, PROT_NONE) != 0) throw std::runtime_error("mprotect");
   }
   ~GuardedBytes() { munmap(base_, 2 * page_); }
   GuardedBytes(const GuardedBytes&) = delete;
   GuardedBytes& operator=(const GuardedBytes&) = delete;
   uint8_t* place(const uint8_t* bytes, size_t n) {
      uint8_t* at = base_ + page_ - n;
      std::memcpy(at, bytes, n);
      return at;
   }

  private:
   size_t page_ = 0;
   uint8_t* base_ = nullptr;
};

// Sample values of each type, from their text forms.
template <typename T>
std::vector<T> samples();

template <typename T>
std::vector<T> parsed(std::initializer_list<std::string> texts) {
   return std::vector<T>(texts.begin(), texts.end());
}

template <>
std::vector<IpGenAddr> samples() {
   return parsed<IpGenAddr>({"none", "10.0.0.1", "255.255.255.255", "2001:db8::1",
                             "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"});
}

template <>
std::vector<IpGenPrefix> samples() {
   return parsed<IpGenPrefix>(
       {"none", "10.0.0.0/8", "1.2.3.4/32", "0.0.0.0/0", "2001:db8::/32", "::1/128"});
}

template <>
std::vector<IntfId> samples() {
   return parsed<IntfId>({"", "Ethernet1", "Ethernet3/1/4", "Vlan4094", "Management1/1",
                          "Tunnel70000", "DynamicTunnel0x900000000005"});
}

template <>
std::vector<MplsLabelOperation> samples() {
   std::string fullStack = "push";  // eleven labels of 20 bits
   for (int i = 0; i < 11; ++i) fullStack += " 1048575";
   return parsed<MplsLabelOperation>(
       {"", "push 100 200", fullStack, "swap 300", "pop 2", "pop 3 push 7 8"});
}

template <typename T>
class FixedByteForm : public ::testing::Test {};

using FixedTypes = ::testing::Types<IpGenAddr, IpGenPrefix, IntfId, MplsLabelOperation>;
TYPED_TEST_SUITE(FixedByteForm, FixedTypes);

// Either FormatError, or a value whose byte form is exactly `bytes`.
template <typename T>
void expectRejectedOrExact(GuardedBytes& g, const std::vector<uint8_t>& bytes) {
   const uint8_t* at = g.place(bytes.data(), T::kSerializedSize);
   try {
      const T v = T::deserialize(at);
      std::vector<uint8_t> again(T::kSerializedSize);
      v.serialize(again.data());
      ASSERT_EQ(again, bytes);
   } catch (const FormatError&) {
   }
}

TYPED_TEST(FixedByteForm, RoundTripsAndCorruptBytesAreRejectedOrReadExactly) {
   using T = TypeParam;
   GuardedBytes g;
   // Each sample reads back; then each of its bytes set to values that break fields differently.
   for (const T& v : samples<T>()) {
      std::vector<uint8_t> good(T::kSerializedSize);
      v.serialize(good.data());
      EXPECT_EQ(T::deserialize(g.place(good.data(), good.size())), v);
      for (size_t pos = 0; pos < good.size(); ++pos) {
         for (int value : {0x00, 0x01, 0x04, 0x06, 0x0C, 0x10, 0x7F, 0x80, 0xFF, good[pos] ^ 0x01,
                           good[pos] ^ 0x80}) {
            auto b = good;
            b[pos] = static_cast<uint8_t>(value);
            expectRejectedOrExact<T>(g, b);
            if (this->HasFatalFailure()) return;
         }
      }
   }
   // Random bytes, and random bytes under a plausible first word.
   std::mt19937 rng(5);
   std::vector<uint8_t> b(T::kSerializedSize);
   for (int i = 0; i < 20000; ++i) {
      for (auto& x : b) x = static_cast<uint8_t>(rng());
      if (i % 2 == 0) {
         for (size_t k = 1; k < 4; ++k) b[k] = 0;
         b[0] = static_cast<uint8_t>(rng() % 10);
      }
      expectRejectedOrExact<T>(g, b);
      if (this->HasFatalFailure()) return;
   }
}

}  // namespace
