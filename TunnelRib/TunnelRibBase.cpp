#include "TunnelRib/TunnelRibBase.h"

#include <fmt/format.h>

namespace Tunnel::TunnelTable {

void TunnelRibBase::idIs(TunnelRibId id) {
   if (id == id_) return;
   id_ = id;
   notify(attrId);
}

void TunnelRibBase::tunnelRibUpdateCounterIs(uint64_t value) {
   if (value == tunnelRibUpdateCounter_) return;
   tunnelRibUpdateCounter_ = value;
   notify(attrTunnelRibUpdateCounter);
}

uint64_t TunnelRibBase::tunnelRibUpdateCounterInc(uint64_t delta) {
   tunnelRibUpdateCounterIs(tunnelRibUpdateCounter_ + delta);
   return tunnelRibUpdateCounter_;
}

void TunnelRibBase::dumpState(Vela::String& out, int indent) const {
   // Each line is printed with `indent` blanks before it, none at indent 0.
   const std::string pad(indent > 0 ? size_t(indent) : 0, ' ');
   const char* name = isColored() ? "ColoredTunnelRib" : "TunnelRib";
   out += fmt::format("{}{} id {}\n", pad, name, id_.value());
   out += fmt::format("{}  tunnelRibUpdateCounter={}\n", pad, tunnelRibUpdateCounter_);
   out += fmt::format("{}  {}Entries dock seqno {}\n", pad, name, storeSequence());
   out += fmt::format("{}  entries #{}\n", pad, entryCount());
   dumpEntries(out, indent + 2);
}

}  // namespace Tunnel::TunnelTable
