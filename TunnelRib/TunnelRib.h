// The two tunnel RIBs: TunnelRib, keyed by the endpoint prefix, and ColoredTunnelRib, keyed by the
// colored endpoint. Both are StoreTable instances over TunnelRibBase (the family's writer, reader,
// notification, quiesce and mount status), published at their own mount paths so agents in other
// processes mount them as key-shadowing readers:
//
//    TunnelRib          mount name "tunnelRib"         <store root>/tunnel/rib/tunnelRib/entry
//    ColoredTunnelRib   mount name "coloredTunnelRib"  <store
//    root>/tunnel/rib/coloredTunnelRib/entry
//
// They differ only in the key copied out of an entry (the 24-byte prefix, or the whole colored
// endpoint) and in one deliberate asymmetry: the plain RIB's counted write skips an entry equal to
// the stored one, the colored RIB's does not.
#pragma once

#include <type_traits>

#include "TunnelRib/TunnelRibBase.h"
#include "TunnelTable/StoreKeys.h"
#include "TunnelTable/StoreTable.h"
#include "TunnelTable/TableRegistry.h"
#include "TunnelTable/TunnelTableFamily.h"

namespace Tunnel::TunnelTable {

// The keys the RIBs store an entry under.
struct RibTepKey {
   Wirekit::IpGenPrefix operator()(const TunnelRibEntry& e) const noexcept { return e.tep(); }
};
struct RibColoredTepKey {
   ColoredTunnelEndpoint operator()(const TunnelRibEntry& e) const noexcept {
      return e.coloredTep();
   }
};

template <class Key, class KeyOf>
class TunnelRibTable : public StoreTable<Key, TunnelRibEntry, KeyOf, TunnelRibBase> {
   using Table = StoreTable<Key, TunnelRibEntry, KeyOf, TunnelRibBase>;
   static constexpr bool kColored = std::is_same_v<Key, ColoredTunnelEndpoint>;

  public:
   using typename Table::Cursor;

   // The key of a colored endpoint in this RIB: its prefix alone in the plain RIB.
   static Key ribKey(const ColoredTunnelEndpoint& c) noexcept {
      if constexpr (kColored) {
         return c;
      } else {
         return c.tep();
      }
   }

   bool isColored() const override { return kColored; }

   void tunnelRibEntryIs(const TunnelRibEntry& entry) override {
      if constexpr (!kColored) {
         // A missing entry reads as the default entry.
         if (this->entry(KeyOf()(entry)) == entry) return;
      }
      this->tunnelRibUpdateCounterInc(1);
      this->entryIs(entry);
   }
   void tunnelRibEntryDel(const ColoredTunnelEndpoint& coloredTep) override {
      this->tunnelRibUpdateCounterInc(1);
      this->entryDel(ribKey(coloredTep));
   }
   bool tunnelRibEntryHas(const ColoredTunnelEndpoint& coloredTep) const override {
      return this->entryHas(ribKey(coloredTep));
   }
   TunnelRibEntry tunnelRibEntry(const ColoredTunnelEndpoint& coloredTep) const override {
      return this->entry(ribKey(coloredTep));
   }
   // Every entry, in the store's order.
   Cursor tunnelRibEntrys() const { return this->entries(); }

  protected:
   TunnelRibTable(const Vela::String& name, const TableType& type) : Table(name, type) {}

   void dumpEntries(Vela::String& out, int indent) const override {
      Cursor c = this->entries();
      TunnelRibEntry e;
      while (c.next(e)) e.dumpState(out, indent);
   }
};

inline constexpr TableType tunnelRibType{"Tunnel::TunnelTable::TunnelRib",
                                         TunnelRibEntry::kTypeName,
                                         "tunnelRib",
                                         "tunnel/rib/tunnelRib",
                                         TunnelType::reservedTunnel0,
                                         TunnelTableIdentifier::invalidTunnelTableId,
                                         TunnelRibEntry::kMaxSerializedLen};
inline constexpr TableType coloredTunnelRibType{"Tunnel::TunnelTable::ColoredTunnelRib",
                                                TunnelRibEntry::kTypeName,
                                                "coloredTunnelRib",
                                                "tunnel/rib/coloredTunnelRib",
                                                TunnelType::reservedTunnel0,
                                                TunnelTableIdentifier::invalidTunnelTableId,
                                                TunnelRibEntry::kMaxSerializedLen};

}  // namespace Tunnel::TunnelTable

// Compiled once, in TunnelRib.cpp.
extern template class Tunnel::TunnelTable::StoreTable<
    Wirekit::IpGenPrefix, Tunnel::TunnelTable::TunnelRibEntry, Tunnel::TunnelTable::RibTepKey,
    Tunnel::TunnelTable::TunnelRibBase>;
extern template class Tunnel::TunnelTable::StoreTable<
    Tunnel::TunnelTable::ColoredTunnelEndpoint, Tunnel::TunnelTable::TunnelRibEntry,
    Tunnel::TunnelTable::RibColoredTepKey, Tunnel::TunnelTable::TunnelRibBase>;

namespace Tunnel::TunnelTable {

using PlainTunnelRibTable = TunnelRibTable<Wirekit::IpGenPrefix, RibTepKey>;
using ColoredTunnelRibTable = TunnelRibTable<ColoredTunnelEndpoint, RibColoredTepKey>;

TUNNEL_TABLE_MEMBER(TunnelRib, PlainTunnelRibTable, tunnelRibType, tunnelRibFactory)
TUNNEL_TABLE_MEMBER(ColoredTunnelRib, ColoredTunnelRibTable, coloredTunnelRibType,
                    coloredTunnelRibFactory)

// This folder's tables: registered when the library loads; the typed tests run over it.
using TunnelRibTables = TableList<TunnelRib, ColoredTunnelRib>;

// Registers both RIBs (idempotent); also run once when the library loads.
void registerTunnelRibTypes();

}  // namespace Tunnel::TunnelTable
