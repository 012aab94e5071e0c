#include "TunnelTable/IntfTunnelTableEntry.h"

namespace Tunnel::TunnelTable {

L3IntfTunnelTableEntry::L3IntfTunnelTableEntry(Vela::String::const_iterator,
                                               Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}
GreIntfTunnelTableEntry::GreIntfTunnelTableEntry(Vela::String::const_iterator,
                                                 Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}
IpsecGreIntfTunnelTableEntry::IpsecGreIntfTunnelTableEntry(Vela::String::const_iterator,
                                                           Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}
IpsecVtiIntfTunnelTableEntry::IpsecVtiIntfTunnelTableEntry(Vela::String::const_iterator,
                                                           Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}

TUNNEL_ENTRY_DEFINE_OPERATIONS(L3IntfTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(GreIntfTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(IpsecGreIntfTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(IpsecVtiIntfTunnelTableEntry)

}  // namespace Tunnel::TunnelTable
