#include "Publisher.h"

#include <algorithm>
#include <iostream>
#include <set>

#include "Commands.h"
#include "store/DockWriter.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

namespace {

// Removes `keys` from `table` in key order, so the changes print the same from run to run (a
// table lists its keys in slot order).
void removeInKeyOrder(const TableEntry& t, TT::TunnelTableBase& table,
                      std::vector<TT::TunnelId> keys, std::vector<PublishChange>& changes) {
   std::sort(keys.begin(), keys.end());
   for (const TT::TunnelId& key : keys) {
      if (table.entryRemove(key)) changes.push_back({&t, key, true});
   }
}

}  // namespace

void Publisher::mountAll(const Description& d) {
   std::vector<TunnelTableIdentifier> mountedNow;
   try {
      for (const TableEntry* t : d.tables()) {
         if (tables_.count(t->id)) continue;
         auto table = agent_.mounter().mountWriter(t->id);
         if (!table) throw std::runtime_error(t->mountName + ": the mount gave no tunnel table");
         tables_.emplace(t->id, table);
         mountedNow.push_back(t->id);
         if (table->storeMountStatus() == uint32_t(Dock::MountStatus::kReformatted)) {
            std::cerr << "tunnelctl: warning: " << t->mountName
                      << ": its files were damaged and have been re-formatted: "
                      << table->storeProblem() << std::endl;
         }
      }
   } catch (...) {
      // Nothing of this description is written: let go of the tables taken for it.
      for (TunnelTableIdentifier id : mountedNow) {
         tables_.erase(id);
         agent_.mounter().unmount(id);
      }
      throw;
   }
}

std::vector<PublishChange> Publisher::apply(const Description& d) {
   mountAll(d);
   std::vector<PublishChange> changes;
   std::set<TunnelTableIdentifier> described;
   for (const TableEntry* t : d.tables()) {
      described.insert(t->id);
      const auto& table = tables_.at(t->id);
      std::vector<TT::TunnelId> keep;
      for (const DescribedTunnel* dt : d.tunnelsOf(*t)) {
         keep.push_back(dt->id);
         if (dt->writeTo(*table)) changes.push_back({t, dt->id, false});
      }
      std::sort(keep.begin(), keep.end());
      std::vector<TT::TunnelId> gone = table->entryKeys();
      std::erase_if(gone, [&](const TT::TunnelId& key) {
         return std::binary_search(keep.begin(), keep.end(), key);
      });
      removeInKeyOrder(*t, *table, std::move(gone), changes);
   }
   // Tables the description no longer fills are emptied, key by key.
   for (auto& [id, table] : tables_) {
      if (!described.count(id)) {
         removeInKeyOrder(tableById(id), *table, table->entryKeys(), changes);
      }
   }
   return changes;
}

std::string changeText(const PublishChange& c) {
   return c.table->mountName + " " + keyText(c.id) + (c.removed ? ": removed" : ": written");
}

}  // namespace TunnelCtl
