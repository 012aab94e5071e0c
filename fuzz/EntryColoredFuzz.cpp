// Byte forms (and text forms, where the kind has one) of the Colored entry kinds.
#include "EntryFuzz.h"

using namespace Tunnel::TunnelTable;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   EntryFuzz::dispatch<ColoredTunnelTableEntry, SrTePolicyTunnelTableEntry,
                       FlexAlgoTunnelTableEntry, NexthopGroupTunnelTableEntry,
                       NimboSdkSbfdSessionTunnelTableEntry>(
       data, size, [](auto* kind, const uint8_t* d, size_t n, bool flag) {
          using E = std::remove_pointer_t<decltype(kind)>;
          EntryFuzz::bytesRoundTrip<E>(d, n, flag);
       });
   return 0;
}
