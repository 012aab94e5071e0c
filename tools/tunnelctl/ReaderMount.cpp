// Mounting a table as a consuming agent does: a key-shadowing reader, synchronized before use.
#include <iostream>

#include "Agent.h"
#include "Commands.h"
#include "Region/StoreRoot.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

// Mounts `table` as a key-shadowing reader and waits until it has synchronized. The reader retries
// an attach that fails; why it failed is said at once: with no live writer to repair the files the
// wait ends there ("<table>: cannot attach: <why>"); with one (it may be re-formatting them) the
// reason is printed once and the wait goes on.
Vela::Ptr<TT::TunnelTableBase> mountSynchronized(Agent& agent, const TableEntry& table) {
   auto mounted = agent.mounter().mountKeyshadow(table.id);
   if (!mounted) throw std::runtime_error(table.mountName + ": the mount gave no tunnel table");
   const std::string dir = tableDirectory(Region::storeRoot(), table);
   std::string problem, reported;
   auto nextLockLook = std::chrono::steady_clock::now();
   const bool synchronized = agent.runUntil(
       [&] {
          if (readerSynchronized(*mounted)) return true;
          problem = mounted->storeProblem();
          const auto now = std::chrono::steady_clock::now();
          if (problem.empty() || now < nextLockLook) return false;
          nextLockLook = now + std::chrono::milliseconds(100);
          if (!writerLockHeld(dir)) {
             throw std::runtime_error(table.mountName + ": cannot attach: " + problem);
          }
          if (problem != reported) {
             std::cerr << "tunnelctl: " << table.mountName
                       << ": waiting for the writer: " << problem << std::endl;
             reported = problem;
          }
          return false;
       },
       std::chrono::seconds(10));
   if (!synchronized) {
      throw std::runtime_error(table.mountName + ": the reader did not synchronize within 10 s" +
                               (problem.empty() ? "" : ": " + problem));
   }
   return mounted;
}

}  // namespace TunnelCtl
