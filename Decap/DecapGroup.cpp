// Tunnel::Decap::Config: the maps, their notifications, and their records in the store.
#include "Decap/DecapGroup.h"

#include "Vela/Assert.h"
#include "Vela/TypeRegistry.h"

namespace Tunnel::Decap {

void checkDecapGroupKey(const Vela::String& fwkKey, const DecapGroup& value) {
   if (!(fwkKey == value.name())) [[unlikely]] {
      Vela::assertionFailed("fwkKey() == KeyFunktor()( _value )", __FILE__, __LINE__);
   }
}

Config::Config(const Vela::String& name) : StoreEntity(name) {
   collectionAdd(portRecords_);
   collectionAdd(groupRecords_);
   collectionAdd(readyRecord_);
   portRecords_.onKeyIs([this](uint16_t port) { portArrived(port); });
   groupRecords_.onKeyIs([this](const DecapGroupName& key) { groupArrived(key); });
   readyRecord_.onKeyIs([this](uint8_t) { readyFollow(); });
   // Every collection: a reader's ready waits for the last one to synchronize.
   portRecords_.onSynchronizedIs([this] { readyFollow(); });
   groupRecords_.onSynchronizedIs([this] { readyFollow(); });
   readyRecord_.onSynchronizedIs([this] { readyFollow(); });
}

// ---- globalDestPortToPayloadType ----

std::optional<PayloadType> Config::globalDestPortToPayloadType(uint16_t port) const {
   auto it = ports_.find(port);
   if (it == ports_.end()) return std::nullopt;
   return it->second;
}

void Config::globalDestPortToPayloadTypeIs(uint16_t port, PayloadType payloadType) {
   requireNotReaderCopy("globalDestPortToPayloadTypeIs");
   portSet(port, payloadType, true);
}

PayloadType Config::globalDestPortToPayloadTypeDel(uint16_t port) {
   requireNotReaderCopy("globalDestPortToPayloadTypeDel");
   return portRemove(port, true);
}

void Config::globalDestPortToPayloadTypeDelAll() {
   requireNotReaderCopy("globalDestPortToPayloadTypeDelAll");
   while (!ports_.empty()) portRemove(ports_.begin()->first, true);
}

void Config::portSet(uint16_t port, PayloadType payloadType, bool publish) {
   auto [it, inserted] = ports_.try_emplace(port, payloadType);
   if (!inserted) {
      if (it->second == payloadType) return;
      it->second = payloadType;
   }
   // The record before the observers: one that changes the map again from its notification
   // publishes after this, so the store ends as the map does.
   if (publish) portRecords_.publish({port, payloadType});
   notify(attrGlobalDestPortToPayloadType, &port);
}

PayloadType Config::portRemove(uint16_t port, bool publish) {
   auto it = ports_.find(port);
   if (it == ports_.end()) return PayloadType::unknown;
   const PayloadType removed = it->second;
   ports_.erase(it);
   if (publish) portRecords_.unpublish(port);
   notify(attrGlobalDestPortToPayloadType, &port);
   return removed;
}

// ---- decapGroup ----

Vela::Ptr<const DecapGroup> Config::decapGroup(const Vela::String& name) const {
   auto it = groups_.find(name);
   return it == groups_.end() ? nullptr : it->second;
}

void Config::decapGroupIs(const Vela::Ptr<const DecapGroup>& group) {
   requireNotReaderCopy("decapGroupIs");
   if (!group) {
      throw Vela::NullArgumentException(Vela::String(kTypeName) +
                                        "::decapGroupIs: attribute decapGroup is null");
   }
   groupSet(group, true);
}

Vela::Ptr<const DecapGroup> Config::decapGroupDel(const Vela::String& name) {
   requireNotReaderCopy("decapGroupDel");
   return groupRemove(name, true);
}

void Config::decapGroupDelAll() {
   requireNotReaderCopy("decapGroupDelAll");
   while (!groups_.empty()) groupRemove(groups_.begin()->first, true);
}

void Config::groupSet(const Vela::Ptr<const DecapGroup>& group, bool publish) {
   auto [it, inserted] = groups_.try_emplace(group->name(), group);
   if (!inserted) {
      if (it->second == group) return;
      checkDecapGroupKey(it->first, *it->second);
      it->second = group;
   }
   if (publish) groupRecords_.publish({group});
   notify(attrDecapGroup, &group->name());
}

Vela::Ptr<const DecapGroup> Config::groupRemove(const Vela::String& key, bool publish) {
   const Vela::String name = key;  // `key` may live in the map node erased here
   auto it = groups_.find(name);
   if (it == groups_.end()) return nullptr;
   Vela::Ptr<const DecapGroup> removed = std::move(it->second);
   groups_.erase(it);
   if (publish) groupRecords_.unpublish(DecapGroupName(name));
   notify(attrDecapGroup, &name);
   return removed;
}

// ---- ready ----

void Config::readyIs(bool ready) {
   requireNotReaderCopy("readyIs");
   readySet(ready, true);
}

void Config::readySet(bool ready, bool publish) {
   if (ready_ == ready) return;
   ready_ = ready;
   if (publish) readyRecord_.publish({ready});
   notify(attrReady);
}

// ---- the store ----

void Config::handleParent(const Vela::Ptr<Vela::Entity>& parent) {
   StoreEntity::handleParent(parent);
   if (readyRecord_.isWriter()) republish();
}

void Config::republish() {
   for (const DestPortRecord& r : portRecords_.records()) {
      if (!ports_.contains(r.port)) portRecords_.unpublish(r.port);
   }
   for (const auto& [port, payloadType] : ports_) portRecords_.publish({port, payloadType});
   for (const DecapGroupRecord& r : groupRecords_.records()) {
      if (!groups_.contains(r.group->name())) groupRecords_.unpublish(r.key());
   }
   for (const auto& [name, group] : groups_) groupRecords_.publish({group});
   readyRecord_.publish({ready_});
}

void Config::portArrived(uint16_t port) {
   if (std::optional<DestPortRecord> r = portRecords_.record(port)) {
      portSet(port, r->payloadType, false);
   } else {
      portRemove(port, false);
   }
}

void Config::groupArrived(const DecapGroupName& key) {
   if (std::optional<DecapGroupRecord> r = groupRecords_.record(key)) {
      groupSet(r->group, false);
   } else {
      groupRemove(key.name(), false);
   }
}

void Config::readyFollow() {
   const std::optional<ReadyRecord> r = readyRecord_.record(ReadyRecord::kKey);
   readySet(r && r->ready && synchronized(), false);
}

// ---- factories ----

Vela::Ptr<Config> configFactory(const Vela::String& name) {
   return TunnelTable::makeStoreEntity<Config>(name);
}

Vela::Ptr<Config> ConfigIs(const Vela::String& name) {
   return configFactory(name);
}

// Registered when the library loads, so the mount service builds the type by its name.
const bool registered = TunnelTable::registerStoreEntityType<Config>(configFactory);

}  // namespace Tunnel::Decap
