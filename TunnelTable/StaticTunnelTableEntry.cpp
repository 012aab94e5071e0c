#include "TunnelTable/StaticTunnelTableEntry.h"

namespace Tunnel::TunnelTable {

StaticTunnelTableEntry::StaticTunnelTableEntry(Vela::String::const_iterator,
                                               Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}
SrTeSegmentListTunnelTableEntry::SrTeSegmentListTunnelTableEntry(Vela::String::const_iterator,
                                                                 Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}

TUNNEL_ENTRY_DEFINE_OPERATIONS(StaticTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(SrTeSegmentListTunnelTableEntry)

}  // namespace Tunnel::TunnelTable
