// Golden byte forms of one entry of each record layout, written out by hand from the layout, and
// the refusals of bytes no writer produces; the base and EVPN text forms and the dump lines.
#include <gtest/gtest.h>

#include <sstream>
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

TunnelId idOf(TunnelType type, uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(type, index));
}

// Expected bytes are written as hex ("0a00 ff": blanks ignored); `zeros(n)` is a run of n zero
// bytes.
std::string zeros(size_t n) {
   return " " + std::string(2 * n, '0') + " ";
}

template <typename E>
std::vector<uint8_t> bytesOf(const E& e) {
   std::vector<uint8_t> out(e.serializeLen());
   e.serialize(out.data());
   return out;
}

// Checks the bytes, and that they read back into an equal entry.
template <typename E>
void expectBytes(const E& e, const std::string& expected) {
   const auto b = Testing::hexBytes(expected);
   EXPECT_EQ(bytesOf(e), b);
   ASSERT_EQ(E::deserializeLen(b.data(), static_cast<uint32_t>(b.size())), b.size());
   E back;
   back.deserialize(b.data(), static_cast<uint32_t>(b.size()));
   EXPECT_TRUE(back == e);
}

// The base fields every golden entry carries.
template <typename E>
E withBase(TunnelType type, uint64_t index) {
   E e(idOf(type, index));
   e.entryMetricIs(0x01020304);
   e.tunnelBwIs(TunnelBandwidth(1.0f));
   e.endpointIs(0, IpGenPrefix("10.0.0.0/8"));
   e.nameIs("ab");
   return e;
}

// Header and base record of withBase: kind, length, tunnel id bytes and preference vary.
std::string base(std::string_view kind, std::string_view length, std::string_view tunnelId,
                 std::string_view pref) {
   return std::string(kind) + " " + std::string(length) + " " + std::string(tunnelId) + zeros(8) +
          std::string(pref) + " 04030201 0000803f" +  // entryMetric, tunnelBw 1.0
          " 01000000 04000000 0a000000" + zeros(12) + "08 000000" + zeros(15 * 24) +
          "02000000 6162" + zeros(126);  // name "ab"
}

const std::string kVia1 =  // 1.1.1.1, Ethernet1, push 100
    " 04000000 01010101 000000000000000000000000 0100000000010001 01010000 64000000 ";
const std::string kVia2 =  // 2.2.2.2, Ethernet2 (no labels)
    " 04000000 02020202 000000000000000000000000 0100000000020001 ";

MplsVia via1() {
   return MplsVia(IpGenAddr("1.1.1.1"), IntfId("Ethernet1"), MplsLabelOperation::push({100}));
}
Via via2() {
   return Via(IpGenAddr("2.2.2.2"), IntfId("Ethernet2"));
}

TEST(EntryBytes, ColoredAndNexthopGroupAdd12Bytes) {
   auto c = withBase<ColoredTunnelTableEntry>(TunnelType::srTePolicyTunnel, 7);
   c.colorIs(5), c.igpPrefIs(TunnelIgpPref(20)), c.igpMetricIs(30);
   expectBytes(c,
               base("0900", "33020000", "0700000000e00000", "ff") + "05000000 14000000 1e000000");

   auto n = withBase<NexthopGroupTunnelTableEntry>(TunnelType::nexthopGroupTunnel, 1);
   n.nhgIdIs(0xAABBCCDD), n.igpMetricIs(2), n.igpPrefIs(3);
   expectBytes(n,
               base("0c00", "33020000", "0100000000b00000", "19") + "ddccbbaa 02000000 03000000");
}

TEST(EntryBytes, IgpEntryIs20BytesAnd76PerVia) {
   auto e = withBase<LdpTunnelTableEntry>(TunnelType::ldpTunnel, 3);
   e.igpMetricIs(1), e.igpMetric2Is(2), e.igpPrefIs(TunnelIgpPref(3)), e.igpPref2Is(4);
   e.viaIs(0, via1());
   // 551 + 20 + 76 = 647 = 0x287
   expectBytes(e, base("0200", "87020000", "0300000000300000", "37") +
                      "01000000 02000000 03000000 04000000 01000000" + kVia1 + zeros(40));
}

