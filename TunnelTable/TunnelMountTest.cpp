// Table identifiers to mount descriptions, and the mounter as a value.
#include <gtest/gtest.h>

#include "Loom/EventLoop.h"
#include "TunnelTable/TunnelMount.h"
#include "testing/Expect.h"

namespace {

using Tunnel::TunnelTable::TunnelTableIdentifier;
using Tunnel::TunnelTable::TunnelTableInfo;
using Tunnel::TunnelTable::TunnelTableMounter;
using Tunnel::TunnelTable::TunnelTableMountInfo;

struct Expected {
   uint8_t code;
   const char* typeName;
   const char* mountName;
};

// Written out from the identifier table, not derived from the code under test. Identifier 20,
// the mLDP table, is registered by Mldp/ and checked there.
constexpr Expected kTables[] = {
    {1, "Tunnel::TunnelTable::BgpLuTunnelTable", "bgpLu"},
    {2, "Tunnel::TunnelTable::BgpLuPushTunnelTable", "bgpLuPush"},
    {3, "Tunnel::TunnelTable::LdpTunnelTable", "ldp"},
    {4, "Tunnel::TunnelTable::RsvpFrrTunnelTable", "rsvpFrr"},
    {5, "Tunnel::TunnelTable::RsvpLerSubTunnelTable", "rsvpLerSub"},
    {6, "Tunnel::TunnelTable::RsvpLerTunnelTable", "rsvpLer"},
    {7, "Tunnel::TunnelTable::IsisSrTunnelTable", "sr"},
    {8, "Tunnel::TunnelTable::OspfSrTunnelTable", "ospfSr"},
    {9, "Tunnel::TunnelTable::StaticTunnelTable", "static"},
    {10, "Tunnel::TunnelTable::NexthopGroupTunnelTable", "nexthopGroup"},
    {11, "Tunnel::TunnelTable::SrTeSegmentListTunnelTable", "srTeSegmentList"},
    {12, "Tunnel::TunnelTable::GreIntfTunnelTable", "greTunnelInterface"},
    {13, "Tunnel::TunnelTable::IpsecVtiIntfTunnelTable", "ipsecVtiTunnelInterface"},
    {14, "Tunnel::TunnelTable::IpsecGreIntfTunnelTable", "ipsecGreTunnelInterface"},
    {15, "Tunnel::TunnelTable::EvpnVxlanTunnelTable", "evpnVxlan"},
    {16, "Tunnel::TunnelTable::TiLfaTunnelTable", "tiLfa"},
    {17, "Tunnel::TunnelTable::SrTePolicyTunnelTable", "srTePolicy"},
    {18, "Tunnel::TunnelTable::NimboSdkSbfdSessionTunnelTable", "nimboSdkSbfd"},
    {19, "Tunnel::TunnelTable::IsisFlexAlgoTunnelTable", "isisFlexAlgoTunnel"},
};

TEST(TunnelMount, EveryIdentifierGivesItsTypeMountNamePathAndEntryCollection) {
   VelaDock::MountInfo entry1024;
   entry1024.collectionIs("entry", 1024);
   for (const auto& e : kTables) {
      SCOPED_TRACE(e.mountName);
      const auto info = TunnelTableMounter::getMountInfo(TunnelTableIdentifier(e.code));
      EXPECT_TRUE(info);
      EXPECT_EQ(info.tableInfo.typeName, e.typeName);
      EXPECT_EQ(info.tableInfo.mountName, e.mountName);
      EXPECT_EQ(info.tableInfo.path, std::string("tunnel/table/") + e.mountName);
      EXPECT_EQ(info.writerMountInfo, entry1024);
   }
}

TEST(TunnelMount, MountInfoTextAndTruthAndMounterTruth) {
   const auto ldp = TunnelTableMounter::getMountInfo(TunnelTableIdentifier::ldpTunnelTable);
   const std::string text =
       "Value('Tunnel::TunnelTable::TunnelTableMountInfo', ** {'tableInfo': "
       "Value('Tunnel::TunnelTable::TunnelTableInfo', ** {'typeName': "
       "'Tunnel::TunnelTable::LdpTunnelTable', 'mountName': 'ldp', 'path': "
       "'tunnel/table/ldp'}), "
       "'writerMountInfo': Value('VelaDock::MountInfo', ** {'collection': "
       "[Value('VelaDock::CollectionInfo', ** {'attrName': 'entry', 'sizing': "
       "1024})]})})";
   EXPECT_EQ(ldp.stringValue(), text);
   EXPECT_EQ(Testing::streamed(ldp), text);

   // Its equality is the defaulted field-by-field one; truth is a type name being set.
   EXPECT_FALSE(TunnelTableMountInfo());

   // The mounter (equality: the defaulted one over the handles) is true only with its handles.
   EXPECT_FALSE(TunnelTableMounter());
   Loom::EventLoop loop;
   auto service = Vela::makePtr<Vault::MountService>();
   TunnelTableMounter a(service, loop);
   EXPECT_TRUE(a);
   EXPECT_EQ(a.database(), service->database());
   EXPECT_FALSE(TunnelTableMounter(nullptr, loop));
}

TEST(TunnelMountDeathTest, InvalidIdentifierIsAProgrammingError) {
   const char* text =
       "assertion failed: 0 && \"Must give a valid TunnelTableIdentifier.\" "
       "\\(Tunnel/TunnelMount:22\\)";
   EXPECT_DEATH(TunnelTableMounter::getMountInfo(TunnelTableIdentifier(0)), text);
   EXPECT_DEATH(TunnelTableMounter::getMountInfo(TunnelTableIdentifier(21)), text);
}

TEST(TunnelMountDeathTest, DefaultMounterCannotMount) {
   TunnelTableMounter none;
   EXPECT_DEATH(
       none.mountWriter(TunnelTableIdentifier::ldpTunnelTable),
       "assertion failed: \\*this && \"mountWriter needs a mounter with its handles set\"");
   EXPECT_DEATH(none.mountKeyshadow(TunnelTableIdentifier::ldpTunnelTable),
                "mountKeyshadow needs a mounter with its handles set");
}

}  // namespace
