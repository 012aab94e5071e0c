// The two RIB tables: counted writes and deletes with their asymmetries, the id and counter, the
// dump lines, and a reader in another process that sees what the writer wrote.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

#include "Loom/EventLoop.h"
#include "TunnelRib/TunnelRib.h"
#include "TunnelTable/TunnelMount.h"
#include "Vault/MountService.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelTable {
namespace {

// Counts notifications by attribute.
struct Recorder : Vela::Entity::Notifiee {
   void onAttribute(Vela::AttributeId attr, const void*) override { events.push_back(attr.value); }
   size_t count(Vela::AttributeId attr) const {
      return size_t(std::count(events.begin(), events.end(), attr.value));
   }
   std::vector<uint32_t> events;
};

bool runUntil(Loom::EventLoop& loop, const std::function<bool()>& done) {
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
   while (!done() && std::chrono::steady_clock::now() < deadline) {
      loop.runOnce(std::chrono::milliseconds(10));
   }
   return done();
}

Wirekit::IpGenPrefix prefix(uint32_t n) {
   return Wirekit::IpGenPrefix(Wirekit::IpGenAddr::ipv4(0x0A000000u + n * 256), 24);
}

TunnelRibEntry entryOf(const ColoredTunnelEndpoint& tep, uint64_t tunnel) {
   TunnelRibEntry e(tep);
   e.metricIs(7);
   e.addTunnelWithBw(TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, tunnel)), 1.5f);
   return e;
}

struct RibTest : ::testing::Test {
   Testing::TempRoot root;
   Loom::EventLoop loop;
   Vela::Ptr<Vault::MountService> service = Vela::makePtr<Vault::MountService>();
   TunnelTableMounter mounter{service, loop};
   Recorder recorder;
};

TEST_F(RibTest, CountedWritesAndDeletesWithTheirAsymmetries) {
   auto plain = mounter.mountWriterOf<TunnelRib>();
   auto colored = mounter.mountWriterOf<ColoredTunnelRib>();
   ASSERT_TRUE(plain && colored);
   EXPECT_FALSE(plain->isColored());
   EXPECT_TRUE(colored->isColored());
   EXPECT_EQ(plain->id(), TunnelRibId(0xFFFFFFFFu));
   plain->notifieeAdd(&recorder);

   const ColoredTunnelEndpoint red(prefix(1), 5), blue(prefix(1), 6);
   plain->tunnelRibEntryIs(entryOf(prefix(1), 1));
   plain->tunnelRibEntryIs(entryOf(prefix(1), 1));  // equal: nothing written, nothing counted
   EXPECT_EQ(plain->tunnelRibUpdateCounter(), 1u);
   EXPECT_EQ(recorder.count(Vela::attrEntry), 1u);
   EXPECT_EQ(recorder.count(attrTunnelRibUpdateCounter), 1u);
   // The plain RIB ignores the color of the endpoint it is asked about.
   EXPECT_TRUE(plain->tunnelRibEntryHas(red));
   EXPECT_TRUE(plain->tunnelRibEntryHas(blue));
   EXPECT_TRUE(plain->tunnelRibEntry(blue) == entryOf(prefix(1), 1));

   colored->tunnelRibEntryIs(entryOf(red, 2));
   colored->tunnelRibEntryIs(entryOf(red, 2));  // counted and written again
   EXPECT_EQ(colored->tunnelRibUpdateCounter(), 2u);
   EXPECT_TRUE(colored->tunnelRibEntryHas(red));
   EXPECT_FALSE(colored->tunnelRibEntryHas(blue));

   // A delete counts even when nothing is there.
   plain->tunnelRibEntryDel(prefix(9));
   EXPECT_EQ(plain->tunnelRibUpdateCounter(), 2u);
   plain->tunnelRibEntryDel(blue);
   EXPECT_EQ(plain->tunnelRibUpdateCounter(), 3u);
   EXPECT_FALSE(plain->tunnelRibEntryHas(prefix(1)));
   EXPECT_TRUE(plain->tunnelRibEntry(prefix(1)) == TunnelRibEntry());

   // The uncounted family operations leave the counter alone; Inc(0) and an equal id notify nobody.
   plain->entryIs(entryOf(prefix(2), 3));
   EXPECT_EQ(plain->tunnelRibUpdateCounter(), 3u);
   const size_t before = recorder.events.size();
   EXPECT_EQ(plain->tunnelRibUpdateCounterInc(0), 3u);
   plain->idIs(TunnelRibId(0xFFFFFFFFu));
   EXPECT_EQ(recorder.events.size(), before);
   plain->idIs(TunnelRibId(4));
   plain->tunnelRibUpdateCounterIs(40);
   EXPECT_EQ(recorder.count(attrId), 1u);
   EXPECT_EQ(plain->tunnelRibUpdateCounterInc(2), 42u);
   plain->notifieeDel(&recorder);
}

TEST_F(RibTest, DumpLinesAndAReaderInAnotherProcess) {
   auto colored = mounter.mountWriterOf<ColoredTunnelRib>();
   colored->idIs(TunnelRibId(3));
   colored->tunnelRibEntryIs(entryOf(ColoredTunnelEndpoint(prefix(1), 5), 4));
   Vela::String dump;
   colored->dumpState(dump, 2);
   EXPECT_EQ(dump,
             "  ColoredTunnelRib id 3\n"
             "    tunnelRibUpdateCounter=1\n"
             "    ColoredTunnelRibEntries dock seqno " +
                 std::to_string(colored->storeSequence()) +
                 "\n"
                 "    entries #1\n"
                 "    TunnelRibEntry 10.0.1.0/24 color 5 metric 7 metric2 0 pref 0 pref2 0\n"
                 "      tunnelIds #1\n"
                 "        type ldpTunnel index 4\n");
   EXPECT_GT(colored->storeSequence(), 0u);

   const TunnelRibEntry expected = entryOf(ColoredTunnelEndpoint(prefix(1), 5), 4);
   const pid_t child = Testing::forkChild([&] {
      Loom::EventLoop childLoop;
      auto childService = Vela::makePtr<Vault::MountService>();
      TunnelTableMounter childMounter(childService, childLoop);
      auto reader = childMounter.mountKeyshadowOf<ColoredTunnelRib>();
      if (!reader || reader->isWriter()) return 2;
      // What was there at attach is taken in by the mount itself; per-key changes after it
      // reach the RIB builder's tests.
      if (!runUntil(childLoop, [&] { return reader->entryCount() == 1; })) return 3;
      return reader->tunnelRibEntry(ColoredTunnelEndpoint(prefix(1), 5)) == expected ? 0 : 4;
   });
   EXPECT_EQ(Testing::waitChild(child), 0);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
