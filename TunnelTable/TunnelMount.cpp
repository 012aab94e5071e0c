#include "TunnelTable/TunnelMount.h"

#include <fmt/format.h>

#include "TunnelTable/TunnelTableBase.h"
#include "Vault/CollectionControl.h"
#include "Vela/Assert.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelTable {

TunnelTableInfo::TunnelTableInfo(Vela::String typeName, Vela::String mountName)
    : typeName(std::move(typeName)),
      mountName(std::move(mountName)),
      path(kTunnelTablePathPrefix + this->mountName) {}

Vela::String TunnelTableInfo::stringValue() const {
   return Vela::ValueTextBuilder("Tunnel::TunnelTable::TunnelTableInfo")
       .field("typeName", Vela::renderString(typeName))
       .field("mountName", Vela::renderString(mountName))
       .field("path", Vela::renderString(path))
       .str();
}

Vela::String TunnelTableMountInfo::stringValue() const {
   return fmt::format(
       "Value('Tunnel::TunnelTable::TunnelTableMountInfo', ** "
       "{{'tableInfo': {}, "
       "'writerMountInfo': {}}})",
       tableInfo.stringValue(), writerMountInfo.stringValue());
}

std::ostream& operator<<(std::ostream& os, const TunnelTableInfo& info) {
   return os << info.stringValue();
}

std::ostream& operator<<(std::ostream& os, const TunnelTableMountInfo& info) {
   return os << info.stringValue();
}

TunnelTableMounter::TunnelTableMounter(const Vela::Ptr<Vault::MountService>& service,
                                       Loom::EventLoop& loop)
    : service_(service),
      database_(service ? service->database() : nullptr),
      group_(service ? service->mountGroup() : nullptr),
      loop_(&loop) {}

TunnelTableMountInfo TunnelTableMounter::getMountInfo(TunnelTableIdentifier id) {
   const char* typeName = nullptr;
   const char* mountName = nullptr;
   using Id = TunnelTableIdentifier;
   switch (id) {
      case Id::bgpLuTunnelTable:
         typeName = "Tunnel::TunnelTable::BgpLuTunnelTable";
         mountName = "bgpLu";
         break;
      case Id::bgpLuPushTunnelTable:
         typeName = "Tunnel::TunnelTable::BgpLuPushTunnelTable";
         mountName = "bgpLuPush";
         break;
      case Id::ldpTunnelTable:
         typeName = "Tunnel::TunnelTable::LdpTunnelTable";
         mountName = "ldp";
         break;
      case Id::rsvpFrrTunnelTable:
         typeName = "Tunnel::TunnelTable::RsvpFrrTunnelTable";
         mountName = "rsvpFrr";
         break;
      case Id::rsvpLerSubTunnelTable:
         typeName = "Tunnel::TunnelTable::RsvpLerSubTunnelTable";
         mountName = "rsvpLerSub";
         break;
      case Id::rsvpLerTunnelTable:
         typeName = "Tunnel::TunnelTable::RsvpLerTunnelTable";
         mountName = "rsvpLer";
         break;
      case Id::isisSrTunnelTable:
         // Deliberately the bare "sr": readers of the IS-IS SR table mount it by that name.
         typeName = "Tunnel::TunnelTable::IsisSrTunnelTable";
         mountName = "sr";
         break;
      case Id::ospfSrTunnelTable:
         typeName = "Tunnel::TunnelTable::OspfSrTunnelTable";
         mountName = "ospfSr";
         break;
      case Id::staticTunnelTable:
         typeName = "Tunnel::TunnelTable::StaticTunnelTable";
         mountName = "static";
         break;
      case Id::nexthopGroupTunnelTable:
         typeName = "Tunnel::TunnelTable::NexthopGroupTunnelTable";
         mountName = "nexthopGroup";
         break;
      case Id::srTeSegmentListTunnelTable:
         typeName = "Tunnel::TunnelTable::SrTeSegmentListTunnelTable";
         mountName = "srTeSegmentList";
         break;
      case Id::greIntfTunnelTable:
         typeName = "Tunnel::TunnelTable::GreIntfTunnelTable";
         mountName = "greTunnelInterface";
         break;
      case Id::ipsecVtiIntfTunnelTable:
         typeName = "Tunnel::TunnelTable::IpsecVtiIntfTunnelTable";
         mountName = "ipsecVtiTunnelInterface";
         break;
      case Id::ipsecGreIntfTunnelTable:
         typeName = "Tunnel::TunnelTable::IpsecGreIntfTunnelTable";
         mountName = "ipsecGreTunnelInterface";
         break;
      case Id::evpnVxlanTunnelTable:
         typeName = "Tunnel::TunnelTable::EvpnVxlanTunnelTable";
         mountName = "evpnVxlan";
         break;
      case Id::tiLfaTunnelTable:
         typeName = "Tunnel::TunnelTable::TiLfaTunnelTable";
         mountName = "tiLfa";
         break;
      case Id::srTePolicyTunnelTable:
         typeName = "Tunnel::TunnelTable::SrTePolicyTunnelTable";
         mountName = "srTePolicy";
         break;
      case Id::nimboSdkSbfdSessionTunnelTable:
         typeName = "Tunnel::TunnelTable::NimboSdkSbfdSessionTunnelTable";
         mountName = "nimboSdkSbfd";
         break;
      case Id::isisFlexAlgoTunnelTable:
         typeName = "Tunnel::TunnelTable::IsisFlexAlgoTunnelTable";
         mountName = "isisFlexAlgoTunnel";
         break;
      case Id::mldpTunnelTable:
         typeName = "Tunnel::TunnelTable::MldpTunnelTable";
         mountName = "mldpTunnel";
         break;
      default:
         VELA_ASSERT_AT(0 && "Must give a valid TunnelTableIdentifier.", "Tunnel/TunnelMount", 22);
         return {};
   }
   TunnelTableMountInfo info;
   info.tableInfo = TunnelTableInfo(typeName, mountName);
   // What 1024 sets in the store (its initial number of slots) is the table's choice.
   info.writerMountInfo.collectionIs("entry", 1024);
   return info;
}

