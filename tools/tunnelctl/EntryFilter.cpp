#include "EntryFilter.h"

#include <fnmatch.h>

#include "TableCatalog.h"

namespace TunnelCtl {

namespace {

// True when some object at any depth of `v` has "nextHop" equal to `want`.
bool hasNextHop(const Json& v, const std::string& want) {
   if (v.is_object()) {
      if (auto it = v.find("nextHop"); it != v.end() && it->is_string() && *it == want) return true;
   } else if (!v.is_array()) {
      return false;
   }
   for (const auto& child : v) {
      if (hasNextHop(child, want)) return true;
   }
   return false;
}

}  // namespace

std::vector<Wirekit::IpGenPrefix> endpointsOf(const EntryView& e) {
   std::vector<Wirekit::IpGenPrefix> out;
   if (auto it = e.fields.find("endpoint"); it != e.fields.end()) {
      for (const auto& p : *it) out.emplace_back(p.get<std::string>());
   } else if (auto info = e.fields.find("tunnelInfo"); info != e.fields.end()) {
      out.push_back(
          Wirekit::IpGenPrefix::host(Wirekit::IpGenAddr((*info)["dstAddr"].get<std::string>())));
   }
   return out;
}

bool EntryFilter::matchesNonEndpoint(const EntryView& e) const {
   if (nexthop && !hasNextHop(e.fields, Wirekit::valueToStrep(*nexthop))) return false;
   if (nameGlob) {
      const auto it = e.fields.find("name");
      const std::string name = it != e.fields.end() ? it->get<std::string>() : std::string();
      if (::fnmatch(nameGlob->c_str(), name.c_str(), 0) != 0) return false;
   }
   return true;
}

std::optional<unsigned> EntryFilter::endpointMatch(const EntryView& e) const {
   if (!endpoint) return 0u;
   std::optional<unsigned> best;
   for (const auto& p : endpointsOf(e)) {
      if (p.isNone() || p.family() != endpoint->family()) continue;
      if (p.length() > endpoint->length() || !p.contains(endpoint->address())) continue;
      if (!best || p.length() > *best) best = p.length();
   }
   return best;
}

EntryFilter entryFilterOf(const std::string& endpoint, const std::string& nexthop,
                          const std::string& nameGlob) {
   EntryFilter f;
   try {
      if (!endpoint.empty()) {
         // An address alone is its host prefix.
         f.endpoint = endpoint.find('/') == std::string::npos
                          ? Wirekit::IpGenPrefix::host(Wirekit::IpGenAddr(endpoint))
                          : Wirekit::IpGenPrefix(endpoint);
      }
   } catch (const std::exception&) {
      throw UsageError("--endpoint: not an IPv4/IPv6 prefix or address: '" + endpoint + "'");
   }
   try {
      if (!nexthop.empty()) f.nexthop = Wirekit::IpGenAddr(nexthop);
   } catch (const std::exception&) {
      throw UsageError("--nexthop: not an IPv4/IPv6 address: '" + nexthop + "'");
   }
   if (!nameGlob.empty()) f.nameGlob = nameGlob;
   return f;
}

}  // namespace TunnelCtl
