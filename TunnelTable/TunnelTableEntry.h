// TunnelTableEntry: the record every tunnel entry kind starts with - the key, the tunnel it rides
// on, its preference, metric and bandwidth, its endpoints and a display name. Entries are plain
// values, copied whole and compared field by field; the byte form is in EntryRecord.h.
//
// Entries order by the eight-step comparison used to pick the best tunnel to an endpoint (see
// operator<). A default entry has tunnel id 0, which is of type 0, so its preference is 255.
#pragma once

#include <string_view>

#include "TunnelTable/EntryRecord.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelIndices.h"
#include "TunnelTable/TunnelType.h"
#include "TunnelTable/TunnelValueTypes.h"
#include "Vela/FixedArray.h"
#include "Wirekit/IpGenPrefix.h"

namespace Tunnel::TunnelTable {

using EndpointArray = Vela::FixedArray<Wirekit::IpGenPrefix, TepIndex, kTepCapacity>;
using NameArray = Vela::FixedArray<char, NameIndex, kNameCapacity>;

class TunnelTableEntry {
  public:
   static constexpr const char* kTypeName = "Tunnel::TunnelTable::TunnelTableEntry";
   static constexpr const char* kClassName = "TunnelTableEntry";
   static constexpr EntryKind kKind = EntryKind::tunnelTableEntry;

   TunnelTableEntry() : TunnelTableEntry(TunnelId()) {}
   // entryPref is getDefaultPrefForType of the id's type (which asserts on codes 23-30).
   explicit TunnelTableEntry(const TunnelId& tunnelId);
   TunnelTableEntry(const TunnelId& tunnelId, TunnelEntryPref entryPref);
   TunnelTableEntry(Vela::String::const_iterator begin, Vela::String::const_iterator end);

   TUNNEL_ENTRY_FIELD(TunnelId, tunnelId)
   TUNNEL_ENTRY_FIELD(TunnelId, nexthopTunnelId)
   TUNNEL_ENTRY_FIELD(TunnelEntryPref, entryPref)
   TUNNEL_ENTRY_FIELD(uint32_t, entryMetric)
   TUNNEL_ENTRY_FIELD(TunnelBandwidth, tunnelBw)

   // Endpoints, 16 places.
   const EndpointArray& endpoint() const noexcept { return endpoint_; }
   const Wirekit::IpGenPrefix& endpoint(TepIndex i) const { return endpoint_[i]; }
   const Wirekit::IpGenPrefix& endpointIs(TepIndex i, const Wirekit::IpGenPrefix& p) {
      return endpoint_.is(i, p);
   }
   Wirekit::IpGenPrefix endpointDel(TepIndex i) { return endpoint_.del(i); }
   void endpointDelAll() noexcept { endpoint_.delAll(); }
   // The first endpoint prefix (the default prefix when there is none).
   const Wirekit::IpGenPrefix& tep() const { return endpoint_[TepIndex(0)]; }

   // Name characters, 128 places.
   const NameArray& name() const noexcept { return name_; }
   char name(NameIndex i) const { return name_[i]; }
   char nameIs(NameIndex i, char c) { return name_.is(i, c); }
   char nameDel(NameIndex i) { return name_.del(i); }
   void nameDelAll() noexcept { name_.delAll(); }
   // The whole name at once. Throws the NameIndex range exception beyond 128 characters, leaving
   // the name unchanged.
   void nameIs(std::string_view text);
   std::string_view nameString() const noexcept { return {name_.data(), name_.count()}; }

   // Preference, then the default preference of the tunnel's type, entry metric, tunnel id,
   // bandwidth, endpoints (lexicographically), next-hop tunnel id, name (bytewise): the first
   // step at which the two differ decides, the smaller ordering first.
   friend bool operator<(const TunnelTableEntry& a, const TunnelTableEntry& b);

   TUNNEL_ENTRY_OPERATIONS(TunnelTableEntry)

   static constexpr auto fields() {
      using Self = TunnelTableEntry;
      return std::tuple{
          Codec::field<&Self::tunnelId_>("tunnelId"),
          Codec::field<&Self::nexthopTunnelId_>("nexthopTunnelId"),
          Codec::field<&Self::entryPref_>("entryPref"),
          Codec::field<&Self::entryMetric_>("entryMetric"),
          Codec::field<&Self::tunnelBw_>("tunnelBw"),
          Codec::fieldAs<&Self::endpoint_, Codec::AllPlacesArrayTraits<EndpointArray>>("endpoint"),
          Codec::fieldAs<&Self::name_, Codec::AllPlacesArrayTraits<NameArray>>("name")};
   }

  protected:
   // The base part of a dump: the identifier line, the next-hop tunnel line when the entry rides
   // on another tunnel, and the first endpoint.
   void dumpBase(Vela::String& out, int indent) const;

  private:
   TunnelId tunnelId_;
   TunnelId nexthopTunnelId_;
   TunnelEntryPref entryPref_;
   uint32_t entryMetric_ = 0;
   TunnelBandwidth tunnelBw_;
   LiveCopyArray<EndpointArray> endpoint_;
   LiveCopyArray<NameArray> name_;
};

// The key under which a table stores an entry.
inline TunnelId keyOf(const TunnelTableEntry& e) noexcept {
   return e.tunnelId();
}

}  // namespace Tunnel::TunnelTable
