// Tunnel::Decap::Config: the decapsulation configuration. It holds the configured decap groups by
// name, the global table of the payload type carried behind each destination port, and the ready
// flag its writer sets once both are filled.
//
// Notifications carry the attribute and a pointer to the key: "globalDestPortToPayloadType" (395)
// with the port (uint16_t), "decapGroup" (396) with the group name (Vela::String), "ready" (397)
// with no key. Setters notify only on a change, deleters only on a removal; DelAll removes one by
// one, each removal notified. Groups are replaced by identity: the same object again is silent, a
// new object equal in content replaces the stored one and notifies, since groups are immutable
// and a new object means a new configuration.
//
// Published in the store (mounted at kDecapConfigPath unless an agent says otherwise), one
// collection per attribute. Its writer changes a map, writes the record, then notifies. A reader's
// copy applies each arriving record through the same code, so its observers hear what the
// writer's heard, and its public operations assert. A reader's ready stays false until every
// collection has synchronized, so a reader that sees ready holds the configuration as it was
// loaded when the reader attached. The collections are separate stores: changes the writer makes
// after that can reach a reader in any order across collections.
#pragma once

#include <array>
#include <optional>
#include <unordered_map>

#include "Decap/DecapGroupRecord.h"
#include "Decap/DestPortRecord.h"
#include "Decap/ReadyRecord.h"
#include "TunnelTable/StoreEntity.h"

namespace Tunnel::Decap {

inline constexpr Vela::AttributeId attrGlobalDestPortToPayloadType{395};
inline constexpr Vela::AttributeId attrDecapGroup{396};
inline constexpr Vela::AttributeId attrReady{397};

inline constexpr const char* kDecapConfigPath = "tunnel/decap/config";

// Asserts "fwkKey() == KeyFunktor()( _value )" unless `fwkKey` is the name held in `value`: the
// invariant of the group map, checked whenever a stored group is replaced.
void checkDecapGroupKey(const Vela::String& fwkKey, const DecapGroup& value);

class Config : public TunnelTable::StoreEntity {
  public:
   static constexpr const char* kTypeName = "Tunnel::Decap::Config";
   static constexpr std::array<const char*, 3> kCollections{"globalDestPortToPayloadType",
                                                            "decapGroup", "ready"};
   using PortMap = std::unordered_map<uint16_t, PayloadType>;
   using GroupMap = std::unordered_map<Vela::String, Vela::Ptr<const DecapGroup>>;

   explicit Config(const Vela::String& name);
   std::string_view fwkTypeName() const override { return kTypeName; }
   std::string_view fwkType() const noexcept { return kTypeName; }

   // ---- globalDestPortToPayloadType ----
   // The payload type of `port`, or nothing.
   std::optional<PayloadType> globalDestPortToPayloadType(uint16_t port) const;
   const PortMap& globalDestPortToPayloadTypes() const noexcept { return ports_; }
   void globalDestPortToPayloadTypeIs(uint16_t port, PayloadType payloadType);
   // Removes the port and returns its payload type; PayloadType::unknown when it was absent.
   PayloadType globalDestPortToPayloadTypeDel(uint16_t port);
   void globalDestPortToPayloadTypeDelAll();

   // ---- decapGroup ----
   // The group named `name`, or null.
   Vela::Ptr<const DecapGroup> decapGroup(const Vela::String& name) const;
   const GroupMap& decapGroups() const noexcept { return groups_; }
   // Inserts the group under its name or replaces the stored pointer. Throws
   // Vela::NullArgumentException for a null group; nothing changes then.
   void decapGroupIs(const Vela::Ptr<const DecapGroup>& group);
   // Removes the group and returns it; null when there was none.
   Vela::Ptr<const DecapGroup> decapGroupDel(const Vela::String& name);
   void decapGroupDelAll();

   // ---- ready ----
   bool ready() const noexcept { return ready_; }
   void readyIs(bool ready);

   // Mounted as writer, also makes the store hold exactly this configuration: records an earlier
   // writer left are removed, and what the maps hold is written.
   void handleParent(const Vela::Ptr<Vela::Entity>& parent) override;

  private:
   void portSet(uint16_t port, PayloadType payloadType, bool publish);
   PayloadType portRemove(uint16_t port, bool publish);
   void groupSet(const Vela::Ptr<const DecapGroup>& group, bool publish);
   Vela::Ptr<const DecapGroup> groupRemove(const Vela::String& name, bool publish);
   void readySet(bool ready, bool publish);
   // Reader: the records of a key arrived, changed or went.
   void portArrived(uint16_t port);
   void groupArrived(const DecapGroupName& key);
   // Reader: ready is the writer's flag once every collection has synchronized.
   void readyFollow();
   // Writer at mount: the store made equal to the maps.
   void republish();

   PortMap ports_;
   GroupMap groups_;
   bool ready_ = false;
   TunnelTable::StoreCollection<uint16_t, DestPortRecord, DestPortRecordKeyOf> portRecords_{
       kCollections[0], destPortRecordType};
   TunnelTable::StoreCollection<DecapGroupName, DecapGroupRecord, DecapGroupRecordKeyOf>
       groupRecords_{kCollections[1], decapGroupRecordType};
   TunnelTable::StoreCollection<uint8_t, ReadyRecord, ReadyRecordKeyOf> readyRecord_{
       kCollections[2], readyRecordType};
};

// A new, empty Config with notifications on.
Vela::Ptr<Config> configFactory(const Vela::String& name);
Vela::Ptr<Config> ConfigIs(const Vela::String& name);

}  // namespace Tunnel::Decap
