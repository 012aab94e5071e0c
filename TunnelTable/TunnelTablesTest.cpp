// The family's shared behaviour over every protocol member (and the SR and flex-algo bases); what
// the interface and EVPN tables add to it, and the tables' traces and assertions. (Readers
// following a restarting writer are checked through the mounter in TunnelMountProcessTest.cpp.)
#include <gtest/gtest.h>

#include <fstream>

#include "Spoor/Trace.h"
#include "TunnelTable/EvpnVxlanTunnelTable.h"
#include "TunnelTable/TunnelTables.h"
#include "testing/Expect.h"
#include "testing/TunnelTableFamilyTests.h"

namespace Tunnel::TunnelTable {
namespace FamilyTest {

template <>
struct EntryMaker<EvpnVxlanTunnelEntry> {
   static EvpnVxlanTunnelEntry make(TunnelType type, uint64_t index, uint32_t variant) {
      EvpnVxlanTunnelEntry e(TunnelId(TunnelId::convertToTunnelValue(type, index)));
      VxlanTunnelInfo info;
      info.udpPortIs(static_cast<uint16_t>(variant));
      e.tunnelInfoIs(info);
      return e;
   }
};

INSTANTIATE_TYPED_TEST_SUITE_P(Protocol, TunnelTableFamilyTest, MembersOf<TunnelTables>::type);

}  // namespace FamilyTest

namespace {

using FamilyTest::mountTable;
using FamilyTest::Recorder;

TunnelId ldpId(uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, index));
}
LdpTunnelTableEntry ldpEntry(uint64_t index, uint32_t metric) {
   LdpTunnelTableEntry e(ldpId(index));
   e.entryMetricIs(metric);
   return e;
}

TEST(L3IntfTunnelTable, TunnelIdIsTheInterfacePortMaskedTo16Bits) {
   auto gre = greIntfTunnelTableFactory("gre");
   EXPECT_EQ(gre->newTunnelId(Wirekit::IntfId::tunnelIntf(70000)).value(),
             0x900000000000ull + 4464);
   EXPECT_EQ(gre->newTunnelId(Wirekit::IntfId::tunnelIntf(0xFFFF)).tunnelIndex(), 0xFFFFu);
   const TunnelId t12 =
       ipsecVtiIntfTunnelTableFactory("vti")->newTunnelId(Wirekit::IntfId::tunnelIntf(12));
   EXPECT_EQ(t12.value(), 0x900000000000ull + 12);
   EXPECT_EQ(L3IntfTunnelTableBase::tunnelIntfId(t12), Wirekit::IntfId::tunnelIntf(12));
   EXPECT_EQ(L3IntfTunnelTableBase::tunnelIntfId(TunnelId(
                 TunnelId::convertToTunnelValue(TunnelType::staticInterfaceTunnel, 0xFFFF))),
             Wirekit::IntfId::tunnelIntf(0xFFFF));
   for (auto* t :
        {&greIntfTunnelTableType, &ipsecGreIntfTunnelTableType, &ipsecVtiIntfTunnelTableType}) {
      EXPECT_EQ(t->tunnelType, TunnelType::staticInterfaceTunnel);
   }
}

TEST(L3IntfTunnelTableDeathTest, TunnelIntfIdAssertsTypeAndIndexWidth) {
   EXPECT_DEATH(L3IntfTunnelTableBase::tunnelIntfId(
                    TunnelId(TunnelId::convertToTunnelValue(TunnelType::staticTunnel, 3))),
                "assertion failed: tunnelId.tunnelType\\(\\) == staticInterfaceTunnel_ \\(");
   EXPECT_DEATH(L3IntfTunnelTableBase::tunnelIntfId(TunnelId(
                    TunnelId::convertToTunnelValue(TunnelType::staticInterfaceTunnel, 0x10000))),
                "assertion failed: tunnelId.tunnelIndex\\(\\) <= Vela::maxU16\\(\\) \\(");
}

