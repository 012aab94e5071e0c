// HugePageBuffer: whole 2 MiB units, 2 MiB aligned (or whole pages when asked for no huge pages),
// zero-filled, and moved without copying.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "store/writer/HugePageBuffer.h"

namespace {

TEST(HugePageBuffer, IsAlignedZeroFilledAndRoundedToWholeHugePages) {
   constexpr size_t kHuge = Dock::HugePageBuffer::kHugePage;
   Dock::HugePageBuffer none;
   EXPECT_EQ(none.data(), nullptr);
   EXPECT_EQ(Dock::HugePageBuffer(0).size(), 0u);
   for (size_t bytes : {size_t(1), kHuge - 1, kHuge, kHuge + 1, 3 * kHuge + 5}) {
      Dock::HugePageBuffer b(bytes);
      ASSERT_NE(b.data(), nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(b.data()) % kHuge, 0u) << bytes;
      EXPECT_EQ(b.size(), (bytes + kHuge - 1) / kHuge * kHuge) << bytes;
      EXPECT_EQ(b.data()[0], 0);
      EXPECT_EQ(b.data()[b.size() - 1], 0);
      b.data()[b.size() - 1] = 7;  // the whole rounded size is writable
   }
   // Without huge pages: whole 4 KiB pages, nothing more.
   const size_t page = size_t(::sysconf(_SC_PAGESIZE));
   for (size_t bytes : {size_t(1), page, page + 1}) {
      Dock::HugePageBuffer b(bytes, false);
      EXPECT_EQ(b.size(), (bytes + page - 1) / page * page) << bytes;
      EXPECT_EQ(b.data()[b.size() - 1], 0);
      b.data()[b.size() - 1] = 7;
   }
   Dock::HugePageBuffer a(100);
   a.as<uint32_t>()[3] = 42;
   uint8_t* const at = a.data();
   Dock::HugePageBuffer moved(std::move(a));
   EXPECT_EQ(a.data(), nullptr);
   EXPECT_EQ(moved.data(), at);
   EXPECT_EQ(moved.as<uint32_t>()[3], 42u);
   Dock::HugePageBuffer other(1);
   other = std::move(moved);
   EXPECT_EQ(other.data(), at);
   EXPECT_EQ(other.as<uint32_t>()[3], 42u);
}

}  // namespace
