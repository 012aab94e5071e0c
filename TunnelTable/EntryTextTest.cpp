// The exact text forms of every entry kind, the text constructors' errors, and the dump lines.
#include <gtest/gtest.h>

#include <sstream>

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

// The base fields of an entry built from a tunnel id and nothing else.
std::string basePart(uint64_t idValue, unsigned pref) {
   return "'tunnelId': Value('Tunnel::TunnelTable::TunnelId', ** {'value': " +
          std::to_string(idValue) +
          "}), 'nexthopTunnelId': Value('Tunnel::TunnelTable::TunnelId', ** {'value': 0}), "
          "'entryPref': Value('Tunnel::TunnelTable::TunnelEntryPref', ** {'value': " +
          std::to_string(pref) +
          "}), 'entryMetric': 0, 'tunnelBw': Value('Tunnel::TunnelTable::TunnelBandwidth', ** "
          "{'value': 0.0}), 'endpoint': [], 'name': []";
}

std::string valueOf(const std::string& kind, const std::string& fields) {
   return "Value('Tunnel::TunnelTable::" + kind + "', ** {" + fields + "})";
}

const std::string kVia1 =
    "Value('Tunnel::TunnelTable::MplsVia', ** {'nextHop': '1.1.1.1', 'intfId': 'Ethernet1', "
    "'labels': 'push 100'})";
const std::string kEmptyMplsVia =
    "Value('Tunnel::TunnelTable::MplsVia', ** {'nextHop': 'none', 'intfId': '', 'labels': ''})";
const std::string kVia2 =
    "Value('Tunnel::TunnelTable::Via', ** {'nextHop': '2.2.2.2', 'intfId': 'Ethernet2'})";

MplsVia via1() {
   return MplsVia(IpGenAddr("1.1.1.1"), IntfId("Ethernet1"), MplsLabelOperation::push({100}));
}
Via via2() {
   return Via(IpGenAddr("2.2.2.2"), IntfId("Ethernet2"));
}

// Checks valueToStrep and the stream output against the exact text.
template <typename E>
void expectText(const E& e, const std::string& text) {
   EXPECT_EQ(valueToStrep(e), text);
   EXPECT_EQ(Testing::streamed(e), text);
}

// The same for an entry of class `kind` built from its id alone (its base fields at their defaults,
// preference `pref`) and then given the fields that render as `own`.
template <typename E>
void expectKind(const E& e, const char* kind, unsigned pref, const std::string& own) {
   expectText(e, valueOf(kind, basePart(e.tunnelId().value(), pref) + own));
}

TEST(EntryText, BaseFieldsRenderEndpointsAndNameAsValueArrays) {
   TunnelTableEntry e(idOf(TunnelType::ldpTunnel, 1), TunnelEntryPref(7));
   e.nexthopTunnelIdIs(idOf(TunnelType::staticTunnel, 2));
   e.entryMetricIs(4000000000u);
   e.tunnelBwIs(TunnelBandwidth(1.5f));
   e.endpointIs(0, IpGenPrefix("10.0.0.0/8"));
   e.endpointIs(1, IpGenPrefix("2001:db8::/32"));
   e.nameIs("a'b");
   const std::string text = valueOf(
       "TunnelTableEntry",
       "'tunnelId': Value('Tunnel::TunnelTable::TunnelId', ** {'value': 52776558133249}), "
       "'nexthopTunnelId': Value('Tunnel::TunnelTable::TunnelId', ** {'value': 87960930222082}), "
       "'entryPref': Value('Tunnel::TunnelTable::TunnelEntryPref', ** {'value': 7}), "
       "'entryMetric': 4000000000, "
       "'tunnelBw': Value('Tunnel::TunnelTable::TunnelBandwidth', ** {'value': 1.5}), "
       "'endpoint': ['10.0.0.0/8', '2001:db8::/32'], 'name': ['a', '\\'', 'b']");
   expectText(e, text);
   const TunnelTableEntry back(text.cbegin(), text.cend());
   EXPECT_TRUE(back == e);
   EXPECT_EQ(back.nameString(), "a'b");
}

