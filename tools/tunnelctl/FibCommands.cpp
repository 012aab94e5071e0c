// The tunnel FIB commands: `fib-builder` runs the FIB builder as an agent of its own; `fib` and
// `encap` show the FIB's entries and encapsulations as a reader in this process sees them.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <iostream>

#include "Agent.h"
#include "Commands.h"
#include "FibView.h"
#include "StrictJson.h"
#include "TunnelFib/TunnelFibBuilder.h"
#include "TunnelFib/TunnelResolutionClient.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;
namespace TF = Tunnel::TunnelFib;

namespace {

Json entryJson(const TF::TunnelFibEntry& e) {
   Json primary = Json::array(), backup = Json::array();
   for (const auto& v : e.tunnelVia()) primary.push_back(fibViaJson(v));
   for (const auto& v : e.backupTunnelVia()) backup.push_back(fibViaJson(v));
   return {{"tunnelId", tunnelIdJson(e.tunnelId())},
           {"arePrimaryViasUsable", e.arePrimaryViasUsable()},
           {"burnPrimaryVias", e.flags().burnPrimaryVias()},
           {"resetFailoverState", e.resetFailoverState()},
           {"seqNo", e.seqNo().value()},
           {"tunnelVia", std::move(primary)},
           {"backupTunnelVia", std::move(backup)},
           {"text", TF::valueToStrep(e)}};
}

// Primary vias, then backup vias ("backup ..."), separated by ", ".
std::vector<std::string> entryRow(const TF::TunnelFibEntry& e) {
   std::string vias;
   for (const auto& v : e.tunnelVia()) vias += (vias.empty() ? "" : ", ") + fibViaText(v);
   for (const auto& v : e.backupTunnelVia()) {
      vias += (vias.empty() ? "backup " : ", backup ") + fibViaText(v);
   }
   return {tunnelName(e.tunnelId()), e.arePrimaryViasUsable() ? "yes" : "no",
           std::to_string(e.tunnelVia().count()), std::to_string(e.backupTunnelVia().count()),
           vias.empty() ? "-" : vias};
}

// One entry in full: its fields, then every via with what its encapsulation holds.
void entryDetail(std::ostream& out, const TF::TunnelFib& fib, const TF::TunnelFibEntry& e) {
   out << tunnelName(e.tunnelId()) << " (tunnel id " << e.tunnelId().value() << ")\n"
       << "  arePrimaryViasUsable " << (e.arePrimaryViasUsable() ? "yes" : "no")
       << ", burnPrimaryVias " << (e.flags().burnPrimaryVias() ? "yes" : "no")
       << ", resetFailoverState " << unsigned(e.resetFailoverState()) << ", seqNo "
       << e.seqNo().value() << "\n";
   const auto vias = [&](const char* what, const TF::TunnelViaArray& a) {
      uint32_t i = 0;
      for (const auto& v : a) {
         out << "  " << what << " " << i++ << ": " << fibViaText(v);
         if (v.encapId().encapType() == TT::EncapType::vxlan) {
            out << " (held by the builder's process)";
         } else if (v.encapId().encapType() != TT::EncapType::none) {
            const auto content = encapContent(fib, v.encapId());
            out << " " << (content ? *content : "(not in the FIB)");
         }
         out << "\n";
      }
   };
   vias("primary", e.tunnelVia());
   vias("backup", e.backupTunnelVia());
}

// The encapsulation kinds `encap` shows, in its order.
struct EncapKind {
   const char* name;
   TT::EncapType type;
};
constexpr EncapKind kShownKinds[] = {{"labelStack", TT::EncapType::labelStack},
                                     {"gre", TT::EncapType::gre},
                                     {"ipsecGre", TT::EncapType::ipsecGre},
                                     {"ipsecVti", TT::EncapType::ipsecVti}};
constexpr const char* kVxlanNote =
    "VXLAN encapsulations are kept only in the FIB builder's own process; no other process can "
    "read them";

std::vector<TT::EncapId> encapKeys(const TF::TunnelFib& fib, TT::EncapType type) {
   std::vector<TT::EncapId> keys;
   switch (type) {
      case TT::EncapType::labelStack:
         keys = fib.labelStackEncapKeys();
         break;
      case TT::EncapType::gre:
         keys = fib.greEncapKeys();
         break;
      case TT::EncapType::ipsecGre:
         keys = fib.ipsecGreEncapKeys();
         break;
      case TT::EncapType::ipsecVti:
         keys = fib.ipsecVtiEncapKeys();
         break;
      default:
         break;
   }
   std::sort(keys.begin(), keys.end());
   return keys;
}

// {"encapId", "labelStack" or "tunnelInfo", "text"}; nothing when it went meanwhile.
std::optional<Json> encapJson(const TF::TunnelFib& fib, const TT::EncapId& id) {
   const auto with = [&](const char* field, Json value, Vela::String text) {
      return Json{{"encapId", encapIdJson(id)}, {field, std::move(value)}, {"text", text}};
   };
   switch (id.encapType()) {
      case TT::EncapType::labelStack:
         if (auto e = fib.labelStackEncapIf(id)) {
            return with("labelStack", labelOperationJson(e->labelStack()), TF::valueToStrep(*e));
         }
         break;
      case TT::EncapType::gre:
         if (auto e = fib.greEncapIf(id)) {
            return with("tunnelInfo", tunnelInfoJson(e->tunnelInfo()), TF::valueToStrep(*e));
         }
         break;
      case TT::EncapType::ipsecGre:
         if (auto e = fib.ipsecGreEncapIf(id)) {
            return with("tunnelInfo", tunnelInfoJson(e->tunnelInfo()), TF::valueToStrep(*e));
         }
         break;
      case TT::EncapType::ipsecVti:
         if (auto e = fib.ipsecVtiEncapIf(id)) {
            return with("tunnelInfo", tunnelInfoJson(e->tunnelInfo()), TF::valueToStrep(*e));
         }
         break;
      default:
         break;
   }
   return std::nullopt;
}

}  // namespace

