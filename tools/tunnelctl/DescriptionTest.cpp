// The description parser: the bundled example builds every entry kind it describes, and every
// kind of mistake is reported with the file, the place (line or key path) and the exact words.
#include <gtest/gtest.h>

#include <string>

#include "Description.h"
#include "Mldp/MldpTunnelTable.h"
#include "TunnelTable/EvpnVxlanTunnelEntry.h"
#include "TunnelTable/TunnelTableEntries.h"
#include "Wirekit/MplsLabelOperation.h"
#include "Wirekit/UnboundedMplsLabelOperation.h"
#include "testing/Expect.h"

namespace {

using namespace TunnelCtl;
namespace TT = Tunnel::TunnelTable;

const char* kRouters = R"("routers": [
      {"name": "pe1", "loopback": "10.255.0.1", "interfaces": [
         {"name": "Ethernet1", "address": "10.0.0.0/31", "peer": "p1"},
         {"name": "Tunnel10"}]},
      {"name": "p1", "loopback": "10.255.0.2", "interfaces": [
         {"name": "Ethernet1", "address": "10.0.0.1/31", "peer": "pe1"}]}])";

// A small network: pe1 with one addressed uplink and a tunnel interface, and a peer. The routers
// come first, so the tunnels are read while the file is parsed.
std::string net(const std::string& tunnels) {
   return R"({"name": "t", "localRouter": "pe1", )" + std::string(kRouters) + R"(, "tunnels": [)" +
          tunnels + "]}";
}

// The same network with the tunnels first: they are read once the whole file is parsed.
std::string tunnelsFirst(const std::string& tunnels) {
   return R"({"tunnels": [)" + tunnels + R"(], "name": "t", "localRouter": "pe1", )" +
          std::string(kRouters) + "}";
}

std::string errorOf(const std::string& text) {
   return Testing::errorText<DescriptionError>([&] { parseDescription(text, "bad.json"); });
}

const DescribedTunnel& only(const Description& d) {
   EXPECT_EQ(d.tunnels.size(), 1u);
   return d.tunnels.at(0);
}

TEST(Description, BundledExampleFillsEveryTableItDescribes) {
   const Description d = loadDescription(std::string(TUNNEL_SOURCE_DIR) + "/examples/network.json");
   EXPECT_EQ(d.routers.size(), 24u);
   EXPECT_EQ(d.localRouter, "pe1");
   EXPECT_EQ(d.tunnels.size(), 96u);
   std::string tables;
   for (const auto* t : d.tables()) tables += t->mountName + " ";
   EXPECT_EQ(tables,
             "bgpLu bgpLuPush ldp rsvpFrr rsvpLer sr ospfSr static nexthopGroup srTeSegmentList "
             "greTunnelInterface ipsecVtiTunnelInterface ipsecGreTunnelInterface evpnVxlan tiLfa "
             "srTePolicy nimboSdkSbfd isisFlexAlgoTunnel mldpTunnel ");
   for (const auto& t : d.tunnels) {
      EXPECT_EQ(t.id.tunnelType(), t.table->type->tunnelType) << t.path;
      EXPECT_TRUE(t.ops) << t.path;
   }
   // The update differs by exactly its six edits (two removed, two added, two changed).
   const Description u =
       loadDescription(std::string(TUNNEL_SOURCE_DIR) + "/examples/network-update.json");
   EXPECT_EQ(u.tunnels.size(), 96u - 2 + 2);
}

