// `rib --candidates`: the command-line tunnel RIB tree as this process reads it from the RIB
// builder's Pike store - per endpoint, every candidate class in presentation order with its
// tunnels, the first (the RIB's choice) marked with "*".
#include <chrono>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "Agent.h"
#include "Commands.h"
#include "EntryJson.h"
#include "Pike/PikeReader.h"
#include "StrictJson.h"
#include "TunnelRib/CliTunnelRibExport.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;
using json = nlohmann::ordered_json;

namespace {

std::string endpointText(const TT::ColoredTunnelEndpoint& c) {
   std::string s = c.tep().stringValue();
   if (c.isColored()) s += " color " + std::to_string(c.color());
   return s;
}

std::string tunnelText(const TT::TunnelId& id) {
   return id.typeCliStr() + " " + std::to_string(id.tunnelIndex());
}

std::vector<TT::TunnelId> sortedTunnels(const TT::InternalCliTunnelRibCandidate& c) {
   std::vector<TT::TunnelId> ids(c.tunnelId().begin(), c.tunnelId().end());
   std::sort(ids.begin(), ids.end());
   return ids;
}

json entryJson(const TT::InternalCliTunnelRibEntry& entry) {
   json candidates = json::array();
   bool first = true;
   for (const auto& id : entry.candidatesInOrder()) {
      json tunnels = json::array();
      for (const auto& t : sortedTunnels(*entry.candidates(id))) {
         tunnels.push_back({{"tunnelId", tunnelIdJson(t)}});
      }
      candidates.push_back({{"tunnelType", TT::valueToStrep(id.tunnelType())},
                            {"entryPref", id.entryPref()},
                            {"entryMetric", id.entryMetric()},
                            {"winner", first},
                            {"tunnels", std::move(tunnels)}});
      first = false;
   }
   const auto& c = entry.coloredTep();
   return {{"coloredTep",
            {{"tep", c.tep().stringValue()}, {"color", c.color()}, {"isColored", c.isColored()}}},
           {"candidates", std::move(candidates)}};
}

void entryText(std::ostream& out, const TT::InternalCliTunnelRibEntry& entry) {
   out << endpointText(entry.coloredTep()) << "\n";
   bool first = true;
   for (const auto& id : entry.candidatesInOrder()) {
      out << (first ? "  * " : "    ") << TT::tunnelTypeToCliStrep(id.tunnelType(), false)
          << " pref " << unsigned(id.entryPref()) << " metric " << id.entryMetric() << ":";
      const char* sep = " ";
      for (const auto& t : sortedTunnels(*entry.candidates(id))) {
         out << sep << tunnelText(t);
         sep = ", ";
      }
      out << "\n";
      first = false;
   }
}

}  // namespace

int runRibCandidates(std::ostream& out, bool colored,
                     const std::optional<Wirekit::IpGenPrefix>& endpoint, bool asJson) {
   Agent agent;
   Pike::PikeReader reader(TT::kCliTunnelRibStore, agent.loop());
   auto status = TT::tunnelPikeStatusFactory(TT::kCliTunnelRibRoot);
   reader.rootIs(*status);
   const char* ribName = colored ? "coloredTunnelRib" : "tunnelRib";
   Vela::Ptr<TT::InternalCliTunnelRib> rib;
   const bool found = agent.runUntil(
       [&] {
          if (!reader.synchronized()) return false;
          for (const auto& [id, r] : status->cliTunnelRibColl()) {
             if (r->name() == ribName) rib = r;
          }
          return rib != nullptr;
       },
       std::chrono::seconds(10));
   if (!found) {
      std::cerr << "tunnelctl: the candidate tree of " << ribName
                << " did not appear (is a RIB builder running?)\n";
      return 1;
   }
   std::vector<Vela::Ptr<TT::InternalCliTunnelRibEntry>> entries;
   for (const auto& [tep, entry] : rib->entry()) {
      if (!endpoint || tep.tep() == *endpoint) entries.push_back(entry);
   }
   std::sort(entries.begin(), entries.end(),
             [](const auto& a, const auto& b) { return a->coloredTep() < b->coloredTep(); });
   if (endpoint && entries.empty()) {
      std::cerr << "tunnelctl: no candidates for " << endpoint->stringValue() << " in " << ribName
                << "\n";
      return 1;
   }
   if (asJson) {
      json list = json::array();
      for (const auto& e : entries) list.push_back(entryJson(*e));
      out << dumpJson(
                 json{{"rib", ribName}, {"id", rib->id().value()}, {"endpoints", std::move(list)}},
                 2)
          << "\n";
      return 0;
   }
   out << ribName << " (id " << rib->id().value() << "): " << entries.size() << " endpoints\n";
   for (const auto& e : entries) entryText(out, *e);
   return 0;
}

}  // namespace TunnelCtl
