// Golden byte forms of one entry of each record layout, written out by hand from the layout, and
// the refusals of bytes no writer produces.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TunnelTable/TunnelTableEntries.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

using Wirekit::IntfId;
using Wirekit::IpGenAddr;
using Wirekit::IpGenPrefix;
using Wirekit::MplsLabelOperation;

// Expected bytes, assembled from hex pieces ("0a00 ff" - blanks ignored) and runs of zeros.
class Bytes {
  public:
   Bytes& hex(std::string_view h) {
      const auto b = Testing::hexBytes(h);
      v_.insert(v_.end(), b.begin(), b.end());
      return *this;
   }
   Bytes& zeros(size_t n) {
      v_.insert(v_.end(), n, 0);
      return *this;
   }
   const std::vector<uint8_t>& get() const { return v_; }

  private:
   std::vector<uint8_t> v_;
};

template <typename E>
std::vector<uint8_t> bytesOf(const E& e) {
   std::vector<uint8_t> out(e.serializeLen());
   e.serialize(out.data());
   return out;
}

// Checks the bytes, and that they read back into an equal entry.
template <typename E>
void expectBytes(const E& e, const Bytes& expected) {
   EXPECT_EQ(bytesOf(e), expected.get());
   const auto& b = expected.get();
   ASSERT_EQ(E::deserializeLen(b.data(), static_cast<uint32_t>(b.size())), b.size());
   E back;
   back.deserialize(b.data(), static_cast<uint32_t>(b.size()));
   EXPECT_TRUE(back == e);
}

// The base fields every golden entry carries.
template <typename E>
E withBase(TunnelType type, uint64_t index) {
   E e(TunnelId(TunnelId::convertToTunnelValue(type, index)));
   e.entryMetricIs(0x01020304);
   e.tunnelBwIs(TunnelBandwidth(1.0f));
   e.endpointIs(0, IpGenPrefix("10.0.0.0/8"));
   e.nameIs("ab");
   return e;
}

// Header and base record of withBase: kind, length, tunnel id bytes and preference vary.
Bytes base(std::string_view kind, std::string_view length, std::string_view tunnelId,
           std::string_view pref) {
   Bytes b;
   b.hex(kind).hex(length);
   b.hex(tunnelId).zeros(8).hex(pref);
   b.hex("04030201").hex("0000803f");  // entryMetric, tunnelBw 1.0
   b.hex("01000000").hex("04000000 0a000000").zeros(12).hex("08 000000").zeros(15 * 24);
   b.hex("02000000").hex("6162").zeros(126);  // name "ab"
   return b;
}

const char* kVia1 =  // 1.1.1.1, Ethernet1, push 100
    "04000000 01010101 000000000000000000000000 0100000000010001 01010000 64000000";
const char* kVia2 =  // 2.2.2.2, Ethernet2 (no labels)
    "04000000 02020202 000000000000000000000000 0100000000020001";

MplsVia via1() {
   return MplsVia(IpGenAddr("1.1.1.1"), IntfId("Ethernet1"), MplsLabelOperation::push({100}));
}
Via via2() {
   return Via(IpGenAddr("2.2.2.2"), IntfId("Ethernet2"));
}

TEST(EntryBytes, BaseRecordIs551BytesWithEveryEndpointAndNamePlace) {
   const auto e = withBase<TunnelTableEntry>(TunnelType::ldpTunnel, 0x10);
   expectBytes(e, base("0000", "27020000", "1000000000300000", "37"));
}

TEST(EntryBytes, ColoredAndNexthopGroupAdd12Bytes) {
   auto c = withBase<ColoredTunnelTableEntry>(TunnelType::srTePolicyTunnel, 7);
   c.colorIs(5), c.igpPrefIs(TunnelIgpPref(20)), c.igpMetricIs(30);
   expectBytes(
       c, base("0900", "33020000", "0700000000e00000", "ff").hex("05000000 14000000 1e000000"));

   auto n = withBase<NexthopGroupTunnelTableEntry>(TunnelType::nexthopGroupTunnel, 1);
   n.nhgIdIs(0xAABBCCDD), n.igpMetricIs(2), n.igpPrefIs(3);
   expectBytes(
       n, base("0c00", "33020000", "0100000000b00000", "19").hex("ddccbbaa 02000000 03000000"));
}

TEST(EntryBytes, IgpEntryIs20BytesAnd76PerVia) {
   auto e = withBase<LdpTunnelTableEntry>(TunnelType::ldpTunnel, 3);
   e.igpMetricIs(1), e.igpMetric2Is(2), e.igpPrefIs(TunnelIgpPref(3)), e.igpPref2Is(4);
   e.viaIs(0, via1());
   // 551 + 20 + 76 = 647 = 0x287
   expectBytes(e, base("0200", "87020000", "0300000000300000", "37")
                      .hex("01000000 02000000 03000000 04000000 01000000")
                      .hex(kVia1)
                      .zeros(40));
   e.viaDelAll();
   expectBytes(e, base("0200", "3b020000", "0300000000300000", "37")
                      .hex("01000000 02000000 03000000 04000000 00000000"));
}

