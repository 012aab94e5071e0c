// Every table's largest entry (TableType::maxEntryLen) against the bytes a largest entry of its
// kind is written in: every collection full, every variable-length field at its bound. A figure
// below that makes the store's writer refuse an entry the kind allows; one above it wastes slab
// room.
#include <gtest/gtest.h>

#include <map>
#include <string_view>
#include <vector>

#include "TunnelTable/EvpnVxlanTunnelTable.h"
#include "TunnelTable/TableRegistry.h"
#include "TunnelTable/TunnelTables.h"

namespace Tunnel::TunnelTable {
namespace {

using Wirekit::IntfId;
using Wirekit::IpGenAddr;
using Wirekit::MplsLabelOperation;
using Wirekit::UnboundedMplsLabelOperation;

// A collection element that differs from the default.
template <typename T>
T element();
template <>
Wirekit::IpGenPrefix element() {
   return Wirekit::IpGenPrefix("2001:db8::/32");
}
template <>
char element() {
   return 'n';
}
template <>
Via element() {
   return Via(IpGenAddr::ipv4(0x0A000001u), IntfId::ordinary(Wirekit::IntfKind::ethernet, 1));
}
template <>
MplsVia element() {
   return MplsVia(IpGenAddr::ipv4(0x0A000001u), IntfId::ordinary(Wirekit::IntfKind::ethernet, 1),
                  MplsLabelOperation::push({16, 17, 18}));
}

// Sets a field to a value of the longest byte form its type allows.
template <typename T>
void makeLargest(T&) {
   static_assert(Codec::FieldTraits<T>::kFixedLen != 0,
                 "a variable-length field type needs its largest value here");
}
template <typename T, typename Index, size_t Capacity>
void makeLargest(Vela::FixedArray<T, Index, Capacity>& a) {
   for (uint32_t i = 0; i < Capacity; ++i) a.at(i) = element<T>();
   a.setCountUnchecked(Capacity);
}
void makeLargest(UnboundedMplsLabelOperation& op) {
   const std::vector<uint32_t> labels(Codec::FieldTraits<UnboundedMplsLabelOperation>::kMaxLabels,
                                      16);
   op = UnboundedMplsLabelOperation::push(labels);
}
void makeLargest(MplsCosVia& v) {
   for (uint8_t c = 0; c < kCosCapacity; ++c) {
      v.cosLabelsIs(CosIndex(c), MplsLabelOperation::push({100u + c}));
   }
}

// Writes the largest entry of E, checks that it reads back as itself, and returns its length.
template <typename E>
uint32_t largestWrittenLen() {
   E e;
   Codec::forEachField<E>([&](auto d) { makeLargest(e.*decltype(d)::member); });
   std::vector<uint8_t> bytes(e.serializeLen());
   e.serialize(bytes.data());
   const auto n = static_cast<uint32_t>(bytes.size());
   EXPECT_EQ(E::deserializeLen(bytes.data(), n), n);
   E back;
   back.deserialize(bytes.data(), n);
   EXPECT_TRUE(back == e);
   return n;
}

// Each kind's type name with the length of its largest entry.
template <typename... E>
std::map<std::string_view, uint32_t> largestWrittenLens() {
   return {{E::kTypeName, largestWrittenLen<E>()}...};
}

TEST(EntryMaxLen, EveryTableIsSizedForTheLargestEntryOfItsKind) {
   const auto largest = largestWrittenLens<
       BgpLuTunnelTableEntry, BgpLuPushTunnelTableEntry, LdpTunnelTableEntry, SrTunnelTableEntry,
       RsvpFrrTunnelTableEntry, RsvpLerSubTunnelTableEntry, TiLfaTunnelTableEntry,
       RsvpLerTunnelTableEntry, StaticTunnelTableEntry, NexthopGroupTunnelTableEntry,
       SrTeSegmentListTunnelTableEntry, GreIntfTunnelTableEntry, IpsecVtiIntfTunnelTableEntry,
       IpsecGreIntfTunnelTableEntry, SrTePolicyTunnelTableEntry,
       NimboSdkSbfdSessionTunnelTableEntry, FlexAlgoTunnelTableEntry, EvpnVxlanTunnelEntry>();
   const std::vector<TableRow> rows = TableRegistry::rows();
   ASSERT_FALSE(rows.empty());
   for (const TableRow& row : rows) {
      SCOPED_TRACE(row.type->typeName);
      const auto kind = largest.find(row.type->entryTypeName);
      ASSERT_NE(kind, largest.end()) << "no largest entry made for " << row.type->entryTypeName;
      EXPECT_EQ(row.type->maxEntryLen, kind->second);
   }
}

}  // namespace
}  // namespace Tunnel::TunnelTable
