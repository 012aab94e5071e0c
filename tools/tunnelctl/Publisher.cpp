#include "Publisher.h"

#include <algorithm>
#include <iostream>
#include <set>

#include "Commands.h"
#include "TunnelTable/StoreEntity.h"
#include "store/writer/DockWriter.h"

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
   bool decapNow = false, nexthopGroupsNow = false;
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
      // The configurations after the tables: a second writer is named by its first table.
      if (d.hasDecap && !decap_) {
         decap_ = TT::mountStoreEntity<Tunnel::Decap::Config>(
             agent_.service(), Tunnel::Decap::kDecapConfigPath, true, agent_.loop());
         decapNow = true;
      }
      if (d.hasNexthopGroupTunnels && !nexthopGroups_) {
         nexthopGroups_ = TT::mountStoreEntity<Tunnel::NexthopGroup::Config>(
             agent_.service(), Tunnel::NexthopGroup::kNexthopGroupConfigPath, true, agent_.loop());
         nexthopGroupsNow = true;
      }
   } catch (...) {
      // Nothing of this description is written: let go of the tables taken for it.
      for (TunnelTableIdentifier id : mountedNow) {
         tables_.erase(id);
         agent_.mounter().unmount(id);
      }
      if (decapNow) {
         decap_ = nullptr;
         agent_.service().unmount(Tunnel::Decap::kDecapConfigPath);
      }
      if (nexthopGroupsNow) {
         nexthopGroups_ = nullptr;
         agent_.service().unmount(Tunnel::NexthopGroup::kNexthopGroupConfigPath);
      }
      throw;
   }
}

std::vector<PublishChange> Publisher::apply(const Description& d) {
   mountAll(d);
   refusals_.clear();
   std::vector<PublishChange> changes;
   std::set<TunnelTableIdentifier> described;
   for (const TableEntry* t : d.tables()) {
      described.insert(t->id);
      const auto& table = tables_.at(t->id);
      std::vector<TT::TunnelId> keep;
      for (const DescribedTunnel* dt : d.tunnelsOf(*t)) {
         keep.push_back(dt->id);
         try {
            if (dt->writeTo(*table)) changes.push_back({t, dt->id, false});
         } catch (const TT::EntryTooLargeError& e) {
            // One entry the table cannot hold: the rest of the description is still published,
            // and what the table held under that key stays.
            refusals_.push_back(dt->path + ": " + e.what());
         }
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
   configChanges_.clear();
   applyDecap(d);
   applyNexthopGroups(d);
   return changes;
}

void Publisher::applyDecap(const Description& d) {
   if (!decap_) return;
   std::set<Vela::String> groups;
   for (const auto& g : d.decapGroups) {
      groups.insert(g->name());
      const auto stored = decap_->decapGroup(g->name());
      if (stored && *stored == *g) continue;
      decap_->decapGroupIs(g);
      configChanges_.push_back("decap group " + g->name() + ": written");
   }
   std::set<Vela::String> goneGroups;
   for (const auto& [name, g] : decap_->decapGroups()) {
      if (!groups.count(name)) goneGroups.insert(name);
   }
   for (const Vela::String& name : goneGroups) {
      decap_->decapGroupDel(name);
      configChanges_.push_back("decap group " + name + ": removed");
   }
   std::set<uint16_t> ports;
   for (const auto& [port, type] : d.decapPorts) {
      ports.insert(port);
      if (decap_->globalDestPortToPayloadType(port) == type) continue;
      decap_->globalDestPortToPayloadTypeIs(port, type);
      configChanges_.push_back("decap port " + std::to_string(port) + ": written");
   }
   std::set<uint16_t> gonePorts;
   for (const auto& [port, type] : decap_->globalDestPortToPayloadTypes()) {
      if (!ports.count(port)) gonePorts.insert(port);
   }
   for (uint16_t port : gonePorts) {
      decap_->globalDestPortToPayloadTypeDel(port);
      configChanges_.push_back("decap port " + std::to_string(port) + ": removed");
   }
   decap_->readyIs(true);
}

void Publisher::applyNexthopGroups(const Description& d) {
   if (!nexthopGroups_) return;
   std::set<Wirekit::IpGenPrefix> described;
   for (const auto& e : d.nexthopGroupTunnels) {
      described.insert(e.endpoint());
      if (nexthopGroups_->entry(e.endpoint()) == e) continue;
      nexthopGroups_->entryIs(e);
      configChanges_.push_back("nexthop-group tunnel " + e.endpoint().stringValue() + ": written");
   }
   std::set<Wirekit::IpGenPrefix> gone;
   for (const auto& [endpoint, e] : nexthopGroups_->entries()) {
      if (!described.count(endpoint)) gone.insert(endpoint);
   }
   for (const auto& endpoint : gone) {
      nexthopGroups_->entryDel(endpoint);
      configChanges_.push_back("nexthop-group tunnel " + endpoint.stringValue() + ": removed");
   }
}

std::string changeText(const PublishChange& c) {
   return c.table->mountName + " " + keyText(c.id) + (c.removed ? ": removed" : ": written");
}

}  // namespace TunnelCtl
