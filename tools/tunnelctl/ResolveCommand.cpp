// `resolve TUNNEL`: how a tunnel's traffic finally leaves, as a reader in this process sees the
// FIB. First the chain as the FIB holds it, from TUNNEL down through the tunnels its primary vias
// ride on, each via with its label stack:
//
//    bgpLuTunnel:300
//      via 0.0.0.0 ldpTunnel:21 MPLS 5 push 100200
//        ldpTunnel:21
//          via 10.0.1.1 Ethernet1 MPLS 1 push 24021
//
// (a tunnel met again on the current path prints "cycle back to <tunnel>" and is not followed;
// an inner tunnel without an entry prints "<tunnel>: no FIB entry"). Then what the library's
// TunnelResolver makes of it, over the same FIB: the final vias with their joined label stacks,
//
//    flattened: 1 final via
//      10.0.1.1 Ethernet1 push 24021 100200
//
// or "flattened: none: <why>". The why is found where the resolver's walk stopped: the first
// primary via, depth first, riding on a tunnel left without a result. A resolver's failure (a
// joined stack deeper than a label operation holds) is said as such.
#include <algorithm>
#include <iostream>

#include "Agent.h"
#include "Commands.h"
#include "FibView.h"
#include "StrictJson.h"
#include "TunnelFib/TunnelResolver.h"
#include "Wirekit/Errors.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;
namespace TF = Tunnel::TunnelFib;

namespace {

// The tunnel's primary vias, or nothing without an entry. Out of line so that the entry (sized
// for 600 vias of each kind) is not kept in the frame of every level of the walk.
[[gnu::noinline]] std::optional<std::vector<TT::TunnelVia>> primaryVias(const TF::TunnelFib& fib,
                                                                        const TT::TunnelId& id) {
   const auto e = fib.entryIf(id);
   if (!e) return std::nullopt;
   return std::vector<TT::TunnelVia>(e->tunnelVia().begin(), e->tunnelVia().end());
}

std::string pathText(const std::vector<TT::TunnelId>& path) {
   std::string s;
   for (const auto& id : path) s += (s.empty() ? "" : " -> ") + tunnelName(id);
   return s;
}

// The chain below `id` as JSON: {"tunnelId", "vias": [via + {"labels", "inner"}]}, or
// {"tunnelId", "cycle": true}, or {"tunnelId", "missing": true}; its lines go to `text` (when
// given) at `indent`. `path` holds the tunnels above.
Json chainOf(const TF::TunnelFib& fib, const TT::TunnelId& id, std::vector<TT::TunnelId>& path,
             std::ostream* text, int indent) {
   const std::string pad(size_t(indent), ' ');
   Json node = {{"tunnelId", tunnelIdJson(id)}};
   if (std::find(path.begin(), path.end(), id) != path.end()) {
      if (text) *text << pad << "cycle back to " << tunnelName(id) << "\n";
      node["cycle"] = true;
      return node;
   }
   const auto vias = primaryVias(fib, id);
   if (!vias) {
      if (text) *text << pad << tunnelName(id) << ": no FIB entry\n";
      node["missing"] = true;
      return node;
   }
   if (text) {
      *text << pad << tunnelName(id) << "\n";
      if (vias->empty()) *text << pad << "  no primary vias\n";
   }
   path.push_back(id);
   Json list = Json::array();
   for (const TT::TunnelVia& v : *vias) {
      Json j = fibViaJson(v);
      const auto stack = fib.labelStackEncapIf(v.encapId());
      j["labels"] = stack ? labelOperationJson(stack->labelStack()) : Json(nullptr);
      if (text) {
         *text << pad << "  via " << fibViaText(v);
         if (v.encapId().encapType() == TT::EncapType::labelStack) {
            *text << " " << (stack ? stack->labelStack().stringValue() : "(not in the FIB)");
         }
         *text << "\n";
      }
      if (Wirekit::DynamicTunnelIntfId::isDynamicTunnelIntfId(v.intfId())) {
         const auto inner = innerTunnel(v.intfId());
         if (!inner && text) *text << pad << "    inner tunnel id out of range\n";
         j["inner"] = inner ? chainOf(fib, *inner, path, text, indent + 4) : Json(nullptr);
      }
      list.push_back(std::move(j));
   }
   path.pop_back();
   node["vias"] = std::move(list);
   return node;
}

// Where the resolver's walk from `id` stopped, as "<path>: <why>"; nothing when it did not.
std::optional<std::string> stopOf(const TF::TunnelFib& fib, const TF::TunnelResolver& resolver,
                                  const TT::TunnelId& id, std::vector<TT::TunnelId>& path) {
   const bool cycle = std::find(path.begin(), path.end(), id) != path.end();
   path.push_back(id);
   if (cycle) return pathText(path) + ": a cycle";
   const auto vias = primaryVias(fib, id);
   if (!vias) return pathText(path) + ": no FIB entry";
   if (vias->empty()) return pathText(path) + ": no primary vias";
   for (const TT::TunnelVia& v : *vias) {
      const auto inner = innerTunnel(v.intfId());
      if (inner && !resolver.consolidatedEntry(*inner)) return stopOf(fib, resolver, *inner, path);
   }
   path.pop_back();
   return std::nullopt;
}

}  // namespace

