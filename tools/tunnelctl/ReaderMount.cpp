// Mounting a table as a consuming agent does: a key-shadowing reader, synchronized before use.
#include "Agent.h"
#include "Commands.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

// Mounts `table` as a key-shadowing reader and waits until it has synchronized.
Vela::Ptr<TT::TunnelTableBase> mountSynchronized(Agent& agent, const TableEntry& table) {
   auto mounted = agent.mounter().mountKeyshadow(table.id);
   if (!mounted) throw std::runtime_error(table.mountName + ": the mount gave no tunnel table");
   if (!agent.runUntil([&] { return readerSynchronized(*mounted); }, std::chrono::seconds(10))) {
      throw std::runtime_error(table.mountName + ": the reader did not synchronize within 10 s");
   }
   return mounted;
}

}  // namespace TunnelCtl