TEST(EvpnVxlanTunnelTable, HandsOutIndexesFromItsCounterAndNotifiesOnChange) {
   auto evpn = evpnVxlanTunnelTableFactory("evpn");
   Recorder rec;
   evpn->notifieeAdd(&rec);
   EXPECT_EQ(evpn->maxId(), 0xFFFFFFFFull);
   EXPECT_EQ(evpn->newTunnelId().value(), 0x600000000001ull);
   EXPECT_EQ(evpn->newTunnelId().value(), 0x600000000002ull);
   EXPECT_EQ(rec.count(attrLastAllocatedId), 2u);

   evpn->lastAllocatedIdIs(2);  // unchanged: no notification
   evpn->lastAllocatedIdInc(0);
   EXPECT_EQ(rec.count(attrLastAllocatedId), 2u);
   evpn->lastAllocatedIdInc(5);
   EXPECT_EQ(evpn->lastAllocatedId(), 7u);
   EXPECT_EQ(rec.count(attrLastAllocatedId), 3u);

   evpn->lastAllocatedIdIs(0xFFFFFFFEull);
   EXPECT_EQ(evpn->newTunnelId().value(), 0x6000FFFFFFFFull);  // the last index
   evpn->notifieeDel(&rec);
}

TEST(EvpnVxlanTunnelTableDeathTest, ExhaustedCounterAsserts) {
   auto evpn = evpnVxlanTunnelTableFactory("evpn");
   evpn->lastAllocatedIdIs(0xFFFFFFFFull);
   EXPECT_DEATH(evpn->newTunnelId(),
                "assertion failed: lastAllocatedId\\(\\) < maxId\\(\\) && \"Reached maximum "
                "number of IDs.\" \\(Tunnel/TunnelTable:289\\)");
}

class TunnelTableStore : public ::testing::Test {
  protected:
   Vela::Ptr<LdpTunnelTable> writer() {
      auto t = ldpTunnelTableFactory("ldp");
      control_ =
          mountTable(t, VelaDock::writer(), root_.path(), "tunnel/table/ldp", loop_, parent_);
      return t;
   }
   Testing::TempRoot root_;
   Loom::EventLoop loop_;
   Vela::Ptr<Vela::Entity> parent_{new Vela::Entity("mounts")};
   Vela::Ptr<VelaDock::CollectionControl> control_;
};

TEST_F(TunnelTableStore, MountStatusAndQuiescedAreTracedAtLevel5) {
   Spoor::Capture cap;
   // Every TunnelTable line `text` captured is at level 5; returns how many there are.
   const auto atLevel5 = [&](const std::string& text) {
      size_t n = 0;
      for (const auto& r : cap.records()) {
         if (r.module != "TunnelTable" || r.text != text) continue;
         ++n;
         EXPECT_EQ(r.level, 5) << text;
      }
      return n;
   };
   auto t = writer();
   EXPECT_GE(atLevel5("mountStatus"), 1u);
   EXPECT_EQ(control_->mountStatus(), 1u);  // fresh files
   EXPECT_EQ(t->mountParent(), parent_.get());

   cap.clear();
   t->entryIs(ldpEntry(1, 1));
   EXPECT_TRUE(t->getCurrentQuiescedState());
   EXPECT_EQ(
       atLevel5("quiesced " + root_.path() + " type:Tunnel::TunnelTable::LdpTunnelTableEntry"), 1u);

   // Below level 5 neither line is written.
   Spoor::levelIs("TunnelTable", 4);
   cap.clear();
   t->entryNotifyMountStatus();
   t->getCurrentQuiescedState();
   EXPECT_EQ(cap.count("TunnelTable", ""), 0u);
   t->unmountIs();
   EXPECT_FALSE(t->hasStore());
   EXPECT_EQ(t->mountParent(), nullptr);
}

TEST_F(TunnelTableStore, ControlChangeIsNotifiedAndOtherCollectionsRefused) {
   auto t = ldpTunnelTableFactory("ldp");
   Recorder rec;
   t->notifieeAdd(&rec);
   auto c = Vela::makePtr<VelaDock::CollectionControl>(VelaDock::writer(), root_.path(),
                                                       "tunnel/table/ldp", "entry", 1024, &loop_);
   t->entryControlIs(c);
   t->entryControlIs(c);
   EXPECT_EQ(rec.count(Vela::attrEntryControl), 1u);
   EXPECT_THROW(t->controlIs("other", c), Vela::Exception);
   EXPECT_THROW(ldpTunnelTableFactory("bare")->handleParent(parent_), Vela::Exception);
   t->notifieeDel(&rec);
}