TEST(EntryBytes, FrrPartIs155Bytes) {
   auto e = withBase<TiLfaTunnelTableEntry>(TunnelType::tiLfaTunnel, 2);
   e.viaIs(via1()), e.isPrimaryViaUsableIs(true), e.seqNoIs(TunnelEntrySequenceNumber(0x1234));
   // 551 + 155 = 706 = 0x2c2; the backup via is the default via, all zero
   expectBytes(e, base("0700", "c2020000", "0200000000c00000", "ff") + kVia1 + zeros(40) +
                      zeros(76) + "01 3412");
}

TEST(EntryBytes, RsvpLerAdds22BytesAndItsSplitVias) {
   auto e = withBase<RsvpLerTunnelTableEntry>(TunnelType::rsvpLerTunnel, 1);
   e.metricIs(9), e.igpPrefIs(TunnelIgpPref(10)), e.isTunnelLdpTunnelingEligibleIs(true);
   e.colorIs(OptionalColor(0x66));
   e.splitViaIs(0, via1());
   // 551 + 155 + 22 + 76 = 804 = 0x324
   expectBytes(e, base("0800", "24030000", "0100000000000100", "2d") + zeros(76 + 76) +
                      "00 0000 09000000 0a000000 00 01 66000000 01000000 01000000" + kVia1 +
                      zeros(40));
}

TEST(EntryBytes, FlexAlgoIsAlways46168BytesWithEveryViaPlace) {
   auto e = withBase<FlexAlgoTunnelTableEntry>(TunnelType::isisFlexAlgoTunnel, 4);
   e.colorIs(1), e.igpPrefIs(TunnelIgpPref(2)), e.igpMetricIs(3), e.isColoredIs(true);
   const std::string head =
       base("0b00", "58b40000", "0400000000500100", "41") + "01000000 02000000 03000000 01";
   expectBytes(e, head + "00000000" + zeros(600 * 76));
   e.viaIs(0, via1());
   const std::string one = head + "01000000" + kVia1 + zeros(40 + 599 * 76);
   expectBytes(e, one);
   for (uint32_t i = 1; i < 600; ++i) e.viaIs(i, via1());
   EXPECT_EQ(e.serializeLen(), 46168u);

   // A dead place that is not the default via is not a byte form this library writes.
   auto stray = Testing::hexBytes(one);
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
   expectBytes(e, base("0d00", "74020000", "0500000000200100", "ff") +
                      "04000000 01010101 000000000000000000000000 0100000000010001 02" +
                      "01010000 64000000" + zeros(40));
}

TEST(EntryBytes, BgpLuIsThePushRecordAnd28Bytes) {
   auto e = withBase<BgpLuTunnelTableEntry>(TunnelType::bgpLuTunnel, 6);
   e.viaIs(0, via2());
   e.labelsIs(Wirekit::UnboundedMplsLabelOperation::push({16}));
   e.contributionIs(ContributionToTunnelRIB::contributing), e.bgpMetricIs(1);
   e.bgpMetricTypeIs(Wirekit::MetricType::aigpMetric), e.bgpMetric2Is(2), e.bgpPrefIs(3);
   e.bgpPref2Is(4), e.bgpLinkBwIs(TunnelBandwidth(2.0f));
   const std::string pushPart = "01000000" + kVia2 + "01000000 01000000 10000000";  // push 16
   // 551 + 4 + 28 + 12 + 28 = 623 = 0x26f
   expectBytes(e, base("0f00", "6f020000", "0600000000200000", "55") + pushPart +
                      "01000000 01000000 04000000 02000000 03000000 04000000 00000040");

   // The push kind alone: 551 + 44 = 595 = 0x253
   BgpLuPushTunnelTableEntry p(static_cast<const TunnelTableEntry&>(e));
   p.viaIs(0, via2()), p.labelsIs(e.labels());
   expectBytes(p, base("0e00", "53020000", "0600000000200000", "55") + pushPart);
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
   expectBytes(e, base("1100", "87020000", "0800000000900000", "ff") + "01000000" + kVia2 +
                      "04000000 01010101" + zeros(12) + "04000000 02020202" + zeros(12) +
                      "08000000 01000000 02000000 c4050000 03000000 40 10 00 01");
}

