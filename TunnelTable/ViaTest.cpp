// The via kinds: hash, text and dump forms, the tunnel-id via, and the run reader of MPLS vias.
// (Their byte forms are pinned inside the entries of EntryBytesTest.cpp.)
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "TunnelTable/Via.h"
#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

using Wirekit::IntfId;
using Wirekit::IpGenAddr;
using Wirekit::MplsLabelOperation;

template <typename V>
V fromText(const Vela::String& text) {
   return V(text.begin(), text.end());
}

// The exact text form of `v`, streamed and as valueToStrep, and that it reads back.
template <typename V>
void expectText(const V& v, const Vela::String& text) {
   EXPECT_EQ(valueToStrep(v), text);
   EXPECT_EQ(Testing::streamed(v), text);
   EXPECT_EQ(fromText<V>(text), v);
   EXPECT_EQ(fromText<V>(valueToStrep(V())), V());
}

const MplsVia kMplsVia(IpGenAddr("10.0.0.1"), IntfId("Ethernet1"), MplsLabelOperation("push 100"));

TEST(ViaTest, MplsViaHashIsOneAtATimeOverTheThreeFieldHashes) {
   auto reference = [](const MplsVia& v) {
      const uint32_t parts[] = {v.nextHop().hash(), v.intfId().hash(), v.labels().hash(0)};
      uint8_t le[12];
      for (int i = 0; i < 12; ++i) le[i] = static_cast<uint8_t>(parts[i / 4] >> (8 * (i % 4)));
      return Vela::oneAtATime(le, sizeof le);
   };
   EXPECT_EQ(kMplsVia.hash(), reference(kMplsVia));
   MplsVia other = kMplsVia;
   other.labelsIs(MplsLabelOperation("push 101"));
   EXPECT_NE(other.hash(), kMplsVia.hash());
   EXPECT_EQ(other.hash(), reference(other));
   EXPECT_EQ(MplsVia().hash(), reference(MplsVia()));
}

TEST(ViaTest, DumpAndTextForms) {
   EXPECT_EQ(kMplsVia.stringValue(), "nextHop: 10.0.0.1, intfId: Ethernet1, labels: [push 100]");
   EXPECT_EQ(kMplsVia.dumpLine(0), "nextHop: 10.0.0.1, intfId: Ethernet1, labels: [push 100]\n");
   EXPECT_EQ(kMplsVia.dumpLine(4),
             "    nextHop: 10.0.0.1, intfId: Ethernet1, labels: [push 100]\n");
   expectText(kMplsVia,
              "Value('Tunnel::TunnelTable::MplsVia', ** {'nextHop': '10.0.0.1', "
              "'intfId': 'Ethernet1', 'labels': 'push 100'})");

   const Via via(IpGenAddr("10.1.1.1"), IntfId("Vlan100"));
   EXPECT_EQ(via.stringValue(), "nextHop: 10.1.1.1, intfId: Vlan100");
   expectText(via,
              "Value('Tunnel::TunnelTable::Via', ** {'nextHop': '10.1.1.1', 'intfId': 'Vlan100'})");

   const TunnelVia tv(IpGenAddr("10.1.1.1"), IntfId("Ethernet3"), EncapId(EncapType::vxlan, 9));
   EXPECT_EQ(tv.stringValue(), "nextHop: 10.1.1.1, intfId: Ethernet3, encapId: VXLAN 9");
   EXPECT_EQ(fromText<TunnelVia>(valueToStrep(tv)), tv);
   EXPECT_EQ(fromText<TunnelVia>(valueToStrep(TunnelVia())), TunnelVia());

   EXPECT_THROW(fromText<MplsVia>("Value('Tunnel::TunnelTable::MplsVia', ** {'nextHop': "
                                  "'10.0.0.300', 'intfId': 'Ethernet1', 'labels': ''})"),
                Vela::ParseException);
}

TEST(ViaTest, TunnelIdViaLeadsIntoTheTunnel) {
   const TunnelId target(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, 7));
   const Via via = Via::tunnelIdVia(target);
   EXPECT_EQ(via.nextHop(), IpGenAddr("0.0.0.0"));
   EXPECT_EQ(via.intfId(), Wirekit::DynamicTunnelIntfId::tunnelIdToIntfId(0x300000000007u));
   EXPECT_TRUE(via.isTunnelIdVia());
   EXPECT_EQ(via.viaTunnelId(), target);
   EXPECT_FALSE(Via(IpGenAddr("10.0.0.1"), via.intfId()).isTunnelIdVia());
   EXPECT_FALSE(Via(IpGenAddr("0.0.0.0"), IntfId("Ethernet1")).isTunnelIdVia());
   EXPECT_DEATH(Via().viaTunnelId(), "assertion failed: isTunnelIdVia\\(\\)");
}

// ---- MplsCosVia ----

MplsCosVia cosVia() {
   MplsCosVia v(IpGenAddr("10.0.0.1"), IntfId("Ethernet1"));
   v.cosLabelsIs(5, MplsLabelOperation("swap 300"));
   v.cosLabelsIs(0, MplsLabelOperation("pop 1"));
   return v;
}

