// TunnelFib: the forwarding view of the tunnels selected for forwarding. One TunnelFibEntry per
// tunnel (primary and backup TunnelVias) and, beside them, the encapsulations the vias name by
// EncapId: label stacks, GRE, IPsec over GRE and IPsec VTI, each a shared-memory collection, and
// VXLAN, kept in this process only.
//
// The shared-memory collections are StoreCollections of the entity, created in this order and
// filed in the store under these names: "greEncap", "ipsecVtiEncap", "ipsecGreEncap",
// "labelStackEncap", "entry" (files at "<store root>/<mount path>/<name>"). The entity is mounted
// through the mount service like a table: by its single writer, or by key-shadowing readers in
// other processes whose copies follow the store.
//
// Per collection P (P is entry, labelStackEncap, ipsecGreEncap, ipsecVtiEncap or greEncap):
//   PIs(value)      writer: writes the value under its key, then notifies P with the key;
//   PDel(key)       writer: removes the key; notifies and returns the removed value, or returns
//                   the default value and notifies nobody when absent;
//   PDelAll()       writer: PDel of every key;
//   PDirectIs(key) / PCommit(value)  writer: the store's direct write, then notifies as PIs;
//   PNotify(key)    tells the entity's notifiees P with the key, counted in PNotifications();
//                   a reader's copy is told this by the store per changed key;
//   PNotifyQuiesced(quiesced), PNotifyMountStatus()  the store's reports, passed to P's control;
//   P(key), PIf(key), PHas(key), PKeys(), PCount()  reads, on the writer and on readers.
// Writes on anything but the writer are assertions. A FIB never mounted reads empty.
//
// Notifications carry the attribute and a pointer to the key (const TunnelId* for entry, const
// EncapId* for the encapsulations). Attributes are numbered consecutively: entry 400,
// labelStackEncap 401, ipsecGreEncap 402, ipsecVtiEncap 403, greEncap 404, vxlanEncap 405.
//
// The FIB keeps no reference counts and never cascades: entries and encapsulations are written
// and removed independently, and the order between an encapsulation and the entries naming it is
// the writer's (TunnelFibBuilder writes an encapsulation before its first user and removes it
// after its last).
//
// When the last outside reference goes, TunnelFibZeroReferencesNotifiee hands each collection
// control a reference to the entity and drops the entity's own, in the order entry, greEncap,
// ipsecVtiEncap, ipsecGreEncap, labelStackEncap, and then the entity is destroyed.
//
// One owning thread, the agent's event loop; nothing here is locked.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Spoor/Trace.h"
#include "TunnelFib/Encap.h"
#include "TunnelFib/TunnelFibEntry.h"
#include "TunnelTable/StoreEntity.h"
#include "Vela/AttributeId.h"

namespace Tunnel::TunnelFib {

using TunnelTable::EncapId;
using TunnelTable::TunnelId;

inline constexpr Vela::AttributeId attrFibEntry{400};
inline constexpr Vela::AttributeId attrLabelStackEncap{401};
inline constexpr Vela::AttributeId attrIpsecGreEncap{402};
inline constexpr Vela::AttributeId attrIpsecVtiEncap{403};
inline constexpr Vela::AttributeId attrGreEncap{404};
inline constexpr Vela::AttributeId attrVxlanEncap{405};

// Where the FIB is mounted: its collections live at "<store root>/tunnel/fib/<collection>".
inline constexpr const char* kTunnelFibPath = "tunnel/fib";

// The trace handle of this folder (module "TunnelFib").
Spoor::Handle& tunnelFibTrace();

class TunnelFib;

// The key functions of the collections.
struct FibEntryKeyOf {
   TunnelId operator()(const TunnelFibEntry& e) const noexcept { return e.tunnelId(); }
};
struct EncapKeyOf {
   template <class Encap>
   EncapId operator()(const Encap& e) const noexcept {
      return e.encapId();
   }
};

// One shared-memory collection of the FIB: its store, its attribute and its notification count.
template <class Key, class Value, class KeyOf>
class FibCollection {
  public:
   FibCollection(TunnelFib& fib, const char* name, const TunnelTable::TableType& type,
                 Vela::AttributeId attr);

   void is(const Value& value);
   Value del(const Key& key);
   void delAll();
   void directIs(const Key& key) { store_.directIs(key); }
   void commit(const Value* value);
   void notify(const Key& key);
   void notifyQuiesced(bool quiesced);
   void notifyMountStatus();

   Value get(const Key& key) const { return getIf(key).value_or(Value()); }
   std::optional<Value> getIf(const Key& key) const { return store_.record(key); }
   bool has(const Key& key) const { return getIf(key).has_value(); }
   std::vector<Key> keys() const { return store_.keys(); }
   uint32_t count() const { return store_.recordCount(); }
   uint64_t notifications() const noexcept { return notifications_; }

   const Vela::Ptr<VelaDock::CollectionControl>& control() const noexcept {
      return store_.control();
   }
   Vela::Ptr<VelaDock::CollectionControl> controlRelease() { return store_.controlRelease(); }
   TunnelTable::StoreCollection<Key, Value, KeyOf>& store() noexcept { return store_; }
   const TunnelTable::StoreCollection<Key, Value, KeyOf>& store() const noexcept { return store_; }