TEST(EntryBytes, FrrPartIs155Bytes) {
   auto e = withBase<TiLfaTunnelTableEntry>(TunnelType::tiLfaTunnel, 2);
   e.viaIs(via1()), e.isPrimaryViaUsableIs(true), e.seqNoIs(TunnelEntrySequenceNumber(0x1234));
   // 551 + 155 = 706 = 0x2c2; the backup via is the default via, all zero
   expectBytes(e, base("0700", "c2020000", "0200000000c00000", "ff")
                      .hex(kVia1)
                      .zeros(40)
                      .zeros(76)
                      .hex("01 3412"));
}

TEST(EntryBytes, RsvpLerAdds22BytesAndItsSplitVias) {
   auto e = withBase<RsvpLerTunnelTableEntry>(TunnelType::rsvpLerTunnel, 1);
   e.metricIs(9), e.igpPrefIs(TunnelIgpPref(10)), e.isTunnelLdpTunnelingEligibleIs(true);
   e.colorIs(OptionalColor(0x66));
   e.splitViaIs(0, via1());
   // 551 + 155 + 22 + 76 = 804 = 0x324
   expectBytes(e, base("0800", "24030000", "0100000000000100", "2d")
                      .zeros(76 + 76)
                      .hex("00 0000")
                      .hex("09000000 0a000000 00 01 66000000 01000000 01000000")
                      .hex(kVia1)
                      .zeros(40));
}

TEST(EntryBytes, FlexAlgoIsAlways46168BytesWithEveryViaPlace) {
   auto e = withBase<FlexAlgoTunnelTableEntry>(TunnelType::isisFlexAlgoTunnel, 4);
   e.colorIs(1), e.igpPrefIs(TunnelIgpPref(2)), e.igpMetricIs(3), e.isColoredIs(true);
   const Bytes head = base("0b00", "58b40000", "0400000000500100", "41")
                          .hex("01000000 02000000 03000000 01 00000000");
   expectBytes(e, Bytes(head).zeros(600 * 76));
   e.viaIs(0, via1());
   Bytes one = base("0b00", "58b40000", "0400000000500100", "41")
                   .hex("01000000 02000000 03000000 01 01000000")
                   .hex(kVia1)
                   .zeros(40 + 599 * 76);
   expectBytes(e, one);
   for (uint32_t i = 1; i < 600; ++i) e.viaIs(i, via1());
   EXPECT_EQ(e.serializeLen(), 46168u);

   // A dead place that is not the default via is not a byte form this library writes.
   auto stray = one.get();
   stray[551 + 17 + 76] = 4;  // place 1 holds 0.0.0.0 instead of no address
   FlexAlgoTunnelTableEntry back;
   EXPECT_THROW(back.deserialize(stray.data(), static_cast<uint32_t>(stray.size())),
                ByteFormatError);
}

TEST(EntryBytes, SbfdSessionCarriesTheViaInItsOwnForm) {
   auto e = withBase<NimboSdkSbfdSessionTunnelTableEntry>(TunnelType::nimboSdkSbfdTunnel, 5);
   MplsCosVia v(IpGenAddr("1.1.1.1"), IntfId("Ethernet1"));
   v.cosLabelsIs(CosIndex(1), MplsLabelOperation::push({100}));
   e.viaIs(v);
   // 551 + 29 + 48 = 628 = 0x274
   expectBytes(e, base("0d00", "74020000", "0500000000200100", "ff")
                      .hex("04000000 01010101 000000000000000000000000 0100000000010001 02")
                      .hex("01010000 64000000")
                      .zeros(40));
}

TEST(EntryBytes, BgpLuIsThePushRecordAnd28Bytes) {
   auto e = withBase<BgpLuTunnelTableEntry>(TunnelType::bgpLuTunnel, 6);
   e.viaIs(0, via2());
   e.labelsIs(Wirekit::UnboundedMplsLabelOperation::push({16}));
   e.contributionIs(ContributionToTunnelRIB::contributing), e.bgpMetricIs(1);
   e.bgpMetricTypeIs(Wirekit::MetricType::aigpMetric), e.bgpMetric2Is(2), e.bgpPrefIs(3);
   e.bgpPref2Is(4), e.bgpLinkBwIs(TunnelBandwidth(2.0f));
   const Bytes push = base("0f00", "58020000", "0600000000200000", "55")
                          .hex("01000000")
                          .hex(kVia2)
                          .hex("01000000 01000000 10000000");  // push, 1 label: 16
   // 551 + 4 + 28 + 12 + 28 = 623 = 0x26f
   expectBytes(e, base("0f00", "6f020000", "0600000000200000", "55")
                      .hex("01000000")
                      .hex(kVia2)
                      .hex("01000000 01000000 10000000")
                      .hex("01000000 01000000 04000000 02000000 03000000 04000000 00000040"));

   BgpLuPushTunnelTableEntry p(static_cast<const TunnelTableEntry&>(e));
   p.viaIs(0, via2()), p.labelsIs(e.labels());
   auto pushBytes = Bytes(push).get();
   pushBytes[0] = 0x0e;  // the push kind; 551 + 44 = 595 = 0x253
   pushBytes[2] = 0x53;
   EXPECT_EQ(bytesOf(p), pushBytes);
}

