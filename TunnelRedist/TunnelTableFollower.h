// TunnelTableFollower<Table, Reactor>: the half of a redistribution machine that depends on its
// input table: it reads the table's entries and holds the nested reactor (Reactor, a
// Vela::Entity::Notifiee named after the table) that forwards the table's per-key notifications to
// handleTunnelEntry(tunnelId).
#pragma once

#include <optional>
#include <vector>

#include "TunnelRedist/TunnelRedistConfigSm.h"

namespace Tunnel::TunnelRedist {

template <class Table>
class TunnelTableFollower : public TunnelRedistConfigSm {
  public:
   // Forwards "entry" notifications of the table, key by key.
   class Reactor : public Vela::Entity::Notifiee {
     public:
      explicit Reactor(TunnelRedistConfigSm& sm) : sm_(sm) {}
      void onAttribute(Vela::AttributeId attr, const void* key) override {
         if (attr == Vela::attrEntry && key)
            sm_.handleTunnelEntry(*static_cast<const TunnelId*>(key));
      }

     private:
      TunnelRedistConfigSm& sm_;
   };

   const Vela::Ptr<Table>& table() const noexcept { return table_; }

  protected:
   TunnelTableFollower(Vela::Ptr<TunnelRedistConfig> config, Vela::Ptr<Table> table,
                       const Signatures& signatures)
       : TunnelRedistConfigSm(std::move(config), signatures), table_(std::move(table)) {
      table_->notifieeAdd(&reactor_);
   }
   ~TunnelTableFollower() override { stopFollowing(); }

   // A plain reader cannot tell the machine which keys changed.
   bool plainReader() const {
      const auto& control = table_->entryControl();
      return control && control->mode() == VelaDock::reader();
   }

   std::optional<TunnelEnd> tunnelEnd(const TunnelId& tunnelId) const override {
      const auto entry = table_->entryIf(tunnelId);
      if (!entry) return std::nullopt;
      return TunnelEnd{entry->tep(), metricOf(*entry)};
   }
   std::vector<TunnelId> tunnelIds() const override { return table_->entryKeys(); }
   void stopFollowing() override {
      if (following_) table_->notifieeDel(&reactor_);
      following_ = false;
   }
   virtual uint32_t metricOf(const typename Table::EntryType& entry) const = 0;

  private:
   Vela::Ptr<Table> table_;
   Reactor reactor_{*this};
   bool following_ = true;
};

}  // namespace Tunnel::TunnelRedist