int runResolve(std::ostream& out, const std::string& tunnel, bool json) {
   const TT::TunnelId id = parseTunnel(tunnel);
   Agent agent;
   const auto fib = readTunnelFib(agent);
   if (!fib) return 1;
   if (!fib->entryHas(id)) {
      std::cerr << "tunnelctl: the tunnel FIB has no entry for " << tunnelName(id) << "\n";
      return 1;
   }
   std::vector<TT::TunnelId> path;
   const Json chain = chainOf(*fib, id, path, json ? nullptr : &out, 0);

   const auto resolver = TF::TunnelResolverIs(Vela::Ptr<const TF::TunnelFib>(fib));
   std::optional<std::string> failure;
   try {
      resolver->updateFlattenedInfo(id);
   } catch (const Wirekit::LabelStackOverflow& e) {
      failure = std::string("label stack too deep: ") + e.what();
   } catch (const std::exception& e) {
      failure = e.what();
   }
   if (failure && !resolver->interruptedTunnelId().empty()) {
      *failure += " (resolving " + tunnelName(resolver->interruptedTunnelId().front()) + ")";
   }
   const auto result = failure ? nullptr : resolver->consolidatedEntry(id);
   std::optional<std::string> reason = failure;
   if (!failure) reason = stopOf(*fib, *resolver, id, path);
   if (!failure && !result && !reason) reason = "no final via";

   Json flattened = Json::array();
   if (result) {
      for (const TT::MplsVia& v : result->viaInfo()) {
         flattened.push_back({{"nextHop", v.nextHop().stringValue()},
                              {"intfId", v.intfId().name()},
                              {"labels", labelOperationJson(v.labels())}});
      }
   }
   if (json) {
      out << dumpJson(Json{{"tunnelId", tunnelIdJson(id)},
                           {"chain", chain},
                           {"flattened", std::move(flattened)},
                           {"reason", reason ? Json(*reason) : Json(nullptr)}},
                      2)
          << "\n";
      return 0;
   }
   if (!result) {
      out << "flattened: none: " << *reason << "\n";
      return 0;
   }
   out << "flattened: " << flattened.size() << " final via" << (flattened.size() == 1 ? "" : "s")
       << "\n";
   for (const TT::MplsVia& v : result->viaInfo()) {
      const std::string labels = v.labels().stringValue();
      out << "  " << v.nextHop().stringValue() << " " << interfaceText(v.intfId()) << " "
          << (labels.empty() ? "-" : labels) << "\n";
   }
   if (reason) out << "  the walk stopped early: " << *reason << "\n";
   return 0;
}

}  // namespace TunnelCtl
