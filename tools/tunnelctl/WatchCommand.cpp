// watch TABLE: per-key notifications of a table as a consuming agent receives them.
#include <signal.h>

#include <iostream>

#include "Agent.h"
#include "Commands.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

int runWatch(std::ostream& out, const std::string& name, uint64_t count, double seconds) {
   const TableEntry& table = requireTable(name);
   existingTableDirectory(table);
   Agent agent;
   bool stop = false;
   agent.signalsIs({SIGINT, SIGTERM}, [&](int) { stop = true; });
   auto mounted = mountSynchronized(agent, table);
   out << table.mountName << ": synchronized, " << mounted->entryCount() << " entries" << std::endl;

   // One line per notification, the entry as the reader sees it at that moment.
   struct Printer : Vela::Entity::Notifiee {
      std::ostream* out;
      const TT::TunnelTableBase* table;
      const std::string* mountName;
      uint64_t seen = 0;
      void onAttribute(Vela::AttributeId attr, const void* key) override {
         if (attr != Vela::attrEntry || !key) return;
         const auto& id = *static_cast<const TT::TunnelId*>(key);
         ++seen;
         if (auto text = table->entryStrep(id)) {
            *out << *mountName << " " << keyText(id) << " changed: " << *text << std::endl;
         } else {
            *out << *mountName << " " << keyText(id) << " removed" << std::endl;
         }
      }
   } printer;
   printer.out = &out;
   printer.table = mounted.get();
   printer.mountName = &table.mountName;
   mounted->notifieeAdd(&printer);
   const auto limit = seconds > 0 ? std::chrono::milliseconds(int64_t(seconds * 1000))
                                  : std::chrono::milliseconds(std::chrono::hours(24 * 365));
   agent.runUntil([&] { return stop || (count && printer.seen >= count); }, limit);
   mounted->notifieeDel(&printer);
   out << table.mountName << ": " << printer.seen << " changes" << std::endl;
   return 0;
}

}  // namespace TunnelCtl
