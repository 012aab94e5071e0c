#include "TunnelTable/TunnelTableEntry.h"

#include <algorithm>

namespace Tunnel::TunnelTable {

TunnelTableEntry::TunnelTableEntry(const TunnelId& tunnelId)
    : TunnelTableEntry(tunnelId, getDefaultPrefForType(tunnelId.tunnelType())) {}

TunnelTableEntry::TunnelTableEntry(const TunnelId& tunnelId, TunnelEntryPref entryPref)
    : tunnelId_(tunnelId), entryPref_(entryPref) {}

TunnelTableEntry::TunnelTableEntry(Vela::String::const_iterator begin,
                                   Vela::String::const_iterator end) {
   Codec::parseEntry(*this, begin, end);
}

void TunnelTableEntry::nameIs(std::string_view text) {
   if (text.size() > kNameCapacity) (void)NameIndex(text.size() - 1);  // throws the range text
   std::copy(text.begin(), text.end(), name_.data());
   name_.setCountUnchecked(static_cast<uint32_t>(text.size()));
}

bool operator<(const TunnelTableEntry& a, const TunnelTableEntry& b) {
   if (a.entryPref_ != b.entryPref_) return a.entryPref_ < b.entryPref_;
   const TunnelEntryPref typePrefA = getDefaultPrefForType(a.tunnelId_.tunnelType());
   const TunnelEntryPref typePrefB = getDefaultPrefForType(b.tunnelId_.tunnelType());
   if (typePrefA != typePrefB) return typePrefA < typePrefB;
   if (a.entryMetric_ != b.entryMetric_) return a.entryMetric_ < b.entryMetric_;
   if (a.tunnelId_ != b.tunnelId_) return a.tunnelId_ < b.tunnelId_;
   if (a.tunnelBw_ != b.tunnelBw_) return a.tunnelBw_ < b.tunnelBw_;
   if (!(a.endpoint_ == b.endpoint_)) {
      return std::lexicographical_compare(a.endpoint_.begin(), a.endpoint_.end(),
                                          b.endpoint_.begin(), b.endpoint_.end());
   }
   if (a.nexthopTunnelId_ != b.nexthopTunnelId_) return a.nexthopTunnelId_ < b.nexthopTunnelId_;
   return std::lexicographical_compare(
       a.name_.begin(), a.name_.end(), b.name_.begin(), b.name_.end(), [](char x, char y) {
          return static_cast<unsigned char>(x) < static_cast<unsigned char>(y);
       });
}

void TunnelTableEntry::dumpBase(Vela::String& out, int indent) const {
   out += tunnelId_.dumpLine(indent);
   if (nexthopTunnelId_ != TunnelId()) out += nexthopTunnelId_.nextHopDumpLine(indent);
   Codec::dumpLine(out, indent, "tep", Wirekit::valueToStrep(tep()));
}

TUNNEL_ENTRY_DEFINE_OPERATIONS(TunnelTableEntry)

}  // namespace Tunnel::TunnelTable
