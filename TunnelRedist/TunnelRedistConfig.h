// The redistribution configuration: per end point prefix (a TunnelRedistEntry), the tunnels that
// reach it with the IGP metric to redistribute (TunnelInfo members keyed by TunnelId). It is
// written by the redistribution state machines and read by the redistributing protocol, usually
// in another process: mounted at "tunnel/redist/<name>" (mountTunnelRedistConfig), each member is
// a record of the store (TunnelRedistMember.h) and a reader's copy rebuilds the entries from them,
// telling its observers as the writer's were told.
//
// Notifications: the config's observers hear "entry" (386) with the prefix when an entry is made
// or removed; an entry's observers hear "memberTunnelInfo" (394) with the tunnel id when a member
// is added, changed or removed. Setters notify only on a change, deleters only on a removal.
//
// An entry belongs to its config while the config holds it: its member changes are published
// through the config. A removed entry keeps its members but publishes nothing more.
#pragma once

#include <array>
#include <optional>
#include <unordered_map>

#include "TunnelRedist/TunnelInfo.h"
#include "TunnelRedist/TunnelRedistMember.h"
#include "TunnelTable/StoreEntity.h"
#include "Vela/Entity.h"

namespace Tunnel::TunnelRedist {

inline constexpr Vela::AttributeId attrMemberTunnelInfo{394};

class TunnelRedistConfig;

class TunnelRedistEntry : public Vela::Entity {
  public:
   using MemberMap = std::unordered_map<TunnelId, TunnelInfo>;

   TunnelRedistEntry(const Wirekit::IpGenPrefix& prefix, TunnelRedistConfig* config);

   const Wirekit::IpGenPrefix& prefix() const noexcept { return prefix_; }
   std::string_view fwkTypeName() const override {
      return "Tunnel::TunnelRedist::TunnelRedistEntry";
   }

   // The member of `tunnelId`, or nothing.
   std::optional<TunnelInfo> memberTunnelInfo(const TunnelId& tunnelId) const;
   const MemberMap& memberTunnelInfos() const noexcept { return members_; }
   size_t memberTunnelInfoSize() const noexcept { return members_.size(); }

   // Inserts the member under its tunnelId, or replaces the stored one.
   void memberTunnelInfoIs(const TunnelInfo& info);
   // Removes the member and returns it; the default TunnelInfo when there was none.
   TunnelInfo memberTunnelInfoDel(const TunnelId& tunnelId);
   void memberTunnelInfoDelAll();

  private:
   friend class TunnelRedistConfig;
   void memberSet(const TunnelInfo& info, bool publish);
   TunnelInfo memberRemove(const TunnelId& tunnelId, bool publish);
   void requireWritable(const char* operation) const;

   Wirekit::IpGenPrefix prefix_;
   TunnelRedistConfig* config_;  // the owner while it holds this entry, else null
   MemberMap members_;
};

class TunnelRedistConfig : public TunnelTable::StoreEntity {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelRedist::TunnelRedistConfig";
   static constexpr std::array<const char*, 1> kCollections{"entry"};
   using EntryMap = std::unordered_map<Wirekit::IpGenPrefix, Vela::Ptr<TunnelRedistEntry>>;

   explicit TunnelRedistConfig(const Vela::String& name);
   ~TunnelRedistConfig() override;
   std::string_view fwkTypeName() const override { return kTypeName; }

   // The entry of `prefix`, or null.
   Vela::Ptr<TunnelRedistEntry> entry(const Wirekit::IpGenPrefix& prefix) const;
   const EntryMap& entries() const noexcept { return entries_; }
   size_t entrySize() const noexcept { return entries_.size(); }

   // The entry of `prefix`, made empty (and announced) when there is none.
   Vela::Ptr<TunnelRedistEntry> entryIs(const Wirekit::IpGenPrefix& prefix);
   // Removes the entry with its members and returns it; null when there was none.
   Vela::Ptr<TunnelRedistEntry> entryDel(const Wirekit::IpGenPrefix& prefix);
   void entryDelAll();

   // Mounted as writer, also makes the store hold exactly this configuration: members an earlier
   // writer left (its process is gone, and so is what it knew) are removed, the config's own
   // written.
   void handleParent(const Vela::Ptr<Vela::Entity>& parent) override;

   // The published members, for tools: the store's records in its order.
   std::vector<TunnelRedistMember> publishedMembers() const { return members_.records(); }

  private:
   friend class TunnelRedistEntry;
   Vela::Ptr<TunnelRedistEntry> entryMake(const Wirekit::IpGenPrefix& prefix);
   Vela::Ptr<TunnelRedistEntry> entryRemove(const Wirekit::IpGenPrefix& prefix, bool publish);
   // Reader: a member record arrived, changed or went.
   void memberArrived(const TunnelRedistMemberKey& key);

   EntryMap entries_;
   TunnelTable::StoreCollection<TunnelRedistMemberKey, TunnelRedistMember, TunnelRedistMemberKeyOf>
       members_{"entry", tunnelRedistMemberType};
};

Vela::Ptr<TunnelRedistConfig> tunnelRedistConfigFactory(const Vela::String& name);
Vela::Ptr<TunnelRedistConfig> TunnelRedistConfigIs(const Vela::String& name);

// "tunnel/redist/<name>": where an agent that gives no other path mounts the config named `name`.
Vela::String tunnelRedistConfigPath(const Vela::String& name);
// Mounts the config at tunnelRedistConfigPath(name), as its writer or as a reader's copy.
Vela::Ptr<TunnelRedistConfig> mountTunnelRedistConfig(Vault::MountService& service,
                                                      const Vela::String& name, bool writer,
                                                      Loom::EventLoop& loop);

}  // namespace Tunnel::TunnelRedist
