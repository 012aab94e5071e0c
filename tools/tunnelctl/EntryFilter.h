// EntryFilter: which entries `show` and `watch` print. Every condition given must hold.
//
//    --nexthop ADDR   some via of the entry (primary, backup or split, any depth) goes to ADDR
//    --name GLOB      the entry's name matches the shell pattern GLOB (fnmatch)
//    --endpoint P     one of the entry's endpoints is P or covers it. `show` keeps only the
//                     entries with the longest such endpoint (exact match, else longest match,
//                     as a route lookup would); `watch` reports every covering entry, since the
//                     longest one can change from one notification to the next.
#pragma once

#include <optional>
#include <string>

#include "EntryJson.h"
#include "Wirekit/IpGenAddr.h"
#include "Wirekit/IpGenPrefix.h"

namespace TunnelCtl {

struct EntryFilter {
   std::optional<Wirekit::IpGenPrefix> endpoint;
   std::optional<Wirekit::IpGenAddr> nexthop;
   std::optional<std::string> nameGlob;

   bool any() const { return endpoint || nexthop || nameGlob; }
   // The conditions other than the endpoint's.
   bool matchesNonEndpoint(const EntryView& e) const;
   // The length of the entry's longest endpoint that is `endpoint` or covers it; nothing when
   // none does (or no endpoint condition is given: then 0).
   std::optional<unsigned> endpointMatch(const EntryView& e) const;
   bool matches(const EntryView& e) const {
      return matchesNonEndpoint(e) && endpointMatch(e).has_value();
   }
};

// The options' texts read into a filter; throws UsageError naming the bad value.
EntryFilter entryFilterOf(const std::string& endpoint, const std::string& nexthop,
                          const std::string& nameGlob);

// The endpoints an entry is reached at: its "endpoint" list, else its interface tunnel's
// destination address as a host prefix.
std::vector<Wirekit::IpGenPrefix> endpointsOf(const EntryView& e);

}  // namespace TunnelCtl