TEST(EntryBytes, StaticWritesBothCollectionsAndSegmentListOne) {
   auto s = withBase<StaticTunnelTableEntry>(TunnelType::staticTunnel, 9);
   s.backupViaIs(0, via1());
   // 551 + 8 + 76 = 635 = 0x27b
   expectBytes(s, base("1500", "7b020000", "0900000000500000", "0f") + "00000000 01000000" + kVia1 +
                      zeros(40));

   auto l = withBase<SrTeSegmentListTunnelTableEntry>(TunnelType::srTeSegmentListTunnel, 1);
   l.viaIs(0, via1());
   expectBytes(l,
               base("1400", "77020000", "0100000000800000", "ff") + "01000000" + kVia1 + zeros(40));
}

TEST(EntryBytes, EvpnVxlanEntryIs56Bytes) {
   EvpnVxlanTunnelEntry e(TunnelId(0x600000000001));
   VxlanTunnelInfo info;
   info.dstAddrIs(IpGenAddr("2.2.2.2")), info.underlayVrfIdIs(7);
   e.tunnelInfoIs(info);
   expectBytes(
       e, "0100000000600000" + zeros(20) + "04000000 02020202" + zeros(12) + "07000000 b512 00 00");
   EXPECT_EQ(EvpnVxlanTunnelEntry::deserializeLen(bytesOf(e).data(), 55), 0u);
   EXPECT_EQ(keyOf(e), TunnelId(0x600000000001));  // its key is its tunnel id
}

// Changes to a two-via LDP record (bytes, or 32-bit words) and the error each must give: the first
// fault in record order names itself, whether the vias are read whole or place by place (a count
// past the bytes). A count above the capacity: the array library's text, up to the buffer's dump.
TEST(EntryBytes, DamagedLdpRecordsAreRefusedWithTheFirstFaultsText) {
   auto e = withBase<LdpTunnelTableEntry>(TunnelType::ldpTunnel, 3);
   e.viaIs(0, via1()), e.viaIs(1, via1());
   const auto good = bytesOf(e);
   ASSERT_EQ(good.size(), 723u);  // vias: count at 567, places at 571 and 647
   struct Poke {
      size_t at;
      uint32_t value;
      bool word = false;
   };
   const std::pair<std::vector<Poke>, std::string> cases[] = {
       {{{0, 3}}, "LdpTunnelTableEntry record has kind 3, expected 2"},
       {{{2, 722, true}},
        "LdpTunnelTableEntry record says it is 722 bytes long, but 723 were given"},
       {{{35 + 24 + 5, 1}},  // the second endpoint place, dead
        "the 24 bytes at offset 59 are not a byte form this library writes"},
       {{{423 + 2, 'x'}}, "the 1 bytes at offset 425 are not a byte form this library writes"},
       {{{647 + 20, 5}}, "Wirekit::IntfId: invalid code 0x100010000000005"},
       {{{647 + 29, 12}}, "Wirekit::MplsLabelOperation: label count 12 exceeds the capacity of 11"},
       {{{567, 3, true}}, "byte form truncated: 76 bytes needed at offset 723 of 723"},
       {{{567, 3, true}, {647, 9}}, "Wirekit::IpGenAddr: unknown address family 9"},
       {{{567, 1, true}},
        "LdpTunnelTableEntry record ends at byte 647, 76 bytes before its length"},
       {{{567, 601, true}}, "expected size <= 600, instead got 601."},
   };
   for (const auto& [pokes, error] : cases) {
      auto b = good;
      for (const Poke& p : pokes) p.word ? storeLe32(&b[p.at], p.value) : void(b[p.at] = p.value);
      LdpTunnelTableEntry back;
      const std::string text = Testing::errorText<Vela::Exception>(
          [&] { back.deserialize(b.data(), static_cast<uint32_t>(b.size())); });
      EXPECT_EQ(text.substr(0, text.find(" Buffer is at address: ")), error);
   }
}

// ---- text forms ----

// Checks valueToStrep and the stream output against the exact text.
template <typename E>
void expectText(const E& e, const std::string& text) {
   EXPECT_EQ(valueToStrep(e), text);
   EXPECT_EQ(Testing::streamed(e), text);
}

