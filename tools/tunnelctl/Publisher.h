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
#include "Description.h"

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

  private:
   void mountAll(const Description& d);

   Agent& agent_;
   std::map<TunnelTableIdentifier, Vela::Ptr<Tunnel::TunnelTable::TunnelTableBase>> tables_;
};

// "ldp index 7: written" / "... removed".
std::string changeText(const PublishChange& c);

}  // namespace TunnelCtl
