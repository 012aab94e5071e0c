// TunnelFib: the collections' operations, the process-local VXLAN map, teardown and registration.
#include "TunnelFib/TunnelFib.h"

#include "Vela/TypeRegistry.h"

namespace Tunnel::TunnelFib {

Spoor::Handle& tunnelFibTrace() {
   static Spoor::Handle& h = Spoor::handle("TunnelFib");
   return h;
}

namespace {

// The collections' record types: names and the largest record, which sizes the store's slab
// classes. A longer label stack is refused by its writer (the FIB builder) before it is written.
constexpr TunnelTable::TableType recordType(const char* typeName, uint32_t maxLen) {
   return {typeName,
           typeName,
           "",
           "",
           TunnelTable::TunnelType::reservedTunnel0,
           TunnelTable::TunnelTableIdentifier::invalidTunnelTableId,
           maxLen};
}

constexpr TunnelTable::TableType entryType =
    recordType(TunnelFibEntry::kTypeName, TunnelFibEntry::kMaxSerializedLen);
constexpr TunnelTable::TableType labelStackEncapType =
    recordType(LabelStackEncap::kTypeName, LabelStackEncap::kMaxSerializedLen);
constexpr TunnelTable::TableType greEncapType =
    recordType(GreEncap::kTypeName, GreEncap::kMaxSerializedLen);
constexpr TunnelTable::TableType ipsecGreEncapType =
    recordType(IpsecGreEncap::kTypeName, IpsecGreEncap::kMaxSerializedLen);
constexpr TunnelTable::TableType ipsecVtiEncapType =
    recordType(IpsecVtiEncap::kTypeName, IpsecVtiEncap::kMaxSerializedLen);

}  // namespace

// ---- FibCollection ----

template <class Key, class Value, class KeyOf>
FibCollection<Key, Value, KeyOf>::FibCollection(TunnelFib& fib, const char* name,
                                                const TunnelTable::TableType& type,
                                                Vela::AttributeId attr)
    : fib_(fib), attr_(attr), store_(name, type) {
   // A reader's copy hears the store per key and passes the store's reports on; the writer's
   // own writes notify in is/del/commit.
   store_.onKeyIs([this](const Key& key) { notify(key); });
   store_.onQuiescedIs([this](bool quiesced) { notifyQuiesced(quiesced); });
   store_.onMountStatusIs([this] { notifyMountStatus(); });
}

template <class Key, class Value, class KeyOf>
void FibCollection<Key, Value, KeyOf>::is(const Value& value) {
   store_.write(value);
   notify(KeyOf()(value));
}

template <class Key, class Value, class KeyOf>
Value FibCollection<Key, Value, KeyOf>::del(const Key& key) {
   std::optional<Value> removed = store_.erase(key);
   if (!removed) return Value();
   notify(key);
   return std::move(*removed);
}

template <class Key, class Value, class KeyOf>
void FibCollection<Key, Value, KeyOf>::delAll() {
   for (const Key& key : keys()) del(key);
}

template <class Key, class Value, class KeyOf>
void FibCollection<Key, Value, KeyOf>::commit(const Value* value) {
   store_.commit(value);
   notify(KeyOf()(*value));
}

template <class Key, class Value, class KeyOf>
void FibCollection<Key, Value, KeyOf>::notify(const Key& key) {
   ++notifications_;
   fib_.notify(attr_, &key);
}

template <class Key, class Value, class KeyOf>
void FibCollection<Key, Value, KeyOf>::notifyQuiesced(bool quiesced) {
   if (const auto& c = control()) c->quiescedIs(quiesced);
}

template <class Key, class Value, class KeyOf>
void FibCollection<Key, Value, KeyOf>::notifyMountStatus() {
   const TunnelTable::StoreTableBase* table = store_.table();
   const uint32_t status = table ? table->storeMountStatus() : 0;
   const auto& c = control();
   if (c) c->mountStatusIs(static_cast<uint8_t>(status & 0xFF));
   SPOOR_TRACE(tunnelFibTrace(), 5, "mounted {} mountStatus:{}",
               c ? c->storeDirectory() : Vela::String(), status);
}

template class FibCollection<EncapId, GreEncap, EncapKeyOf>;
template class FibCollection<EncapId, IpsecVtiEncap, EncapKeyOf>;
template class FibCollection<EncapId, IpsecGreEncap, EncapKeyOf>;
template class FibCollection<EncapId, LabelStackEncap, EncapKeyOf>;
template class FibCollection<TunnelId, TunnelFibEntry, FibEntryKeyOf>;

// ---- TunnelFib ----

TunnelFib::TunnelFib(const Vela::String& name)
    : StoreEntity(name),
      greEncap_(*this, kCollections[0], greEncapType, attrGreEncap),
      ipsecVtiEncap_(*this, kCollections[1], ipsecVtiEncapType, attrIpsecVtiEncap),
      ipsecGreEncap_(*this, kCollections[2], ipsecGreEncapType, attrIpsecGreEncap),
      labelStackEncap_(*this, kCollections[3], labelStackEncapType, attrLabelStackEncap),
      entry_(*this, kCollections[4], entryType, attrFibEntry) {
   collectionAdd(greEncap_.store());
   collectionAdd(ipsecVtiEncap_.store());
   collectionAdd(ipsecGreEncap_.store());
   collectionAdd(labelStackEncap_.store());
   collectionAdd(entry_.store());
   zeroReferencesNotifieeIs(new TunnelFibZeroReferencesNotifiee(this));
}

TunnelFib::~TunnelFib() {
   // Normally the notifiee ran and removed itself; an entity torn down otherwise frees it here.
   if (auto* n = zeroReferencesNotifiee()) {
      zeroReferencesNotifieeIs(nullptr);
      delete n;
   }
}

void TunnelFib::TunnelFibZeroReferencesNotifiee::onZeroReferences(Vela::Entity* entity) {
   VELA_ASSERT(entity == fib_);
   TunnelFib* fib = fib_;
   // A temporary reference taken here drops back to zero; the entity's zero-references run is
   // already under way and does not start again.
   for (Vela::Ptr<VelaDock::CollectionControl> control :
        {fib->entry_.controlRelease(), fib->greEncap_.controlRelease(),
         fib->ipsecVtiEncap_.controlRelease(), fib->ipsecGreEncap_.controlRelease(),
         fib->labelStackEncap_.controlRelease()}) {
      if (control) control->entityRefIs(Vela::Ptr<Vela::Entity>(entity));
   }
   fib->zeroReferencesNotifieeIs(nullptr);
   delete this;
}

void TunnelFib::vxlanEncapIs(const VxlanEncap& encap) {
   const EncapId key = encap.encapId();
   auto [it, inserted] = vxlanEncap_.try_emplace(key, encap);
   if (!inserted) {
      if (it->second == encap) return;
      it->second = encap;
   }
   notify(attrVxlanEncap, &key);
}

VxlanEncap TunnelFib::vxlanEncapDel(const EncapId& key) {
   auto it = vxlanEncap_.find(key);
   if (it == vxlanEncap_.end()) return VxlanEncap();
   VxlanEncap removed = it->second;
   vxlanEncap_.erase(it);
   notify(attrVxlanEncap, &key);
   return removed;
}

void TunnelFib::vxlanEncapDelAll() {
   std::vector<EncapId> keys;
   keys.reserve(vxlanEncap_.size());
   for (const auto& [key, value] : vxlanEncap_) keys.push_back(key);
   for (const EncapId& key : keys) vxlanEncapDel(key);
}

VxlanEncap TunnelFib::vxlanEncap(const EncapId& key) const {
   auto it = vxlanEncap_.find(key);
   return it == vxlanEncap_.end() ? VxlanEncap() : it->second;
}

const std::vector<Vela::String>& TunnelFib::operationNames() {
   static const std::vector<Vela::String> names{
       "entryIs",           "entryDel",           "entryNotify",
       "labelStackEncapIs", "labelStackEncapDel", "labelStackEncapNotify",
       "ipsecGreEncapIs",   "ipsecGreEncapDel",   "ipsecGreEncapNotify",
       "ipsecVtiEncapIs",   "ipsecVtiEncapDel",   "ipsecVtiEncapNotify",
       "greEncapIs",        "greEncapDel",        "greEncapNotify"};
   return names;
}

Vela::Ptr<TunnelFib> tunnelFibFactory(const Vela::String& name) {
   return TunnelTable::makeStoreEntity<TunnelFib>(name);
}

Vela::Ptr<TunnelFib> TunnelFibIs(const Vela::String& name) {
   return tunnelFibFactory(name);
}

Vela::Ptr<TunnelFib> mountTunnelFib(Vault::MountService& service, bool writer,
                                    Loom::EventLoop& loop, uint32_t sizing) {
   return TunnelTable::mountStoreEntity<TunnelFib>(service, kTunnelFibPath, writer, loop, sizing);
}

namespace {

// Registered when the library loads, so the mount service builds the type by its name.
bool registerTunnelFibType() {
   TunnelTable::registerStoreEntityType<TunnelFib>(tunnelFibFactory);
   Vela::TypeRegistry::instance().operationNamesIs(TunnelFib::kTypeName,
                                                   TunnelFib::operationNames());
   return true;
}
const bool registered = registerTunnelFibType();

}  // namespace

}  // namespace Tunnel::TunnelFib
