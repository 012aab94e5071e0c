// The mLDP entry (byte form, equality, truth, text) and tree id sharing, and the mLDP table as a
// member of the tunnel table family.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "Mldp/MldpTunnelTable.h"
#include "Mldp/MldpTunnelTableEntry.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTableFamilyTests.h"
#include "Vela/ArraySizeError.h"
#include "testing/Expect.h"

namespace Tunnel::TunnelTable {

namespace FamilyTest {
template <>
struct EntryMaker<MldpTunnelTableEntry> {
   static MldpTunnelTableEntry make(TunnelType type, uint64_t index, uint32_t variant) {
      MldpTunnelTableEntry e(TunnelId(TunnelId::convertToTunnelValue(type, index)),
                             Routing::Multicast::MulticastTreeId("tree-" + std::to_string(index)));
      e.viaIs(ViaIndex(0), MplsVia(Wirekit::IpGenAddr::ipv4(0x0A000000u + variant),
                                   Wirekit::IntfId::tunnelIntf(variant),
                                   Wirekit::MplsLabelOperation::push({100 + variant})));
      return e;
   }
};

using MldpMembers = MembersOf<MldpTables>::type;
INSTANTIATE_TYPED_TEST_SUITE_P(Mldp, TunnelTableFamilyTest, MldpMembers);
}  // namespace FamilyTest

namespace {

using Routing::Multicast::MulticastTreeId;

MplsVia via(uint32_t n) {
   return MplsVia(Wirekit::IpGenAddr::ipv4(0x0A000000u + n), Wirekit::IntfId::tunnelIntf(n),
                  Wirekit::MplsLabelOperation::push({1000 + n}));
}
TunnelId mldpId(uint64_t index) {
   return TunnelId(TunnelId::convertToTunnelValue(TunnelType::mldpTunnel, index));
}

TEST(MulticastTreeId, CopiesShareOneTextAndCountIt) {
   MulticastTreeId a("root:10.0.0.1/opaque");
   EXPECT_EQ(a.sharers(), 1u);
   {
      MulticastTreeId b = a;
      MldpTunnelTableEntry e(mldpId(1), a);
      MldpTunnelTableEntry f = e;
      EXPECT_TRUE(b.sharesTextWith(a));
      EXPECT_TRUE(f.mcastTreeId().sharesTextWith(a));
      EXPECT_EQ(a.sharers(), 4u);
   }
   EXPECT_EQ(a.sharers(), 1u);
   MulticastTreeId same("root:10.0.0.1/opaque");
   EXPECT_TRUE(same == a);
   EXPECT_FALSE(same.sharesTextWith(a));
   EXPECT_TRUE(MulticastTreeId() == MulticastTreeId(""));
   EXPECT_EQ(MulticastTreeId().sharers(), 0u);
   EXPECT_TRUE(MulticastTreeId("a") < MulticastTreeId("b"));
   EXPECT_EQ(valueToStrep(MulticastTreeId("t1")),
             "Value('Routing::Multicast::MulticastTreeId', ** {'text': 't1'})");
   EXPECT_EQ(MulticastTreeId("ab").hash(), Vela::oneAtATime("ab", 2));
}

TEST(MulticastTreeId, ThreadsCopyingOneTextKeepItsCountWithThreadSafePointers) {
   Vela::threadSafePtrIs(true);
   MulticastTreeId shared("tree");
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&shared] {
         for (int i = 0; i < 20000; ++i) {
            MulticastTreeId copy = shared;
            MldpTunnelTableEntry e(mldpId(1), copy);
         }
      });
   }
   for (auto& th : threads) th.join();
   EXPECT_EQ(shared.sharers(), 1u);
   Vela::threadSafePtrIs(false);
}