TEST(EntryText, IgpKindsNameTheirClass) {
   const std::string own =
       ", 'igpMetric': 1, 'igpMetric2': 2, 'igpPref': 3, 'igpPref2': 4, 'via': [" + kVia1 + ", " +
       kEmptyMplsVia + ", " + kVia1 + "]";
   auto fill = [](auto e) {
      e.igpMetricIs(1), e.igpMetric2Is(2), e.igpPrefIs(TunnelIgpPref(3)), e.igpPref2Is(4);
      e.viaIs(0, via1()), e.viaIs(2, via1());
      return e;
   };
   const TunnelId ldp = idOf(TunnelType::ldpTunnel, 5);
   expectKind(fill(IgpTunnelTableEntryBase(ldp)), "IgpTunnelTableEntryBase", 55, own);
   expectKind(fill(LdpTunnelTableEntry(ldp)), "LdpTunnelTableEntry", 55, own);
   expectKind(fill(SrTunnelTableEntry(idOf(TunnelType::isisSrTunnel, 5))), "SrTunnelTableEntry", 65,
              own);
}

TEST(EntryText, FrrKindsAndRsvpLer) {
   const TunnelId id = idOf(TunnelType::rsvpFrrTunnel, 1);
   const std::string frr = ", 'via': " + kVia1 + ", 'backupVia': " + kEmptyMplsVia +
                           ", 'isPrimaryViaUsable': True, 'seqNo': "
                           "Value('Tunnel::TunnelEntrySequenceNumber', ** {'value': 65535})";
   auto fill = [](auto e) {
      e.viaIs(via1()), e.isPrimaryViaUsableIs(true), e.seqNoIs(TunnelEntrySequenceNumber(65535));
      return e;
   };
   expectKind(fill(FrrTunnelTableEntry(id)), "FrrTunnelTableEntry", 255, frr);
   expectKind(fill(RsvpFrrTunnelTableEntry(id)), "RsvpFrrTunnelTableEntry", 255, frr);
   expectKind(fill(RsvpLerSubTunnelTableEntry(id)), "RsvpLerSubTunnelTableEntry", 255, frr);
   expectKind(fill(TiLfaTunnelTableEntry(id)), "TiLfaTunnelTableEntry", 255, frr);

   RsvpLerTunnelTableEntry e = fill(RsvpLerTunnelTableEntry(idOf(TunnelType::rsvpLerTunnel, 2)));
   e.metricIs(8), e.isTunnelIgpShortcutEligibleIs(true), e.splitViaIs(0, via1());
   expectKind(e, "RsvpLerTunnelTableEntry", 45,
              frr +
                  ", 'metric': 8, 'igpPref': 115, 'isTunnelIgpShortcutEligible': True, "
                  "'isTunnelLdpTunnelingEligible': False, 'color': None, 'splitVia': [" +
                  kVia1 + "]");
   e.colorIs(OptionalColor(12));
   EXPECT_NE(valueToStrep(e).find("'color': 12, "), std::string::npos);
}

TEST(EntryText, ColoredFlexAlgoAndNexthopGroup) {
   const TunnelId id = idOf(TunnelType::srTePolicyTunnel, 3);
   auto fill = [](auto e) {
      e.colorIs(100), e.igpPrefIs(TunnelIgpPref(20)), e.igpMetricIs(30);
      return e;
   };
   const std::string colored = ", 'color': 100, 'igpPref': 20, 'igpMetric': 30";
   expectKind(fill(ColoredTunnelTableEntry(id)), "ColoredTunnelTableEntry", 255, colored);
   expectKind(fill(SrTePolicyTunnelTableEntry(id)), "SrTePolicyTunnelTableEntry", 255, colored);

   FlexAlgoTunnelTableEntry f =
       fill(FlexAlgoTunnelTableEntry(idOf(TunnelType::isisFlexAlgoTunnel, 4)));
   f.isColoredIs(true), f.viaIs(0, via1());
   expectKind(f, "FlexAlgoTunnelTableEntry", 65,
              colored + ", 'isColored': True, 'via': [" + kVia1 + "]");

   NexthopGroupTunnelTableEntry n(idOf(TunnelType::nexthopGroupTunnel, 5));
   n.nhgIdIs(9), n.igpMetricIs(10), n.igpPrefIs(11);
   expectKind(n, "NexthopGroupTunnelTableEntry", 25,
              ", 'nhgId': 9, 'igpMetric': 10, 'igpPref': 11");
}