  private:
   TunnelFib& fib_;
   const Vela::AttributeId attr_;
   TunnelTable::StoreCollection<Key, Value, KeyOf> store_;
   uint64_t notifications_ = 0;
};

// The named operations of one collection P over FibCollection member P##_.
#define TUNNEL_FIB_COLLECTION(P, Key, Value)                                   \
   void P##Is(const Value& value) {                                            \
      P##_.is(value);                                                          \
   }                                                                           \
   Value P##Del(const Key& key) {                                              \
      return P##_.del(key);                                                    \
   }                                                                           \
   void P##DelAll() {                                                          \
      P##_.delAll();                                                           \
   }                                                                           \
   void P##DirectIs(const Key& key) {                                          \
      P##_.directIs(key);                                                      \
   }                                                                           \
   void P##Commit(const Value* value) {                                        \
      P##_.commit(value);                                                      \
   }                                                                           \
   void P##Notify(const Key& key) {                                            \
      P##_.notify(key);                                                        \
   }                                                                           \
   void P##NotifyQuiesced(bool quiesced) {                                     \
      P##_.notifyQuiesced(quiesced);                                           \
   }                                                                           \
   void P##NotifyMountStatus() {                                               \
      P##_.notifyMountStatus();                                                \
   }                                                                           \
   Value P(const Key& key) const {                                             \
      return P##_.get(key);                                                    \
   }                                                                           \
   std::optional<Value> P##If(const Key& key) const {                          \
      return P##_.getIf(key);                                                  \
   }                                                                           \
   bool P##Has(const Key& key) const {                                         \
      return P##_.has(key);                                                    \
   }                                                                           \
   std::vector<Key> P##Keys() const {                                          \
      return P##_.keys();                                                      \
   }                                                                           \
   uint32_t P##Count() const {                                                 \
      return P##_.count();                                                     \
   }                                                                           \
   uint64_t P##Notifications() const noexcept {                                \
      return P##_.notifications();                                             \
   }                                                                           \
   const Vela::Ptr<VelaDock::CollectionControl>& P##Control() const noexcept { \
      return P##_.control();                                                   \
   }

class TunnelFib final : public TunnelTable::StoreEntity {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelFib::TunnelFib";
   static constexpr std::array<const char*, 5> kCollections{
       "greEncap", "ipsecVtiEncap", "ipsecGreEncap", "labelStackEncap", "entry"};
   // The operations the type registry lists for the type.
   static const std::vector<Vela::String>& operationNames();

   class TunnelFibZeroReferencesNotifiee final : public Vela::Entity::ZeroReferencesNotifiee {
     public:
      explicit TunnelFibZeroReferencesNotifiee(TunnelFib* fib) : fib_(fib) {}
      void onZeroReferences(Vela::Entity* entity) override;

     private:
      TunnelFib* fib_;
   };

   explicit TunnelFib(const Vela::String& name);
   ~TunnelFib() override;
   std::string_view fwkTypeName() const override { return kTypeName; }

   TUNNEL_FIB_COLLECTION(entry, TunnelId, TunnelFibEntry)
   TUNNEL_FIB_COLLECTION(labelStackEncap, EncapId, LabelStackEncap)
   TUNNEL_FIB_COLLECTION(ipsecGreEncap, EncapId, IpsecGreEncap)
   TUNNEL_FIB_COLLECTION(ipsecVtiEncap, EncapId, IpsecVtiEncap)
   TUNNEL_FIB_COLLECTION(greEncap, EncapId, GreEncap)

   // ---- vxlanEncap: process-local, never in shared memory, usable in any mode ----
   // Stores the value under its key and notifies; an equal value already stored changes nothing
   // and notifies nobody.
   void vxlanEncapIs(const VxlanEncap& encap);
   // Removes and returns the value, notifying; the default value, silently, when absent.
   VxlanEncap vxlanEncapDel(const EncapId& key);
   void vxlanEncapDelAll();
   bool vxlanEncapHas(const EncapId& key) const { return vxlanEncap_.count(key) != 0; }
   // The value, or the default value when absent.
   VxlanEncap vxlanEncap(const EncapId& key) const;
   const std::unordered_map<EncapId, VxlanEncap>& vxlanEncaps() const noexcept {
      return vxlanEncap_;
   }

  private:
   template <class, class, class>
   friend class FibCollection;

   FibCollection<EncapId, GreEncap, EncapKeyOf> greEncap_;
   FibCollection<EncapId, IpsecVtiEncap, EncapKeyOf> ipsecVtiEncap_;
   FibCollection<EncapId, IpsecGreEncap, EncapKeyOf> ipsecGreEncap_;
   FibCollection<EncapId, LabelStackEncap, EncapKeyOf> labelStackEncap_;
   FibCollection<TunnelId, TunnelFibEntry, FibEntryKeyOf> entry_;
   std::unordered_map<EncapId, VxlanEncap> vxlanEncap_;
};

#undef TUNNEL_FIB_COLLECTION

// A new, empty TunnelFib with notifications on; registered under TunnelFib::kTypeName.
Vela::Ptr<TunnelFib> tunnelFibFactory(const Vela::String& name);
Vela::Ptr<TunnelFib> TunnelFibIs(const Vela::String& name);

// Mounts the FIB at kTunnelFibPath: as its writer (every collection starting at `sizing` slots)
// or as a key-shadowing reader. Throws as the mount service does.
Vela::Ptr<TunnelFib> mountTunnelFib(Vault::MountService& service, bool writer,
                                    Loom::EventLoop& loop, uint32_t sizing = 1024);

}  // namespace Tunnel::TunnelFib
