// The tunnel table family: every per-protocol tunnel table is the TunnelId instance of StoreTable
// (StoreTable.h) over TunnelTableBase, its entries keyed by TunnelTableEntry::tunnelId(). A member
// differs only in its entry type and its TableType (class name, TunnelType, TunnelTableIdentifier,
// mount name and path, largest entry); TUNNEL_TABLE_MEMBER declares a member class with its
// zero-references notifiee, its static ...Is creator and its factory.
#pragma once

#include "TunnelTable/StoreTable.h"
#include "TunnelTable/TableRegistry.h"
#include "TunnelTable/TunnelTableBase.h"

namespace Tunnel::TunnelTable {

// The key under which every tunnel table stores an entry.
struct TunnelEntryKey {
   template <class E>
   TunnelId operator()(const E& entry) const noexcept {
      return entry.tunnelId();
   }
};

template <class Entry, class Base = TunnelTableBase>
using TunnelTableFamily = StoreTable<TunnelId, Entry, TunnelEntryKey, Base>;

// Builds a table with notifications on, as every factory does.
template <class Table>
Vela::Ptr<Table> makeTunnelTable(const Vela::String& name) {
   return makeStoreTable<Table>(name);
}

}  // namespace Tunnel::TunnelTable

// The family's code for one entry type, compiled once: `extern` before it in the header, the
// plain form in the folder's .cpp; each use ends with its own semicolon.
#define TUNNEL_TABLE_FAMILY_INSTANCE(Entry, Base)                                       \
   template class Tunnel::TunnelTable::StoreTable<Tunnel::TunnelTable::TunnelId, Entry, \
                                                  Tunnel::TunnelTable::TunnelEntryKey, Base>

// Declares a store-table class `Table` over `Parent` (a StoreTable instance or another such
// class), with its nested zero-references notifiee, its static creator `Table##Is`, its
// TableType as `kTableType` (what registerTables reads) and, outside the class, its factory
// `factory`. A class used as a base (SrTunnelTableBase, FlexAlgoTunnelTable) lets its subclasses
// pass their own type.
#define TUNNEL_TABLE_MEMBER(Table, Parent, type, factory)                             \
   class Table : public Parent {                                                      \
     public:                                                                          \
      static constexpr const TableType& kTableType = type;                            \
      class Table##ZeroReferencesNotifiee : public StoreTableZeroReferencesNotifiee { \
        public:                                                                       \
         using StoreTableZeroReferencesNotifiee::StoreTableZeroReferencesNotifiee;    \
      };                                                                              \
      explicit Table(const Vela::String& name) : Table(name, type) {}                 \
      static Vela::Ptr<Table> Table##Is(const Vela::String& name) {                   \
         return makeStoreTable<Table>(name);                                          \
      }                                                                               \
                                                                                      \
     protected:                                                                       \
      Table(const Vela::String& name, const TableType& t) : Parent(name, t) {         \
         this->zeroReferencesNotifieeSet(new Table##ZeroReferencesNotifiee(this));    \
      }                                                                               \
   };                                                                                 \
   inline Vela::Ptr<Table> factory(const Vela::String& name) {                        \
      return makeStoreTable<Table>(name);                                             \
   }
