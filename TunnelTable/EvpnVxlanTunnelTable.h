// EvpnVxlanTunnelTable: the EVPN VXLAN member of the tunnel table family. Its tunnels (type 6) get
// their indexes from the table itself: a counter of the last index handed out, never lowered, so
// an index is never reused within the life of the table. Indexes stay within 32 bits.
#pragma once

#include "TunnelTable/EvpnVxlanTunnelEntry.h"
#include "TunnelTable/TunnelTableFamily.h"

namespace Tunnel::TunnelTable {

using Id64 = uint64_t;

// The attribute observers of lastAllocatedId are told of. The runtime fixes only "entry" and
// "entryControl"; this one follows them.
inline constexpr Vela::AttributeId attrLastAllocatedId{388};

inline constexpr TableType evpnVxlanTunnelTableType{"Tunnel::TunnelTable::EvpnVxlanTunnelTable",
                                                    "Tunnel::TunnelTable::EvpnVxlanTunnelEntry",
                                                    "evpnVxlan",
                                                    "tunnel/table/evpnVxlan",
                                                    TunnelType::evpnVxlanTunnel,
                                                    TunnelTableIdentifier::evpnVxlanTunnelTable,
                                                    Codec::maxFieldsLen<EvpnVxlanTunnelEntry>()};

}  // namespace Tunnel::TunnelTable

// In TunnelTables.cpp.
extern TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::EvpnVxlanTunnelEntry,
                                    Tunnel::TunnelTable::TunnelTableBase);

namespace Tunnel::TunnelTable {
class EvpnVxlanTunnelTable : public TunnelTableFamily<EvpnVxlanTunnelEntry> {
  public:
   static constexpr const TableType& kTableType = evpnVxlanTunnelTableType;
   class EvpnVxlanTunnelTableZeroReferencesNotifiee : public StoreTableZeroReferencesNotifiee {
     public:
      using StoreTableZeroReferencesNotifiee::StoreTableZeroReferencesNotifiee;
   };

   explicit EvpnVxlanTunnelTable(const Vela::String& name);
   static Vela::Ptr<EvpnVxlanTunnelTable> EvpnVxlanTunnelTableIs(const Vela::String& name);

   static constexpr Id64 maxId() noexcept { return 0xFFFFFFFFu; }
   Id64 lastAllocatedId() const noexcept { return lastAllocatedId_; }
   // Sets the counter; observers of lastAllocatedId are told only when it changed.
   void lastAllocatedIdIs(Id64 id);
   // Adds `amount`; observers are told only when the value changed.
   void lastAllocatedIdInc(Id64 amount);

   // Hands out the next index and returns its type-6 tunnel id. Asserts when the last index
   // (maxId) has been handed out already.
   TunnelId newTunnelId();

  private:
   Id64 lastAllocatedId_ = 0;
};

Vela::Ptr<EvpnVxlanTunnelTable> evpnVxlanTunnelTableFactory(const Vela::String& name);

}  // namespace Tunnel::TunnelTable
