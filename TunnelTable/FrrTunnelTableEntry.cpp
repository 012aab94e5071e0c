#include "TunnelTable/FrrTunnelTableEntry.h"

namespace Tunnel::TunnelTable {

FrrTunnelTableEntry::FrrTunnelTableEntry(Vela::String::const_iterator begin,
                                         Vela::String::const_iterator end) {
   Codec::parseEntry(*this, begin, end);
}
RsvpFrrTunnelTableEntry::RsvpFrrTunnelTableEntry(Vela::String::const_iterator begin,
                                                 Vela::String::const_iterator end) {
   Codec::parseEntry(*this, begin, end);
}
RsvpLerSubTunnelTableEntry::RsvpLerSubTunnelTableEntry(Vela::String::const_iterator begin,
                                                       Vela::String::const_iterator end) {
   Codec::parseEntry(*this, begin, end);
}
TiLfaTunnelTableEntry::TiLfaTunnelTableEntry(Vela::String::const_iterator begin,
                                             Vela::String::const_iterator end) {
   Codec::parseEntry(*this, begin, end);
}
RsvpLerTunnelTableEntry::RsvpLerTunnelTableEntry(Vela::String::const_iterator,
                                                 Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}

TUNNEL_ENTRY_DEFINE_OPERATIONS(FrrTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(RsvpFrrTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(RsvpLerSubTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(TiLfaTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(RsvpLerTunnelTableEntry)

static_assert(Codec::fixedFieldsLen<FrrTunnelTableEntry>() -
                  Codec::fixedFieldsLen<TunnelTableEntry>() ==
              155);

}  // namespace Tunnel::TunnelTable