TEST(EntryText, BaseFieldsRenderEndpointsAndNameAsValueArrays) {
   TunnelTableEntry e(idOf(TunnelType::ldpTunnel, 1), TunnelEntryPref(7));
   e.nexthopTunnelIdIs(idOf(TunnelType::staticTunnel, 2));
   e.entryMetricIs(4000000000u);
   e.tunnelBwIs(TunnelBandwidth(1.5f));
   e.endpointIs(0, IpGenPrefix("10.0.0.0/8"));
   e.endpointIs(1, IpGenPrefix("2001:db8::/32"));
   e.nameIs("a'b");
   const std::string text =
       "Value('Tunnel::TunnelTable::TunnelTableEntry', ** {"
       "'tunnelId': Value('Tunnel::TunnelTable::TunnelId', ** {'value': 52776558133249}), "
       "'nexthopTunnelId': Value('Tunnel::TunnelTable::TunnelId', ** {'value': 87960930222082}), "
       "'entryPref': Value('Tunnel::TunnelTable::TunnelEntryPref', ** {'value': 7}), "
       "'entryMetric': 4000000000, "
       "'tunnelBw': Value('Tunnel::TunnelTable::TunnelBandwidth', ** {'value': 1.5}), "
       "'endpoint': ['10.0.0.0/8', '2001:db8::/32'], 'name': ['a', '\\'', 'b']})";
   expectText(e, text);
   const TunnelTableEntry back(text.cbegin(), text.cend());
   EXPECT_TRUE(back == e);
   EXPECT_EQ(back.nameString(), "a'b");
}

// (The other kinds' fields are pinned by name, order and value against their JSON form in the
// tool's EntryJsonTest.cpp.)
TEST(EntryText, EvpnEntryTextReadsBack) {
   EvpnVxlanTunnelEntry evpn(TunnelId(0x600000000001));
   const std::string evpnText =
       "Value('Tunnel::TunnelTable::EvpnVxlanTunnelEntry', ** {'tunnelId': "
       "Value('Tunnel::TunnelTable::TunnelId', ** {'value': 105553116266497}), 'tunnelInfo': "
       "Value('Tunnel::VxlanTunnelInfo', ** {'srcAddr': 'none', 'dstAddr': 'none', "
       "'underlayVrfId': 0, 'udpPort': 4789, 'ttl': 0, 'tos': 0})})";
   expectText(evpn, evpnText);
   EXPECT_TRUE(EvpnVxlanTunnelEntry(evpnText.cbegin(), evpnText.cend()) == evpn);
}

TEST(EntryText, DumpsOneLinePerFieldWithNestedVias) {
   const auto cli = [](TunnelType t) { return TunnelId::tunnelTypeToCliStrep(t, false); };
   ColoredTunnelTableEntry c(idOf(TunnelType::srTePolicyTunnel, 7));
   c.endpointIs(0, IpGenPrefix("10.0.0.0/8"));
   c.colorIs(5), c.igpPrefIs(TunnelIgpPref(20)), c.igpMetricIs(30);
   Vela::String out;
   c.dumpState(out, 2);
   EXPECT_EQ(out,
             "  TunnelId: (Type: " + cli(TunnelType::srTePolicyTunnel) +
                 ", Index: 7)\n  tep: 10.0.0.0/8\n  color: 5\n  igpPref: 20\n  igpMetric: 30\n");
   std::ostringstream os;  // the stream form writes the same lines
   c.dumpState(os, 0);
   EXPECT_EQ(os.str(), "TunnelId: (Type: " + cli(TunnelType::srTePolicyTunnel) +
                           ", Index: 7)\ntep: 10.0.0.0/8\ncolor: 5\nigpPref: 20\nigpMetric: 30\n");

   LdpTunnelTableEntry l(idOf(TunnelType::ldpTunnel, 3));
   l.nexthopTunnelIdIs(idOf(TunnelType::staticTunnel, 9));
   l.viaIs(0, via1()), l.viaIs(1, via1());
   out.clear();
   l.dumpState(out, 4);
   EXPECT_EQ(out, "    TunnelId: (Type: " + cli(TunnelType::ldpTunnel) +
                      ", Index: 3)\n    nextHopTunnelId: (Type: " + cli(TunnelType::staticTunnel) +
                      ", Index: 9)\n    tep: none\n    igpMetric: 0\n    igpMetric2: 0\n"
                      "    igpPref: 0\n    igpPref2: 0\n    via (size 2):\n"
                      "      nextHop: 1.1.1.1, intfId: Ethernet1, labels: [push 100]\n"
                      "      nextHop: 1.1.1.1, intfId: Ethernet1, labels: [push 100]\n");
}

}  // namespace
}  // namespace Tunnel::TunnelTable
