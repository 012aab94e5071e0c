#include "TunnelRedist/TunnelRedistConfigSm.h"

#include "TunnelTable/TunnelId.h"

namespace Tunnel::TunnelRedist {

Spoor::Handle& tunnelRedistTrace() {
   static Spoor::Handle& h = Spoor::handle("TunnelRedist");
   return h;
}

namespace {
constexpr int kLevel = 8;
}

TunnelRedistConfigSm::TunnelRedistConfigSm(Vela::Ptr<TunnelRedistConfig> config,
                                           const Signatures& signatures)
    : signatures_(signatures), config_(std::move(config)) {}

void TunnelRedistConfigSm::initialize() {
   initialized_ = true;
   handleTunnelEntry();
}

std::optional<TunnelIdToEndPoint> TunnelRedistConfigSm::tidToTep(const TunnelId& tunnelId) const {
   auto it = tidToTep_.find(tunnelId);
   if (it == tidToTep_.end()) return std::nullopt;
   return it->second;
}

TunnelIdToEndPoint TunnelRedistConfigSm::tidToTepDel(const TunnelId& tunnelId) {
   auto it = tidToTep_.find(tunnelId);
   if (it == tidToTep_.end()) return TunnelIdToEndPoint();
   const TunnelIdToEndPoint removed = it->second;
   tidToTep_.erase(it);
   return removed;
}

void TunnelRedistConfigSm::handleTunnelEntry() {
   SPOOR_TRACE(tunnelRedistTrace(), kLevel, "{}", signatures_.handleTunnelEntryAll);
   config_->entryDelAll();
   for (const TunnelId& tunnelId : tunnelIds()) handleTunnelEntry(tunnelId);
}

void TunnelRedistConfigSm::handleTunnelEntry(const TunnelId& tunnelId) {
   if (!initialized_) return;
   const char* sig = signatures_.handleTunnelEntry;
   const std::optional<TunnelEnd> end = tunnelEnd(tunnelId);
   const std::optional<TunnelIdToEndPoint> filed = tidToTep(tunnelId);
   if (!end) {
      if (filed) {
         tidToTepDel(tunnelId);
         delTunnelRedistConfig(filed->tep(), tunnelId);
      }
      return;
   }
   const Wirekit::IpGenPrefix& tep = end->tep;
   if (filed && *filed == TunnelIdToEndPoint(tunnelId, tep)) {
      sameEndPoint(tep, tunnelId, end->igpMetric);
      return;
   }
   if (filed) {
      SPOOR_TRACE(tunnelRedistTrace(), kLevel, "{} tunnelId:{} replace tep new:{} old:{}", sig,
                  TunnelTable::valueToStrep(tunnelId), tep.stringValue(),
                  filed->tep().stringValue());
      delTunnelRedistConfig(filed->tep(), tunnelId);
   }
   tidToTepIs(TunnelIdToEndPoint(tunnelId, tep));
   add(tep, tunnelId, end->igpMetric);
}

void TunnelRedistConfigSm::fileMember(const Wirekit::IpGenPrefix& tep, const TunnelInfo& info) {
   SPOOR_TRACE(tunnelRedistTrace(), kLevel, "{} tunnelId:{} tep:{}", signatures_.add,
               TunnelTable::valueToStrep(info.tunnelId()), tep.stringValue());
   config_->entryIs(tep)->memberTunnelInfoIs(info);
}

void TunnelRedistConfigSm::delTunnelRedistConfig(const Wirekit::IpGenPrefix& tep,
                                                 const TunnelId& tunnelId) {
   Vela::Ptr<TunnelRedistEntry> entry = config_->entry(tep);
   if (!entry) return;
   SPOOR_TRACE(tunnelRedistTrace(), kLevel, "{} del tunnelId:{}", signatures_.del,
               TunnelTable::valueToStrep(tunnelId));
   SPOOR_TRACE(tunnelRedistTrace(), kLevel, "{} del tep:{}", signatures_.del, tep.stringValue());
   entry->memberTunnelInfoDel(tunnelId);
   if (entry->memberTunnelInfoSize() == 0) config_->entryDel(tep);
}

void TunnelRedistConfigSm::handleDelete() {
   SPOOR_TRACE(tunnelRedistTrace(), kLevel, "{}", signatures_.handleDelete);
   stopFollowing();
}

}  // namespace Tunnel::TunnelRedist
