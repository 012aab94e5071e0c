// The relume file and version anchors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>

#include "Region/MappedFile.h"
#include "Region/RelumeFile.h"
#include "Region/VersionAnchor.h"
#include "testing/TempRoot.h"

namespace {

TEST(RelumeFile, WriteReadAndRejectDamage) {
   Testing::TempRoot root;
   EXPECT_EQ(Region::RelumeFile::read(root.path()), 0u);
   Region::RelumeFile::write(root.path(), 7);
   EXPECT_EQ(Region::RelumeFile::read(root.path()), 7u);

   const std::string path = root.path() + "/relume";
   // Every single-byte change of the record is refused.
   for (off_t at = 0; at < off_t(sizeof(Region::RelumeRecord)); ++at) {
      Region::RelumeFile::write(root.path(), 7);
      int fd = ::open(path.c_str(), O_RDWR);
      ASSERT_GE(fd, 0);
      uint8_t b;
      ASSERT_EQ(::pread(fd, &b, 1, at), 1);
      b ^= 0x40;
      ASSERT_EQ(::pwrite(fd, &b, 1, at), 1);
      ::close(fd);
      EXPECT_EQ(Region::RelumeFile::read(root.path()), 0u) << "byte " << at;
   }
   // A short file too.
   ASSERT_EQ(::truncate(path.c_str(), 12), 0);
   EXPECT_EQ(Region::RelumeFile::read(root.path()), 0u);
   EXPECT_DEATH(Region::RelumeFile::write(root.path(), 0),
                "assertion failed: relume != 0 && \"relume 0 means none\"");
}

TEST(RelumeFile, NextDiffersFromPreviousAndIsNeverZero) {
   std::set<uint32_t> seen;
   uint32_t r = 0;
   for (int i = 0; i < 1000; ++i) {
      const uint32_t n = Region::RelumeFile::next(r);
      EXPECT_TRUE(n != 0 && n != r) << n;
      seen.insert(r = n);
   }
   EXPECT_GT(seen.size(), 990u);  // random, not a counter stuck on a few values
}

TEST(VersionAnchor, DetectsResizeRelumeAndReplacement) {
   Testing::TempRoot root;
   const std::string path = root.path() + "/slots";
   auto f = Region::MappedFile::create(path, 64);
   auto anchor = Region::VersionAnchor::of(f, 5, 0);
   EXPECT_TRUE(anchor.valid());
   EXPECT_FALSE(Region::VersionAnchor{}.valid());
   EXPECT_EQ(anchor.compare(Region::VersionAnchor::of(f, 5, 0)), Region::AnchorChange::kNone);
   EXPECT_EQ(anchor.compare(Region::VersionAnchor::of(f, 5, 1)), Region::AnchorChange::kResized);
   EXPECT_EQ(anchor.compare(Region::VersionAnchor::of(f, 6, 0)), Region::AnchorChange::kReplaced);
   EXPECT_TRUE(anchor.samePath(path));

   auto g = Region::MappedFile::create(path, 64);  // a re-formatted table: a new file
   EXPECT_FALSE(anchor.samePath(path));
   EXPECT_EQ(anchor.compare(Region::VersionAnchor::of(g, 5, 0)), Region::AnchorChange::kReplaced);
   EXPECT_EQ(Region::VersionAnchor{}.compare(anchor), Region::AnchorChange::kReplaced);
   EXPECT_NE(anchor.toString().find("relume: 5 resizeCounter: 0"), std::string::npos);
}

}  // namespace
