// Reading a store entity (a configuration, the tunnel FIB) as another process does: a reader's
// copy, mounted only once its writer has published it, and used only once it has synchronized.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <iostream>
#include <string>

#include "Agent.h"
#include "Region/StoreRoot.h"
#include "TunnelTable/StoreEntity.h"
#include "store/format/Layout.h"

namespace TunnelCtl {

// Mounts the entity at `path` as a reader's copy and waits (10 s at most) until it has
// synchronized. Null, with "tunnelctl: <what> is not published (<hint>)" or "tunnelctl: <what>
// did not synchronize" on stderr, when it is not there or does not synchronize.
template <class Entity>
Vela::Ptr<Entity> readStoreEntity(Agent& agent, const char* path, const std::string& what,
                                  const std::string& hint) {
   const std::string slots =
       Region::tableDirectory(Region::storeRoot(),
                              Region::tableName(path, Entity::kCollections[0])) +
       "/" + Dock::kSlotsFile;
   struct stat st;
   if (::stat(slots.c_str(), &st) != 0) {
      std::cerr << "tunnelctl: " << what << " is not published (" << hint << ")\n";
      return nullptr;
   }
   auto copy =
       Tunnel::TunnelTable::mountStoreEntity<Entity>(agent.service(), path, false, agent.loop());
   if (!agent.runUntil([&] { return copy->synchronized(); }, std::chrono::seconds(10))) {
      std::cerr << "tunnelctl: " << what << " did not synchronize\n";
      return nullptr;
   }
   return copy;
}

}  // namespace TunnelCtl
