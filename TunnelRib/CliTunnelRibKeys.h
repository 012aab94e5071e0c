// The attribute ids and key byte forms of the command-line tunnel RIB tree (TunnelPikeStatus).
// The ids are shared by every process that observes the tree; the byte forms are what the Pike
// store keys a member by.
#pragma once

#include <cstring>

#include "Pike/PikeRecord.h"
#include "TunnelRib/InternalTunnelCandidateId.h"
#include "Vela/AttributeId.h"

namespace Tunnel::TunnelTable {

inline constexpr Vela::AttributeId attrCliTunnelRibColl{391};
inline constexpr Vela::AttributeId attrCandidates{392};
inline constexpr Vela::AttributeId attrTunnelId{393};

}  // namespace Tunnel::TunnelTable

// tunnelType (4 bytes), entryPref (1), entryMetric (4): the fields without the padding between.
template <>
struct Pike::KeyCodec<Tunnel::TunnelTable::InternalTunnelCandidateId> {
   static constexpr uint32_t kLen = 9;
   static uint32_t encode(const Tunnel::TunnelTable::InternalTunnelCandidateId& id, uint8_t* out) {
      const auto type = static_cast<uint32_t>(id.tunnelType());
      const uint8_t pref = id.entryPref();
      const uint32_t metric = id.entryMetric();
      std::memcpy(out, &type, 4);
      std::memcpy(out + 4, &pref, 1);
      std::memcpy(out + 5, &metric, 4);
      return kLen;
   }
   static Tunnel::TunnelTable::InternalTunnelCandidateId decode(const uint8_t* in, uint32_t len) {
      if (len != kLen) throw Vela::Exception("Pike key of the wrong length");
      uint32_t type, metric;
      std::memcpy(&type, in, 4);
      std::memcpy(&metric, in + 5, 4);
      return {Tunnel::TunnelTable::TunnelType(type), in[4], metric};
   }
};