int runFibBuilder(std::ostream& out, double seconds) {
   Agent agent;
   TF::TunnelFibBuilder builder(agent.mounter());
   bool stop = false;
   agent.signalsIs({SIGINT, SIGTERM}, [&](int) { stop = true; });
   out << "fib-builder: reading " << builder.sourceCount() << " tunnel tables, writing "
       << TF::kTunnelFibPath << std::endl;
   // Said each time it has settled on changes it had not yet reported: a burst is applied within
   // one loop turn, so the builder may never be seen unsettled between two looks.
   std::optional<std::pair<uint64_t, uint64_t>> reported;
   const auto deadline =
       std::chrono::steady_clock::now() + std::chrono::milliseconds(int64_t(seconds * 1000));
   agent.runUntil(
       [&] {
          const std::pair<uint64_t, uint64_t> now{builder.counters().tunnelChanges,
                                                  builder.counters().reconciles};
          if (builder.settled() && reported != now) {
             reported = now;
             const TF::TunnelFib& fib = *builder.tunnelFib();
             out << "fib-builder: settled: " << fib.entryCount()
                 << " entries; encapsulations: " << fib.labelStackEncapCount() << " labelStack, "
                 << fib.greEncapCount() << " gre, " << fib.ipsecGreEncapCount() << " ipsecGre, "
                 << fib.ipsecVtiEncapCount() << " ipsecVti, " << fib.vxlanEncaps().size()
                 << " vxlan (this process only); " << builder.refused().size() << " refused\n";
             for (const auto& [id, why] : builder.refused()) {
                out << "fib-builder: refused " << tunnelName(id) << ": " << why << "\n";
             }
             out.flush();
          }
          return stop || (seconds > 0 && std::chrono::steady_clock::now() >= deadline);
       },
       std::chrono::hours(24 * 365));
   return 0;
}

