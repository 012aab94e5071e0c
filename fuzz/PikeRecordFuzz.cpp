// The Pike store's record byte form, and the byte forms the command-line tree keys its members
// by. The first input byte picks the reader; the rest is its bytes. Accepted bytes must be
// written back identically.
#include <cstring>
#include <vector>

#include "Pike/PikeRecord.h"
#include "RoundTrip.h"
#include "TunnelRib/CliTunnelRibKeys.h"
#include "TunnelTable/ColoredTunnelEndpoint.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelValueTypes.h"

using namespace Tunnel::TunnelTable;
using RoundTrip::check;

namespace {

void recordBytes(const uint8_t* data, size_t size) {
   const std::vector<uint8_t> bytes = RoundTrip::exact(data, size);
   const auto available = static_cast<uint32_t>(bytes.size());
   const uint32_t len = Pike::PikeRecord::deserializeLen(bytes.data(), available);
   check(len <= available, "deserializeLen answered more than was available");
   Pike::PikeRecord record;
   try {
      record.deserialize(bytes.data(), available);
   } catch (const Vela::Exception&) {
      return;
   }
   check(len == available, "a record was accepted whose length does not add up");
   std::vector<uint8_t> again(record.serializeLen());
   record.serialize(again.data());
   check(again == bytes, "record bytes do not write back identically");
}

template <class K>
void keyBytes(const uint8_t* data, size_t size) {
   if (size > Pike::PikeKey::kMaxKeyBytes) return;
   const std::vector<uint8_t> bytes = RoundTrip::exact(data, size);
   K key;
   try {
      key = Pike::KeyCodec<K>::decode(bytes.data(), uint32_t(bytes.size()));
   } catch (const Vela::Exception&) {
      return;
   }
   uint8_t again[Pike::PikeKey::kMaxKeyBytes] = {};
   const uint32_t n = Pike::KeyCodec<K>::encode(key, again);
   check(n == bytes.size() && std::memcmp(again, bytes.data(), n) == 0,
         "key bytes do not write back identically");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   if (size == 0) return 0;
   const uint8_t* d = data + 1;
   const size_t n = size - 1;
   switch (data[0] % 5) {
      case 0:
         recordBytes(d, n);
         break;
      case 1:
         keyBytes<InternalTunnelCandidateId>(d, n);
         break;
      case 2:
         keyBytes<ColoredTunnelEndpoint>(d, n);
         break;
      case 3:
         keyBytes<TunnelId>(d, n);
         break;
      case 4:
         keyBytes<TunnelRibId>(d, n);
         break;
   }
   return 0;
}
