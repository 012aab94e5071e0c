// Tunnel::NexthopGroup::Config: the entry map, its notifications, and its records in the store.
#include "NexthopGroup/NexthopGroupTunnelConfig.h"

#include "Vela/TypeRegistry.h"

namespace Tunnel::NexthopGroup {

Config::Config(const Vela::String& name) : StoreEntity(name) {
   collectionAdd(entryRecords_);
   entryRecords_.onKeyIs([this](const Wirekit::IpGenPrefix& endpoint) { entryArrived(endpoint); });
}

std::optional<NexthopGroupTunnelConfigEntry> Config::entry(
    const Wirekit::IpGenPrefix& endpoint) const {
   auto it = entries_.find(endpoint);
   if (it == entries_.end()) return std::nullopt;
   return it->second;
}

void Config::entryIs(const NexthopGroupTunnelConfigEntry& entry) {
   requireNotReaderCopy("entryIs");
   entrySet(entry, true);
}

NexthopGroupTunnelConfigEntry Config::entryDel(const Wirekit::IpGenPrefix& endpoint) {
   requireNotReaderCopy("entryDel");
   return entryRemove(endpoint, true);
}

void Config::entryDelAll() {
   requireNotReaderCopy("entryDelAll");
   while (!entries_.empty()) entryRemove(entries_.begin()->first, true);
}

void Config::entrySet(const NexthopGroupTunnelConfigEntry& entry, bool publish) {
   const Wirekit::IpGenPrefix endpoint = entry.fwkKey();
   auto [it, inserted] = entries_.try_emplace(endpoint, entry);
   if (!inserted) {
      if (it->second == entry) return;
      it->second = entry;
   }
   // The record before the observers: one that changes the map again from its notification
   // publishes after this, so the store ends as the map does.
   if (publish) entryRecords_.publish(entry);
   notify(Vela::attrEntry, &endpoint);
}

NexthopGroupTunnelConfigEntry Config::entryRemove(const Wirekit::IpGenPrefix& key, bool publish) {
   const Wirekit::IpGenPrefix endpoint = key;  // `key` may live in the map node erased here
   auto it = entries_.find(endpoint);
   if (it == entries_.end()) return NexthopGroupTunnelConfigEntry();
   NexthopGroupTunnelConfigEntry removed = std::move(it->second);
   entries_.erase(it);
   if (publish) entryRecords_.unpublish(endpoint);
   notify(Vela::attrEntry, &endpoint);
   return removed;
}

void Config::handleParent(const Vela::Ptr<Vela::Entity>& parent) {
   StoreEntity::handleParent(parent);
   if (!entryRecords_.isWriter()) return;
   for (const NexthopGroupTunnelConfigEntry& r : entryRecords_.records()) {
      if (!entries_.contains(r.fwkKey())) entryRecords_.unpublish(r.fwkKey());
   }
   for (const auto& [endpoint, e] : entries_) entryRecords_.publish(e);
}

void Config::entryArrived(const Wirekit::IpGenPrefix& endpoint) {
   if (std::optional<NexthopGroupTunnelConfigEntry> r = entryRecords_.record(endpoint)) {
      entrySet(*r, false);
   } else {
      entryRemove(endpoint, false);
   }
}

Vela::Ptr<Config> configFactory(const Vela::String& name) {
   return TunnelTable::makeStoreEntity<Config>(name);
}

Vela::Ptr<Config> ConfigIs(const Vela::String& name) {
   return configFactory(name);
}

// Registered when the library loads, so the mount service builds the type by its name.
const bool registered = TunnelTable::registerStoreEntityType<Config>(configFactory);

}  // namespace Tunnel::NexthopGroup