int runResolver(std::ostream& out, double seconds) {
   Agent agent;
   const auto fib = readTunnelFib(agent);
   if (!fib) return 1;
   TF::TunnelResolutionClient client(fib, agent.loop());
   bool stop = false;
   agent.signalsIs({SIGINT, SIGTERM}, [&](int) { stop = true; });
   out << "resolver: following " << TF::kTunnelFibPath << std::endl;
   // One line per apply, then each affected tunnel that failed, with its reason.
   client.observerIs([&](const std::vector<TT::TunnelId>& affected) {
      size_t resolved = 0, failed = 0;
      for (const TT::TunnelId& id : affected) {
         resolved += client.result(id) ? 1 : 0;
         failed += client.error(id) ? 1 : 0;
      }
      out << "resolver: re-resolved " << affected.size() << " tunnels: " << resolved
          << " with final vias, " << failed << " failed, " << affected.size() - resolved - failed
          << " with none\n";
      for (const TT::TunnelId& id : affected) {
         if (auto why = client.error(id))
            out << "resolver: " << tunnelName(id) << ": " << *why << "\n";
      }
      out.flush();
   });
   const auto deadline =
       std::chrono::steady_clock::now() + std::chrono::milliseconds(int64_t(seconds * 1000));
   agent.runUntil(
       [&] { return stop || (seconds > 0 && std::chrono::steady_clock::now() >= deadline); },
       std::chrono::hours(24 * 365));
   return 0;
}

int runFib(std::ostream& out, const std::string& tunnel, bool json) {
   std::optional<TT::TunnelId> one;
   if (!tunnel.empty()) one = parseTunnel(tunnel);
   Agent agent;
   const auto fib = readTunnelFib(agent);
   if (!fib) return 1;
   std::vector<TT::TunnelId> keys;
   if (one) {
      keys = {*one};
   } else {
      keys = fib->entryKeys();
      std::sort(keys.begin(), keys.end());
   }
   // JSON streams entry by entry; rows are gathered for their column widths.
   if (json) out << "{\"path\": " << Json(TF::kTunnelFibPath) << ", \"entries\": [";
   std::vector<std::vector<std::string>> rows;
   size_t shown = 0;
   for (const TT::TunnelId& key : keys) {
      const auto e = fib->entryIf(key);
      if (!e) continue;
      if (json) {
         out << (shown ? ",\n" : "\n") << dumpJson(entryJson(*e));
      } else if (one) {
         entryDetail(out, *fib, *e);
      } else {
         rows.push_back(entryRow(*e));
      }
      ++shown;
   }
   if (json) out << "\n], \"count\": " << shown << "}\n";
   if (one && shown == 0) {
      std::cerr << "tunnelctl: the tunnel FIB has no entry for " << tunnelName(*one) << "\n";
      return 1;
   }
   if (!json && !one) {
      out << TF::kTunnelFibPath << ": " << shown << " entries\n";
      printColumns(out, {"TUNNEL", "USABLE", "PRIMARY", "BACKUP", "VIAS"}, rows);
   }
   return 0;
}

int runEncap(std::ostream& out, const std::string& kind, bool json) {
   std::vector<EncapKind> kinds;
   for (const EncapKind& k : kShownKinds) {
      if (kind.empty() || kind == k.name) kinds.push_back(k);
   }
   if (kind == "vxlan") {
      if (json) {
         out << dumpJson(Json{{"path", TF::kTunnelFibPath},
                              {"encaps", Json::array()},
                              {"note", kVxlanNote}},
                         2)
             << "\n";
      } else {
         out << "vxlan: " << kVxlanNote << "\n";
      }
      return 0;
   }
   if (kinds.empty()) {
      throw UsageError("unknown encapsulation kind '" + kind +
                       "' (known: labelStack, gre, ipsecGre, ipsecVti, vxlan)");
   }
   Agent agent;
   const auto fib = readTunnelFib(agent);
   if (!fib) return 1;
   Json list = Json::array();
   std::vector<std::vector<std::string>> rows;
   std::string counts;
   for (const EncapKind& k : kinds) {
      size_t n = 0;
      for (const TT::EncapId& id : encapKeys(*fib, k.type)) {
         auto j = encapJson(*fib, id);
         if (!j) continue;
         ++n;
         if (json) {
            list.push_back(std::move(*j));
         } else {
            rows.push_back({id.stringValue(), encapContent(*fib, id).value_or("-")});
         }
      }
      counts += (counts.empty() ? "" : ", ") + std::to_string(n) + " " + k.name;
   }
   if (json) {
      out << dumpJson(Json{{"path", TF::kTunnelFibPath}, {"encaps", std::move(list)}}, 2) << "\n";
      return 0;
   }
   out << TF::kTunnelFibPath << ": " << counts << " encapsulations\n";
   printColumns(out, {"ENCAP", "CONTENT"}, rows);
   return 0;
}

}  // namespace TunnelCtl
