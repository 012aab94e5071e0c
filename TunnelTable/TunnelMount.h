// Mounting tunnel tables by identifier. A process names a table by its TunnelTableIdentifier;
// getMountInfo turns that into the table's type name, mount name and path ("tunnel/table/" and the
// mount name) and the store's mount description (one collection, "entry", sizing 1024), and the
// mounter asks the platform's mount service to attach the table as its single writer or as a
// key-shadowing reader.
//
// The mounter's three handles are the process's mount service, the state database it records
// mounted tables in, and the mount group tables are attached under; it also names the event loop
// the mounted tables run on (readers are woken on it). A default mounter has none and is false.
#pragma once

#include <ostream>

#include "TunnelTable/TableType.h"
#include "TunnelTable/TunnelTableBase.h"
#include "TunnelTable/TunnelTableIdentifier.h"
#include "Vault/Database.h"
#include "Vault/MountGroup.h"
#include "Vault/MountInfo.h"
#include "Vault/MountService.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Loom {
class EventLoop;
}

namespace Tunnel::TunnelTable {

inline constexpr const char* kTunnelTablePathPrefix = "tunnel/table/";

struct TunnelTableInfo {
   Vela::String typeName;   // "Tunnel::TunnelTable::LdpTunnelTable"
   Vela::String mountName;  // "ldp"
   Vela::String path;       // "tunnel/table/ldp"

   TunnelTableInfo() = default;
   // Sets the path from the mount name.
   TunnelTableInfo(Vela::String typeName, Vela::String mountName);

   // Value('Tunnel::TunnelTable::TunnelTableInfo', ** {'typeName': '...', 'mountName': '...',
   // 'path': '...'})
   Vela::String stringValue() const;
   friend bool operator==(const TunnelTableInfo&, const TunnelTableInfo&) = default;
};

struct TunnelTableMountInfo {
   TunnelTableInfo tableInfo;
   VelaDock::MountInfo writerMountInfo;

   // True when the description names a table (an empty one does not).
   explicit operator bool() const noexcept { return !tableInfo.typeName.empty(); }
   Vela::String stringValue() const;
   friend bool operator==(const TunnelTableMountInfo&, const TunnelTableMountInfo&) = default;
};

std::ostream& operator<<(std::ostream& os, const TunnelTableInfo& info);
std::ostream& operator<<(std::ostream& os, const TunnelTableMountInfo& info);

class TunnelTableMounter {
  public:
   TunnelTableMounter() = default;
   // The mounter of the tables `service` mounts, run on `loop`.
   TunnelTableMounter(const Vela::Ptr<Vault::MountService>& service, Loom::EventLoop& loop);

   // The mount description of table `id`. REQUIRES: id is 1 to 20 (else an assertion ends the
   // process).
   static TunnelTableMountInfo getMountInfo(TunnelTableIdentifier id);

   // Mounts table `id` as its writer / as a key-shadowing reader and returns it. Throws what the
   // mount service throws (a second writer: Region::OwnerError). REQUIRES: *this is true.
   Vela::Ptr<TunnelTableBase> mountWriter(TunnelTableIdentifier id) const;
   Vela::Ptr<TunnelTableBase> mountKeyshadow(TunnelTableIdentifier id) const;
   // The mount itself; null when the mounted entity is not a tunnel table.
   Vela::Ptr<TunnelTableBase> readMountTable(const TunnelTableInfo& tableInfo) const;
   Vela::Ptr<TunnelTableBase> writeMountTable(const TunnelTableInfo& tableInfo,
                                              const VelaDock::MountInfo& mountInfo) const;
   // Mounts a table class by its own TableType row (Table::kTableType: path and type name), for
   // tables without an identifier (the tunnel RIBs): as writer with the tables' mount description
   // ("entry", 1024) or as key-shadowing reader. Throws as mountWriter; null when the entity
   // mounted at the path is of another class. REQUIRES: *this is true.
   template <class Table>
   Vela::Ptr<Table> mountWriterOf() const {
      return Vela::dynamicPtrCast<Table>(mountByRow(Table::kTableType, true));
   }
   template <class Table>
   Vela::Ptr<Table> mountKeyshadowOf() const {
      return Vela::dynamicPtrCast<Table>(mountByRow(Table::kTableType, false));
   }

   // Detaches table `id` (a writer releases its files); false when it was not mounted here.
   bool unmount(TunnelTableIdentifier id) const;
   // Detaches it if mounted and removes its files under the store root; true when any was removed.
   bool cleanup(TunnelTableIdentifier id) const;

   const Vela::Ptr<Vault::MountService>& mountService() const noexcept { return service_; }
   const Vela::Ptr<Vault::Database>& database() const noexcept { return database_; }
   const Vela::Ptr<Vault::MountGroup>& mountGroup() const noexcept { return group_; }
   Loom::EventLoop* eventLoop() const noexcept { return loop_; }

   explicit operator bool() const noexcept { return service_ && database_ && group_ && loop_; }
   friend bool operator==(const TunnelTableMounter&, const TunnelTableMounter&) = default;

  private:
   Vela::Ptr<Vela::Entity> mountByRow(const TableType& type, bool writer) const;

   Vela::Ptr<Vault::MountService> service_;
   Vela::Ptr<Vault::Database> database_;
   Vela::Ptr<Vault::MountGroup> group_;
   Loom::EventLoop* loop_ = nullptr;
};

}  // namespace Tunnel::TunnelTable