TEST(Description, LdpTunnelIsBuiltFieldByField) {
   const Description d = parseDescription(net(R"({"table": "ldp", "index": 7, "name": "ldp-p1",
       "endpoint": "p1", "entryPref": 40, "entryMetric": 20, "tunnelBw": 1.5, "igpMetric": 21,
       "igpMetric2": 22, "igpPref": 23, "igpPref2": 24, "vias": [
         {"nextHop": "10.0.0.1", "interface": "Ethernet1", "labels": "push 24002"},
         {"nextHop": "10.0.0.1", "interface": "Ethernet1"}]})"),
                                          "ok.json");
   TT::LdpTunnelTableEntry e(TT::TunnelId(0x300000000007));
   e.nameIs("ldp-p1");
   e.endpointIs(TT::TepIndex(0u), Wirekit::IpGenPrefix("10.255.0.2/32"));
   e.entryPrefIs(TT::TunnelEntryPref(40));
   e.entryMetricIs(20);
   e.tunnelBwIs(TT::TunnelBandwidth(1.5f));
   e.igpMetricIs(21);
   e.igpMetric2Is(22);
   e.igpPrefIs(TT::TunnelIgpPref(23));
   e.igpPref2Is(24);
   e.viaIs(TT::ViaIndex(uint16_t(0)),
           TT::MplsVia(Wirekit::IpGenAddr("10.0.0.1"), Wirekit::IntfId("Ethernet1"),
                       Wirekit::MplsLabelOperation::push({24002})));
   e.viaIs(TT::ViaIndex(uint16_t(1)),
           TT::MplsVia(Wirekit::IpGenAddr("10.0.0.1"), Wirekit::IntfId("Ethernet1")));
   const auto& t = only(d);
   EXPECT_EQ(t.table->mountName, "ldp");
   EXPECT_EQ(t.id, e.tunnelId());
   EXPECT_EQ(t.path, "tunnels[0]");
   EXPECT_EQ(t.text(), valueToStrep(e));
}

TEST(Description, MldpTunnelCarriesItsTreeIdAndVias) {
   const std::string longest(TT::kMldpTreeIdMaxLen, 't');
   const Description d = parseDescription(
       net(R"({"table": "mldpTunnel", "index": 5, "mcastTreeId": "p2mp root 10.255.0.1 lsp-id 5",
       "vias": [{"nextHop": "10.0.0.1", "interface": "Ethernet1", "labels": "push 31000"},
                {"nextHop": "10.0.0.1", "interface": "Ethernet1", "labels": "push 31001"}]},
           {"table": "mldpTunnel", "index": 6, "mcastTreeId": ")" +
           longest + R"("})"),
       "ok.json");
   ASSERT_EQ(d.tunnels.size(), 2u);
   TT::MldpTunnelTableEntry e(
       TT::TunnelId(TT::TunnelId::convertToTunnelValue(TT::TunnelType::mldpTunnel, 5)),
       Routing::Multicast::MulticastTreeId("p2mp root 10.255.0.1 lsp-id 5"));
   for (uint32_t i = 0; i < 2; ++i) {
      e.viaIs(TT::ViaIndex(uint16_t(i)),
              TT::MplsVia(Wirekit::IpGenAddr("10.0.0.1"), Wirekit::IntfId("Ethernet1"),
                          Wirekit::MplsLabelOperation::push({31000 + i})));
   }
   EXPECT_EQ(d.tunnels[0].table->mountName, "mldpTunnel");
   EXPECT_EQ(d.tunnels[0].id, e.tunnelId());
   EXPECT_EQ(d.tunnels[0].text(), valueToStrep(e));
   // The longest tree id the store is sized for is accepted; a tunnel without vias has none.
   EXPECT_EQ(d.tunnels[1].text(),
             valueToStrep(TT::MldpTunnelTableEntry(
                 TT::TunnelId(TT::TunnelId::convertToTunnelValue(TT::TunnelType::mldpTunnel, 6)),
                 Routing::Multicast::MulticastTreeId(longest))));
}

TEST(Description, DefaultsReferencesAndAllocatedIndexes) {
   // Without entryPref the entry keeps its type's default (static: 15).
   auto d = parseDescription(net(R"({"table": "static", "index": 3})"), "ok.json");
   EXPECT_EQ(only(d).text(),
             valueToStrep(TT::StaticTunnelTableEntry(TT::TunnelId(0x500000000003))));

   // A BGP-LU via into an LDP tunnel is the dynamic tunnel interface of that tunnel.
   d = parseDescription(net(R"({"table": "bgpLu", "index": 1, "labels": "push 100200",
       "vias": [{"tunnel": {"table": "ldp", "index": 9}}], "contribution": "contributing",
       "bgpMetricType": "aigpMetric"})"),
                        "ok.json");
   TT::BgpLuTunnelTableEntry lu(TT::TunnelId(0x200000000001));
   lu.viaIs(TT::ViaIndex(uint16_t(0)), TT::Via::tunnelIdVia(TT::TunnelId(0x300000000009)));
   lu.labelsIs(Wirekit::UnboundedMplsLabelOperation::push({100200}));
   lu.contributionIs(TT::ContributionToTunnelRIB::contributing);
   lu.bgpMetricTypeIs(Wirekit::MetricType::aigpMetric);
   EXPECT_EQ(only(d).text(), valueToStrep(lu));

   // Interface tunnels take the port of their TunnelN interface as index and info port.
   d = parseDescription(net(R"({"table": "greTunnelInterface", "interface": "Tunnel70000"})"),
                        "ok.json");
   EXPECT_EQ(only(d).id, TT::TunnelId(0x900000000000 | (70000 & 0xFFFF)));
   EXPECT_NE(only(d).text().find("'tunnelIntfPort': 70000"), std::string::npos) << only(d).text();

   // EVPN VXLAN tunnels without an index get the next one after the largest so far.
   d = parseDescription(net(R"({"table": "evpnVxlan"}, {"table": "evpnVxlan", "index": 10},
       {"table": "evpnVxlan"})"),
                        "ok.json");
   ASSERT_EQ(d.tunnels.size(), 3u);
   EXPECT_EQ(d.tunnels[0].id.tunnelIndex(), 1u);
   EXPECT_EQ(d.tunnels[1].id.tunnelIndex(), 10u);
   EXPECT_EQ(d.tunnels[2].id.tunnelIndex(), 11u);
}