TEST_F(TunnelTableStore, WritesByANonWriterAndCorruptionEndTheProcess) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(ldpTunnelTableFactory("bare")->entryIs(ldpEntry(1, 1)),
                "assertion failed: entryIs on Tunnel::TunnelTable::LdpTunnelTable bare, which is "
                "not the writer of its store");

   auto t = writer();
   t->entryIs(ldpEntry(1, 1));
   auto* w = t->store()->writer();
   const uint32_t slot = w->slotOf(ldpId(1));
   ASSERT_NE(slot, Dock::kNone);
   // Damage the slot's value offset in the shared file, as a stray write would.
   w->table().slot(slot).offset.store(0xFFFFFFF0u, std::memory_order_relaxed);
   EXPECT_DEATH(t->entryDel(ldpId(1)), "in no man's land");

   // A slab file that is not one, found when a large entry first needs its size class (20 of 32
   // for 380 vias).
   const std::string slab = control_->storeDirectory() + "/slab.20";
   ASSERT_TRUE(std::ofstream(slab, std::ios::binary) << std::string(8192, 'x'));
   LdpTunnelTableEntry big = ldpEntry(2, 1);
   big.viaIs(ViaIndex(379), MplsVia());
   EXPECT_DEATH(t->entryIs(big), "in no man's land");
}

TEST_F(TunnelTableStore, AnEntryTooLargeForItsTableIsRefusedAndTheWriterGoesOn) {
   auto ldp = writer();
   auto bgpLu = bgpLuTunnelTableFactory("bgpLu");
   mountTable(bgpLu, VelaDock::writer(), root_.path(), "tunnel/table/bgpLu", loop_, parent_);
   const TunnelId id(TunnelId::convertToTunnelValue(TunnelType::bgpLuTunnel, 7));
   BgpLuTunnelTableEntry small(id);
   small.bgpMetricIs(5);
   bgpLu->entryIs(small);

   // 600 vias fit; with 1,100 pushed labels (the label operation has no bound of its own) not.
   BgpLuTunnelTableEntry wide(id);
   const Wirekit::IpGenAddr hop("10.0.0.1");
   for (uint32_t i = 0; i < 600; ++i)
      wide.viaIs(ViaIndex(i), Via(hop, Wirekit::IntfId::tunnelIntf(i)));
   BgpLuTunnelTableEntry big = wide;
   big.labelsIs(Wirekit::UnboundedMplsLabelOperation::push(std::vector<uint32_t>(1100, 16)));
   ASSERT_GT(big.serializeLen(), bgpLuTunnelTableType.maxEntryLen);
   const std::string text = fmt::format(
       "Tunnel::TunnelTable::BgpLuTunnelTable bgpLu: entry {} is {} bytes serialized, above the "
       "table's largest of {} bytes; not written",
       valueToStrep(id), big.serializeLen(), bgpLuTunnelTableType.maxEntryLen);
   Spoor::Capture cap;
   const std::function<void()> writes[] = {
       [&] { bgpLu->entryIs(big); }, [&] { bgpLu->entryDirectIs(id), bgpLu->entryCommit(&big); }};
   for (const auto& write : writes) {
      EXPECT_EQ(Testing::errorText<EntryTooLargeError>(write), text);
      EXPECT_EQ(cap.count("TunnelTable", text), 1u);
      cap.clear();
      // The key keeps its entry; the table, its writer and the other table go on.
      EXPECT_EQ(bgpLu->entry(id), small);
      EXPECT_EQ(bgpLu->entryCount(), 1u);
   }
   bgpLu->entryIs(wide);
   EXPECT_EQ(bgpLu->entry(id), wide);
   ldp->entryIs(ldpEntry(1, 1));
   EXPECT_EQ(ldp->entry(ldpId(1)), ldpEntry(1, 1));
}

}  // namespace
}  // namespace Tunnel::TunnelTable
