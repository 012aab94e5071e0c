// Entries as JSON: every field of every kind's text form is a JSON field of the same name, in the
// same order, holding the same value; and each shape (tunnel id, vias, label operations, interface
// parameters, tree ids, absent colors) is given exactly.
#include <gtest/gtest.h>

#include <string>

#include "Agent.h"
#include "Commands.h"
#include "EntryJson.h"
#include "EntryRows.h"
#include "Publisher.h"
#include "StrictJson.h"
#include "TunnelTable/EntryCodec.h"
#include "TunnelTable/TunnelTables.h"
#include "Vela/ValueText.h"
#include "testing/TempRoot.h"

namespace {

using namespace TunnelCtl;
namespace TT = Tunnel::TunnelTable;

// The attribute names of a "Value('<type>', ** {'a': ..., 'b': ...})" text, in order, with their
// raw values.
std::vector<std::pair<std::string, std::string>> attributes(std::string_view text) {
   const size_t open = text.find("** {");
   EXPECT_NE(open, std::string_view::npos) << text;
   const std::string body = "[" + std::string(text.substr(open + 4, text.size() - open - 6)) + "]";
   std::vector<std::pair<std::string, std::string>> out;
   for (std::string_view item : TT::Codec::splitArray(body)) {
      const size_t colon = item.find("': ");
      out.emplace_back(std::string(item.substr(1, colon - 1)), std::string(item.substr(colon + 3)));
   }
   return out;
}

// `j` holds exactly the attributes of the Value text `text`, recursively: nested values and
// arrays of them field by field, numbers and booleans as their text, strings unquoted, label
// operations as their text, tunnel ids by value.
void expectSameFields(const Json& j, std::string_view text, const std::string& where) {
   const auto attrs = attributes(text);
   std::vector<std::string> keys, names;
   for (const auto& [k, v] : j.items()) keys.push_back(k);
   for (const auto& a : attrs) names.push_back(a.first);
   ASSERT_EQ(keys, names) << where;
   for (const auto& [name, raw] : attrs) {
      const Json& v = j[name];
      const std::string at = where + "." + name;
      if (v.is_object() && v.contains("typeCode")) {
         EXPECT_EQ(raw, "Value('Tunnel::TunnelTable::TunnelId', ** {'value': " +
                            std::to_string(v["value"].get<uint64_t>()) + "})")
             << at;
      } else if (v.is_object() && v.contains("operation")) {
         EXPECT_EQ(raw, "'" + labelsText(v) + "'") << at;
      } else if (v.is_object()) {
         expectSameFields(v, raw, at);
      } else if (v.is_array()) {
         const auto items = TT::Codec::splitArray(raw);
         if (v.size() != items.size()) {
            // The name: a string in JSON, its characters in the text.
            ASSERT_TRUE(v.empty() && raw == "[]") << at << " " << raw;
         }
         for (size_t i = 0; i < items.size(); ++i) {
            const Json& e = v[i];
            if (e.is_object() && e.contains("cos")) {  // a traffic class's operation
               EXPECT_EQ(
                   "'" + std::to_string(e["cos"].get<int>()) + ": " + labelsText(e["labels"]) + "'",
                   items[i])
                   << at;
            } else if (e.is_object()) {
               expectSameFields(e, items[i], at + "[" + std::to_string(i) + "]");
            } else {
               EXPECT_EQ("'" + e.get<std::string>() + "'", items[i]) << at;
            }
         }
      } else if (v.is_string()) {
         if (name == "name") {
            std::string chars;
            for (char c : v.get<std::string>()) {
               chars += std::string(chars.empty() ? "" : ", ") + "'" + c + "'";
            }
            EXPECT_EQ(raw, "[" + chars + "]") << at;
         } else if (raw.front() == '\'') {
            EXPECT_EQ(raw, "'" + v.get<std::string>() + "'") << at;
         } else {
            EXPECT_EQ(raw, v.get<std::string>()) << at;  // an enumerator (contribution, ...)
         }
      } else if (v.is_null()) {
         EXPECT_TRUE(raw == "None" || raw.find("nan") != std::string::npos) << at << " " << raw;
      } else if (v.is_number_float()) {
         EXPECT_DOUBLE_EQ(v.get<double>(), std::stod(attributes(raw).at(0).second)) << at;
      } else if (v.is_number()) {
         const std::string number = std::to_string(v.get<uint64_t>());
         EXPECT_TRUE(raw == number || raw.find("{'value': " + number + "}") != std::string::npos)
             << at << " " << raw;
      } else {
         EXPECT_EQ(raw, v.get<bool>() ? "True" : "False") << at;
      }
   }
}

class EntryJsonTest : public ::testing::Test {
  protected:
   void SetUp() override {
      publisher_.apply(loadDescription(std::string(TUNNEL_SOURCE_DIR) + "/examples/network.json"));
   }
   // The view of one key of a published table.
   EntryView view(const std::string& mountName, uint64_t index) {
      const TableEntry* t = tableByMountName(mountName);
      const auto& table = publisher_.tables().at(t->id);
      auto e = entryReaderFor(*table)(
          TT::TunnelId(TT::TunnelId::convertToTunnelValue(t->type->tunnelType, index)));
      EXPECT_TRUE(e.has_value()) << mountName << " " << index;
      return e.value_or(EntryView{});
   }
   Testing::TempRoot root_;
   Agent agent_;
   Publisher publisher_{agent_};
};

TEST_F(EntryJsonTest, EveryFieldOfEveryKindIsAJsonFieldOfTheSameValue) {
   size_t entries = 0;
   for (const auto& [id, table] : publisher_.tables()) {
      const EntryReader read = entryReaderFor(*table);
      for (const TT::TunnelId& key : table->entryKeys()) {
         const auto e = read(key);
         ASSERT_TRUE(e.has_value());
         EXPECT_EQ(e->fields["tunnelId"]["value"], key.value());
         // The mLDP tree id is a value with one attribute, the text the JSON gives.
         Json fields = e->fields;
         if (fields.contains("mcastTreeId")) {
            fields["mcastTreeId"] = Json{{"text", fields["mcastTreeId"]}};
         }
         expectSameFields(fields, e->text, tableById(id).mountName + " " + keyText(key));
         ++entries;
      }
   }
   EXPECT_EQ(entries, 96u);
}

TEST_F(EntryJsonTest, EachShapeExactly) {
   const struct {
      const char* table;
      uint64_t index;
      const char* json;
   } cases[] = {
       {"rsvpLer", 100,
        R"({"tunnelId":{"value":281474976710756,"type":"rsvpLerTunnel","typeCode":16,"index":100},)"
        R"("nexthopTunnelId":{"value":0,"type":"reservedTunnel0","typeCode":0,"index":0},)"
        R"("entryPref":45,"entryMetric":15,"tunnelBw":1000000000.0,"endpoint":["10.255.0.11/32"],)"
        R"("name":"te-pe1-pe5","via":{"nextHop":"10.0.1.1","intfId":"Ethernet1","labels":)"
        R"({"operation":"push","pops":0,"labels":[800100]}},"backupVia":{"nextHop":"10.0.2.1",)"
        R"("intfId":"Ethernet2","labels":{"operation":"push","pops":0,"labels":[900010,800100]}},)"
        R"("isPrimaryViaUsable":true,"seqNo":3,"metric":15,"igpPref":115,)"
        R"("isTunnelIgpShortcutEligible":true,"isTunnelLdpTunnelingEligible":true,"color":null,)"
        R"("splitVia":[]})"},
       {"greTunnelInterface", 10,
        R"({"tunnelId":{"value":158329674399754,"type":"staticInterfaceTunnel","typeCode":9,)"
        R"("index":10},"nexthopTunnelId":{"value":0,"type":"reservedTunnel0","typeCode":0,)"
        R"("index":0},"entryPref":255,"entryMetric":0,"tunnelBw":0.0,"endpoint":)"
        R"(["10.255.0.23/32"],"name":"gre-to-dci1","via":[{"nextHop":"10.0.4.1","intfId":)"
        R"("Port-Channel10"}],"tunnelInfo":{"srcAddr":"10.255.0.7","dstAddr":"10.255.0.23",)"
        R"("tunnelIntfPort":10,"okey":1010,"ikey":1010,"mtu":1476,"underlayVrfId":0,"ttl":64,)"
        R"("tos":0,"pathMtuDiscovery":true,"dontFragment":false}})"},
       {"evpnVxlan", 1,
        R"({"tunnelId":{"value":105553116266497,"type":"evpnVxlanTunnel","typeCode":6,"index":1},)"
        R"("tunnelInfo":{"srcAddr":"10.255.0.7","dstAddr":"10.255.0.8","underlayVrfId":0,)"
        R"("udpPort":4789,"ttl":255,"tos":0}})"},
       {"mldpTunnel", 1,
        R"({"tunnelId":{"value":387028092977153,"type":"mldpTunnel","typeCode":22,"index":1},)"
        R"("mcastTreeId":"p2mp root 10.255.0.7 lsp-id 1","via":[{"nextHop":"10.0.1.1","intfId":)"
        R"("Ethernet1","labels":{"operation":"push","pops":0,"labels":[31000]}},{"nextHop":)"
        R"("10.0.2.1","intfId":"Ethernet2","labels":{"operation":"push","pops":0,"labels":)"
        R"([31001]}}]})"},
       {"bgpLu", 300,
        R"({"tunnelId":{"value":35184372089132,"type":"bgpLuTunnel","typeCode":2,"index":300},)"
        R"("nexthopTunnelId":{"value":0,"type":"reservedTunnel0","typeCode":0,"index":0},)"
        R"("entryPref":85,"entryMetric":0,"tunnelBw":0.0,"endpoint":["192.0.2.1/32"],"name":)"
        R"("bgplu-192.0.2.1","via":[{"nextHop":"0.0.0.0","intfId":"DynamicTunnel0x300000000015"}],)"
        R"("labels":{"operation":"push","pops":0,"labels":[100200]},"contribution":"contributing",)"
        R"("bgpMetric":100,"bgpMetricType":"aigpMetric","bgpMetric2":0,"bgpPref":100,)"
        R"("bgpPref2":0,"bgpLinkBw":1250000000.0})"},
   };
   for (const auto& c : cases) {
      EXPECT_EQ(view(c.table, c.index).fields.dump(), c.json) << c.table << " " << c.index;
   }
}

TEST_F(EntryJsonTest, RowsTakeTheFirstViaAndTheEntrysOwnLabels) {
   const struct {
      const char* table;
      uint64_t index;
      EntryRows::Row row;
   } cases[] = {
       {"rsvpLer",
        100,
        {"100", "10.255.0.11/32", "te-pe1-pe5", "10.0.1.1", "Ethernet1", "push 800100", "15", "1"}},
       // Labels of the entry itself when its via has none; an interface tunnel's endpoint.
       {"bgpLu",
        300,
        {"300", "192.0.2.1/32", "bgplu-192.0.2.1", "0.0.0.0", "DynamicTunnel0x300000000015",
         "push 100200", "0", "1"}},
       {"evpnVxlan", 1, {"1", "10.255.0.8/32", "-", "-", "-", "-", "-", "0"}},
       {"mldpTunnel", 1, {"1", "-", "-", "10.0.1.1", "Ethernet1", "push 31000", "-", "2"}},
   };
   for (const auto& c : cases) {
      EXPECT_EQ(EntryRows::rowOf(view(c.table, c.index)), c.row) << c.table << " " << c.index;
   }
}

// A name another writer stored need not be printable: it shows escaped, the same in JSON and in
// rows, one to one with its bytes.
TEST_F(EntryJsonTest, ANameOfAnyBytesPrintsEscaped) {
   const auto& table = publisher_.tables().at(tableByMountName("ldp")->id);
   auto* ldp = dynamic_cast<TT::LdpTunnelTable*>(table.get());
   ASSERT_NE(ldp, nullptr);
   TT::LdpTunnelTableEntry e(
       TT::TunnelId(TT::TunnelId::convertToTunnelValue(TT::TunnelType::ldpTunnel, 77)));
   e.nameIs(std::string_view("caf\xc3\xa9\\x\x01\x7f", 9));
   ldp->entryIs(e);
   const EntryView v = view("ldp", 77);
   EXPECT_EQ(v.fields["name"], "caf\\xc3\\xa9\\\\x\\x01\\x7f");
   EXPECT_EQ(dumpJson(v.fields["name"]), R"("caf\\xc3\\xa9\\\\x\\x01\\x7f")");
   EXPECT_EQ(EntryRows::rowOf(v)[2], "caf\\xc3\\xa9\\\\x\\x01\\x7f");
}

}  // namespace
