// The configuration views: `decap` and `nexthop-group` show the decapsulation and nexthop-group
// tunnel configurations (a `publish` of a description with them writes them) as a reader in this
// process sees them.
#include <algorithm>
#include <iostream>

#include "Agent.h"
#include "Commands.h"
#include "Decap/DecapGroup.h"
#include "EntryJson.h"
#include "NexthopGroup/NexthopGroupTunnelConfig.h"
#include "StoreEntityReader.h"
#include "StrictJson.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

namespace {

// The configuration at `path` as a reader's copy (StoreEntityReader.h).
template <class Config>
Vela::Ptr<Config> readConfig(Agent& agent, const char* path, const char* what) {
   return readStoreEntity<Config>(agent, path, std::string("the ") + what + " configuration",
                                  "publish a description with it");
}

}  // namespace

int runDecap(std::ostream& out, bool json) {
   namespace D = Tunnel::Decap;
   Agent agent;
   auto config = readConfig<D::Config>(agent, D::kDecapConfigPath, "decap");
   if (!config) return 1;
   std::vector<Vela::Ptr<const D::DecapGroup>> groups;
   for (const auto& [name, g] : config->decapGroups()) groups.push_back(g);
   std::sort(groups.begin(), groups.end(),
             [](const auto& a, const auto& b) { return a->name() < b->name(); });
   std::vector<std::pair<uint16_t, D::PayloadType>> ports(
       config->globalDestPortToPayloadTypes().begin(),
       config->globalDestPortToPayloadTypes().end());
   std::sort(ports.begin(), ports.end());
   if (json) {
      Json g = Json::array();
      for (const auto& group : groups) {
         Json ips = Json::array();
         for (const auto& p : group->decapIps()) ips.push_back(p.stringValue());
         g.push_back({{"name", printableName(group->name())},
                      {"tunnelType", D::valueToStrep(group->tunnelType())},
                      {"decapIps", std::move(ips)},
                      {"forwardingVrf", printableName(group->forwardingVrf())},
                      {"text", D::valueToStrep(*group)}});
      }
      Json p = Json::array();
      for (const auto& [port, type] : ports) {
         p.push_back({{"port", port}, {"payloadType", D::valueToStrep(type)}});
      }
      out << dumpJson(Json{{"path", D::kDecapConfigPath},
                           {"ready", config->ready()},
                           {"decapGroups", std::move(g)},
                           {"globalDestPortToPayloadType", std::move(p)}},
                      2)
          << "\n";
      return 0;
   }
   out << "Decap config " << D::kDecapConfigPath << (config->ready() ? " (ready)" : " (not ready)")
       << ": " << groups.size() << " decap groups, " << ports.size() << " ports\n";
   for (const auto& group : groups) {
      out << "  group " << printableName(group->name()) << " "
          << D::valueToStrep(group->tunnelType()) << " vrf "
          << printableName(group->forwardingVrf()) << ":";
      for (const auto& p : group->decapIps()) out << " " << p.stringValue();
      out << "\n";
   }
   for (const auto& [port, type] : ports) {
      out << "  port " << port << " payload " << D::valueToStrep(type) << "\n";
   }
   return 0;
}

int runNexthopGroup(std::ostream& out, bool json) {
   namespace N = Tunnel::NexthopGroup;
   Agent agent;
   auto config = readConfig<N::Config>(agent, N::kNexthopGroupConfigPath, "nexthop-group");
   if (!config) return 1;
   std::vector<N::NexthopGroupTunnelConfigEntry> entries;
   for (const auto& [endpoint, e] : config->entries()) entries.push_back(e);
   std::sort(entries.begin(), entries.end(),
             [](const auto& a, const auto& b) { return a.endpoint() < b.endpoint(); });
   if (json) {
      Json list = Json::array();
      for (const auto& e : entries) {
         list.push_back({{"endpoint", e.endpoint().stringValue()},
                         {"nexthopGroup", printableName(e.nexthopGroupName())},
                         {"igpPref", e.igpPref()},
                         {"igpMetric", e.igpMetric()},
                         {"text", N::valueToStrep(e)}});
      }
      out << dumpJson(Json{{"path", N::kNexthopGroupConfigPath}, {"entries", std::move(list)}}, 2)
          << "\n";
      return 0;
   }
   out << "NexthopGroup config " << N::kNexthopGroupConfigPath << ": " << entries.size()
       << " tunnels\n";
   for (const auto& e : entries) {
      out << "  " << e.endpoint().stringValue() << " nexthop-group "
          << printableName(e.nexthopGroupName()) << " igpPref " << unsigned(e.igpPref())
          << " igpMetric " << e.igpMetric() << "\n";
   }
   return 0;
}

}  // namespace TunnelCtl
