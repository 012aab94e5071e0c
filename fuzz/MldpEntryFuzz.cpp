// The byte forms of the multicast entries: MulticastTunnelTableEntry (tunnel id and tree id text)
// and MldpTunnelTableEntry (that, then up to 600 MPLS vias). The first input byte picks the kind
// (bit 0) and how the rest is read (bit 7): the whole record, or (patch) two offset bytes into the
// record of a sample entry and the bytes that overwrite it from there, so that the fuzzer starts
// from a record whose lengths and counts agree.
//
// deserializeLen must answer within the bytes given (the buffer has exactly their size, so the
// address sanitizer sees an overread); accepted bytes must be written back identically and read
// back to an equal entry, and a copy of the entry must equal it.
#include "Mldp/MldpTunnelTableEntry.h"
#include "Mldp/MulticastTunnelTableEntry.h"
#include "RoundTrip.h"

using namespace Tunnel::TunnelTable;
using RoundTrip::check;
using Routing::Multicast::MulticastTreeId;

namespace {

MulticastTunnelTableEntry sample(MulticastTunnelTableEntry*) {
   return MulticastTunnelTableEntry(TunnelId(0x10000000002a), MulticastTreeId("tree-1"));
}

MldpTunnelTableEntry sample(MldpTunnelTableEntry*) {
   MldpTunnelTableEntry e(TunnelId(0x10000000002a), MulticastTreeId("tree-1"));
   e.viaIs(ViaIndex(0), MplsVia(Wirekit::IpGenAddr::ipv4(0x0a000001), Wirekit::IntfId("Ethernet1"),
                                Wirekit::MplsLabelOperation::push({100, 200})));
   e.viaIs(ViaIndex(1), MplsVia(Wirekit::IpGenAddr("2001:db8::1"), Wirekit::IntfId("Vlan10"),
                                Wirekit::MplsLabelOperation::swap({300})));
   return e;
}

template <typename E>
std::vector<uint8_t> record(RoundTrip::Input& in, bool patch) {
   if (!patch) return RoundTrip::exact(in.here(), in.left());
   const E e = sample(static_cast<E*>(nullptr));
   std::vector<uint8_t> bytes(e.serializeLen());
   e.serialize(bytes.data());
   size_t at = in.u16() % (bytes.size() + 1);
   while (in.left() != 0) {
      const uint8_t b = in.byte();
      if (at < bytes.size()) {
         bytes[at] = b;
      } else {
         bytes.push_back(b);
      }
      ++at;
   }
   bytes.shrink_to_fit();
   return bytes;
}

template <typename E>
void entryBytes(RoundTrip::Input& in, bool patch) {
   const std::vector<uint8_t> bytes = record<E>(in, patch);
   const auto available = static_cast<uint32_t>(bytes.size());
   const uint32_t len = E::deserializeLen(bytes.data(), available);
   check(len <= available, "deserializeLen answered more than was available");
   E e;
   try {
      e.deserialize(bytes.data(), len == 0 ? available : len);
   } catch (const Vela::Exception&) {
      return;
   }
   check(len != 0, "bytes deserializeLen called truncated were accepted");
   check(e.serializeLen() == len, "entry length written differs from the length read");
   std::vector<uint8_t> out(len);
   e.serialize(out.data());
   check(std::memcmp(out.data(), bytes.data(), len) == 0, "entry bytes written back differ");
   E again;
   again.deserialize(out.data(), len);
   check(again == e, "entry bytes do not read back equal");
   const E copy(e);
   check(copy == e, "a copy of the entry differs from it");
   check(E::deserializeLen(out.data(), len - 1) == 0, "a record one byte short was measured whole");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   RoundTrip::Input in(data, size);
   const uint8_t first = in.byte();
   const bool patch = (first & 0x80) != 0;
   if (first & 1) {
      entryBytes<MldpTunnelTableEntry>(in, patch);
   } else {
      entryBytes<MulticastTunnelTableEntry>(in, patch);
   }
   return 0;
}
