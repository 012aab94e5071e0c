// Text constructors of the entry kinds that have one: arbitrary text either fails with a
// Vela::Exception or gives an entry whose text and byte forms read back to an equal entry.
#include "EntryFuzz.h"

using namespace Tunnel::TunnelTable;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   EntryFuzz::dispatch<TunnelTableEntry, FrrTunnelTableEntry, RsvpFrrTunnelTableEntry,
                       RsvpLerSubTunnelTableEntry, TiLfaTunnelTableEntry, ColoredTunnelTableEntry,
                       SrTePolicyTunnelTableEntry, NexthopGroupTunnelTableEntry,
                       NimboSdkSbfdSessionTunnelTableEntry, EvpnVxlanTunnelEntry>(
       data, size, [](auto* kind, const uint8_t* d, size_t n, bool flag) {
          using E = std::remove_pointer_t<decltype(kind)>;
          EntryFuzz::textRoundTrip<E>(d, n, flag);
       });
   return 0;
}
