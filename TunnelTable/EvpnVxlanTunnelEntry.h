// EvpnVxlanTunnelEntry: the entry of the EVPN VXLAN tunnel table, a tunnel to a remote VTEP. Its
// tunnel ids are allocated by the table (type 6); the entry holds the id and the VXLAN parameters.
// Unlike the protocol entries it has no TunnelTableEntry base and a short fixed byte form:
//
//    struct EvpnVxlanTunnelEntryRecord {   // 56 bytes, little-endian
//       u64 tunnelId;                      //  0
//       u8  tunnelInfo[48];                //  8  VxlanTunnelInfo
//    };
//
// Text form: "Value('Tunnel::TunnelTable::EvpnVxlanTunnelEntry', ** {'tunnelId': %s, 'tunnelInfo':
// %s})".
#pragma once

#include "TunnelTable/EntryRecord.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelInfo.h"

namespace Tunnel::TunnelTable {

class EvpnVxlanTunnelEntry {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::EvpnVxlanTunnelEntry";
   static constexpr uint32_t kSerializedLen = 56;

   EvpnVxlanTunnelEntry() = default;
   explicit EvpnVxlanTunnelEntry(const TunnelId& tunnelId) : tunnelId_(tunnelId) {}
   EvpnVxlanTunnelEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_FIELD(TunnelId, tunnelId)
   TUNNEL_ENTRY_FIELD(VxlanTunnelInfo, tunnelInfo)

   friend bool operator==(const EvpnVxlanTunnelEntry& a, const EvpnVxlanTunnelEntry& b);
   friend Vela::String valueToStrep(const EvpnVxlanTunnelEntry& v);
   friend std::ostream& operator<<(std::ostream& os, const EvpnVxlanTunnelEntry& v);

   uint32_t serializeLen() const { return kSerializedLen; }
   // REQUIRES: buffer holds serializeLen() bytes.
   void serialize(void* buffer) const;
   static uint32_t deserializeLen(const void* buffer, uint32_t available) noexcept;
   void deserialize(const void* buffer, uint32_t length);
   // The identifier line, then "tunnelInfo: <text form>".
   void dumpState(Vela::String& out, int indent) const;
   void dumpState(std::ostream& os, int indent) const;

   static constexpr auto fields() {
      using Self = EvpnVxlanTunnelEntry;
      return std::tuple{Codec::field<&Self::tunnelId_>("tunnelId"),
                        Codec::field<&Self::tunnelInfo_>("tunnelInfo")};
   }

  private:
   TunnelId tunnelId_;
   VxlanTunnelInfo tunnelInfo_;
};

inline TunnelId keyOf(const EvpnVxlanTunnelEntry& e) noexcept {
   return e.tunnelId();
}

}  // namespace Tunnel::TunnelTable
