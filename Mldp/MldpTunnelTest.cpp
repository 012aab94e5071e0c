// The mLDP entry (byte form, equality, truth, text) and tree id sharing, and the mLDP table as a
// member of the tunnel table family (its entries written through a real store).
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "Mldp/MldpTunnelTable.h"
#include "Mldp/MldpTunnelTableEntry.h"
#include "TunnelTable/TunnelMount.h"
#include "Vela/ArraySizeError.h"
#include "testing/Expect.h"
#include "testing/TunnelTableFamilyTests.h"

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
      EXPECT_TRUE(f.mcastTreeId().sharesTextWith(a));
      EXPECT_EQ(a.sharers(), 4u);  // a, b, e's and f's: one text
   }
   EXPECT_EQ(a.sharers(), 1u);
   MulticastTreeId same("root:10.0.0.1/opaque");
   EXPECT_TRUE(same == a);
   EXPECT_FALSE(same.sharesTextWith(a));
   EXPECT_TRUE(MulticastTreeId() == MulticastTreeId(""));
   EXPECT_EQ(MulticastTreeId().sharers(), 0u);
   EXPECT_EQ(MulticastTreeId("ab").hash(), Vela::oneAtATime("ab", 2));
}

// The one test of thread-safe pointer counting: copies made and dropped on four threads at once.
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

// The entry of `id` on tree `tree` with via(n) at each place, in order.
MldpTunnelTableEntry withVias(uint64_t id, const char* tree, std::vector<uint32_t> vias) {
   MldpTunnelTableEntry e(mldpId(id), MulticastTreeId(tree));
   for (uint16_t i = 0; i < vias.size(); ++i) e.viaIs(ViaIndex(i), via(vias[i]));
   return e;
}

TEST(MldpTunnelTableEntry, TruthEqualityAndOrderOfVias) {
   EXPECT_FALSE(bool(MldpTunnelTableEntry()));
   MldpTunnelTableEntry onlyTree;
   onlyTree.mcastTreeIdIs(MulticastTreeId("t"));
   EXPECT_TRUE(bool(onlyTree));
   EXPECT_TRUE(bool(MldpTunnelTableEntry(mldpId(1), MulticastTreeId())));

   const MldpTunnelTableEntry a = withVias(5, "tree", {1, 2});
   EXPECT_TRUE(a == withVias(5, "tree", {1, 2}));
   EXPECT_FALSE(a == withVias(5, "tree", {2, 1}));  // the same vias in another order
   MldpTunnelTableEntry b = a;
   b.viaDel(ViaIndex(1));
   EXPECT_EQ(b.viaCount(), 1u);
   EXPECT_FALSE(a == b);
   b.viaIs(ViaIndex(1), via(2));
   EXPECT_TRUE(a == b);
   const MldpTunnelTableEntry otherTree = withVias(5, "tree2", {1, 2});
   EXPECT_FALSE(a == otherTree);
   EXPECT_TRUE(static_cast<const MulticastTunnelTableEntry&>(a) <
               static_cast<const MulticastTunnelTableEntry&>(otherTree));

   // The other via operations forward to the via array (its deletion rule is FixedArray's);
   // the iterator form is the entry's own: it leaves a hole and returns the next place.
   MldpTunnelTableEntry c = withVias(6, "x", {1, 2});
   auto next = c.viaDel(c.via().begin());
   EXPECT_EQ(c.viaCount(), 2u);  // a hole at 0
   EXPECT_TRUE(*next == via(2));
}

TEST(MldpTunnelTableEntry, ByteAndTextFormsAreExact) {
   const MldpTunnelTableEntry e = withVias(7, "abcde", {1, 2});
   ASSERT_EQ(e.serializeLen(), 173u);
   std::vector<uint8_t> buf(173, 0xEE);
   e.serialize(buf.data());
   // The id, the tree id's length and text, the via count, then each via's own form.
   std::vector<uint8_t> want = Testing::hexBytes("07000000 00600100 05000000 6162636465 02000000");
   for (const auto& v : {Testing::bytesOf(via(1)), Testing::bytesOf(via(2))}) {
      want.insert(want.end(), v.begin(), v.end());
   }
   EXPECT_EQ(buf, want);
   for (const auto& [length, expected] : std::vector<std::pair<uint32_t, uint32_t>>{
            {173, 173}, {500, 173}, {172, 0}, {16, 0}, {3, 0}}) {
      EXPECT_EQ(MldpTunnelTableEntry::deserializeLen(buf.data(), length), expected) << length;
   }
   MldpTunnelTableEntry back;
   back.deserialize(buf.data(), 173);
   EXPECT_TRUE(back == e);
   EXPECT_THROW(back.deserialize(buf.data(), 172), Vela::Exception);
   EXPECT_EQ(MldpTunnelTableEntry().serializeLen(), 16u);  // 12 + 0 + 4 bytes
   // A via count above the capacity of 600 is refused, whatever room follows it.
   std::vector<uint8_t> room(17 + 601 * 76, 0);
   std::memcpy(room.data() + 8, "\x01\x00\x00\x00x\x59\x02\x00\x00", 9);  // "x", 601 vias
   EXPECT_EQ(MldpTunnelTableEntry::deserializeLen(room.data(), uint32_t(room.size())),
             uint32_t(room.size()));  // deserializeLen checks only the room
   EXPECT_THROW(back.deserialize(room.data(), uint32_t(room.size())), Vela::ArraySizeError);

   EXPECT_EQ(valueToStrep(withVias(1, "t", {1})),
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

TEST(MldpTunnelTable, IdentifierTwentyMountsTheMldpTable) {
   // The mounter reads the registry row Mldp/ adds for identifier 20.
   const auto info = TunnelTableMounter::getMountInfo(TunnelTableIdentifier::mldpTunnelTable);
   EXPECT_EQ(info.tableInfo.typeName, "Tunnel::TunnelTable::MldpTunnelTable");
   EXPECT_EQ(info.tableInfo.mountName, "mldpTunnel");
   EXPECT_EQ(info.tableInfo.path, "tunnel/table/mldpTunnel");
}

}  // namespace
}  // namespace Tunnel::TunnelTable
