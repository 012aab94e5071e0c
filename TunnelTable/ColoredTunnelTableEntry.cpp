#include "TunnelTable/ColoredTunnelTableEntry.h"

namespace Tunnel::TunnelTable {

ColoredTunnelTableEntry::ColoredTunnelTableEntry(Vela::String::const_iterator begin,
                                                 Vela::String::const_iterator end) {
   Codec::parseEntry(*this, begin, end);
}
SrTePolicyTunnelTableEntry::SrTePolicyTunnelTableEntry(Vela::String::const_iterator begin,
                                                       Vela::String::const_iterator end) {
   Codec::parseEntry(*this, begin, end);
}
FlexAlgoTunnelTableEntry::FlexAlgoTunnelTableEntry(Vela::String::const_iterator,
                                                   Vela::String::const_iterator) {
   Codec::noTextConstructor(kClassName);
}
NexthopGroupTunnelTableEntry::NexthopGroupTunnelTableEntry(Vela::String::const_iterator begin,
                                                           Vela::String::const_iterator end) {
   Codec::parseEntry(*this, begin, end);
}

TUNNEL_ENTRY_DEFINE_OPERATIONS(ColoredTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(SrTePolicyTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(FlexAlgoTunnelTableEntry)
TUNNEL_ENTRY_DEFINE_OPERATIONS(NexthopGroupTunnelTableEntry)

static_assert(Codec::kRecordHeaderLen + Codec::fixedFieldsLen<TunnelTableEntry>() == 551);
static_assert(Codec::kRecordHeaderLen + Codec::fixedFieldsLen<FlexAlgoTunnelTableEntry>() ==
              FlexAlgoTunnelTableEntry::kSerializedLen);
static_assert(Codec::fixedFieldsLen<ColoredTunnelTableEntry>() -
                  Codec::fixedFieldsLen<TunnelTableEntry>() ==
              12);
static_assert(Codec::fixedFieldsLen<NexthopGroupTunnelTableEntry>() -
                  Codec::fixedFieldsLen<TunnelTableEntry>() ==
              12);

}  // namespace Tunnel::TunnelTable