TEST(MldpTunnelTableEntry, TruthEqualityAndOrderOfVias) {
   EXPECT_FALSE(bool(MldpTunnelTableEntry()));
   MldpTunnelTableEntry onlyTree;
   onlyTree.mcastTreeIdIs(MulticastTreeId("t"));
   EXPECT_TRUE(bool(onlyTree));
   EXPECT_TRUE(bool(MldpTunnelTableEntry(mldpId(1), MulticastTreeId())));

   MldpTunnelTableEntry a(mldpId(5), MulticastTreeId("tree"));
   MldpTunnelTableEntry b = a;
   a.viaIs(ViaIndex(0), via(1));
   a.viaIs(ViaIndex(1), via(2));
   b.viaIs(ViaIndex(0), via(2));
   b.viaIs(ViaIndex(1), via(1));
   EXPECT_FALSE(a == b);  // the same vias in another order
   b.viaIs(ViaIndex(0), via(1));
   b.viaIs(ViaIndex(1), via(2));
   EXPECT_TRUE(a == b);
   b.viaDel(ViaIndex(1));
   EXPECT_EQ(b.viaCount(), 1u);
   EXPECT_FALSE(a == b);
   b.viaIs(ViaIndex(1), via(2));
   EXPECT_TRUE(a == b);
   MldpTunnelTableEntry otherTree(mldpId(5), MulticastTreeId("tree2"));
   otherTree.viaIs(ViaIndex(0), via(1));
   otherTree.viaIs(ViaIndex(1), via(2));
   EXPECT_FALSE(a == otherTree);
   EXPECT_TRUE(static_cast<const MulticastTunnelTableEntry&>(a) <
               static_cast<const MulticastTunnelTableEntry&>(otherTree));

   // The other via operations forward to the via array (its deletion rule is the array's test);
   // the iterator form is the entry's own: it leaves a hole and returns the next place.
   MldpTunnelTableEntry c(mldpId(6), MulticastTreeId("x"));
   c.viaIs(ViaIndex(0), via(1));
   c.viaIs(ViaIndex(1), via(2));
   auto next = c.viaDel(c.via().begin());
   EXPECT_EQ(c.viaCount(), 2u);  // a hole at 0
   EXPECT_TRUE(*next == via(2));
}

TEST(MldpTunnelTableEntry, ByteFormIsExact) {
   MldpTunnelTableEntry e(mldpId(7), MulticastTreeId("abcde"));
   e.viaIs(ViaIndex(0), via(1));
   e.viaIs(ViaIndex(1), via(2));
   ASSERT_EQ(e.serializeLen(), 173u);
   std::vector<uint8_t> buf(173, 0xEE);
   e.serialize(buf.data());
   uint64_t id;
   uint32_t len, n;
   std::memcpy(&id, buf.data(), 8);
   std::memcpy(&len, buf.data() + 8, 4);
   std::memcpy(&n, buf.data() + 17, 4);
   EXPECT_EQ(id, mldpId(7).value());
   EXPECT_EQ(len, 5u);
   EXPECT_EQ(std::string(reinterpret_cast<const char*>(buf.data() + 12), 5), "abcde");
   EXPECT_EQ(n, 2u);
   uint8_t v[76];
   via(1).serialize(v);
   EXPECT_EQ(std::memcmp(buf.data() + 21, v, 76), 0);
   via(2).serialize(v);
   EXPECT_EQ(std::memcmp(buf.data() + 97, v, 76), 0);

   EXPECT_EQ(MldpTunnelTableEntry::deserializeLen(buf.data(), 173), 173u);
   EXPECT_EQ(MldpTunnelTableEntry::deserializeLen(buf.data(), 500), 173u);
   EXPECT_EQ(MldpTunnelTableEntry::deserializeLen(buf.data(), 172), 0u);
   EXPECT_EQ(MldpTunnelTableEntry::deserializeLen(buf.data(), 16), 0u);
   EXPECT_EQ(MldpTunnelTableEntry::deserializeLen(buf.data(), 3), 0u);

   MldpTunnelTableEntry back;
   back.deserialize(buf.data(), 173);
   EXPECT_TRUE(back == e);
   EXPECT_EQ(back.mcastTreeId().text(), "abcde");
   EXPECT_THROW(back.deserialize(buf.data(), 172), Vela::Exception);

   // An empty entry: 12 + 0 + 4 bytes.
   MldpTunnelTableEntry empty;
   EXPECT_EQ(empty.serializeLen(), 16u);
}

