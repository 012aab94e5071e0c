#include "EntryJson.h"

#include <type_traits>

#include "Mldp/MldpTunnelTable.h"
#include "TunnelTable/EvpnVxlanTunnelTable.h"
#include "TunnelTable/TunnelTables.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;

Json tunnelIdJson(const TT::TunnelId& id) {
   return {{"value", id.value()},
           {"type", std::string(TT::tunnelTypeName(id.tunnelType()))},
           {"typeCode", TT::tunnelTypeCode(id.tunnelType())},
           {"index", id.tunnelIndex()}};
}

std::string printableName(std::string_view bytes) {
   static constexpr char kHex[] = "0123456789abcdef";
   std::string out;
   out.reserve(bytes.size());
   for (const char c : bytes) {
      const auto b = static_cast<unsigned char>(c);
      if (b == '\\') {
         out += "\\\\";
      } else if (b >= 0x20 && b < 0x7f) {
         out += c;
      } else {
         out += {'\\', 'x', kHex[b >> 4], kHex[b & 15]};
      }
   }
   return out;
}

namespace {

// ---- one overload per field type ----

Json toJson(const TT::TunnelId& v) {
   return tunnelIdJson(v);
}
Json toJson(TT::TunnelEntryPref v) {
   return v.value();
}
Json toJson(TT::TunnelIgpPref v) {
   return v.value();
}
// NaN and infinities have no JSON number: they print as null.
Json toJson(TT::TunnelBandwidth v) {
   return v.value();
}
Json toJson(TT::TunnelEntrySequenceNumber v) {
   return v.value();
}
Json toJson(TT::ContributionToTunnelRIB v) {
   return std::string(valueToStrep(v));
}
Json toJson(const TT::OptionalColor& v) {
   return v.hasValue() ? Json(v.value()) : Json(nullptr);
}
Json toJson(Wirekit::MetricType v) {
   return Wirekit::valueToStrep(v);
}
Json toJson(const Wirekit::IpGenAddr& v) {
   return Wirekit::valueToStrep(v);
}
Json toJson(const Wirekit::IpGenPrefix& v) {
   return Wirekit::valueToStrep(v);
}
Json toJson(const Wirekit::IntfId& v) {
   return v.name();
}
Json toJson(bool v) {
   return v;
}
template <typename U>
requires std::is_unsigned_v<U> Json toJson(U v) {
   return v;
}

template <typename Op>
Json labelsJson(const Op& op) {
   Json labels = Json::array();
   for (uint32_t l : op.labels()) labels.push_back(l);
   return {{"operation", Wirekit::valueToStrep(op.kind())},
           {"pops", op.popCount()},
           {"labels", std::move(labels)}};
}
Json toJson(const Wirekit::MplsLabelOperation& v) {
   return labelsJson(v);
}
Json toJson(const Wirekit::UnboundedMplsLabelOperation& v) {
   return labelsJson(v);
}

Json toJson(const TT::Via& v) {
   return {{"nextHop", toJson(v.nextHop())}, {"intfId", toJson(v.intfId())}};
}
Json toJson(const TT::MplsVia& v) {
   return {{"nextHop", toJson(v.nextHop())},
           {"intfId", toJson(v.intfId())},
           {"labels", toJson(v.labels())}};
}
// Per traffic class that has an operation: {"cos": c, "labels": {...}}.
Json toJson(const TT::MplsCosVia& v) {
   Json cos = Json::array();
   for (uint8_t c = 0; c < TT::kCosCapacity; ++c) {
      const TT::CosIndex i(c);
      if (v.cosLabelsHas(i)) cos.push_back({{"cos", c}, {"labels", toJson(v.cosLabels(i))}});
   }
   return {{"nextHop", toJson(v.nextHop())},
           {"intfId", toJson(v.intfId())},
           {"cosLabels", std::move(cos)}};
}

// A value class that lists its fields (the interface tunnels' parameters): an object of them.
template <typename V>
requires requires {
   V::fields();
}
Json toJson(const V& v);

// A collection: its live places in index order. The name's characters are one string, escaped
// as printableName does.
template <typename T, typename Index, size_t Capacity>
Json toJson(const Vela::FixedArray<T, Index, Capacity>& a) {
   if constexpr (std::is_same_v<T, char>) {
      return printableName(std::string_view(a.data(), a.count()));
   } else {
      Json out = Json::array();
      for (const T& e : a) out.push_back(toJson(e));
      return out;
   }
}

// Every field of a value class that lists its fields, under the names of its text form.
template <typename V>
Json fieldsJson(const V& v) {
   Json out = Json::object();
   std::apply(
       [&](auto... d) { ((out[std::string(d.name)] = toJson(v.*decltype(d)::member)), ...); },
       V::fields());
   return out;
}

template <typename V>
requires requires {
   V::fields();
}
Json toJson(const V& v) {
   return fieldsJson(v);
}

template <typename Entry>
EntryView viewOf(const TT::TunnelId& id, const Entry& e) {
   return {id, fieldsJson(e), valueToStrep(e)};
}

EntryView viewOf(const TT::TunnelId& id, const TT::MldpTunnelTableEntry& e) {
   Json f = {{"tunnelId", toJson(e.tunnelId())},
             {"mcastTreeId", std::string(e.mcastTreeId().text())},
             {"via", toJson(e.via())}};
   return {id, std::move(f), valueToStrep(e)};
}

template <typename Table>
EntryReader readerOf(const Table& table) {
   return [&table](const TT::TunnelId& id) -> std::optional<EntryView> {
      if (auto e = table.entryIf(id)) return viewOf(id, *e);
      return std::nullopt;
   };
}

// The reader of `table` when it is a Table, else none.
template <typename Table>
EntryReader readerIf(const TT::TunnelTableBase& table) {
   if (const auto* t = dynamic_cast<const Table*>(&table)) return readerOf(*t);
   return nullptr;
}

// The reader of the first class of the list that `table` is.
template <typename... Tables>
EntryReader readerFrom(const TT::TunnelTableBase& table, TT::TableList<Tables...>) {
   EntryReader found;
   ((found = found ? std::move(found) : readerIf<Tables>(table)), ...);
   return found;
}

}  // namespace

Json labelOperationJson(const Wirekit::MplsLabelOperation& op) {
   return toJson(op);
}
Json labelOperationJson(const Wirekit::UnboundedMplsLabelOperation& op) {
   return toJson(op);
}
Json tunnelInfoJson(const Tunnel::GreTunnelInfo& info) {
   return fieldsJson(info);
}
Json tunnelInfoJson(const Tunnel::IpsecGreTunnelInfo& info) {
   return fieldsJson(info);
}
Json tunnelInfoJson(const Tunnel::IpsecVtiTunnelInfo& info) {
   return fieldsJson(info);
}
Json tunnelInfoJson(const Tunnel::VxlanTunnelInfo& info) {
   return fieldsJson(info);
}

EntryReader entryReaderFor(const TT::TunnelTableBase& table) {
   if (auto r = readerFrom(table, TT::TunnelTables{})) return r;
   if (auto r = readerFrom(table, TT::MldpTables{})) return r;
   throw std::logic_error(std::string("no JSON form for the table type ") +
                          std::string(table.fwkType().typeName));
}

}  // namespace TunnelCtl
