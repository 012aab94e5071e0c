#include "TunnelRib/RibContribution.h"

#include <cstring>
#include <map>
#include <string>
#include <type_traits>

#include "TunnelTable/EvpnVxlanTunnelTable.h"
#include "TunnelTable/TunnelTables.h"

namespace Tunnel::TunnelTable {

bool operator==(const RibContribution& a, const RibContribution& b) {
   // Bandwidths compare by bit pattern: a NaN bandwidth is a value like any other here, so an
   // unchanged NaN tunnel is not re-evaluated forever.
   const float ba = a.bandwidth.value(), bb = b.bandwidth.value();
   return a.tunnelId == b.tunnelId && a.endpoint == b.endpoint && a.candidate == b.candidate &&
          std::memcmp(&ba, &bb, sizeof ba) == 0 && a.metric == b.metric &&
          a.metricType == b.metricType && a.metric2 == b.metric2 && a.pref == b.pref &&
          a.pref2 == b.pref2;
}

namespace {

// The part every kind offers: key, endpoint, class, bandwidth.
RibContribution baseContribution(const TunnelTableEntry& e) {
   RibContribution c;
   c.tunnelId = e.tunnelId();
   c.endpoint = ColoredTunnelEndpoint(e.tep());
   c.candidate =
       InternalTunnelCandidateId(e.tunnelId().tunnelType(), e.entryPref().value(), e.entryMetric());
   c.bandwidth = e.tunnelBw();
   return c;
}

void colorIs(RibContribution& c, uint32_t color) {
   c.endpoint = ColoredTunnelEndpoint(c.endpoint.tep(), color);
}

void igpIs(RibContribution& c, uint32_t metric, uint32_t pref) {
   c.metric = metric;
   c.pref = pref;
}

// The kind-specific part, by the most derived kind that has one.
void ownFields(RibContribution&, const TunnelTableEntry&) {}
void ownFields(RibContribution& c, const IgpTunnelTableEntryBase& e) {
   igpIs(c, e.igpMetric(), e.igpPref().value());
   c.metric2 = e.igpMetric2();
   c.pref2 = e.igpPref2();
}
void ownFields(RibContribution& c, const BgpLuTunnelTableEntry& e) {
   c.metric = e.bgpMetric();
   c.metricType = e.bgpMetricType();
   c.metric2 = e.bgpMetric2();
   c.pref = e.bgpPref();
   c.pref2 = e.bgpPref2();
}
void ownFields(RibContribution& c, const RsvpLerTunnelTableEntry& e) {
   igpIs(c, e.metric(), e.igpPref().value());
   if (e.color().hasValue()) colorIs(c, e.color().value());
}
void ownFields(RibContribution& c, const ColoredTunnelTableEntry& e) {
   igpIs(c, e.igpMetric(), e.igpPref().value());
   colorIs(c, e.color());
}
void ownFields(RibContribution& c, const FlexAlgoTunnelTableEntry& e) {
   igpIs(c, e.igpMetric(), e.igpPref().value());
   if (e.isColored()) colorIs(c, e.color());
}
void ownFields(RibContribution& c, const NexthopGroupTunnelTableEntry& e) {
   igpIs(c, e.igpMetric(), e.igpPref());
}

template <class Entry>
std::optional<RibContribution> contributionOf(const Entry& e) {
   if constexpr (std::is_same_v<Entry, BgpLuTunnelTableEntry>) {
      if (e.contribution() != ContributionToTunnelRIB::contributing) return std::nullopt;
   }
   if (e.endpoint().count() == 0) return std::nullopt;
   RibContribution c = baseContribution(e);
   ownFields(c, e);
   return c;
}

template <class Table>
void addReader(std::map<std::string, RibContributionReader, std::less<>>& readers) {
   using Entry = typename Table::EntryType;
   if constexpr (std::is_base_of_v<TunnelTableEntry, Entry>) {
      readers.emplace(
          Table::kTableType.typeName,
          [](const TunnelTableBase& base, const TunnelId& key) -> std::optional<RibContribution> {
             const auto* table = dynamic_cast<const Table*>(&base);
             if (!table) return std::nullopt;
             std::optional<Entry> e = table->entryIf(key);
             if (!e) return std::nullopt;
             return contributionOf(*e);
          });
   }
}

template <class... Tables>
std::map<std::string, RibContributionReader, std::less<>> readersOf(TableList<Tables...>) {
   std::map<std::string, RibContributionReader, std::less<>> readers;
   (addReader<Tables>(readers), ...);
   return readers;
}

}  // namespace

RibContributionReader ribContributionReader(std::string_view typeName) {
   static const auto readers = readersOf(TunnelTables{});
   auto it = readers.find(typeName);
   return it == readers.end() ? RibContributionReader() : it->second;
}

}  // namespace Tunnel::TunnelTable