TEST(Description, MistakesNameTheFileThePlaceAndWhatIsWrong) {
   const std::pair<std::string, std::string> cases[] = {
       {R"({"table": "ldp", "index": 1, "vias": [{"nextHop": "x"}]})",
        "bad.json: tunnels[0].vias[0].nextHop: bad IPv4/IPv6 address 'x'"},
       {R"({"table": "ldp", "index": 1}, {"table": "sr", "index": 1, "vias": [{}, {"nextHop": "10.0.0.300"}]})",
        "bad.json: tunnels[1].vias[0]: missing key 'nextHop'"},
       {R"({"table": "ldpp", "index": 1})",
        "bad.json: tunnels[0].table: unknown table 'ldpp' (known: bgpLu, bgpLuPush, ldp, "
        "rsvpFrr, rsvpLerSub, rsvpLer, sr, ospfSr, static, nexthopGroup, srTeSegmentList, "
        "greTunnelInterface, ipsecVtiTunnelInterface, ipsecGreTunnelInterface, evpnVxlan, tiLfa, "
        "srTePolicy, nimboSdkSbfd, isisFlexAlgoTunnel, mldpTunnel)"},
       {R"({"table": "mldpTunnel", "index": 1})",
        "bad.json: tunnels[0]: missing key 'mcastTreeId'"},
       {R"({"table": "mldpTunnel", "index": 1, "mcastTreeId": ""})",
        "bad.json: tunnels[0].mcastTreeId: an mLDP tunnel needs the text of its multicast tree id"},
       {R"({"table": "mldpTunnel", "index": 1, "mcastTreeId": 7})",
        "bad.json: tunnels[0].mcastTreeId: expected a string, got 7"},
       {R"({"table": "mldpTunnel", "index": 1, "mcastTreeId": ")" + std::string(4097, 't') +
            R"("})",
        "bad.json: tunnels[0].mcastTreeId: a multicast tree id has at most 4096 characters, got "
        "4097"},
       {R"({"table": "mldpTunnel", "index": 1, "mcastTreeId": "t", "name": "m"})",
        "bad.json: tunnels[0].name: unknown key for table 'mldpTunnel'"},
       {R"({"table": "mldpTunnel", "index": 1, "mcastTreeId": "t", "vias": [{"nextHop": "10.0.0.1"}, {"nextHop": "10.0.0.1", "interface": "Ethernet2"}]})",
        "bad.json: tunnels[0].vias[1].interface: 'Ethernet2' is not an interface of router 'pe1'"},
       {R"({"table": "ldp"})", "bad.json: tunnels[0]: missing key 'index'"},
       {R"({"table": "static", "index": 1, "igpMetric": 5})",
        "bad.json: tunnels[0].igpMetric: unknown key for table 'static'"},
       {R"({"table": "ldp", "index": 1, "vias": [{"nextHop": "10.0.0.1", "label": "push 1"}]})",
        "bad.json: tunnels[0].vias[0].label: unknown key in an MPLS via"},
       {R"({"table": "ldp", "index": 4}, {"table": "sr", "index": 4}, {"table": "ldp", "index": 4})",
        "bad.json: tunnels[2]: duplicate tunnel: ldp index 4 is also tunnels[0]"},
       {R"({"table": "ldp", "index": 8796093022208})",
        "bad.json: tunnels[0].index: expected a whole number from 0 to 8796093022207, got "
        "8796093022208"},
       {R"({"table": "ldp", "index": -1})",
        "bad.json: tunnels[0].index: expected a whole number from 0 to 18446744073709551615, got "
        "-1"},
       {R"({"table": "ldp", "index": 1, "entryPref": 256})",
        "bad.json: tunnels[0].entryPref: expected a whole number from 0 to 255, got 256"},
       {R"({"table": "ldp", "index": 1, "vias": [{"nextHop": "10.0.0.1", "interface": "Ethernet2"}]})",
        "bad.json: tunnels[0].vias[0].interface: 'Ethernet2' is not an interface of router 'pe1'"},
       {R"({"table": "ldp", "index": 1, "vias": [{"nextHop": "10.0.9.1", "interface": "Ethernet1"}]})",
        "bad.json: tunnels[0].vias[0].nextHop: 10.0.9.1 is not on the subnet of Ethernet1 "
        "(10.0.0.0/31)"},
       {R"({"table": "ldp", "index": 1, "vias": [{"nextHop": "10.0.0.1", "interface": "eth1"}]})",
        "bad.json: tunnels[0].vias[0].interface: bad interface name 'eth1'"},
       {R"({"table": "sr", "index": 1, "endpoint": ["p1", "pe9"]})",
        "bad.json: tunnels[0].endpoint[1]: bad endpoint 'pe9': not an IPv4/IPv6 prefix or "
        "address, nor a router name"},
       {R"({"table": "sr", "index": 1, "endpoint": ["p1","p1","p1","p1","p1","p1","p1","p1","p1","p1","p1","p1","p1","p1","p1","p1","p1"]})",
        "bad.json: tunnels[0].endpoint: at most 16 endpoints, got 17"},
       {R"({"table": "static", "index": 1, "name": ")" + std::string(129, 'n') + R"("})",
        "bad.json: tunnels[0].name: a name has at most 128 characters, got 129"},
       {R"({"table": "greTunnelInterface", "interface": "Tunnel10", "index": 10})",
        "bad.json: tunnels[0].index: an interface tunnel's index is its interface's port; give "
        "only \"interface\""},
       {R"({"table": "greTunnelInterface", "interface": "Ethernet1"})",
        "bad.json: tunnels[0].interface: 'Ethernet1' is not a tunnel interface (TunnelN)"},
       {R"({"table": "bgpLu", "index": 1, "contribution": "yes"})",
        "bad.json: tunnels[0].contribution: bad contribution 'yes' (notContributing, "
        "contributing or contributingAsBackup)"},
       {R"({"table": "srTePolicy", "index": 1, "nexthopTunnel": {"table": "srTeSegmentList"}})",
        "bad.json: tunnels[0].nexthopTunnel: missing key 'index'"},
       {R"({"table": "rsvpLer", "index": 1, "isPrimaryViaUsable": 1})",
        "bad.json: tunnels[0].isPrimaryViaUsable: expected true or false, got 1"},
       // A key given twice is refused, not last-one-wins.
       {R"({"table": "ldp", "index": 1, "index": 2})",
        "bad.json: tunnels[0].index: duplicate key 'index'"},
       {R"({"table": "ldp", "index": 1, "vias": [{"nextHop": "10.0.0.1", "nextHop": "10.0.0.1"}]})",
        "bad.json: tunnels[0].vias[0].nextHop: duplicate key 'nextHop'"},
       // Empty label operations would read as none.
       {R"({"table": "ldp", "index": 1, "vias": [{"nextHop": "10.0.0.1", "labels": ""}]})",
        "bad.json: tunnels[0].vias[0].labels: an empty label operation; leave \"labels\" out for "
        "none"},
       {R"({"table": "bgpLu", "index": 1, "labels": " "})",
        "bad.json: tunnels[0].labels: an empty label operation; leave \"labels\" out for none"},
       // Names are printable ASCII: every reader prints them.
       {R"({"table": "ldp", "index": 1, "name": "caf\u00e9"})",
        "bad.json: tunnels[0].name: a name is printable ASCII; byte 0xc3 at offset 3 is not"},
       {R"({"table": "ldp", "index": 1, "name": "a\tb"})",
        "bad.json: tunnels[0].name: a name is printable ASCII; byte 0x09 at offset 1 is not"},
       // Values are quoted as a bounded excerpt, whatever their size.
       {R"({"table": "ldp", "index": [)" +
            [] {
               std::string many = "1";
               for (int i = 0; i < 100000; ++i) many += ", 1";
               return many;
            }() +
            R"(]})",
        "bad.json: tunnels[0].index: expected a whole number from 0 to 18446744073709551615, got "
        "[1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,..."},
       {R"({"table": "ldp", "index": )" + std::string(100000, '1') + "}",
        "bad.json: tunnels[0].index: a number too large to read: " + std::string(40, '1') + "..."},
       {R"({"table": "ldp", "index": 1, "name": {"first": ")" + std::string(1000, 'x') + R"("}})",
        "bad.json: tunnels[0].name: expected a string, got {\"first\": \"" + std::string(49, 'x') +
            "..."},
   };
   for (const auto& [tunnels, message] : cases) {
      EXPECT_EQ(errorOf(net(tunnels)), message) << tunnels;
      EXPECT_EQ(errorOf(tunnelsFirst(tunnels)), message) << tunnels;
   }
   // Mistakes outside the tunnels.
   EXPECT_EQ(errorOf(R"({"tunnels": [], "localRouter": "pe1"})"),
             "bad.json: localRouter: unknown router 'pe1'");
   EXPECT_EQ(errorOf(R"({"tunnels": {}})"), "bad.json: tunnels: expected an array, got {}");
   EXPECT_EQ(errorOf(R"({"tunel": []})"), "bad.json: (top level): missing key 'tunnels'");
   EXPECT_EQ(errorOf(R"({"tunnels": [], "colour": 1})"), "bad.json: colour: unknown key");
   EXPECT_EQ(errorOf(R"({"tunnels": [], "routers": [{"name": "a", "loopback": "10.0.0.1",
       "interfaces": [{"name": "Ethernet1", "peer": "b"}]}]})"),
             "bad.json: routers[0].interfaces[0].peer: unknown router 'b'");
   EXPECT_EQ(errorOf(R"({"tunnels": [], "routers": [{"name": "a", "loopback": "10.0.0.1",
       "interfaces": [{"name": "Ethernet1", "address": "10.0.0.1"}]}]})"),
             "bad.json: routers[0].interfaces[0].address: bad interface address '10.0.0.1' (an "
             "address and a length, as 10.0.0.1/31)");
}

