// FibForm: what each entry kind gives the FIB (see the header's table).
#include "TunnelFib/FibForm.h"

#include <map>
#include <string>
#include <type_traits>

#include "TunnelTable/EvpnVxlanTunnelTable.h"
#include "TunnelTable/TunnelTables.h"

namespace Tunnel::TunnelFib {

namespace {

using namespace TunnelTable;

void addVia(std::vector<FormVia>& out, const MplsVia& v) {
   if (v == MplsVia()) return;
   out.push_back({v.nextHop(), v.intfId(), v.labels()});
}
void addVia(std::vector<FormVia>& out, const Via& v,
            const Wirekit::UnboundedMplsLabelOperation& labels = {}) {
   if (v == Via()) return;
   out.push_back({v.nextHop(), v.intfId(), labels});
}
template <class Array>
void addVias(std::vector<FormVia>& out, const Array& vias) {
   for (const auto& v : vias) addVia(out, v);
}

// The kind-specific part, by the most derived kind that has one.
void ownForm(FibForm&, const TunnelTableEntry&) {}
void ownForm(FibForm& f, const IgpTunnelTableEntryBase& e) {
   addVias(f.primary, e.via());
}
void ownForm(FibForm& f, const FrrTunnelTableEntry& e) {
   addVia(f.primary, e.via());
   addVia(f.backup, e.backupVia());
   f.arePrimaryViasUsable = e.isPrimaryViaUsable();
   f.seqNo = e.seqNo();
}
void ownForm(FibForm& f, const RsvpLerTunnelTableEntry& e) {
   ownForm(f, static_cast<const FrrTunnelTableEntry&>(e));
   addVias(f.primary, e.splitVia());
}
void ownForm(FibForm& f, const StaticTunnelTableEntry& e) {
   addVias(f.primary, e.via());
   addVias(f.backup, e.backupVia());
}
void ownForm(FibForm& f, const SrTeSegmentListTunnelTableEntry& e) {
   addVias(f.primary, e.via());
}
void ownForm(FibForm& f, const FlexAlgoTunnelTableEntry& e) {
   addVias(f.primary, e.via());
}
void ownForm(FibForm& f, const BgpLuPushTunnelTableEntry& e) {
   for (const Via& v : e.via()) addVia(f.primary, v, e.labels());
}
void ownForm(FibForm& f, const NimboSdkSbfdSessionTunnelTableEntry& e) {
   const MplsCosVia& v = e.via();
   if (v == MplsCosVia()) return;
   f.primary.push_back({v.nextHop(), v.intfId(), v.cosLabels(CosIndex(0))});
}
template <class IntfEntry>
void intfForm(FibForm& f, const IntfEntry& e) {
   addVias(f.primary, e.via());
   f.tunnelEncap = e.tunnelInfo();
}
void ownForm(FibForm& f, const GreIntfTunnelTableEntry& e) {
   intfForm(f, e);
}
void ownForm(FibForm& f, const IpsecGreIntfTunnelTableEntry& e) {
   intfForm(f, e);
}
void ownForm(FibForm& f, const IpsecVtiIntfTunnelTableEntry& e) {
   intfForm(f, e);
}

FibForm formOf(const EvpnVxlanTunnelEntry& e) {
   FibForm f;
   f.primary.push_back({e.tunnelInfo().dstAddr(), Wirekit::IntfId(), {}});
   f.tunnelEncap = e.tunnelInfo();
   return f;
}
template <class Entry>
FibForm formOf(const Entry& e) {
   FibForm f;
   ownForm(f, e);
   return f;
}

template <class Table>
void addReader(std::map<std::string, FibFormReader, std::less<>>& readers) {
   using Entry = typename Table::EntryType;
   if constexpr (std::is_base_of_v<TunnelTableEntry, Entry> ||
                 std::is_same_v<Entry, EvpnVxlanTunnelEntry>) {
      readers.emplace(
          Table::kTableType.typeName,
          [](const TunnelTableBase& base, const TunnelId& key) -> std::optional<FibForm> {
             const auto* table = dynamic_cast<const Table*>(&base);
             if (!table) return std::nullopt;
             std::optional<Entry> e = table->entryIf(key);
             if (!e) return std::nullopt;
             return formOf(*e);
          });
   }
}

template <class... Tables>
std::map<std::string, FibFormReader, std::less<>> readersOf(TableList<Tables...>) {
   std::map<std::string, FibFormReader, std::less<>> readers;
   (addReader<Tables>(readers), ...);
   return readers;
}

}  // namespace

FibFormReader fibFormReader(std::string_view typeName) {
   static const auto readers = readersOf(TunnelTables{});
   auto it = readers.find(typeName);
   return it == readers.end() ? FibFormReader() : it->second;
}

}  // namespace Tunnel::TunnelFib
