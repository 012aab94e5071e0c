// The byte forms of the tunnel layer's value types: the vias (MplsVia, Via, TunnelVia and the
// variable MplsCosVia), ColoredTunnelEndpoint, TunnelId, EncapId, OptionalColor, TunnelRibId,
// TunnelEntrySequenceNumber and the tunnel infos. The first input byte picks the type; the rest
// is its bytes.
//
// Accepted bytes must be written back identically and read back equal; a value that has a text
// form must also read back from it to an equal value with the same text.
#include "RoundTrip.h"
#include "TunnelTable/ColoredTunnelEndpoint.h"
#include "TunnelTable/EntryValueTypes.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelInfo.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "TunnelTable/Via.h"

using namespace Tunnel;
using namespace Tunnel::TunnelTable;
using RoundTrip::check;

namespace {

template <typename T>
void textOf(const T& value) {
   RoundTrip::valueTextOf(value);
}

void textOf(const Via& via) {
   RoundTrip::valueTextOf(via);
   // A via into another tunnel names it exactly: rebuilding it from the tunnel gives the via.
   if (via.isTunnelIdVia()) {
      try {
         check(Via::tunnelIdVia(via.viaTunnelId()) == via, "tunnel via does not name its tunnel");
      } catch (const Vela::RangeException&) {
      }
   }
}

void textOf(const OptionalColor& color) {
   RoundTrip::textFixedPoint(
       color, [](const OptionalColor& c) { return valueToStrep(c); },
       [](const Vela::String& t) { return OptionalColor(std::string_view(t)); });
}

void cosViaBytes(RoundTrip::Input& in) {
   const std::vector<uint8_t> bytes = RoundTrip::exact(in.here(), in.left());
   const auto available = static_cast<uint32_t>(bytes.size());
   const uint32_t len = MplsCosVia::deserializeLen(bytes.data(), available);
   check(len <= available, "deserializeLen answered more than was available");
   MplsCosVia via;
   try {
      via.deserialize(bytes.data(), len == 0 ? available : len);
   } catch (const Vela::Exception&) {
      check(via == MplsCosVia(), "a refused MplsCosVia changed the value");
      return;
   }
   check(len != 0, "bytes deserializeLen called truncated were accepted");
   check(via.serializeLen() == len, "MplsCosVia length written differs from the length read");
   std::vector<uint8_t> out(len);
   via.serialize(out.data());
   check(std::memcmp(out.data(), bytes.data(), len) == 0, "MplsCosVia bytes written back differ");
   MplsCosVia again;
   again.deserialize(out.data(), len);
   check(again == via, "MplsCosVia bytes do not read back equal");
   check(via.cosLabelsCount() == static_cast<uint32_t>(__builtin_popcount(via.cosMask())),
         "MplsCosVia class count disagrees with its mask");
   RoundTrip::valueTextOf(via);
}

template <typename T>
void bytes(RoundTrip::Input& in) {
   RoundTrip::fixedBytes<T>(in, [](const T& v) { textOf(v); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   RoundTrip::Input in(data, size);
   switch (in.byte() % 14) {
      case 0:
         bytes<MplsVia>(in);
         break;
      case 1:
         bytes<Via>(in);
         break;
      case 2:
         bytes<TunnelVia>(in);
         break;
      case 3:
         cosViaBytes(in);
         break;
      case 4:
         bytes<ColoredTunnelEndpoint>(in);
         break;
      case 5:
         bytes<TunnelId>(in);
         break;
      case 6:
         bytes<EncapId>(in);
         break;
      case 7:
         bytes<OptionalColor>(in);
         break;
      case 8:
         bytes<TunnelRibId>(in);
         break;
      case 9:
         bytes<TunnelEntrySequenceNumber>(in);
         break;
      case 10:
         bytes<GreTunnelInfo>(in);
         break;
      case 11:
         bytes<IpsecGreTunnelInfo>(in);
         break;
      case 12:
         bytes<IpsecVtiTunnelInfo>(in);
         break;
      case 13:
         bytes<VxlanTunnelInfo>(in);
         break;
   }
   return 0;
}
