// Behaviour every entry kind shares, checked for each kind: byte round trip, truncated records,
// refused headers, copies, default preferences and the text constructor (working or refused).
#include <gtest/gtest.h>

#include <vector>

#include "TunnelTable/TunnelTableEntries.h"

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

TYPED_TEST(EntryKindsTest, BytesRoundTripToAnEqualEntryAndTheSameBytes) {
   const TypeParam e = sample<TypeParam>();
   const uint32_t len = e.serializeLen();
   std::vector<uint8_t> bytes(len + 8, 0xEE);  // room after the record must stay untouched
   e.serialize(bytes.data());
   EXPECT_EQ(std::vector<uint8_t>(bytes.end() - 8, bytes.end()), std::vector<uint8_t>(8, 0xEE));
   EXPECT_EQ(TypeParam::deserializeLen(bytes.data(), len), len);
   EXPECT_EQ(TypeParam::deserializeLen(bytes.data(), len + 8), len);

   TypeParam back;
   ASSERT_FALSE(back == e);
   back.deserialize(bytes.data(), len);
   EXPECT_TRUE(back == e);
   std::vector<uint8_t> again(len);
   back.serialize(again.data());
   EXPECT_EQ(again, std::vector<uint8_t>(bytes.begin(), bytes.begin() + len));

   // An empty entry round-trips too, writing its empty collections as a zero count.
   const TypeParam empty;
   std::vector<uint8_t> emptyBytes(empty.serializeLen());
   empty.serialize(emptyBytes.data());
   TypeParam emptyBack = e;
   emptyBack.deserialize(emptyBytes.data(), static_cast<uint32_t>(emptyBytes.size()));
   EXPECT_TRUE(emptyBack == empty);
}

TYPED_TEST(EntryKindsTest, DeserializeLenOfATruncatedRecordIsZero) {
   const TypeParam e = sample<TypeParam>();
   const uint32_t len = e.serializeLen();
   std::vector<uint8_t> bytes(len);
   e.serialize(bytes.data());
   // Each shorter length ends inside some field; a heap copy of exactly that many bytes lets the
   // address sanitizer catch a read past it.
   for (uint32_t n = len; n-- > 0;) {
      if (len > 2000 && n < len - 2000 && n % 97 != 0) continue;  // keep the 46 KB kind quick
      std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + n);
      ASSERT_EQ(TypeParam::deserializeLen(cut.data(), n), 0u) << "available " << n;
      TypeParam back;
      EXPECT_THROW(back.deserialize(cut.data(), n), Vela::Exception) << "length " << n;
   }
}

TYPED_TEST(EntryKindsTest, RecordOfAnotherKindOrLengthIsRefused) {
   const TypeParam e = sample<TypeParam>();
   const uint32_t len = e.serializeLen();
   std::vector<uint8_t> bytes(len);
   e.serialize(bytes.data());
   TypeParam back;

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

TYPED_TEST(EntryKindsTest, CopiesAreEqualAndIndependent) {
   const TypeParam e = sample<TypeParam>();
   TypeParam copy(e);
   EXPECT_TRUE(copy == e);
   TypeParam assigned;
   assigned = e;
   EXPECT_TRUE(assigned == e);
   copy.entryMetricIs(e.entryMetric() + 1);
   EXPECT_FALSE(copy == e);
   EXPECT_EQ(e.entryMetric(), 77u);
   assigned.endpointDel(1);
   EXPECT_FALSE(assigned == e);
   EXPECT_EQ(keyOf(e), idOf(TunnelType::ldpTunnel, 42));
}

TYPED_TEST(EntryKindsTest, EntryPrefDefaultsToTheTunnelTypesPreference) {
   for (uint32_t code = 0; code <= 31; ++code) {
      if (!isValidTunnelTypeCode(code)) continue;
      const TunnelType type = TunnelType(code);
      const TypeParam e(idOf(type, 1));
      EXPECT_EQ(e.entryPref(), getDefaultPrefForType(type)) << code;
   }
   EXPECT_EQ(TypeParam().entryPref().value(), 255);
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
      const Vela::String other = "Value('Tunnel::TunnelTable::NoSuchEntry', ** {})";
      EXPECT_THROW({ TypeParam refused(other.cbegin(), other.cend()); }, Vela::ParseException);
   }
}

}  // namespace
}  // namespace Tunnel::TunnelTable
