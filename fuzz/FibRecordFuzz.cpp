// The byte forms of the tunnel FIB: TunnelFibEntry (the 16-byte head, then two counted via
// arrays) and the encapsulations (LabelStackEncap with its exact-length rule, the fixed GRE and
// IPsec ones). The first input byte picks the kind; the rest is the record, in a buffer of exactly
// its size so that the address sanitizer sees an overread.
//
// An accepted record must be measured as accepted by deserializeLen (the entry's answer is the
// room it needs, the encapsulations' the record's length), written back identically and read
// back to an equal value.
#include "RoundTrip.h"
#include "TunnelFib/Encap.h"
#include "TunnelFib/TunnelFibEntry.h"

using namespace Tunnel::TunnelFib;
using RoundTrip::check;

namespace {

template <typename V>
void recordBytes(RoundTrip::Input& in, bool lengthIsRecord) {
   const std::vector<uint8_t> bytes = RoundTrip::exact(in.here(), in.left());
   const auto length = static_cast<uint32_t>(bytes.size());
   const uint32_t measured = V::deserializeLen(bytes.data(), length);
   V value;
   try {
      value.deserialize(bytes.data(), length);
   } catch (const Vela::Exception&) {
      return;
   }
   check(measured != 0, "a record deserializeLen refused was accepted");
   if (lengthIsRecord) check(measured == length, "deserializeLen differs from the record's length");
   check(value.serializeLen() == length, "length written differs from the length read");
   std::vector<uint8_t> out(length);
   value.serialize(out.data());
   check(std::memcmp(out.data(), bytes.data(), length) == 0, "bytes written back differ");
   V again;
   again.deserialize(out.data(), length);
   check(again == value, "bytes do not read back equal");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   RoundTrip::Input in(data, size);
   switch (in.byte() % 5) {
      case 0:
         recordBytes<TunnelFibEntry>(in, false);
         break;
      case 1:
         recordBytes<LabelStackEncap>(in, true);
         break;
      case 2:
         recordBytes<GreEncap>(in, true);
         break;
      case 3:
         recordBytes<IpsecGreEncap>(in, true);
         break;
      default:
         recordBytes<IpsecVtiEncap>(in, true);
         break;
   }
   return 0;
}
