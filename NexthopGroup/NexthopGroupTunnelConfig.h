// Tunnel::NexthopGroup::Config: the configured nexthop-group tunnels, one
// NexthopGroupTunnelConfigEntry per endpoint prefix. The nexthop-group tunnel table is filled
// from it.
//
// Entries are stored by value and compared by content: setting an entry equal to the stored one is
// silent, any other change replaces it. Observers hear "entry" (386) with a pointer to the prefix
// on every insertion, replacement and removal; entryDelAll removes one by one, each notified.
//
// Published in the store (mounted at kNexthopGroupConfigPath unless an agent says otherwise): one
// record per entry, the entry itself. Its writer changes the map, writes the record, then
// notifies. A reader's copy applies each arriving record through the same code, so its observers
// hear what the writer's heard, and its public operations assert.
#pragma once

#include <array>
#include <optional>
#include <unordered_map>

#include "NexthopGroup/NexthopGroupTunnelConfigEntry.h"
#include "TunnelTable/StoreEntity.h"

namespace Tunnel::NexthopGroup {

inline constexpr const char* kNexthopGroupConfigPath = "tunnel/nexthopGroup/config";

class Config : public TunnelTable::StoreEntity {
  public:
   static constexpr const char* kTypeName = "Tunnel::NexthopGroup::Config";
   static constexpr std::array<const char*, 1> kCollections{"entry"};
   using EntryMap = std::unordered_map<Wirekit::IpGenPrefix, NexthopGroupTunnelConfigEntry,
                                       std::hash<Wirekit::IpGenPrefix>>;

   explicit Config(const Vela::String& name);
   std::string_view fwkTypeName() const override { return kTypeName; }
   std::string_view fwkType() const noexcept { return kTypeName; }

   // The entry of `endpoint`, or nothing.
   std::optional<NexthopGroupTunnelConfigEntry> entry(const Wirekit::IpGenPrefix& endpoint) const;
   const EntryMap& entries() const noexcept { return entries_; }
   // Inserts the entry under its endpoint, or replaces a stored one that differs from it.
   void entryIs(const NexthopGroupTunnelConfigEntry& entry);
   // Removes the entry of `endpoint` and returns it; the default entry when there was none.
   NexthopGroupTunnelConfigEntry entryDel(const Wirekit::IpGenPrefix& endpoint);
   void entryDelAll();

   // Mounted as writer, also makes the store hold exactly this configuration: records an earlier
   // writer left are removed, and what the map holds is written.
   void handleParent(const Vela::Ptr<Vela::Entity>& parent) override;

  private:
   void entrySet(const NexthopGroupTunnelConfigEntry& entry, bool publish);
   NexthopGroupTunnelConfigEntry entryRemove(const Wirekit::IpGenPrefix& endpoint, bool publish);
   // Reader: the record of `endpoint` arrived, changed or went.
   void entryArrived(const Wirekit::IpGenPrefix& endpoint);

   EntryMap entries_;
   TunnelTable::StoreCollection<Wirekit::IpGenPrefix, NexthopGroupTunnelConfigEntry,
                                NexthopGroupTunnelConfigEntryKeyOf>
       entryRecords_{kCollections[0], nexthopGroupTunnelConfigEntryType};
};

// A new, empty Config with notifications on.
Vela::Ptr<Config> configFactory(const Vela::String& name);
Vela::Ptr<Config> ConfigIs(const Vela::String& name);

}  // namespace Tunnel::NexthopGroup
