// Publisher: the writer agent of a network description. It mounts each table the description
// fills as that table's single writer and makes the table hold exactly the described tunnels:
// entries that differ from the description (or are missing) are written, entries the description
// does not have are removed. Applying a changed description therefore publishes only the
// difference, which is what readers are notified of, key by key.
#pragma once

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "Agent.h"
#include "Decap/DecapGroup.h"
#include "Description.h"
#include "NexthopGroup/NexthopGroupTunnelConfig.h"

namespace TunnelCtl {

struct PublishChange {
   const TableEntry* table;
   Tunnel::TunnelTable::TunnelId id;
   bool removed;
};

class Publisher {
  public:
   explicit Publisher(Agent& agent) : agent_(agent) {}

   // Mounts every table the description needs that is not mounted yet, then applies it. All or
   // nothing: when a mount fails (e.g. another process is that table's writer) nothing is written,
   // the tables taken for it are let go, and what the mount threw is thrown. A table whose damaged
   // files the mount re-formatted is named on stderr with the reason. Returns the changes
   // made: per table, in the order applied (the described tables in identifier order, then those
   // the description no longer fills), its writes in file order, then its removals in key order.
   std::vector<PublishChange> apply(const Description& d);

   const std::map<TunnelTableIdentifier, Vela::Ptr<Tunnel::TunnelTable::TunnelTableBase>>& tables()
       const {
      return tables_;
   }
   // What the last apply changed in the decapsulation and nexthop-group configurations, one line
   // each ("decap group dg1: written", "nexthop-group tunnel 10.9.0.1/32: removed"); a
   // configuration the description has is mounted at its own path, made to hold exactly what is
   // described (groups compared by content), and the decap configuration marked ready.
   const std::vector<std::string>& configChanges() const { return configChanges_; }
   // The tunnels the last apply could not write, one line each: where the tunnel is in the file
   // and the table's refusal ("tunnels[3]: ... above the table's largest of ... bytes; not
   // written"). The table keeps what it held under that key.
   const std::vector<std::string>& refusals() const { return refusals_; }

  private:
   void mountAll(const Description& d);
   void applyDecap(const Description& d);
   void applyNexthopGroups(const Description& d);

   Agent& agent_;
   std::map<TunnelTableIdentifier, Vela::Ptr<Tunnel::TunnelTable::TunnelTableBase>> tables_;
   Vela::Ptr<Tunnel::Decap::Config> decap_;
   Vela::Ptr<Tunnel::NexthopGroup::Config> nexthopGroups_;
   std::vector<std::string> configChanges_;
   std::vector<std::string> refusals_;
};

// "ldp index 7: written" / "... removed".
std::string changeText(const PublishChange& c);

}  // namespace TunnelCtl