TEST(EntryText, SbfdBgpLuInterfaceAndStaticKinds) {
   NimboSdkSbfdSessionTunnelTableEntry s(idOf(TunnelType::nimboSdkSbfdTunnel, 1));
   s.viaIs(MplsCosVia(IpGenAddr("2.2.2.2"), IntfId("Ethernet2")));
   expectKind(s, "NimboSdkSbfdSessionTunnelTableEntry", 255, ", 'via': " + valueToStrep(s.via()));

   BgpLuTunnelTableEntry b(idOf(TunnelType::bgpLuTunnel, 2));
   b.viaIs(0, via2()), b.labelsIs(Wirekit::UnboundedMplsLabelOperation::push({16, 17}));
   b.contributionIs(ContributionToTunnelRIB::contributingAsBackup), b.bgpMetricIs(1);
   b.bgpMetric2Is(2), b.bgpPrefIs(3), b.bgpPref2Is(4), b.bgpLinkBwIs(TunnelBandwidth(0.5f));
   const std::string push = ", 'via': [" + kVia2 + "], 'labels': 'push 16 17'";
   expectKind(b, "BgpLuTunnelTableEntry", 85,
              push +
                  ", 'contribution': contributingAsBackup, 'bgpMetric': 1, 'bgpMetricType': "
                  "igpMetric, 'bgpMetric2': 2, 'bgpPref': 3, 'bgpPref2': 4, 'bgpLinkBw': "
                  "Value('Tunnel::TunnelTable::TunnelBandwidth', ** {'value': 0.5})");
   BgpLuPushTunnelTableEntry bp(idOf(TunnelType::bgpLuPushTunnel, 2));
   bp.viaIs(0, via2()), bp.labelsIs(b.labels());
   expectKind(bp, "BgpLuPushTunnelTableEntry", 255, push);

   const TunnelId intf = idOf(TunnelType::staticInterfaceTunnel, 6);
   L3IntfTunnelTableEntry l3(intf);
   l3.viaIs(0, via2());
   expectKind(l3, "L3IntfTunnelTableEntry", 255, ", 'via': [" + kVia2 + "]");
   GreIntfTunnelTableEntry gre(intf);
   GreTunnelInfo info;
   info.srcAddrIs(IpGenAddr("1.1.1.1")), info.mtuIs(1400), info.pathMtuDiscoveryIs(true);
   gre.tunnelInfoIs(info);
   const std::string greInfo =
       "Value('Tunnel::GreTunnelInfo', ** {'srcAddr': '1.1.1.1', 'dstAddr': 'none', "
       "'tunnelIntfPort': 0, 'okey': 0, 'ikey': 0, 'mtu': 1400, 'underlayVrfId': 0, 'ttl': 0, "
       "'tos': 0, 'pathMtuDiscovery': True, 'dontFragment': False})";
   expectKind(gre, "GreIntfTunnelTableEntry", 255, ", 'via': [], 'tunnelInfo': " + greInfo);
   EXPECT_EQ(GreTunnelInfo(greInfo.cbegin(), greInfo.cend()), info);
   expectKind(IpsecGreIntfTunnelTableEntry(intf), "IpsecGreIntfTunnelTableEntry", 255,
              ", 'via': [], 'tunnelInfo': Value('Tunnel::IpsecGreTunnelInfo', ** {'srcAddr': "
              "'none', 'dstAddr': 'none', 'tunnelIntfPort': 0, 'okey': 0, 'ikey': 0, 'mtu': 0, "
              "'underlayVrfId': 0, 'spiIn': 0, 'spiOut': 0, 'ttl': 0, 'tos': 0})");
   expectKind(IpsecVtiIntfTunnelTableEntry(intf), "IpsecVtiIntfTunnelTableEntry", 255,
              ", 'via': [], 'tunnelInfo': Value('Tunnel::IpsecVtiTunnelInfo', ** {'srcAddr': "
              "'none', 'dstAddr': 'none', 'tunnelIntfPort': 0, 'mtu': 0, 'underlayVrfId': 0, "
              "'spiIn': 0, 'spiOut': 0, 'ttl': 0, 'tos': 0})");

   StaticTunnelTableEntry stat(idOf(TunnelType::staticTunnel, 7));
   stat.backupViaIs(0, via1());
   expectKind(stat, "StaticTunnelTableEntry", 15, ", 'via': [], 'backupVia': [" + kVia1 + "]");
   SrTeSegmentListTunnelTableEntry seg(idOf(TunnelType::srTeSegmentListTunnel, 8));
   seg.viaIs(0, via1());
   expectKind(seg, "SrTeSegmentListTunnelTableEntry", 255, ", 'via': [" + kVia1 + "]");

   EvpnVxlanTunnelEntry evpn(TunnelId(0x600000000001));
   const std::string evpnText =
       "Value('Tunnel::TunnelTable::EvpnVxlanTunnelEntry', ** {'tunnelId': "
       "Value('Tunnel::TunnelTable::TunnelId', ** {'value': 105553116266497}), 'tunnelInfo': "
       "Value('Tunnel::VxlanTunnelInfo', ** {'srcAddr': 'none', 'dstAddr': 'none', "
       "'underlayVrfId': 0, 'udpPort': 4789, 'ttl': 0, 'tos': 0})})";
   expectText(evpn, evpnText);
   EXPECT_TRUE(EvpnVxlanTunnelEntry(evpnText.cbegin(), evpnText.cend()) == evpn);
}

