// Every byte of every file a reader or the deep check depends on, damaged in turn in a small
// published table: each damage is reported by validateTableFiles or by a plain reader with a
// message, or is harmless (the check passes and a fresh reader reads every value exactly); no
// damage hangs, crashes, or makes a reader hand out a value other than the one written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "store/DeepValidate.h"
#include "store/reader/DockReader.h"
#include "store/writer/DockWriter.h"
#include "testing/StoreTestSupport.h"
#include "testing/TempRoot.h"

namespace {

using DockTest::KeyOf;
using DockTest::Value;
using Reader = Dock::DockReader<uint64_t, Value, KeyOf>;
using Writer = Dock::DockWriter<uint64_t, Value, KeyOf>;

// What one damaged byte led to: whether the deep check or a fresh plain reader reported it (with
// a message), and anything the reader got wrong (empty when nothing).
struct Outcome {
   bool reported = false;
   std::string wrong;
};

Outcome check(const std::string& dir, const std::map<uint64_t, Value>& written) {
   const auto keyHash = [](const uint8_t* bytes, uint32_t length, uint32_t seed) {
      Value v;
      v.deserialize(bytes, length);
      return Dock::KeyTraits<uint64_t>::hash(v.key, seed);
   };
   Outcome out;
   try {  // nothing changes the files: one walk, no confirmation
      Dock::validateTableFiles(dir, DockTest::kMaxValueSize, {1, {}}, keyHash);
   } catch (const std::exception& e) {
      out.reported = *e.what() != 0;
   }
   Reader r("sweep", dir);
   if (!r.attach()) return {true, ""};
   std::map<uint64_t, Value> found, walked;
   try {
      for (const auto& [key, value] : written) {
         if (const std::optional<Value> got = r.lookup(key)) found[key] = *got;
      }
      Dock::IterHint hint;
      Value v;
      for (bool more = r.first(hint, v); more; more = r.next(hint, v)) {
         if (!walked.emplace(v.key, v).second)
            return {out.reported, "twice: " + std::to_string(v.key)};
      }
   } catch (const std::exception& e) {
      out.reported = *e.what() != 0;
   }
   // A value other than the one written is wrong even when the damage was reported; a key
   // missing is wrong only when nothing reported the damage.
   for (const auto* seen : {&found, &walked}) {
      for (const auto& [key, value] : *seen) {
         if (!written.count(key) || !(written.at(key) == value)) {
            return {out.reported, "wrong value of key " + std::to_string(key)};
         }
      }
      if (!out.reported && seen->size() != written.size()) {
         return {false, std::to_string(seen->size()) + " of " + std::to_string(written.size())};
      }
   }
   return out;
}

TEST(ByteFlipSweep, EveryDamagedByteIsReportedOrHarmlessNeverAWrongValue) {
   Testing::TempRoot root;
   std::map<uint64_t, Value> written;
   std::string dir;
   {
      // Two size classes, a removal (a free slot and a free entry), a herald of 16.
      Writer w(DockTest::tableConfig(16, 1u << 14, 16));
      w.initialize("t/sweep");
      for (uint64_t k = 1; k <= 6; ++k) {
         written[k] = Value(k, 1, k % 2 ? 1 : 40);
         w.write(written[k]);
      }
      w.remove(6);
      written.erase(6);
      w.flush();
      dir = w.directory();
   }
   ASSERT_FALSE(check(dir, written).reported) << "the undamaged table";

   size_t cases = 0, reported = 0;
   for (const auto& f : std::filesystem::directory_iterator(dir)) {
      const std::string name = f.path().filename();
      // The owner file is the writer's lock, read by no reader; wake/ holds sockets.
      if (!f.is_regular_file() || name == Dock::kOwnerFile) continue;
      const int fd = ::open(f.path().c_str(), O_RDWR | O_CLOEXEC);
      ASSERT_GE(fd, 0) << name;
      const off_t size = ::lseek(fd, 0, SEEK_END);
      for (off_t at = 0; at < size; ++at) {
         uint8_t byte = 0;
         ASSERT_EQ(::pread(fd, &byte, 1, at), 1);
         const uint8_t damaged = byte ^ uint8_t(1u << (at % 8));
         ASSERT_EQ(::pwrite(fd, &damaged, 1, at), 1);
         const Outcome o = check(dir, written);
         ASSERT_EQ(::pwrite(fd, &byte, 1, at), 1);
         ++cases;
         reported += o.reported;
         EXPECT_EQ(o.wrong, "") << name << " byte " << at << (o.reported ? " (reported)" : "");
      }
      ::close(fd);
   }
   // Every file was swept, and damage was found where it matters (headers, slots, entries).
   EXPECT_GT(cases, 1000u);
   EXPECT_GT(reported, cases / 10);
}

}  // namespace
