// Mapped files: shrink without truncation, replace rather than truncate, and the size arithmetic
// that validation relies on. Growing and following a writer's resize are exercised by the store's
// reader and writer tests; that every reader maps the files read-only, by DockMapProcessTest.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>

#include "Region/Error.h"
#include "Region/MappedFile.h"
#include "Region/StoreRoot.h"
#include "testing/Expect.h"
#include "testing/TempRoot.h"

namespace {

// A fresh store root per test, and a file path in it.
class MappedFileTest : public ::testing::Test {
  protected:
   Testing::TempRoot root;
   const std::string path = root.path() + "/f";
};

TEST_F(MappedFileTest, ShrinkKeepsLengthAndZeroesTheTail) {
   const size_t big = 64 * 4096;
   auto w = Region::MappedFile::create(path, big);
   std::memset(w.data(), 0xab, big);
   auto r = Region::MappedFile::openReadOnly(path);
   struct stat before;
   ASSERT_EQ(::stat(path.c_str(), &before), 0);

   w.resize(4096 + 10);  // keeps the first two pages (the second partly used)
   EXPECT_EQ(w.fileSize(), big);
   EXPECT_EQ(w.size(), big);
   struct stat after;
   ASSERT_EQ(::stat(path.c_str(), &after), 0);
   EXPECT_LT(after.st_blocks, before.st_blocks);
   // A reader that still touches the tail reads zeros and does not fault.
   EXPECT_EQ(r.data()[0], 0xab);
   EXPECT_EQ(r.data()[4096 + 9], 0xab);
   EXPECT_EQ(r.data()[2 * 4096], 0);
   EXPECT_EQ(r.data()[big - 1], 0);
   // Growing again within the old length reuses it.
   w.resize(big / 2);
   w.data()[big / 2 - 1] = 1;
   EXPECT_EQ(r.data()[big / 2 - 1], 1);
}

TEST_F(MappedFileTest, CreateReplacesTheFileInsteadOfTruncatingIt) {
   auto w = Region::MappedFile::create(path, 8192);
   std::memset(w.data(), 0x11, 8192);
   auto r = Region::MappedFile::openReadOnly(path);
   auto w2 = Region::MappedFile::create(path, 16);
   // The old reader keeps valid pages of the old file (a truncation would raise SIGBUS here).
   EXPECT_EQ(r.data()[8191], 0x11);
   EXPECT_EQ(w2.fileSize(), 16u);
   EXPECT_EQ(w2.data()[0], 0);
}

TEST_F(MappedFileTest, EmptyFileMapsToNothingAndFollowsGrowth) {
   auto w = Region::MappedFile::create(path, 0);
   auto r = Region::MappedFile::openReadOnly(path);
   EXPECT_EQ(r.size(), 0u);
   EXPECT_EQ(r.data(), nullptr);
   w.resize(10);
   w.data()[9] = 3;
   EXPECT_FALSE(r.remap());  // nothing was mapped, so nothing moved
   EXPECT_EQ(r.data()[9], 3);
}

TEST_F(MappedFileTest, ReadOnlyResizeIsAnAssertion) {
   { auto w = Region::MappedFile::create(path, 10); }
   auto r = Region::MappedFile::openReadOnly(path);
   EXPECT_DEATH(r.resize(20),
                "assertion failed: fd_ >= 0 && !readOnly_ && \"resize needs a file mapped "
                "read-write\"");
}

// The size check's text is pinned by the slot table tests; here its bounds and the wrap.
TEST_F(MappedFileTest, OpenFailuresNameTheFileAndSizesStopBelowTheLargestMapping) {
   EXPECT_EQ(Testing::errorText<Region::Error>([&] { Region::MappedFile::openReadOnly(path); }),
             "cannot open " + path + ": No such file or directory");
   EXPECT_THROW(Region::MappedFile::create(root.path() + "/no/such/dir/f", 10), Region::Error);
   const uint64_t L = Region::kLargestMapping;
   EXPECT_EQ(Region::checkedRegionSize(0, L - 1, 1), L - 1);
   EXPECT_THROW(Region::checkedRegionSize(0, L, 1), Region::Error);
   EXPECT_THROW(Region::checkedRegionSize(40, UINT64_MAX, 2), Region::Error);  // wraps
}

TEST(StoreRoot, EnvironmentOverridesTheDefault) {
   Testing::TempRoot root;  // sets TUNNEL_SHMEM_ROOT while it lives, then restores it
   EXPECT_EQ(Region::storeRoot(), root.path());
   ::unsetenv("TUNNEL_SHMEM_ROOT");
   EXPECT_EQ(Region::storeRoot(), "/var/shmem");
}

}  // namespace
