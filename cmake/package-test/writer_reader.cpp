// Two processes share the LDP tunnel table. `writer_reader write` mounts it as its writer, writes
// tunnel index 1 and serves readers until killed; `writer_reader read` mounts it as a
// key-shadowing reader, waits until it has synchronized and prints the entry.
#include <chrono>
#include <iostream>
#include <string>

#include "Loom/EventLoop.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTables.h"
#include "store/reader/DockShadow.h"

using namespace Tunnel::TunnelTable;

int main(int argc, char** argv) {
   const std::string mode = argc == 2 ? argv[1] : "";
   if (mode != "write" && mode != "read") return 2;
   Loom::EventLoop loop;  // first: the mounted table runs on it
   TunnelTableMounter mounter(Vela::makePtr<Vault::MountService>(), loop);
   const TunnelId id(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, 1));
   if (mode == "write") {
      auto table = Vela::dynamicPtrCast<LdpTunnelTable>(
          mounter.mountWriter(TunnelTableIdentifier::ldpTunnelTable));
      LdpTunnelTableEntry entry(id);
      entry.igpMetricIs(10);
      entry.entryMetricIs(20);
      table->entryIs(entry);
      std::cout << "written" << std::endl;
      for (;;) loop.runOnce(std::chrono::seconds(1));  // readers are woken from this loop
   }
   auto table = Vela::dynamicPtrCast<LdpTunnelTable>(
       mounter.mountKeyshadow(TunnelTableIdentifier::ldpTunnelTable));
   while (Dock::ReaderState(table->storeMountStatus()) < Dock::ReaderState::kSynchronized) {
      loop.runOnce(std::chrono::milliseconds(10));
   }
   const auto entry = table->entryIf(id);
   if (!entry) return 1;
   std::cout << "ldp index " << id.tunnelIndex() << ": igpMetric " << entry->igpMetric()
             << ", entryMetric " << entry->entryMetric() << "\n";
}
