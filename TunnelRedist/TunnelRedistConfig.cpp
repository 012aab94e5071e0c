#include "TunnelRedist/TunnelRedistConfig.h"

#include "Vela/Assert.h"
#include "Vela/TypeRegistry.h"

namespace Tunnel::TunnelRedist {

// ---- TunnelRedistEntry ----

TunnelRedistEntry::TunnelRedistEntry(const Wirekit::IpGenPrefix& prefix, TunnelRedistConfig* config)
    : Vela::Entity(prefix.stringValue(), config), prefix_(prefix), config_(config) {}

std::optional<TunnelInfo> TunnelRedistEntry::memberTunnelInfo(const TunnelId& tunnelId) const {
   auto it = members_.find(tunnelId);
   if (it == members_.end()) return std::nullopt;
   return it->second;
}

void TunnelRedistEntry::requireWritable(const char* operation) const {
   if (config_) config_->requireNotReaderCopy(operation);
}

void TunnelRedistEntry::memberTunnelInfoIs(const TunnelInfo& info) {
   requireWritable("memberTunnelInfoIs");
   memberSet(info, true);
}

TunnelInfo TunnelRedistEntry::memberTunnelInfoDel(const TunnelId& tunnelId) {
   requireWritable("memberTunnelInfoDel");
   return memberRemove(tunnelId, true);
}

void TunnelRedistEntry::memberTunnelInfoDelAll() {
   requireWritable("memberTunnelInfoDelAll");
   while (!members_.empty()) memberRemove(members_.begin()->first, true);
}

void TunnelRedistEntry::memberSet(const TunnelInfo& info, bool publish) {
   auto [it, inserted] = members_.try_emplace(info.tunnelId(), info);
   if (!inserted) {
      if (it->second == info) return;
      it->second = info;
   }
   // The map first, then the record: a reader never holds a member the writer's map lacks.
   if (publish && config_) config_->members_.publish({prefix_, info});
   notify(attrMemberTunnelInfo, &info.tunnelId());
}

TunnelInfo TunnelRedistEntry::memberRemove(const TunnelId& tunnelId, bool publish) {
   auto it = members_.find(tunnelId);
   if (it == members_.end()) return TunnelInfo();
   const TunnelInfo removed = it->second;
   members_.erase(it);
   if (publish && config_) config_->members_.unpublish({prefix_, tunnelId});
   notify(attrMemberTunnelInfo, &tunnelId);
   return removed;
}

// ---- TunnelRedistConfig ----

TunnelRedistConfig::TunnelRedistConfig(const Vela::String& name) : StoreEntity(name) {
   collectionAdd(members_);
   members_.onKeyIs([this](const TunnelRedistMemberKey& key) { memberArrived(key); });
}

TunnelRedistConfig::~TunnelRedistConfig() {
   for (auto& [prefix, e] : entries_) e->config_ = nullptr;
}

void TunnelRedistConfig::handleParent(const Vela::Ptr<Vela::Entity>& parent) {
   StoreEntity::handleParent(parent);
   if (!members_.isWriter()) return;
   for (const TunnelRedistMember& m : members_.records()) {
      const auto e = entry(m.tep);
      if (!e || e->memberTunnelInfo(m.info.tunnelId()) != m.info) members_.unpublish(m.key());
   }
   for (const auto& [prefix, e] : entries_) {
      for (const auto& [id, info] : e->members_) members_.publish({prefix, info});
   }
}

Vela::Ptr<TunnelRedistEntry> TunnelRedistConfig::entry(const Wirekit::IpGenPrefix& prefix) const {
   auto it = entries_.find(prefix);
   return it == entries_.end() ? nullptr : it->second;
}

Vela::Ptr<TunnelRedistEntry> TunnelRedistConfig::entryIs(const Wirekit::IpGenPrefix& prefix) {
   requireNotReaderCopy("entryIs");
   return entryMake(prefix);
}

Vela::Ptr<TunnelRedistEntry> TunnelRedistConfig::entryDel(const Wirekit::IpGenPrefix& prefix) {
   requireNotReaderCopy("entryDel");
   return entryRemove(prefix, true);
}

void TunnelRedistConfig::entryDelAll() {
   requireNotReaderCopy("entryDelAll");
   while (!entries_.empty()) entryRemove(entries_.begin()->first, true);
}

Vela::Ptr<TunnelRedistEntry> TunnelRedistConfig::entryMake(const Wirekit::IpGenPrefix& prefix) {
   if (auto it = entries_.find(prefix); it != entries_.end()) return it->second;
   auto e = Vela::makePtr<TunnelRedistEntry>(prefix, this);
   e->hasNotificationActiveIs(true);
   entries_.emplace(prefix, e);
   notify(Vela::attrEntry, &prefix);
   return e;
}

Vela::Ptr<TunnelRedistEntry> TunnelRedistConfig::entryRemove(const Wirekit::IpGenPrefix& key,
                                                             bool publish) {
   const Wirekit::IpGenPrefix prefix = key;  // `key` may live in the map entry erased here
   auto it = entries_.find(prefix);
   if (it == entries_.end()) return nullptr;
   Vela::Ptr<TunnelRedistEntry> removed = std::move(it->second);
   entries_.erase(it);
   if (publish) {
      for (const auto& [tunnelId, info] : removed->members_) members_.unpublish({prefix, tunnelId});
   }
   removed->config_ = nullptr;
   removed->parentIs(nullptr);
   notify(Vela::attrEntry, &prefix);
   return removed;
}

void TunnelRedistConfig::memberArrived(const TunnelRedistMemberKey& key) {
   if (std::optional<TunnelRedistMember> record = members_.record(key)) {
      entryMake(key.tep)->memberSet(record->info, false);
      return;
   }
   auto it = entries_.find(key.tep);
   if (it == entries_.end()) return;
   Vela::Ptr<TunnelRedistEntry> e = it->second;
   e->memberRemove(key.tunnelId, false);
   if (e->members_.empty()) entryRemove(key.tep, false);
}

Vela::Ptr<TunnelRedistConfig> tunnelRedistConfigFactory(const Vela::String& name) {
   return TunnelTable::makeStoreEntity<TunnelRedistConfig>(name);
}

Vela::Ptr<TunnelRedistConfig> TunnelRedistConfigIs(const Vela::String& name) {
   return tunnelRedistConfigFactory(name);
}

Vela::String tunnelRedistConfigPath(const Vela::String& name) {
   return "tunnel/redist/" + name;
}

Vela::Ptr<TunnelRedistConfig> mountTunnelRedistConfig(Vault::MountService& service,
                                                      const Vela::String& name, bool writer,
                                                      Loom::EventLoop& loop) {
   return TunnelTable::mountStoreEntity<TunnelRedistConfig>(service, tunnelRedistConfigPath(name),
                                                            writer, loop, 1024);
}

// Registered when the library loads, so the mount service builds the type by its name.
const bool registered =
    TunnelTable::registerStoreEntityType<TunnelRedistConfig>(tunnelRedistConfigFactory);

}  // namespace Tunnel::TunnelRedist
