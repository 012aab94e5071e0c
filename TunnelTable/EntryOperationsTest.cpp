// Entry operations: the order's tie breaks, the via collections, the BGP-LU tunnel via and its
// traced limit, the EVPN key and the assertions.
#include <gtest/gtest.h>

#include "Spoor/Trace.h"
#include "TunnelTable/TunnelTableEntries.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

using Wirekit::IntfId;
using Wirekit::IpGenAddr;
using Wirekit::IpGenPrefix;
using Wirekit::MplsLabelOperation;

TunnelId idOf(TunnelType type, uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(type, index));
}

MplsVia mplsVia(uint32_t label) {
   return MplsVia(IpGenAddr("1.1.1.1"), IntfId("Ethernet1"), MplsLabelOperation::push({label}));
}

// a < b and not b < a.
void expectBefore(const TunnelTableEntry& a, const TunnelTableEntry& b) {
   EXPECT_TRUE(a < b);
   EXPECT_FALSE(b < a);
}

TEST(EntryOrder, EachStepDecidesOnlyWhenTheEarlierOnesTie) {
   const TunnelId ldp = idOf(TunnelType::ldpTunnel, 9);
   TunnelTableEntry a(ldp), b(ldp);
   EXPECT_FALSE(a < b);
   EXPECT_FALSE(b < a);

   // 1. entryPref, whatever comes after.
   a.entryPrefIs(10), b.entryPrefIs(11), a.entryMetricIs(99);
   expectBefore(a, b);
   // 2. equal preferences: the default preference of the type (static 15 before LDP 55), even
   //    though the static tunnel's id is the larger number.
   TunnelTableEntry s(idOf(TunnelType::staticTunnel, 1), TunnelEntryPref(50));
   TunnelTableEntry l(idOf(TunnelType::ldpTunnel, 1), TunnelEntryPref(50));
   l.entryMetricIs(0), s.entryMetricIs(5);
   expectBefore(s, l);
   // 3. entry metric.
   b = a;
   b.entryMetricIs(100);
   expectBefore(a, b);
   // 4. tunnel id as a number.
   TunnelTableEntry c(idOf(TunnelType::ldpTunnel, 8), TunnelEntryPref(10));
   c.entryMetricIs(99), c.tunnelBwIs(TunnelBandwidth(9.0f));
   expectBefore(c, a);
   // 5. the smaller bandwidth first.
   b = a;
   a.tunnelBwIs(TunnelBandwidth(1.0f)), b.tunnelBwIs(TunnelBandwidth(2.0f));
   b.endpointIs(0, IpGenPrefix("1.0.0.0/8"));
   a.endpointIs(0, IpGenPrefix("9.0.0.0/8"));
   expectBefore(a, b);
   // 6. endpoints lexicographically: a prefix of the other orders first.
   b = a;
   b.endpointIs(1, IpGenPrefix("1.0.0.0/8"));
   a.nexthopTunnelIdIs(idOf(TunnelType::staticTunnel, 1));
   expectBefore(a, b);
   b = a;
   b.endpointIs(0, IpGenPrefix("10.0.0.0/8"));
   expectBefore(a, b);
   // 7. next-hop tunnel id.
   b = a;
   b.nexthopTunnelIdIs(idOf(TunnelType::staticTunnel, 2));
   a.nameIs("z");
   expectBefore(a, b);
   // 8. name bytes, unsigned: 'z' before 0xE9, "ab" before "abc".
   b = a;
   b.nameIs("\xE9");
   expectBefore(a, b);
   a.nameIs("ab"), b.nameIs("abc");
   expectBefore(a, b);
}

TEST(EntryVias, CollectionsFollowTheDeletionRuleAndRefusePlace600) {
   LdpTunnelTableEntry e(idOf(TunnelType::ldpTunnel, 1));
   EXPECT_EQ(e.viaIs(2, mplsVia(3)), mplsVia(3));
   EXPECT_EQ(e.viaCount(), 3u);
   EXPECT_EQ(e.via(0), MplsVia());
   EXPECT_EQ(e.viaDel(5), MplsVia());  // past the count: nothing changes
   e.viaIs(0, mplsVia(1));
   EXPECT_EQ(e.viaDel(2), mplsVia(3));  // the last place: the count drops over the hole at 1
   EXPECT_EQ(e.viaCount(), 1u);
   e.viaIs(1, mplsVia(2)), e.viaIs(2, mplsVia(3));
   EXPECT_EQ(e.viaDel(e.via().begin() + 1), e.via().begin() + 2);  // a middle place: a hole
   EXPECT_EQ(e.viaCount(), 3u);
   EXPECT_EQ(e.via(1), MplsVia());

   const LdpTunnelTableEntry before = e;
   EXPECT_EQ(Testing::errorText<Vela::RangeException>([&] { e.viaIs(600, mplsVia(4)); }),
             "Tunnel::TunnelTable::ViaIndex::value < Tunnel::TunnelTable::ViaIndex::min or > "
             "Tunnel::TunnelTable::ViaIndex::max not allowed");
   EXPECT_TRUE(e == before);
   e.viaIs(599, mplsVia(5));
   EXPECT_EQ(e.viaCount(), 600u);
   e.viaDelAll();
   EXPECT_EQ(e.viaCount(), 0u);
   e.viaDelAll();
   EXPECT_EQ(e.viaCount(), 0u);

   StaticTunnelTableEntry s(idOf(TunnelType::staticTunnel, 1));
   s.backupViaIs(0, mplsVia(1)), s.viaIs(0, mplsVia(2));
   EXPECT_EQ(s.backupViaDel(0), mplsVia(1));
   EXPECT_EQ(s.backupViaCount(), 0u);
   EXPECT_EQ(s.viaCount(), 1u);
   s.backupViaIs(1, mplsVia(1)), s.backupViaDelAll();
   EXPECT_EQ(s.backupViaCount(), 0u);

   RsvpLerTunnelTableEntry r(idOf(TunnelType::rsvpLerTunnel, 1));
   r.splitViaIs(1, mplsVia(1));
   EXPECT_EQ(r.splitViaCount(), 2u);
   EXPECT_EQ(r.splitViaDel(1), mplsVia(1));
   EXPECT_EQ(r.splitViaCount(), 0u);
   EXPECT_THROW(r.splitViaIs(600, mplsVia(1)), Vela::RangeException);
   r.splitViaIs(0, mplsVia(7)), r.splitViaDelAll();
   EXPECT_EQ(r.splitViaCount(), 0u);
}

