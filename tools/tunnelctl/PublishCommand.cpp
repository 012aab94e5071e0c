// publish FILE: the writer agent of a network description. It prints one summary line per table
// and then "ready", so whoever started it knows the tables are published; it stays the tables'
// writer until SIGINT or SIGTERM (SIGHUP re-reads the file and publishes what changed). With
// --once it exits after publishing; the files stay under the store root for readers and for a
// later writer, which re-attaches to them.
#include <signal.h>

#include <iostream>
#include <map>

#include "Agent.h"
#include "Commands.h"
#include "Publisher.h"
#include "Region/StoreRoot.h"

namespace TunnelCtl {

namespace {

void summarize(std::ostream& out, const Description& d, const std::vector<PublishChange>& changes) {
   std::map<const TableEntry*, std::pair<size_t, size_t>> perTable;  // written, removed
   for (const auto& c : changes) {
      auto& n = perTable[c.table];
      (c.removed ? n.second : n.first) += 1;
   }
   for (const TableEntry* t : d.tables()) {
      const auto n = perTable[t];
      out << t->mountName << ": " << d.tunnelsOf(*t).size() << " tunnels (" << n.first
          << " written, " << n.second << " removed)\n";
   }
}

void reportRefusals(const Publisher& publisher) {
   for (const auto& r : publisher.refusals()) std::cerr << "tunnelctl: " << r << std::endl;
}

}  // namespace

int runPublish(std::ostream& out, const std::string& file, bool once) {
   Agent agent;
   Publisher publisher(agent);
   bool stop = false;
   if (!once) {
      agent.signalsIs({SIGINT, SIGTERM, SIGHUP}, [&](int sig) {
         if (sig != SIGHUP) {
            stop = true;
            return;
         }
         // The published tables are the only copy of what was published: a reload holds one
         // description, the new one, and writes only what differs from the tables.
         try {
            const auto changes = publisher.apply(loadDescription(file));
            reportRefusals(publisher);
            for (const auto& c : changes) out << changeText(c) << "\n";
            for (const auto& c : publisher.configChanges()) out << c << "\n";
            out << "reloaded " << file << ": " << changes.size() + publisher.configChanges().size()
                << " changes" << std::endl;
         } catch (const std::exception& e) {
            // A bad edit, or a table another writer holds, leaves the published tables as they
            // were; the writer goes on.
            std::cerr << "tunnelctl: " << e.what() << "; keeping what is published" << std::endl;
         }
      });
   }
   {
      const Description d = loadDescription(file);
      const auto changes = publisher.apply(d);
      reportRefusals(publisher);
      summarize(out, d, changes);
      if (d.hasDecap) {
         out << "decap: " << d.decapGroups.size() << " groups, " << d.decapPorts.size()
             << " ports, ready\n";
      }
      if (d.hasNexthopGroupTunnels) {
         out << "nexthop-group tunnels: " << d.nexthopGroupTunnels.size() << "\n";
      }
      out << "ready: " << d.tunnels.size() << " tunnels in " << d.tables().size()
          << " tables under " << Region::storeRoot() << std::endl;
   }
   if (once) {
      // Let readers that are already attached hear of the writes before the writer goes.
      agent.loop().runOnce(std::chrono::milliseconds(0));
      return 0;
   }
   agent.runUntil([&] { return stop; }, std::chrono::hours(24 * 365));
   out << "stopped" << std::endl;
   return 0;
}

}  // namespace TunnelCtl