TEST(EntryBytes, GreIsTheL3RecordAnd64Bytes) {
   auto e = withBase<GreIntfTunnelTableEntry>(TunnelType::staticInterfaceTunnel, 8);
   e.viaIs(0, via2());
   GreTunnelInfo info;
   info.srcAddrIs(IpGenAddr("1.1.1.1")), info.dstAddrIs(IpGenAddr("2.2.2.2"));
   info.tunnelIntfPortIs(8), info.okeyIs(1), info.ikeyIs(2), info.mtuIs(1476);
   info.underlayVrfIdIs(3), info.ttlIs(64), info.tosIs(0x10), info.dontFragmentIs(true);
   e.tunnelInfoIs(info);
   // 551 + 4 + 28 + 64 = 647 = 0x287
   expectBytes(e, base("1100", "87020000", "0800000000900000", "ff")
                      .hex("01000000")
                      .hex(kVia2)
                      .hex("04000000 01010101")
                      .zeros(12)
                      .hex("04000000 02020202")
                      .zeros(12)
                      .hex("08000000 01000000 02000000 c4050000 03000000 40 10 00 01"));

   L3IntfTunnelTableEntry l3 =
       withBase<L3IntfTunnelTableEntry>(TunnelType::staticInterfaceTunnel, 8);
   l3.viaIs(0, via2());
   expectBytes(l3, base("1000", "47020000", "0800000000900000", "ff").hex("01000000").hex(kVia2));
}

TEST(EntryBytes, StaticWritesBothCollectionsAndSegmentListOne) {
   auto s = withBase<StaticTunnelTableEntry>(TunnelType::staticTunnel, 9);
   s.backupViaIs(0, via1());
   // 551 + 8 + 76 = 635 = 0x27b
   expectBytes(s, base("1500", "7b020000", "0900000000500000", "0f")
                      .hex("00000000 01000000")
                      .hex(kVia1)
                      .zeros(40));

   auto l = withBase<SrTeSegmentListTunnelTableEntry>(TunnelType::srTeSegmentListTunnel, 1);
   l.viaIs(0, via1());
   expectBytes(
       l, base("1400", "77020000", "0100000000800000", "ff").hex("01000000").hex(kVia1).zeros(40));
}

TEST(EntryBytes, EvpnVxlanEntryIs56Bytes) {
   EvpnVxlanTunnelEntry e(TunnelId(0x600000000001));
   VxlanTunnelInfo info;
   info.dstAddrIs(IpGenAddr("2.2.2.2")), info.underlayVrfIdIs(7);
   e.tunnelInfoIs(info);
   expectBytes(e, Bytes()
                      .hex("0100000000600000")
                      .zeros(20)
                      .hex("04000000 02020202")
                      .zeros(12)
                      .hex("07000000 b512 00 00"));
   EXPECT_EQ(EvpnVxlanTunnelEntry::deserializeLen(bytesOf(e).data(), 55), 0u);
}

TEST(EntryBytes, ReadersRefuseCountsAboveCapacityAndBadFlags) {
   auto e = withBase<LdpTunnelTableEntry>(TunnelType::ldpTunnel, 3);
   auto b = bytesOf(e);
   // The via count sits 16 bytes after the base record: 601 there.
   b[551 + 16] = 0x59, b[551 + 17] = 0x02;
   LdpTunnelTableEntry back;  // the count's exact refusal text is pinned with the cursor's tests
   EXPECT_THROW(back.deserialize(b.data(), static_cast<uint32_t>(b.size())), Vela::ArraySizeError);

   auto f = withBase<FrrTunnelTableEntry>(TunnelType::rsvpFrrTunnel, 1);
   auto fb = bytesOf(f);
   fb[551 + 152] = 2;  // isPrimaryViaUsable
   FrrTunnelTableEntry fback;
   EXPECT_THROW(fback.deserialize(fb.data(), static_cast<uint32_t>(fb.size())), ByteFormatError);

   auto name = bytesOf(f);
   name[423 + 5] = 'x';  // a character past the name's count
   EXPECT_THROW(fback.deserialize(name.data(), static_cast<uint32_t>(name.size())),
                ByteFormatError);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