TEST(MldpTunnelTableEntry, ViaCountAboveCapacityIsTheArraySizeError) {
   std::vector<uint8_t> buf(16 + 1, 0);
   const uint32_t len = 1, n = 601;
   std::memcpy(buf.data() + 8, &len, 4);
   buf[12] = 'x';
   std::memcpy(buf.data() + 13, &n, 4);
   // deserializeLen does not check the capacity, only the room.
   EXPECT_EQ(MldpTunnelTableEntry::deserializeLen(buf.data(), 17), 0u);
   MldpTunnelTableEntry e;
   const std::string what =
       Testing::errorText<Vela::ArraySizeError>([&] { e.deserialize(buf.data(), 17); });
   EXPECT_EQ(what.rfind("expected size <= 600, instead got 601. Buffer is at address: ", 0), 0u)
       << what;
   EXPECT_NE(what.find(" with contents: 0000000000000000010000007859020000"), std::string::npos)
       << what;
   std::vector<uint8_t> room(17 + 601 * 76, 0);
   std::memcpy(room.data(), buf.data(), 17);
   EXPECT_EQ(MldpTunnelTableEntry::deserializeLen(room.data(), uint32_t(room.size())),
             uint32_t(room.size()));
}

TEST(MldpTunnelTableEntry, TextForm) {
   MldpTunnelTableEntry e(mldpId(1), MulticastTreeId("t"));
   e.viaIs(ViaIndex(0), via(1));
   EXPECT_EQ(valueToStrep(e),
             "Value('Tunnel::TunnelTable::MldpTunnelTableEntry', ** {'tunnelId': " +
                 valueToStrep(mldpId(1)) +
                 ", 'mcastTreeId': Value('Routing::Multicast::MulticastTreeId', ** {'text': "
                 "'t'}), 'via': [" +
                 valueToStrep(via(1)) + "]})");
}

TEST(MldpTunnelTableEntryDeathTest, NoStringConstructor) {
   const Vela::String text = "Value('Tunnel::TunnelTable::MldpTunnelTableEntry', ** {})";
   EXPECT_DEATH(MldpTunnelTableEntry(text.begin(), text.end()),
                "assertion failed: No String constructor for MldpTunnelTableEntry - has "
                "collection \\(.*MldpTunnel.cpp:");
}

TEST(MldpTunnelTable, IsMemberTwentyOfType22) {
   // The name, registry and factory are the family's tests; the codes are pinned here.
   auto t = mldpTunnelTableFactory("mldp");
   EXPECT_EQ(t->tableType(), TunnelType::mldpTunnel);
   EXPECT_EQ(int(t->tunnelTableId()), 20);
   using Notifiee = MldpTunnelTable::MldpTunnelTableZeroReferencesNotifiee;
   EXPECT_NE(dynamic_cast<Notifiee*>(t->zeroReferencesNotifiee()), nullptr);
   // Its registry row is what the mounter reads for identifier 20.
   const auto info = TunnelTableMounter::getMountInfo(TunnelTableIdentifier::mldpTunnelTable);
   EXPECT_EQ(info.tableInfo.typeName, "Tunnel::TunnelTable::MldpTunnelTable");
   EXPECT_EQ(info.tableInfo.mountName, "mldpTunnel");
   EXPECT_EQ(info.tableInfo.path, "tunnel/table/mldpTunnel");
}

}  // namespace
}  // namespace Tunnel::TunnelTable
