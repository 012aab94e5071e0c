// The catalog is built once from the mounter's own descriptions, so mount names and paths cannot
// drift from what the agents mount.
#include "TableCatalog.h"

#include "Mldp/MldpTunnelTable.h"
#include "TunnelTable/EvpnVxlanTunnelTable.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTables.h"
#include "Vela/Assert.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

namespace {

const TunnelTableType* frameworkType(TunnelTableIdentifier id) {
   switch (id) {
      case TunnelTableIdentifier::bgpLuTunnelTable:
         return &TT::bgpLuTunnelTableType;
      case TunnelTableIdentifier::bgpLuPushTunnelTable:
         return &TT::bgpLuPushTunnelTableType;
      case TunnelTableIdentifier::ldpTunnelTable:
         return &TT::ldpTunnelTableType;
      case TunnelTableIdentifier::rsvpFrrTunnelTable:
         return &TT::rsvpFrrTunnelTableType;
      case TunnelTableIdentifier::rsvpLerSubTunnelTable:
         return &TT::rsvpLerSubTunnelTableType;
      case TunnelTableIdentifier::rsvpLerTunnelTable:
         return &TT::rsvpLerTunnelTableType;
      case TunnelTableIdentifier::isisSrTunnelTable:
         return &TT::isisSrTunnelTableType;
      case TunnelTableIdentifier::ospfSrTunnelTable:
         return &TT::ospfSrTunnelTableType;
      case TunnelTableIdentifier::staticTunnelTable:
         return &TT::staticTunnelTableType;
      case TunnelTableIdentifier::nexthopGroupTunnelTable:
         return &TT::nexthopGroupTunnelTableType;
      case TunnelTableIdentifier::srTeSegmentListTunnelTable:
         return &TT::srTeSegmentListTunnelTableType;
      case TunnelTableIdentifier::greIntfTunnelTable:
         return &TT::greIntfTunnelTableType;
      case TunnelTableIdentifier::ipsecVtiIntfTunnelTable:
         return &TT::ipsecVtiIntfTunnelTableType;
      case TunnelTableIdentifier::ipsecGreIntfTunnelTable:
         return &TT::ipsecGreIntfTunnelTableType;
      case TunnelTableIdentifier::evpnVxlanTunnelTable:
         return &TT::evpnVxlanTunnelTableType;
      case TunnelTableIdentifier::tiLfaTunnelTable:
         return &TT::tiLfaTunnelTableType;
      case TunnelTableIdentifier::srTePolicyTunnelTable:
         return &TT::srTePolicyTunnelTableType;
      case TunnelTableIdentifier::nimboSdkSbfdSessionTunnelTable:
         return &TT::nimboSdkSbfdSessionTunnelTableType;
      case TunnelTableIdentifier::isisFlexAlgoTunnelTable:
         return &TT::isisFlexAlgoTunnelTableType;
      case TunnelTableIdentifier::mldpTunnelTable:
         return &TT::mldpTunnelTableType;
      case TunnelTableIdentifier::invalidTunnelTableId:
         break;
   }
   VELA_FAIL("table identifier {} has no framework type in tunnelctl", unsigned(id));
}

}  // namespace

const std::vector<TableEntry>& tableCatalog() {
   static const std::vector<TableEntry> catalog = [] {
      std::vector<TableEntry> all;
      for (uint8_t code = TT::kMinTunnelTableIdentifier; code <= TT::kMaxTunnelTableIdentifier;
           ++code) {
         const auto id = TunnelTableIdentifier(code);
         const auto info = TT::TunnelTableMounter::getMountInfo(id);
         all.push_back({id, info.tableInfo.mountName, info.tableInfo.path, frameworkType(id)});
      }
      return all;
   }();
   return catalog;
}

const TableEntry* tableByMountName(std::string_view mountName) {
   for (const auto& t : tableCatalog()) {
      if (t.mountName == mountName) return &t;
   }
   return nullptr;
}

const TableEntry& tableById(TunnelTableIdentifier id) {
   return tableCatalog().at(static_cast<uint8_t>(id) - TT::kMinTunnelTableIdentifier);
}

std::string knownMountNames() {
   std::string out;
   for (const auto& t : tableCatalog()) {
      if (!out.empty()) out += ", ";
      out += t.mountName;
   }
   return out;
}

std::string tableDirectory(const std::string& root, const TableEntry& table) {
   return root + "/" + table.path + "/" + kEntryCollection;
}

const TableEntry& requireTable(std::string_view mountName) {
   const TableEntry* t = tableByMountName(mountName);
   if (!t) {
      throw UsageError("unknown table '" + std::string(mountName) +
                       "' (known: " + knownMountNames() + ")");
   }
   return *t;
}

}  // namespace TunnelCtl
