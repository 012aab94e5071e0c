// TunnelRibBase: what the two tunnel RIBs share, whatever their key. A RIB is a shared-memory table
// (StoreTableBase) of TunnelRibEntry rows, one per endpoint, with an id (all ones until idIs gives
// it one) and an update counter. The counter counts the changes asked for through the counted
// operations (tunnelRibEntryIs, tunnelRibEntryDel), never the family's uncounted entryIs/entryDel,
// so a reader learns cheaply that the RIB changed by comparing it with the last value it saw.
//
// The counted operations take a ColoredTunnelEndpoint for both RIBs: the plain RIB uses only its
// prefix and ignores the color, so callers use one calling convention for both tables.
//
// One writer thread, the owner of the store; the counter is a plain field of the entity.
#pragma once

#include <cstdint>

#include "TunnelRib/TunnelRibEntry.h"
#include "TunnelTable/ColoredTunnelEndpoint.h"
#include "TunnelTable/StoreTableBase.h"
#include "TunnelTable/TunnelValueTypes.h"

namespace Tunnel::TunnelTable {

// The attributes observers of a RIB are told of besides "entry"; they follow the EVPN table's
// lastAllocatedId (388).
inline constexpr Vela::AttributeId attrId{389};
inline constexpr Vela::AttributeId attrTunnelRibUpdateCounter{390};

// The base's own framework type; never mounted.
inline constexpr TableType tunnelRibBaseType{"Tunnel::TunnelTable::TunnelRibBase",
                                             TunnelRibEntry::kTypeName,
                                             "",
                                             "",
                                             TunnelType::reservedTunnel0,
                                             TunnelTableIdentifier::invalidTunnelTableId,
                                             TunnelRibEntry::kMaxSerializedLen};

class TunnelRibBase : public StoreTableBase {
  public:
   static const TableType& baseFwkType() noexcept { return tunnelRibBaseType; }

   TunnelRibId id() const noexcept { return id_; }
   // Sets the id; observers of "id" are told only when it changed.
   void idIs(TunnelRibId id);

   uint64_t tunnelRibUpdateCounter() const noexcept { return tunnelRibUpdateCounter_; }
   // Sets the counter (the framework restoring attributes); notifies only when it changed.
   void tunnelRibUpdateCounterIs(uint64_t value);
   // Adds `delta` and returns the new value; notifies only when it changed (0 notifies nobody).
   uint64_t tunnelRibUpdateCounterInc(uint64_t delta);

   virtual bool isColored() const = 0;
   // The counted write. The plain RIB compares with the stored entry first and writes nothing
   // (no count, no notification) when they are equal; the colored RIB always counts and writes.
   virtual void tunnelRibEntryIs(const TunnelRibEntry& entry) = 0;
   // The counted delete: counts even when nothing is stored under the key.
   virtual void tunnelRibEntryDel(const ColoredTunnelEndpoint& coloredTep) = 0;
   virtual bool tunnelRibEntryHas(const ColoredTunnelEndpoint& coloredTep) const = 0;
   // A copy of the stored entry, or the default entry when there is none.
   virtual TunnelRibEntry tunnelRibEntry(const ColoredTunnelEndpoint& coloredTep) const = 0;

   // "TunnelRib id <id>" (or "ColoredTunnelRib ..."), the counter, the store's sequence number,
   // the entry count, then each entry's dump at indent + 2.
   void dumpState(Vela::String& out, int indent) const;

  protected:
   TunnelRibBase(const Vela::String& name, const TableType& type) : StoreTableBase(name, type) {}
   // Every entry's dump, in the store's order.
   virtual void dumpEntries(Vela::String& out, int indent) const = 0;

  private:
   TunnelRibId id_;
   uint64_t tunnelRibUpdateCounter_ = 0;
};

}  // namespace Tunnel::TunnelTable