TEST(EntryVias, CopyCarriesOnlyTheLivePlaces) {
   FlexAlgoTunnelTableEntry full(idOf(TunnelType::isisFlexAlgoTunnel, 1));
   for (uint32_t i = 0; i < 600; ++i) full.viaIs(i, mplsVia(i + 16));
   full.viaDelAll();
   full.viaIs(0, mplsVia(1));
   FlexAlgoTunnelTableEntry copy(full);
   EXPECT_TRUE(copy == full);
   // The copy holds no stale place past its count: growing it shows default vias, where the
   // original revives what it held before.
   copy.viaIs(2, mplsVia(3)), full.viaIs(2, mplsVia(3));
   EXPECT_EQ(copy.via(1), MplsVia());
   EXPECT_EQ(full.via(1), mplsVia(17));
}

TEST(EntryVias, TunnelIdViaIsAppendsUntil600ThenTracesAndIgnores) {
   BgpLuPushTunnelTableEntry e(idOf(TunnelType::bgpLuPushTunnel, 1));
   const TunnelId into = idOf(TunnelType::ldpTunnel, 7);
   e.viaIs(1, Via(IpGenAddr("3.3.3.3"), IntfId("Ethernet3")));
   e.tunnelIdViaIs(into);
   ASSERT_EQ(e.viaCount(), 3u);
   EXPECT_EQ(e.via(2).nextHop(), IpGenAddr("0.0.0.0"));
   EXPECT_EQ(e.via(2).intfId(), Wirekit::DynamicTunnelIntfId::tunnelIdToIntfId(into.value()));
   EXPECT_EQ(Wirekit::DynamicTunnelIntfId::tunnelId(e.via(2).intfId()), into.value());

   for (uint32_t i = 3; i < 600; ++i) e.tunnelIdViaIs(idOf(TunnelType::ldpTunnel, i));
   ASSERT_EQ(e.viaCount(), 600u);
   const BgpLuPushTunnelTableEntry full = e;
   Spoor::Capture capture;
   e.tunnelIdViaIs(idOf(TunnelType::ldpTunnel, 1000));
   EXPECT_EQ(e.viaCount(), 600u);
   EXPECT_TRUE(e == full);
   const auto records = capture.records();
   ASSERT_EQ(records.size(), 1u);
   EXPECT_EQ(records[0].module, "TunnelTable");
   EXPECT_EQ(
       records[0].text,
       "BgpLuPushTunnelTableEntry already has the maximum number of vias (600), so cannot add "
       "tunnelId " +
           valueToStrep(idOf(TunnelType::ldpTunnel, 1000)));
}

TEST(EntryKey, EvpnEntryKeyIsItsTunnelId) {  // the other kinds' keys: EntryKindsTest.cpp
   EXPECT_EQ(keyOf(EvpnVxlanTunnelEntry(TunnelId(0x600000000001))), TunnelId(0x600000000001));
}

TEST(EntryDeath, UnknownTunnelTypesAssert) {
   const TunnelId type23(uint64_t{23} << 44);
   EXPECT_DEATH(LdpTunnelTableEntry e(type23), "Unknown tunnel type");
   TunnelTableEntry a(type23, TunnelEntryPref(1)), b(type23, TunnelEntryPref(1));
   EXPECT_DEATH((void)(a < b), "Unknown tunnel type");
}

TEST(EntryName, WholeNameIsBoundedBy128Characters) {
   TunnelTableEntry e;
   e.nameIs(std::string(128, 'n'));
   EXPECT_EQ(e.name().count(), 128u);
   EXPECT_EQ(Testing::errorText<Vela::RangeException>([&] { e.nameIs(std::string(129, 'm')); }),
             "Tunnel::TunnelTable::NameIndex::value < Tunnel::TunnelTable::NameIndex::min or > "
             "Tunnel::TunnelTable::NameIndex::max not allowed");
   EXPECT_EQ(e.nameString(), std::string(128, 'n'));
   EXPECT_EQ(e.tep(), IpGenPrefix());
   e.endpointIs(3, IpGenPrefix("10.0.0.0/8"));
   EXPECT_EQ(e.tep(), IpGenPrefix());
   e.endpointIs(0, IpGenPrefix("11.0.0.0/8"));
   EXPECT_EQ(e.tep(), IpGenPrefix("11.0.0.0/8"));
   EXPECT_THROW(e.endpointIs(16, IpGenPrefix()), Vela::RangeException);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
