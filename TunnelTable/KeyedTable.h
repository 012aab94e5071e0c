// KeyedTable<Key>: the key-typed view of a table for code that does not know its entry type (the
// tool's show and watch, the mounter's callers): keys, text forms and dumps per key, and removal.
// StoreTable implements it for every table. It is inherited virtually, so a base that already
// promises it (TunnelTableBase, for TunnelId) and StoreTable share one interface.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "Vela/String.h"

namespace Tunnel::TunnelTable {

template <class Key>
class KeyedTable {
  public:
   virtual bool entryHas(const Key& key) const = 0;
   // Every key present, in the store's iteration order.
   virtual std::vector<Key> entryKeys() const = 0;
   // The entry's text form ("Value('<entry type>', ** {...})"), or nothing when absent.
   virtual std::optional<Vela::String> entryStrep(const Key& key) const = 0;
   // The entry's dump lines (dumpState), or "" when absent.
   virtual Vela::String entryDump(const Key& key, int indent) const = 0;
   // entryDel without the removed entry; true when something was removed.
   virtual bool entryRemove(const Key& key) = 0;

  protected:
   ~KeyedTable() = default;
};

}  // namespace Tunnel::TunnelTable
