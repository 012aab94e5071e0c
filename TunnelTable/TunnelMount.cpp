#include "TunnelTable/TunnelMount.h"

#include <fmt/format.h>

#include "TunnelTable/TableRegistry.h"
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
   // The table registry holds the names: one row per table (TunnelTables.h and each folder's
   // list). An identifier without a row is not a table this process knows.
   const TableRow* row = TableRegistry::row(id);
   if (!row) {
      VELA_ASSERT_AT(0 && "Must give a valid TunnelTableIdentifier.", "Tunnel/TunnelMount", 22);
      return {};
   }
   TunnelTableMountInfo info;
   info.tableInfo = TunnelTableInfo(row->type->typeName, row->type->mountName);
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

Vela::Ptr<Vela::Entity> TunnelTableMounter::mountByRow(const TableType& type, bool writer) const {
   VELA_ASSERT(*this && "mounting needs a mounter with its handles set");
   VELA_ASSERT(type.mounted() && "the table class has no mount name");
   if (!writer) {
      return service_->mount(type.path, type.typeName, VelaDock::keyshadow(), VelaDock::MountInfo(),
                             *loop_);
   }
   VelaDock::MountInfo info;
   info.collectionIs("entry", 1024);
   return service_->mount(type.path, type.typeName, VelaDock::writer(), info, *loop_);
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
