// Behaviour every entry kind shares, checked for each kind: byte round trip, truncated records,
// refused headers, the key and the text constructor (working or refused); then the operations
// particular to some kinds.
#include <gtest/gtest.h>

#include <vector>

#include "Spoor/Trace.h"
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

MplsVia mplsVia(int n) {
   return MplsVia(IpGenAddr::ipv4(0x0A000000u + n),
                  IntfId::ordinary(Wirekit::IntfKind::ethernet, n),
                  MplsLabelOperation::push({100u + n}));
}

Via plainVia(int n) {
   return Via(IpGenAddr::ipv4(0x0B000000u + n), IntfId::ordinary(Wirekit::IntfKind::ethernet, n));
}

// Fills the base fields and whatever the kind adds, so that every field differs from its default.
template <typename E>
E sample() {
   E e(idOf(TunnelType::ldpTunnel, 42));
   e.nexthopTunnelIdIs(idOf(TunnelType::staticTunnel, 3));
   e.entryPrefIs(TunnelEntryPref(20));
   e.entryMetricIs(77);
   e.tunnelBwIs(TunnelBandwidth(2.5f));
   e.endpointIs(0, IpGenPrefix("10.0.0.0/8"));
   e.endpointIs(1, IpGenPrefix("2001:db8::/32"));
   e.nameIs("tun-1");
   if constexpr (std::is_base_of_v<IgpTunnelTableEntryBase, E>) {
      e.igpMetricIs(1), e.igpMetric2Is(2), e.igpPrefIs(TunnelIgpPref(3)), e.igpPref2Is(4);
      e.viaIs(0, mplsVia(1));
      e.viaIs(2, mplsVia(2));
   }
   if constexpr (std::is_base_of_v<FrrTunnelTableEntry, E>) {
      e.viaIs(mplsVia(1)), e.backupViaIs(mplsVia(2)), e.isPrimaryViaUsableIs(true);
      e.seqNoIs(TunnelEntrySequenceNumber(9));
   }
   if constexpr (std::is_same_v<RsvpLerTunnelTableEntry, E>) {
      e.metricIs(5), e.igpPrefIs(TunnelIgpPref(6)), e.isTunnelIgpShortcutEligibleIs(true);
      e.isTunnelLdpTunnelingEligibleIs(true), e.colorIs(OptionalColor(7));
      e.splitViaIs(0, mplsVia(3));
   }
   if constexpr (std::is_base_of_v<ColoredTunnelTableEntry, E> ||
                 std::is_same_v<FlexAlgoTunnelTableEntry, E>) {
      e.colorIs(11), e.igpPrefIs(TunnelIgpPref(12)), e.igpMetricIs(13);
   }
   if constexpr (std::is_same_v<FlexAlgoTunnelTableEntry, E>) {
      e.isColoredIs(true), e.viaIs(0, mplsVia(4));
   }
   if constexpr (std::is_same_v<NexthopGroupTunnelTableEntry, E>) {
      e.nhgIdIs(21), e.igpMetricIs(22), e.igpPrefIs(23);
   }
   if constexpr (std::is_same_v<NimboSdkSbfdSessionTunnelTableEntry, E>) {
      MplsCosVia v(IpGenAddr("10.9.9.9"), IntfId("Ethernet9"));
      v.cosLabelsIs(CosIndex(3), MplsLabelOperation::swap({33}));
      e.viaIs(v);
   }
   if constexpr (std::is_base_of_v<BgpLuPushTunnelTableEntry, E>) {
      e.viaIs(0, plainVia(1)), e.tunnelIdViaIs(idOf(TunnelType::ldpTunnel, 8));
      e.labelsIs(
          Wirekit::UnboundedMplsLabelOperation::push({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
   }
   if constexpr (std::is_same_v<BgpLuTunnelTableEntry, E>) {
      e.contributionIs(ContributionToTunnelRIB::contributing), e.bgpMetricIs(31);
      e.bgpMetricTypeIs(Wirekit::MetricType::medMetric), e.bgpMetric2Is(32), e.bgpPrefIs(33);
      e.bgpPref2Is(34), e.bgpLinkBwIs(TunnelBandwidth(1e9f));
   }
   if constexpr (std::is_base_of_v<L3IntfTunnelTableEntry, E>) {
      e.viaIs(0, plainVia(5));
   }
   if constexpr (std::is_base_of_v<StaticTunnelTableEntry, E>) {
      e.viaIs(0, mplsVia(6)), e.backupViaIs(1, mplsVia(7));
   }
   if constexpr (std::is_same_v<SrTeSegmentListTunnelTableEntry, E>) {
      e.viaIs(0, mplsVia(8));
   }
   if constexpr (requires { e.tunnelInfoIs(e.tunnelInfo()); }) {
      auto info = e.tunnelInfo();
      info.srcAddrIs(IpGenAddr("192.0.2.1")), info.dstAddrIs(IpGenAddr("192.0.2.2")),
          info.mtuIs(1400);
      e.tunnelInfoIs(info);
   }
   return e;
}

// A kind's text constructor works exactly when it holds no via collection.
template <typename E>
constexpr bool kHasCollection = requires(E e) {
   e.viaCount();
}
|| requires(E e) {
   e.splitViaCount();
};

template <typename E>
class EntryKindsTest : public ::testing::Test {};

using Kinds = ::testing::Types<
    TunnelTableEntry, IgpTunnelTableEntryBase, LdpTunnelTableEntry, SrTunnelTableEntry,
    FrrTunnelTableEntry, RsvpFrrTunnelTableEntry, RsvpLerSubTunnelTableEntry, TiLfaTunnelTableEntry,
    RsvpLerTunnelTableEntry, ColoredTunnelTableEntry, SrTePolicyTunnelTableEntry,
    FlexAlgoTunnelTableEntry, NexthopGroupTunnelTableEntry, NimboSdkSbfdSessionTunnelTableEntry,
    BgpLuPushTunnelTableEntry, BgpLuTunnelTableEntry, L3IntfTunnelTableEntry,
    GreIntfTunnelTableEntry, IpsecGreIntfTunnelTableEntry, IpsecVtiIntfTunnelTableEntry,
    SrTeSegmentListTunnelTableEntry, StaticTunnelTableEntry>;
TYPED_TEST_SUITE(EntryKindsTest, Kinds);

template <typename E>
std::vector<uint8_t> bytesOf(const E& e) {
   std::vector<uint8_t> out(e.serializeLen());
   e.serialize(out.data());
   return out;
}

TYPED_TEST(EntryKindsTest, BytesRoundTripAndDamagedOrTruncatedRecordsAreRefused) {
   const TypeParam e = sample<TypeParam>();
   EXPECT_EQ(keyOf(e), idOf(TunnelType::ldpTunnel, 42));
   const uint32_t len = e.serializeLen();
   std::vector<uint8_t> bytes(len + 8, 0xEE);  // room after the record must stay untouched
   e.serialize(bytes.data());
   EXPECT_EQ(std::vector<uint8_t>(bytes.end() - 8, bytes.end()), std::vector<uint8_t>(8, 0xEE));
   EXPECT_EQ(TypeParam::deserializeLen(bytes.data(), len + 8), len);
   bytes.resize(len);
   TypeParam back;
   ASSERT_FALSE(back == e);
   back.deserialize(bytes.data(), len);
   EXPECT_TRUE(back == e);
   EXPECT_EQ(bytesOf(back), bytes);
   // An empty entry round-trips too, writing its empty collections as a zero count.
   const std::vector<uint8_t> emptyBytes = bytesOf(TypeParam());
   back.deserialize(emptyBytes.data(), static_cast<uint32_t>(emptyBytes.size()));
   EXPECT_TRUE(back == TypeParam());

   // Each shorter length ends inside some field; a heap copy of exactly that many bytes lets the
   // address sanitizer catch a read past it. deserializeLen reports it as zero.
   for (uint32_t n = len; n-- > 0;) {
      if (len > 2000 && n < len - 2000 && n % 97 != 0) continue;  // keep the 46 KB kind quick
      std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + n);
      ASSERT_EQ(TypeParam::deserializeLen(cut.data(), n), 0u) << "available " << n;
      EXPECT_THROW(back.deserialize(cut.data(), n), Vela::Exception) << "length " << n;
   }

   auto wrongKind = bytes;
   wrongKind[0] ^= 0x40;
   EXPECT_THROW(back.deserialize(wrongKind.data(), len), ByteFormatError);
   auto wrongLength = bytes;
   wrongLength[2] ^= 1;
   EXPECT_THROW(back.deserialize(wrongLength.data(), len), ByteFormatError);
   auto longer = bytes;
   longer.push_back(0);
   EXPECT_THROW(back.deserialize(longer.data(), len + 1), ByteFormatError);
   auto badPref = bytes;
   badPref[31] = 17;  // endpoint count above 16
   EXPECT_THROW(back.deserialize(badPref.data(), len), Vela::ArraySizeError);
}

TYPED_TEST(EntryKindsTest, TextConstructorReadsTheTextFormBackOrRefusesACollection) {
   const TypeParam e = sample<TypeParam>();
   const Vela::String text = valueToStrep(e);
   if constexpr (kHasCollection<TypeParam>) {
      const std::string message = std::string("assertion failed: No String constructor for ") +
                                  TypeParam::kClassName + " - has collection \\(";
      EXPECT_DEATH({ TypeParam refused(text.cbegin(), text.cend()); }, message);
   } else {
      const TypeParam back(text.cbegin(), text.cend());
      EXPECT_TRUE(back == e);
      EXPECT_EQ(valueToStrep(back), text);
   }
}

// ---- operations of some kinds: the order's tie breaks, the BGP-LU tunnel via and its traced
// limit and the name's bound ----

// a < b and not b < a.
void expectBefore(const TunnelTableEntry& a, const TunnelTableEntry& b) {
   EXPECT_TRUE(a < b);
   EXPECT_FALSE(b < a);
}

TEST(EntryOrder, EachStepDecidesOnlyWhenTheEarlierOnesTie) {
   const TunnelId ldp = idOf(TunnelType::ldpTunnel, 9);
   TunnelTableEntry a(ldp), b(ldp);
   EXPECT_FALSE(a < b);
   EXPECT_FALSE(b < a);

   // 1. entryPref, whatever comes after.
   a.entryPrefIs(10), b.entryPrefIs(11), a.entryMetricIs(99);
   expectBefore(a, b);
   // 2. equal preferences: the default preference of the type (static 15 before LDP 55), even
   //    though the static tunnel's id is the larger number.
   TunnelTableEntry s(idOf(TunnelType::staticTunnel, 1), TunnelEntryPref(50));
   TunnelTableEntry l(idOf(TunnelType::ldpTunnel, 1), TunnelEntryPref(50));
   l.entryMetricIs(0), s.entryMetricIs(5);
   expectBefore(s, l);
   // 3. entry metric.
   b = a;
   b.entryMetricIs(100);
   expectBefore(a, b);
   // 4. tunnel id as a number.
   TunnelTableEntry c(idOf(TunnelType::ldpTunnel, 8), TunnelEntryPref(10));
   c.entryMetricIs(99), c.tunnelBwIs(TunnelBandwidth(9.0f));
   expectBefore(c, a);
   // 5. the smaller bandwidth first.
   b = a;
   a.tunnelBwIs(TunnelBandwidth(1.0f)), b.tunnelBwIs(TunnelBandwidth(2.0f));
   b.endpointIs(0, IpGenPrefix("1.0.0.0/8"));
   a.endpointIs(0, IpGenPrefix("9.0.0.0/8"));
   expectBefore(a, b);
   // 6. endpoints lexicographically: a prefix of the other orders first.
   b = a;
   b.endpointIs(1, IpGenPrefix("1.0.0.0/8"));
   a.nexthopTunnelIdIs(idOf(TunnelType::staticTunnel, 1));
   expectBefore(a, b);
   b = a;
   b.endpointIs(0, IpGenPrefix("10.0.0.0/8"));
   expectBefore(a, b);
   // 7. next-hop tunnel id.
   b = a;
   b.nexthopTunnelIdIs(idOf(TunnelType::staticTunnel, 2));
   a.nameIs("z");
   expectBefore(a, b);
   // 8. name bytes, unsigned: 'z' before 0xE9, "ab" before "abc".
   b = a;
   b.nameIs("\xE9");
   expectBefore(a, b);
   a.nameIs("ab"), b.nameIs("abc");
   expectBefore(a, b);
}

TEST(EntryVias, TunnelIdViaIsAppendsUntil600ThenTracesAndIgnores) {
   BgpLuPushTunnelTableEntry e(idOf(TunnelType::bgpLuPushTunnel, 1));
   const TunnelId into = idOf(TunnelType::ldpTunnel, 7);
   e.viaIs(1, Via(IpGenAddr("3.3.3.3"), IntfId("Ethernet3")));
   e.tunnelIdViaIs(into);
   ASSERT_EQ(e.viaCount(), 3u);
   EXPECT_EQ(e.via(2), Via::tunnelIdVia(into));  // the via's own form is pinned in ViaTest.cpp

   for (uint32_t i = 3; i < 600; ++i) e.tunnelIdViaIs(idOf(TunnelType::ldpTunnel, i));
   ASSERT_EQ(e.viaCount(), 600u);
   const BgpLuPushTunnelTableEntry full = e;
   Spoor::Capture capture;
   e.tunnelIdViaIs(idOf(TunnelType::ldpTunnel, 1000));
   EXPECT_EQ(e.viaCount(), 600u);
   EXPECT_TRUE(e == full);
   const auto records = capture.records();
   ASSERT_EQ(records.size(), 1u);
   EXPECT_EQ(records[0].module, "TunnelTable");
   EXPECT_EQ(
       records[0].text,
       "BgpLuPushTunnelTableEntry already has the maximum number of vias (600), so cannot add "
       "tunnelId " +
           valueToStrep(idOf(TunnelType::ldpTunnel, 1000)));
}

TEST(EntryName, WholeNameIsBoundedBy128Characters) {
   TunnelTableEntry e;
   e.nameIs(std::string(128, 'n'));
   EXPECT_EQ(e.name().count(), 128u);
   EXPECT_EQ(Testing::errorText<Vela::RangeException>([&] { e.nameIs(std::string(129, 'm')); }),
             "Tunnel::TunnelTable::NameIndex::value < Tunnel::TunnelTable::NameIndex::min or > "
             "Tunnel::TunnelTable::NameIndex::max not allowed");
   EXPECT_EQ(e.nameString(), std::string(128, 'n'));
   EXPECT_EQ(e.tep(), IpGenPrefix());
   e.endpointIs(3, IpGenPrefix("10.0.0.0/8"));
   EXPECT_EQ(e.tep(), IpGenPrefix());
   e.endpointIs(0, IpGenPrefix("11.0.0.0/8"));
   EXPECT_EQ(e.tep(), IpGenPrefix("11.0.0.0/8"));
   EXPECT_THROW(e.endpointIs(16, IpGenPrefix()), Vela::RangeException);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
