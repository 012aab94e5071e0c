#include "TunnelTable/NimboSdkSbfdSessionTunnelTableEntry.h"

namespace Tunnel::TunnelTable {

NimboSdkSbfdSessionTunnelTableEntry::NimboSdkSbfdSessionTunnelTableEntry(
    Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   Codec::parseEntry(*this, begin, end);
}

TUNNEL_ENTRY_DEFINE_OPERATIONS(NimboSdkSbfdSessionTunnelTableEntry)

}  // namespace Tunnel::TunnelTable
