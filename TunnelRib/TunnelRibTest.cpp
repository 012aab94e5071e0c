// The two RIB tables: counted writes and deletes with their asymmetries, the dump lines, and a
// reader in another process that sees what the writer wrote.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

#include "Loom/EventLoop.h"
#include "TunnelRib/TunnelRib.h"
#include "TunnelTable/TunnelMount.h"
#include "Vault/MountService.h"
#include "testing/RunUntil.h"
#include "testing/TempRoot.h"

namespace Tunnel::TunnelTable {
namespace {

using Testing::runUntil;

// Counts notifications by attribute.
struct Recorder : Vela::Entity::Notifiee {
   void onAttribute(Vela::AttributeId attr, const void*) override { events.push_back(attr.value); }
   size_t count(Vela::AttributeId attr) const {
      return size_t(std::count(events.begin(), events.end(), attr.value));
   }
   std::vector<uint32_t> events;
};

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

// The update counter: the plain RIB skips an equal write, the colored one counts it again; a
// delete counts even when nothing is there. The plain RIB ignores the color asked about.
TEST_F(RibTest, CountedWritesAndDeletesWithTheirAsymmetries) {
   auto plain = mounter.mountWriterOf<TunnelRib>();
   auto colored = mounter.mountWriterOf<ColoredTunnelRib>();
   ASSERT_TRUE(plain && colored);
   plain->notifieeAdd(&recorder);
   const ColoredTunnelEndpoint red(prefix(1), 5), blue(prefix(1), 6);
   plain->tunnelRibEntryIs(entryOf(prefix(1), 1));
   plain->tunnelRibEntryIs(entryOf(prefix(1), 1));
   EXPECT_EQ(plain->tunnelRibUpdateCounter(), 1u);
   EXPECT_EQ(recorder.count(Vela::attrEntry), 1u);
   EXPECT_EQ(recorder.count(attrTunnelRibUpdateCounter), 1u);
   EXPECT_TRUE(plain->tunnelRibEntry(blue) == entryOf(prefix(1), 1));
   colored->tunnelRibEntryIs(entryOf(red, 2));
   colored->tunnelRibEntryIs(entryOf(red, 2));
   EXPECT_EQ(colored->tunnelRibUpdateCounter(), 2u);
   EXPECT_FALSE(colored->tunnelRibEntryHas(blue));
   plain->tunnelRibEntryDel(prefix(9));
   plain->tunnelRibEntryDel(blue);
   EXPECT_EQ(plain->tunnelRibUpdateCounter(), 3u);
   EXPECT_FALSE(plain->tunnelRibEntryHas(red));
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
