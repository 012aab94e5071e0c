#include "TunnelTable/IgpTunnelTableEntry.h"

namespace Tunnel::TunnelTable {

IgpTunnelTableEntryBase::IgpTunnelTableEntryBase(Vela::String::const_iterator,
                                                 Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}
LdpTunnelTableEntry::LdpTunnelTableEntry(Vela::String::const_iterator,
                                         Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}
SrTunnelTableEntry::SrTunnelTableEntry(Vela::String::const_iterator, Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}

TUNNEL_ENTRY_DEFINE_OPERATIONS(IgpTunnelTableEntryBase)
TUNNEL_ENTRY_DEFINE_OPERATIONS(LdpTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(SrTunnelTableEntry)

}  // namespace Tunnel::TunnelTable