TEST(MplsCosViaTest, ClassesCompareAndPrint) {
   MplsCosVia v = cosVia();
   EXPECT_TRUE(v.cosLabelsHas(5));
   EXPECT_FALSE(v.cosLabelsHas(4));
   EXPECT_EQ(v.cosLabels(4), MplsLabelOperation());
   EXPECT_EQ(v.stringValue(),
             "nextHop: 10.0.0.1, intfId: Ethernet1, cosLabels: [0: pop 1, 5: swap 300]");
   expectText(v,
              "Value('Tunnel::TunnelTable::MplsCosVia', ** {'nextHop': '10.0.0.1', 'intfId': "
              "'Ethernet1', 'cosLabels': ['0: pop 1', '5: swap 300']})");
   EXPECT_THROW(fromText<MplsCosVia>("Value('Tunnel::TunnelTable::MplsCosVia', ** {'nextHop': "
                                     "'10.0.0.1', 'intfId': 'Ethernet1', 'cosLabels': "
                                     "['8: pop 1']})"),
                Vela::RangeException);

   MplsCosVia other = v;
   EXPECT_EQ(other.cosLabelsDel(5), MplsLabelOperation("swap 300"));
   EXPECT_NE(other, v);
   other.cosLabelsIs(5, MplsLabelOperation("swap 300"));
   EXPECT_EQ(other, v);
   other.cosLabelsDelAll();
   EXPECT_EQ(other, MplsCosVia(v.nextHop(), v.intfId()));
   EXPECT_THROW(v.cosLabelsIs(8, MplsLabelOperation()), Vela::RangeException);
}

// The run reader accepts exactly the runs the via reader accepts, reads the same vias, and
// throws the same error for the first via refused. Runs of five vias of one shape, every bit of
// the first or the fourth flipped in turn: flips of a shape's bytes (family, interface kind and
// count, label header) change the shape mid-run, flips of a value's bytes meet the shape's masks.
TEST(MplsViaRun, AcceptsExactlyWhatTheViaReaderAccepts) {
   constexpr size_t kRun = 5, kSize = MplsVia::kSerializedSize;
   const std::vector<std::array<const char*, 3>> shapes = {
       {"10.0.0.1", "Ethernet1", "push 100"},
       {"10.0.0.1", "Ethernet1/2/3", "push 1048575 16 17 18 19 20 21 22 23 24 25"},
       {"2001:db8::1", "Ethernet3/4", "swap 300"},
       {"", "", ""},
       {"10.1.1.1", "Management1/1", "pop 1"},
       {"10.1.1.1", "Vlan1", "pop 2 push 5"},
       {"10.1.1.1", "Vlan4094", "push 0"},
       {"10.1.1.1", "Loopback7", "swap 16 17"},
       {"fe80::2", "Port-Channel9", "pop 255"},
       {"10.1.1.1", "Vxlan1", "push 3"},
       {"10.1.1.1", "Tunnel4294967295", "push 3"},
   };
   const auto runOf = [&](const MplsVia& v) {
      std::vector<uint8_t> bytes(kRun * kSize);
      for (size_t i = 0; i < kRun; ++i) v.serialize(bytes.data() + i * kSize);
      return bytes;
   };
   std::vector<MplsVia> bases;
   for (const auto& [nextHop, intf, labels] : shapes) {
      bases.emplace_back(*nextHop ? IpGenAddr(nextHop) : IpGenAddr(), IntfId(intf),
                         MplsLabelOperation(labels));
   }
   bases.emplace_back(IpGenAddr("10.0.0.9"), Wirekit::DynamicTunnelIntfId::tunnelIdToIntfId(77));
   size_t refused = 0, cases = 0;
   for (const MplsVia& base : bases) {
      for (size_t at : {size_t{0}, 3 * kSize}) {
         for (size_t bit = 0; bit < 8 * kSize; ++bit) {
            std::vector<uint8_t> bytes = runOf(base);
            bytes[at + bit / 8] ^= uint8_t(1u << bit % 8);
            std::vector<MplsVia> want;
            const std::string wantError = Testing::errorText([&] {
               for (size_t i = 0; i < kRun; ++i)
                  want.push_back(MplsVia::deserialize(&bytes[i * kSize]));
            });
            alignas(MplsVia) std::array<uint8_t, kRun * sizeof(MplsVia)> storage;
            auto* got = reinterpret_cast<MplsVia*>(storage.data());
            const std::string gotError =
                Testing::errorText([&] { MplsVia::deserializeRun(got, bytes.data(), kRun); });
            ASSERT_EQ(gotError, wantError) << base.stringValue() << " bit " << at * 8 + bit;
            if (want.size() == kRun) {
               for (size_t i = 0; i < kRun; ++i) ASSERT_EQ(got[i], want[i]) << i;
            }
            refused += want.size() < kRun;
            ++cases;
         }
      }
   }
   // Both outcomes were met, most bits refused (places, padding) but many kept (numbers, labels).
   EXPECT_GT(refused, cases / 2);
   EXPECT_LT(refused, cases);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
