// The tunnel RIB commands: `rib` shows a RIB as a key-shadowing reader in this process sees it;
// `rib-builder` runs the RIB builder, with its candidate tree export, as an agent of its own.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "Agent.h"
#include "Commands.h"
#include "EntryJson.h"
#include "StrictJson.h"
#include "TunnelRib/CliTunnelRibExport.h"
#include "TunnelRib/TunnelRibBuilder.h"
#include "store/reader/DockShadow.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;
using json = nlohmann::ordered_json;

namespace {

json endpointJson(const TT::ColoredTunnelEndpoint& c) {
   return {{"tep", c.tep().stringValue()}, {"color", c.color()}, {"isColored", c.isColored()}};
}

json entryJson(const TT::TunnelRibEntry& e) {
   json tunnels = json::array();
   for (uint32_t i = 0; i < e.tunnelId().count(); ++i) {
      const TT::TunnelId id = e.tunnelId()[TT::TunnelIdCollIndex(uint16_t(i))];
      json t = {{"tunnelId", tunnelIdJson(id)}};
      if (i < e.tunnelBw().count()) {
         t["bandwidth"] = e.tunnelBw()[TT::TunnelIdCollIndex(uint16_t(i))].value();
      } else {
         t["bandwidth"] = nullptr;
      }
      tunnels.push_back(std::move(t));
   }
   return {{"coloredTep", endpointJson(e.coloredTep())},
           {"metric", e.metric()},
           {"metricType", Wirekit::valueToStrep(e.metricType())},
           {"metric2", e.metric2()},
           {"pref", e.pref()},
           {"pref2", e.pref2()},
           {"entryPref", e.entryPref()},
           {"entryMetric", e.entryMetric()},
           {"tunnels", std::move(tunnels)},
           {"text", TT::valueToStrep(e)}};
}

template <class Table>
int showRib(std::ostream& out, const std::optional<Wirekit::IpGenPrefix>& endpoint, bool json) {
   Agent agent;
   Vela::Ptr<Table> rib = agent.mounter().template mountKeyshadowOf<Table>();
   if (!rib) throw std::runtime_error("the RIB is mounted here as another type");
   const bool synced = agent.runUntil(
       [&] {
          const auto s = Dock::ReaderState(rib->storeMountStatus());
          return s == Dock::ReaderState::kSynchronized || s == Dock::ReaderState::kQuiesced;
       },
       std::chrono::seconds(10));
   if (!synced) {
      std::cerr << "tunnelctl: " << Table::kTableType.mountName
                << " did not synchronize (is a RIB builder running?)\n";
      return 1;
   }
   std::vector<TT::TunnelRibEntry> entries;
   typename Table::Cursor c = rib->tunnelRibEntrys();
   TT::TunnelRibEntry e;
   while (c.next(e)) {
      if (!endpoint || e.tep() == *endpoint) entries.push_back(e);
   }
   std::sort(entries.begin(), entries.end(),
             [](const auto& a, const auto& b) { return a.coloredTep() < b.coloredTep(); });
   if (json) {
      nlohmann::ordered_json list = nlohmann::ordered_json::array();
      for (const auto& x : entries) list.push_back(entryJson(x));
      out << dumpJson(Json{{"rib", Table::kTableType.mountName}, {"entries", std::move(list)}}, 2)
          << "\n";
      return 0;
   }
   Vela::String text;
   if (!endpoint) {
      rib->dumpState(text, 0);
   } else {
      for (const auto& x : entries) x.dumpState(text, 0);
      if (entries.empty()) {
         std::cerr << "tunnelctl: no entry for " << endpoint->stringValue() << " in "
                   << Table::kTableType.mountName << "\n";
         return 1;
      }
   }
   out << text;
   return 0;
}

}  // namespace

int runRib(std::ostream& out, bool colored, const std::string& endpoint, bool json,
           bool candidates) {
   std::optional<Wirekit::IpGenPrefix> prefix;
   if (!endpoint.empty()) {
      try {
         prefix = Wirekit::IpGenPrefix(endpoint);
      } catch (const std::exception& e) {
         throw UsageError("bad ENDPOINT '" + endpoint + "': " + e.what());
      }
   }
   if (candidates) return runRibCandidates(out, colored, prefix, json);
   return colored ? showRib<TT::ColoredTunnelRib>(out, prefix, json)
                  : showRib<TT::TunnelRib>(out, prefix, json);
}

int runRibBuilder(std::ostream& out, double seconds) {
   Agent agent;
   TT::TunnelRibBuilder builder(agent.mounter());
   TT::CliTunnelRibExport cli(builder);
   bool stop = false;
   agent.signalsIs({SIGINT, SIGTERM}, [&](int) { stop = true; });
   out << "rib-builder: reading " << builder.sourceCount() << " tunnel tables, writing "
       << TT::tunnelRibType.path << ", " << TT::coloredTunnelRibType.path
       << " and the candidate tree " << TT::kCliTunnelRibStore << std::endl;
   bool reported = false;
   const auto deadline =
       std::chrono::steady_clock::now() + std::chrono::milliseconds(int64_t(seconds * 1000));
   agent.runUntil(
       [&] {
          if (!reported && builder.settled()) {
             reported = true;
             out << "rib-builder: settled: " << builder.tunnelRib()->entryCount() << " endpoints, "
                 << builder.coloredTunnelRib()->entryCount() << " colored endpoints" << std::endl;
          }
          if (!builder.settled()) reported = false;
          return stop || (seconds > 0 && std::chrono::steady_clock::now() >= deadline);
       },
       std::chrono::hours(24 * 365));
   return 0;
}

}  // namespace TunnelCtl
