// The redistribution commands: `redist` shows the redistribution configurations as another
// process reads them; `redistributor` runs the redistribution agent (RedistAgent.h).
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <iostream>

#include "Agent.h"
#include "Commands.h"
#include "EntryJson.h"
#include "RedistAgent.h"
#include "Region/StoreRoot.h"
#include "StrictJson.h"
#include "store/format/Layout.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;
namespace TR = Tunnel::TunnelRedist;

namespace {

std::string tunnelText(const TT::TunnelId& id) {
   return std::string(TT::tunnelTypeName(id.tunnelType())) + " index " +
          std::to_string(id.tunnelIndex());
}

// The entries of a config sorted by prefix, each with its members sorted by tunnel id.
using Members = std::vector<TR::TunnelInfo>;
std::vector<std::pair<Wirekit::IpGenPrefix, Members>> sortedEntries(
    const TR::TunnelRedistConfig& config) {
   std::vector<std::pair<Wirekit::IpGenPrefix, Members>> out;
   for (const auto& [prefix, entry] : config.entries()) {
      Members m;
      for (const auto& [id, info] : entry->memberTunnelInfos()) m.push_back(info);
      std::sort(m.begin(), m.end(), [](const auto& a, const auto& b) {
         return a.tunnelId().value() < b.tunnelId().value();
      });
      out.emplace_back(prefix, std::move(m));
   }
   std::sort(out.begin(), out.end(),
             [](const auto& a, const auto& b) { return a.first < b.first; });
   return out;
}

}  // namespace

int runRedist(std::ostream& out, const std::string& name, bool json) {
   std::vector<std::string> names;
   if (name.empty()) {
      names = {kLdpRedistConfig, kBgpLuRedistConfig};
   } else if (name == kLdpRedistConfig || name == kBgpLuRedistConfig) {
      names = {name};
   } else {
      throw UsageError("no redistribution configuration '" + name + "' (ldp or bgpLu)");
   }
   Agent agent;
   std::vector<Vela::Ptr<TR::TunnelRedistConfig>> copies;
   for (const std::string& n : names) {
      const std::string slots =
          Region::tableDirectory(Region::storeRoot(),
                                 Region::tableName(TR::tunnelRedistConfigPath(n), "entry")) +
          "/" + Dock::kSlotsFile;
      struct stat st;
      if (::stat(slots.c_str(), &st) != 0) {
         std::cerr << "tunnelctl: redistribution configuration " << n
                   << " is not published (is a redistributor running?)\n";
         return 1;
      }
      copies.push_back(TR::mountTunnelRedistConfig(agent.service(), n, false, agent.loop()));
   }
   const bool synced = agent.runUntil(
       [&] {
          return std::all_of(copies.begin(), copies.end(),
                             [](const auto& c) { return c->synchronized(); });
       },
       std::chrono::seconds(10));
   if (!synced) {
      std::cerr << "tunnelctl: the redistribution configurations did not synchronize\n";
      return 1;
   }
   if (json) {
      Json configs = Json::array();
      for (const auto& c : copies) {
         Json entries = Json::array();
         for (const auto& [prefix, members] : sortedEntries(*c)) {
            Json list = Json::array();
            for (const TR::TunnelInfo& m : members) {
               list.push_back({{"tunnelId", tunnelIdJson(m.tunnelId())},
                               {"igpMetric", m.igpMetric()},
                               {"text", m.stringValue()}});
            }
            entries.push_back({{"tep", prefix.stringValue()}, {"members", std::move(list)}});
         }
         configs.push_back({{"name", c->name()},
                            {"path", TR::tunnelRedistConfigPath(c->name())},
                            {"entries", std::move(entries)}});
      }
      out << dumpJson(Json{{"configs", std::move(configs)}}, 2) << "\n";
      return 0;
   }
   for (const auto& c : copies) {
      const auto entries = sortedEntries(*c);
      out << "TunnelRedistConfig " << c->name() << ": " << entries.size() << " entries\n";
      for (const auto& [prefix, members] : entries) {
         out << "  " << prefix.stringValue() << "\n";
         for (const TR::TunnelInfo& m : members) {
            out << "    " << tunnelText(m.tunnelId()) << " igpMetric " << m.igpMetric() << "\n";
         }
      }
   }
   return 0;
}

int runRedistributor(std::ostream& out, double seconds) {
   Agent agent;
   RedistAgent redist(agent);
   bool stop = false;
   agent.signalsIs({SIGINT, SIGTERM}, [&](int) { stop = true; });
   out << "redistributor: following ldp and bgpLu, writing " << TR::tunnelRedistConfigPath("ldp")
       << " and " << TR::tunnelRedistConfigPath("bgpLu") << std::endl;
   const auto deadline =
       std::chrono::steady_clock::now() + std::chrono::milliseconds(int64_t(seconds * 1000));
   bool reported = false;
   const auto done = [&] {
      const bool synced = redist.synchronized();
      if (synced && !reported) {
         out << "redistributor: synchronized: " << redist.ldpConfig().entrySize()
             << " ldp endpoints, " << redist.bgpLuConfig().entrySize() << " bgpLu endpoints"
             << std::endl;
      }
      reported = synced;
      return stop || (seconds > 0 && std::chrono::steady_clock::now() >= deadline);
   };
   for (;;) {
      // A table entry the machines cannot read (the size error) fails only that notification:
      // the agent says so and goes on.
      try {
         agent.runUntil(done, std::chrono::hours(24 * 365));
         return 0;
      } catch (const std::exception& e) {
         std::cerr << "tunnelctl: redistributor: " << e.what() << "\n";
      }
   }
}

}  // namespace TunnelCtl