TEST(Description, ConfigurationsAreReadAndTheirMistakesNamed) {
   const auto with = [](const std::string& keys) { return R"({"tunnels": [], )" + keys + "}"; };
   const Description d = parseDescription(
       with(R"("decapGroups": [{"name": "g", "tunnelType": "udp", "decapIps": ["10.0.0.1"],
            "forwardingVrf": "red"}], "decapPorts": [{"port": 4789, "payloadType": "ethernet"}],
            "nexthopGroupTunnels": [{"endpoint": "10.9.0.0/16", "nexthopGroup": "n",
            "igpPref": 2, "igpMetric": 30}])"),
       "ok.json");
   ASSERT_EQ(d.decapGroups.size(), 1u);
   EXPECT_EQ(Tunnel::Decap::valueToStrep(*d.decapGroups[0]),
             "Value('Tunnel::Decap::DecapGroup', ** {'name': 'g', 'tunnelType': udp, 'decapIps': "
             "['10.0.0.1/32'], 'forwardingVrf': 'red'})");
   EXPECT_EQ(d.decapPorts, (std::vector<std::pair<uint16_t, Tunnel::Decap::PayloadType>>{
                               {4789, Tunnel::Decap::PayloadType::ethernet}}));
   ASSERT_EQ(d.nexthopGroupTunnels.size(), 1u);
   EXPECT_EQ(d.nexthopGroupTunnels[0].igpMetric(), 30u);
   EXPECT_TRUE(d.hasDecap && d.hasNexthopGroupTunnels);

   const std::pair<std::string, std::string> cases[] = {
       {R"("decapGroups": [{"name": "g", "tunnelType": "vxlan"}])",
        "bad.json: decapGroups[0].tunnelType: "},
       {R"("decapGroups": [{"name": "g", "tunnelType": "gre"}, {"name": "g", "tunnelType": "gre"}])",
        "bad.json: decapGroups[1].name: duplicate decap group 'g'"},
       {R"("decapGroups": [{"name": "", "tunnelType": "gre"}])", "bad.json: decapGroups[0]: "},
       {R"("decapPorts": [{"port": 65536, "payloadType": "mpls"}])",
        "bad.json: decapPorts[0].port: expected a whole number from 0 to 65535, got 65536"},
       {R"("decapPorts": [{"port": 1, "payloadType": "mpls"}, {"port": 1, "payloadType": "ipv4"}])",
        "bad.json: decapPorts[1].port: duplicate port 1"},
       {R"("nexthopGroupTunnels": [{"endpoint": "x", "nexthopGroup": "n"}])",
        "bad.json: nexthopGroupTunnels[0].endpoint: bad IPv4/IPv6 prefix 'x'"},
       {R"("nexthopGroupTunnels": [{"endpoint": "10.0.0.1", "nexthopGroup": "n", "pref": 1}])",
        "bad.json: nexthopGroupTunnels[0].pref: unknown key in a nexthop-group tunnel"},
   };
   for (const auto& [keys, error] : cases) {
      EXPECT_EQ(errorOf(with(keys)).rfind(error, 0), 0u) << errorOf(with(keys));
   }
}