Vela::Ptr<TunnelTableBase> TunnelTableMounter::mountWriter(TunnelTableIdentifier id) const {
   VELA_ASSERT(*this && "mountWriter needs a mounter with its handles set");
   const TunnelTableMountInfo info = getMountInfo(id);
   return writeMountTable(info.tableInfo, info.writerMountInfo);
}

Vela::Ptr<TunnelTableBase> TunnelTableMounter::mountKeyshadow(TunnelTableIdentifier id) const {
   VELA_ASSERT(*this && "mountKeyshadow needs a mounter with its handles set");
   return readMountTable(getMountInfo(id).tableInfo);
}

Vela::Ptr<TunnelTableBase> TunnelTableMounter::readMountTable(
    const TunnelTableInfo& tableInfo) const {
   VELA_ASSERT(*this && "readMountTable needs a mounter with its handles set");
   // No mount description: a reader serves the table's own collections and sizes nothing.
   auto entity = service_->mount(tableInfo.path, tableInfo.typeName, VelaDock::keyshadow(),
                                 VelaDock::MountInfo(), *loop_);
   return Vela::dynamicPtrCast<TunnelTableBase>(entity);
}

Vela::Ptr<TunnelTableBase> TunnelTableMounter::writeMountTable(
    const TunnelTableInfo& tableInfo, const VelaDock::MountInfo& mountInfo) const {
   VELA_ASSERT(*this && "writeMountTable needs a mounter with its handles set");
   auto entity =
       service_->mount(tableInfo.path, tableInfo.typeName, VelaDock::writer(), mountInfo, *loop_);
   return Vela::dynamicPtrCast<TunnelTableBase>(entity);
}

bool TunnelTableMounter::unmount(TunnelTableIdentifier id) const {
   VELA_ASSERT(*this && "unmount needs a mounter with its handles set");
   return service_->unmount(getMountInfo(id).tableInfo.path);
}

bool TunnelTableMounter::cleanup(TunnelTableIdentifier id) const {
   VELA_ASSERT(*this && "cleanup needs a mounter with its handles set");
   return service_->cleanup(getMountInfo(id).tableInfo.path);
}

}  // namespace Tunnel::TunnelTable
