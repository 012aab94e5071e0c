// The via kinds: exact byte forms, hash, order, text and dump forms, and the tunnel-id via.
#include <gtest/gtest.h>

#include <vector>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/Via.h"
#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Wirekit/Errors.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {
namespace {

using Wirekit::IntfId;
using Wirekit::IpGenAddr;
using Wirekit::MplsLabelOperation;

using Testing::hexBytes;

// The fixed byte form of `v`, written over 0xEE so a byte left out shows.
template <typename V>
std::vector<uint8_t> bytesOf(const V& v) {
   const auto b = Testing::bytesOf(v);
   return {b.begin(), b.end()};
}

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

Vela::String zeros(size_t bytes) {
   return Vela::String(2 * bytes, '0');
}

const MplsVia kMplsVia(IpGenAddr("10.0.0.1"), IntfId("Ethernet1"), MplsLabelOperation("push 100"));

TEST(ViaTest, MplsViaByteFormIsAddressInterfaceLabels) {
   // nextHop 10.0.0.1, Ethernet1, push 100
   const std::vector<uint8_t> bytes =
       hexBytes("04000000 0a000001" + zeros(12) + "0100000000010001 01010000 64000000" + zeros(40));
   ASSERT_EQ(bytes.size(), 76u);
   EXPECT_EQ(bytesOf(kMplsVia), bytes);
   EXPECT_EQ(MplsVia::deserialize(bytes.data()), kMplsVia);
   EXPECT_EQ(bytesOf(MplsVia()), hexBytes(zeros(76)));
   std::vector<uint8_t> bad = bytes;
   bad[0] = 5;  // no such address family
   EXPECT_THROW(MplsVia::deserialize(bad.data()), Wirekit::FormatError);
   bad = bytes;
   bad[29] = 12;  // twelve labels do not fit the bounded operation
   EXPECT_THROW(MplsVia::deserialize(bad.data()), Wirekit::FormatError);
}

TEST(ViaTest, ViaAndTunnelViaByteForms) {
   const Via via(IpGenAddr("2001:db8::1"), IntfId("Ethernet2/1"));
   const auto viaGolden = hexBytes("06000000 20010db8" + zeros(11) + "01 0200000100020001");
   ASSERT_EQ(viaGolden.size(), 28u);
   EXPECT_EQ(bytesOf(via), viaGolden);
   EXPECT_EQ(Via::deserialize(viaGolden.data()), via);

   const TunnelVia tv(IpGenAddr("10.0.0.1"), IntfId::tunnelIntf(5), EncapId(EncapType::gre, 7));
   const auto tvGolden = hexBytes("04000000 0a000001" + zeros(12) + "0500000000000007 07000010");
   ASSERT_EQ(tvGolden.size(), 32u);
   EXPECT_EQ(bytesOf(tv), tvGolden);
   EXPECT_EQ(TunnelVia::deserialize(tvGolden.data()), tv);
   std::vector<uint8_t> bad = tvGolden;
   bad[31] = 0x70;  // EncapType 7
   EXPECT_THROW(TunnelVia::deserialize(bad.data()), ByteFormatError);
}

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
   EXPECT_NE(other, kMplsVia);
   EXPECT_NE(other.hash(), kMplsVia.hash());
   EXPECT_EQ(other.hash(), reference(other));
   EXPECT_EQ(MplsVia().hash(), reference(MplsVia()));
}

TEST(ViaTest, EqualityAndOrderGoFieldByField) {
   const MplsVia a(IpGenAddr("10.0.0.1"), IntfId("Ethernet2"), MplsLabelOperation("push 1"));
   const MplsVia b(IpGenAddr("10.0.0.2"), IntfId("Ethernet1"), MplsLabelOperation(""));
   EXPECT_LT(a, b);  // next hop decides first
   EXPECT_LT(MplsVia(a.nextHop(), IntfId("Ethernet1"), a.labels()), a);
   EXPECT_NE(MplsVia(a.nextHop(), a.intfId()), a);
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

TEST(MplsCosViaTest, ByteFormCarriesOneOperationPerClassPresent) {
   const MplsCosVia v = cosVia();
   EXPECT_EQ(v.cosLabelsCount(), 2u);
   EXPECT_EQ(v.serializeLen(), 29u + 2 * 48);
   std::vector<uint8_t> bytes(v.serializeLen());
   v.serialize(bytes.data());
   // Classes 0 and 5 present (0x21): class 0 pop 1, class 5 swap 300.
   EXPECT_EQ(bytes, hexBytes("04000000 0a000001" + zeros(12) + "0100000000010001 21 03000100" +
                             zeros(44) + "02010100 2c010000" + zeros(40)));

   EXPECT_EQ(MplsCosVia::deserializeLen(bytes.data(), 125), 125u);
   EXPECT_EQ(MplsCosVia::deserializeLen(bytes.data(), 200), 125u);
   EXPECT_EQ(MplsCosVia::deserializeLen(bytes.data(), 124), 0u);
   EXPECT_EQ(MplsCosVia::deserializeLen(bytes.data(), 28), 0u);
   MplsCosVia back;
   back.deserialize(bytes.data(), 125);
   EXPECT_EQ(back, v);

   MplsCosVia untouched;
   EXPECT_THROW(untouched.deserialize(bytes.data(), 124), ByteFormatError);
   EXPECT_EQ(untouched, MplsCosVia());
   bytes[28] = 0x23;  // claims a third class the bytes do not hold
   EXPECT_THROW(untouched.deserialize(bytes.data(), 125), ByteFormatError);

   const MplsCosVia empty;
   EXPECT_EQ(empty.serializeLen(), 29u);
   std::vector<uint8_t> small(29, 0xEE);
   empty.serialize(small.data());
   EXPECT_EQ(small, std::vector<uint8_t>(29, 0));
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

}  // namespace
}  // namespace Tunnel::TunnelTable