TEST(Description, NestingDeeperThanTheToolReadsIsRefusedWithoutCrashing) {
   // 100,000 levels: refused at level 64, before anything recursive sees the value.
   const std::string deep(100000, '[');
   EXPECT_EQ(
       errorOf(R"({"tunnels": )" + deep), "bad.json: tunnels" + [] {
          std::string p;
          for (int i = 0; i < 63; ++i) p += "[0]";
          return p;
       }() + ": nesting deeper than 64 levels");
   std::string nested = "1";
   for (int i = 0; i < 62; ++i) nested = "[" + nested + "]";
   EXPECT_EQ(errorOf(R"({"tunnels": [], "name": )" + nested + "}"),
             "bad.json: name: expected a string, got [[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[["
             "[[[[[[[[[[[[[[[[...");
}

TEST(Description, TunnelsReadWhileParsedOrAfterwardsAreTheSame) {
   const std::string tunnels =
       R"({"table": "ldp", "index": 1, "endpoint": "p1", "vias": [{"nextHop": "10.0.0.1",
       "interface": "Ethernet1", "labels": "push 100"}]}, {"table": "evpnVxlan"},
       {"table": "greTunnelInterface", "interface": "Tunnel10"}, {"table": "evpnVxlan"})";
   const Description a = parseDescription(net(tunnels), "a.json");
   const Description b = parseDescription(tunnelsFirst(tunnels), "b.json");
   ASSERT_EQ(a.tunnels.size(), 4u);
   ASSERT_EQ(b.tunnels.size(), 4u);
   for (size_t i = 0; i < a.tunnels.size(); ++i) {
      EXPECT_EQ(a.tunnels[i].path, "tunnels[" + std::to_string(i) + "]");
      EXPECT_EQ(a.tunnels[i].path, b.tunnels[i].path);
      EXPECT_EQ(a.tunnels[i].bytes, b.tunnels[i].bytes) << a.tunnels[i].path;
   }
   EXPECT_NE(a.tunnels[0].text().find("'10.255.0.2/32'"), std::string::npos) << a.tunnels[0].text();
   EXPECT_EQ(a.tunnels[3].id.tunnelIndex(), 2u);
   // The local router is checked whichever comes first.
   EXPECT_EQ(errorOf(R"({"localRouter": "pe9", "tunnels": []})"),
             "bad.json: localRouter: unknown router 'pe9'");
   EXPECT_EQ(errorOf(R"({"tunnels": [], "tunnels": []})"),
             "bad.json: tunnels: duplicate key 'tunnels'");
}

TEST(Description, SyntaxErrorsGiveTheLine) {
   EXPECT_EQ(errorOf("{\n  \"tunnels\": [\n    {\"table\": \"ldp\",, }\n  ]\n}\n"),
             "bad.json:3: syntax error while parsing object key - unexpected ','; expected string "
             "literal");
   EXPECT_EQ(errorOf("{\"tunnels\": [\n"),
             "bad.json:2: syntax error while parsing value - unexpected end of input; expected "
             "'[', '{', or a literal");
   EXPECT_EQ(Testing::errorText<DescriptionError>([] { loadDescription("/nonexistent/net.json"); }),
             "/nonexistent/net.json: cannot read: No such file or directory");
}

}  // namespace