TEST(EntryText, TextConstructorErrorsNameTheAttribute) {
   const TunnelId id = idOf(TunnelType::nexthopGroupTunnel, 1);
   const std::string good = valueToStrep(NexthopGroupTunnelTableEntry(id));
   auto parse = [](const std::string& text) {
      NexthopGroupTunnelTableEntry e(text.cbegin(), text.cend());
   };
   std::string badNumber = good;
   badNumber.replace(badNumber.find("'nhgId': 0"), 10, "'nhgId': x");
   EXPECT_EQ(Testing::errorText<Vela::ParseException>([&] { parse(badNumber); }),
             "cannot read attribute 'nhgId' of Tunnel::TunnelTable::NexthopGroupTunnelTableEntry: "
             "expected an unsigned number, got \"x\"");
   std::string badEndpoint = good;
   badEndpoint.replace(badEndpoint.find("'endpoint': []"), 14, "'endpoint': ['10.1.0.0/8']");
   EXPECT_THROW(parse(badEndpoint), Vela::ParseException);  // host bits set: not canonical
   std::string tooLong = good;
   tooLong.replace(tooLong.find("'name': []"), 10, "'name': ['ab']");
   EXPECT_THROW(parse(tooLong), Vela::ParseException);
   std::string badId = good;
   badId.replace(badId.find("{'value': 193514046488577}"), 26, "{'value': 562949953421312}");
   EXPECT_EQ(Testing::errorText<Vela::RangeException>([&] { parse(badId); }),
             "Tunnel::TunnelTable::TunnelId::value < Tunnel::TunnelTable::TunnelId::minValue or > "
             "Tunnel::TunnelTable::TunnelId::maxValue not allowed (reading attribute 'value') "
             "(reading attribute 'tunnelId')");
}

TEST(EntryText, DumpsOneLinePerFieldWithNestedVias) {
   ColoredTunnelTableEntry c(idOf(TunnelType::srTePolicyTunnel, 7));
   c.endpointIs(0, IpGenPrefix("10.0.0.0/8"));
   c.colorIs(5), c.igpPrefIs(TunnelIgpPref(20)), c.igpMetricIs(30);
   Vela::String out;
   c.dumpState(out, 2);
   EXPECT_EQ(
       out,
       "  TunnelId: (Type: " + TunnelId::tunnelTypeToCliStrep(TunnelType::srTePolicyTunnel, false) +
           ", Index: 7)\n  tep: 10.0.0.0/8\n  color: 5\n  igpPref: 20\n  igpMetric: 30\n");
   std::ostringstream os;
   c.dumpState(os, 0);
   EXPECT_EQ(os.str(), "TunnelId: (Type: " +
                           TunnelId::tunnelTypeToCliStrep(TunnelType::srTePolicyTunnel, false) +
                           ", Index: 7)\ntep: 10.0.0.0/8\ncolor: 5\nigpPref: 20\nigpMetric: 30\n");

   LdpTunnelTableEntry l(idOf(TunnelType::ldpTunnel, 3));
   l.nexthopTunnelIdIs(idOf(TunnelType::staticTunnel, 9));
   l.viaIs(0, via1()), l.viaIs(1, via1());
   out.clear();
   l.dumpState(out, 4);
   const std::string ldp = TunnelId::tunnelTypeToCliStrep(TunnelType::ldpTunnel, false);
   const std::string stat = TunnelId::tunnelTypeToCliStrep(TunnelType::staticTunnel, false);
   EXPECT_EQ(out, "    TunnelId: (Type: " + ldp +
                      ", Index: 3)\n    nextHopTunnelId: (Type: " + stat +
                      ", Index: 9)\n    tep: none\n    igpMetric: 0\n    igpMetric2: 0\n"
                      "    igpPref: 0\n    igpPref2: 0\n    via (size 2):\n"
                      "      nextHop: 1.1.1.1, intfId: Ethernet1, labels: [push 100]\n"
                      "      nextHop: 1.1.1.1, intfId: Ethernet1, labels: [push 100]\n");
}

}  // namespace
}  // namespace Tunnel::TunnelTable
