// Reading a network description: JSON -> routers and tunnel entries. Each value is read through
// a small cursor that knows its key path, so every error can say exactly where it is. Entries are
// built with the entry kinds' own setters; what the setters refuse (too many endpoints, a name
// over 128 characters) is checked here first, with the file's words.
#include "Description.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Mldp/MldpTunnelTable.h"
#include "StrictJson.h"
#include "TunnelTable/EvpnVxlanTunnelTable.h"
#include "TunnelTable/TunnelTableEntries.h"
#include "TunnelTable/TunnelTables.h"
#include "Vela/Assert.h"
#include "Vela/Exception.h"
#include "Wirekit/MetricType.h"
#include "Wirekit/MplsLabelOperation.h"
#include "Wirekit/UnboundedMplsLabelOperation.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;
using json = nlohmann::json;
using TT::TunnelId;

const RouterInterface* Router::interface(const Wirekit::IntfId& intf) const {
   for (const auto& i : interfaces) {
      if (i.intf == intf) return &i;
   }
   return nullptr;
}

const Router* Description::router(std::string_view n) const {
   for (const auto& r : routers) {
      if (r.name == n) return &r;
   }
   return nullptr;
}

std::vector<const TableEntry*> Description::tables() const {
   std::vector<const TableEntry*> out;
   for (const auto& t : tableCatalog()) {
      for (const auto& d : tunnels) {
         if (d.table == &t) {
            out.push_back(&t);
            break;
         }
      }
   }
   return out;
}

std::vector<const DescribedTunnel*> Description::tunnelsOf(const TableEntry& table) const {
   std::vector<const DescribedTunnel*> out;
   for (const auto& d : tunnels) {
      if (d.table == &table) out.push_back(&d);
   }
   return out;
}

namespace {

// One JSON value and where it sits in the file. The key path is built only when an error needs
// it: a cursor knows its parent and its own key or index. So a child must not outlive its parent
// (name the steps of a chain instead of chaining temporaries); a copy keeps the same parent.
class Cursor {
  public:
   Cursor(const std::string& file, const json& value, std::string path)
       : file_(&file), value_(&value), rootPath_(std::move(path)) {}

   const json& value() const { return *value_; }
   std::string path() const {
      if (!parent_) return rootPath_;
      std::string p = parent_->path();
      if (key_.data()) {
         if (!p.empty()) p += '.';
         p += key_;
      } else {
         p += "[" + std::to_string(index_) + "]";
      }
      return p;
   }

   [[noreturn]] void fail(const std::string& what) const {
      const std::string p = path();
      throw DescriptionError(*file_ + ": " + (p.empty() ? "(top level)" : p) + ": " + what);
   }

   Cursor at(size_t i) const { return Cursor(*file_, (*value_)[i], this, {}, i); }
   Cursor child(std::string_view key, const json& v) const {
      return Cursor(*file_, v, this, key, 0);
   }

   std::string string() const {
      if (!value_->is_string()) fail("expected a string, got " + excerpt(*value_));
      return value_->get<std::string>();
   }
   uint64_t unsignedNumber(uint64_t max) const {
      if (!value_->is_number_unsigned() || value_->get<uint64_t>() > max) {
         fail("expected a whole number from 0 to " + std::to_string(max) + ", got " +
              excerpt(*value_));
      }
      return value_->get<uint64_t>();
   }
   uint32_t u32() const { return uint32_t(unsignedNumber(std::numeric_limits<uint32_t>::max())); }
   float real() const {
      if (!value_->is_number()) fail("expected a number, got " + excerpt(*value_));
      const double d = value_->get<double>();
      if (!(d >= 0) || !std::isfinite(d) || d > std::numeric_limits<float>::max()) {
         fail("expected a non-negative number, got " + excerpt(*value_));
      }
      return float(d);
   }
   bool boolean() const {
      if (!value_->is_boolean()) fail("expected true or false, got " + excerpt(*value_));
      return value_->get<bool>();
   }
   const json& array() const {
      if (!value_->is_array()) fail("expected an array, got " + excerpt(*value_));
      return *value_;
   }

   Wirekit::IpGenAddr address() const {
      const std::string s = string();
      try {
         Wirekit::IpGenAddr a(s);
         if (a.isNone()) throw Vela::ParseException("none");
         return a;
      } catch (const Vela::Exception&) {
         fail("bad IPv4/IPv6 address '" + s + "'");
      }
   }
   // A prefix, or an address as its host prefix.
   Wirekit::IpGenPrefix prefix() const {
      const std::string s = string();
      try {
         Wirekit::IpGenPrefix p = s.find('/') == std::string::npos
                                      ? Wirekit::IpGenPrefix::host(Wirekit::IpGenAddr(s))
                                      : Wirekit::IpGenPrefix(s);
         if (p.isNone()) throw Vela::ParseException("none");
         return p;
      } catch (const Vela::Exception&) {
         fail("bad IPv4/IPv6 prefix '" + s + "'");
      }
   }
   Wirekit::IntfId interface() const {
      const std::string s = string();
      try {
         Wirekit::IntfId i(s);
         if (i.isEmpty()) throw Vela::ParseException("empty");
         return i;
      } catch (const Vela::Exception&) {
         fail("bad interface name '" + s + "'");
      }
   }

  private:
   Cursor(const std::string& file, const json& value, const Cursor* parent, std::string_view key,
          size_t index)
       : file_(&file), value_(&value), parent_(parent), key_(key), index_(index) {}

   const std::string* file_;
   const json* value_;
   const Cursor* parent_ = nullptr;
   std::string_view key_;  // a member's key (it lives in the document), or null for an element
   size_t index_ = 0;
   std::string rootPath_;
};

// A JSON object: keys are taken one by one, and finish() refuses any key nobody took.
class Object {
  public:
   explicit Object(const Cursor& c) : cursor_(c) {
      if (!c.value().is_object()) c.fail("expected an object, got " + excerpt(c.value()));
   }
   const Cursor& cursor() const { return cursor_; }
   [[noreturn]] void fail(const std::string& what) const { cursor_.fail(what); }

   // `key` is a literal: the cursor returned keeps a view of it.
   std::optional<Cursor> get(std::string_view key) {
      taken_.push_back(key);
      auto it = cursor_.value().find(key);
      if (it == cursor_.value().end()) return std::nullopt;
      return cursor_.child(key, *it);
   }
   Cursor need(std::string_view key) {
      auto c = get(key);
      if (!c) fail("missing key '" + std::string(key) + "'");
      return *c;
   }
   // `what` names the kind of object for the message: "for table 'ldp'".
   void finish(const std::string& what = "") const {
      for (auto it = cursor_.value().begin(); it != cursor_.value().end(); ++it) {
         if (std::find(taken_.begin(), taken_.end(), it.key()) == taken_.end()) {
            cursor_.child(it.key(), it.value())
                .fail("unknown key" + (what.empty() ? std::string() : " " + what));
         }
      }
   }

  private:
   Cursor cursor_;
   std::vector<std::string_view> taken_;
};

// An entry's byte form is mostly zeros (unused endpoint places, the rest of the name), so a
// described tunnel keeps it with each run of zero bytes packed as a zero and the run's length
// (one byte, 1..255): an LDP tunnel's 700 bytes keep in about 150.
std::string packZeros(const uint8_t* p, size_t n) {
   std::string out(n, '\0');
   char* o = out.data();
   for (size_t i = 0; i < n;) {
      if (p[i] != 0) {
         *o++ = char(p[i++]);
         continue;
      }
      size_t run = 1;
      while (i + run < n && p[i + run] == 0 && run < 255) ++run;
      *o++ = '\0';
      *o++ = char(run);
      i += run;
   }
   out.resize(size_t(o - out.data()));
   out.shrink_to_fit();
   return out;
}

std::vector<uint8_t> unpackZeros(const std::string& packed) {
   std::vector<uint8_t> out;
   out.reserve(packed.size() * 4);
   for (size_t i = 0; i < packed.size(); ++i) {
      if (packed[i] != '\0') {
         out.push_back(uint8_t(packed[i]));
      } else {
         out.insert(out.end(), uint8_t(packed[++i]), 0);
      }
   }
   return out;
}

// The entry of kind E in a described tunnel's bytes, written to its table of class Table.
template <class Table, class E>
struct EntryOpsOf {
   static std::string bytesOf(const E& e) {
      std::vector<uint8_t> raw(e.serializeLen());
      e.serialize(raw.data());
      return packZeros(raw.data(), raw.size());
   }
   static E entry(const std::string& packed) {
      const std::vector<uint8_t> raw = unpackZeros(packed);
      E e;
      e.deserialize(raw.data(), uint32_t(raw.size()));
      return e;
   }
   static Vela::String text(const std::string& bytes) { return valueToStrep(entry(bytes)); }
   static bool write(TT::TunnelTableBase& base, const std::string& bytes) {
      auto* table = dynamic_cast<Table*>(&base);
      VELA_ASSERT(table && "the writer mounted for a described tunnel has its table's class");
      const E e = entry(bytes);
      // A re-attached writer keeps its entries: only what differs is written again.
      if (auto held = table->entryIf(e.tunnelId()); held && *held == e) return false;
      table->entryIs(e);
      if constexpr (std::is_same_v<Table, TT::EvpnVxlanTunnelTable>) {
         // The table's counter must not hand out an index the description used.
         if (table->lastAllocatedId() < e.tunnelId().tunnelIndex()) {
            table->lastAllocatedIdIs(e.tunnelId().tunnelIndex());
         }
      }
      return true;
   }
   static constexpr DescribedEntryOps kOps{&text, &write};
};

// Reads the tunnels of one description, with the routers already known.
class TunnelReader {
  public:
   explicit TunnelReader(Description& d) : d_(d) {}

   void read(const Cursor& c) {
      Object o(c);
      const Cursor tableKey = o.need("table");
      const std::string mountName = tableKey.string();
      const TableEntry* table = tableByMountName(mountName);
      if (!table)
         tableKey.fail("unknown table '" + mountName + "' (known: " + knownMountNames() + ")");
      table_ = table;
      DescribedTunnel t;
      t.table = table;
      t.path = c.path();
      build(o, t);
      o.finish("for table '" + mountName + "'");
      const auto [at, fresh] = seen_.try_emplace({table, t.id}, d_.tunnels.size());
      if (!fresh) {
         c.fail("duplicate tunnel: " + mountName + " index " + std::to_string(t.id.tunnelIndex()) +
                " is also " + d_.tunnels[at->second].path);
      }
      d_.tunnels.push_back(std::move(t));
   }

  private:
   using Id = TunnelTableIdentifier;

   TT::TunnelType tunnelType() const { return table_->type->tunnelType; }

   TunnelId makeId(const Cursor& at, TT::TunnelType type, uint64_t index) const {
      // Interface tunnels have 16-bit indexes, the others the 43 bits of the identifier (35 for
      // flex-algo, whose upper index bits the identifier does not keep).
      const uint64_t max = type == TT::TunnelType::isisFlexAlgoTunnel ? TunnelId::kFlexAlgoIndexMask
                                                                      : TunnelId::kIndexMask;
      if (index > max) {
         at.fail("expected a whole number from 0 to " + std::to_string(max) + ", got " +
                 std::to_string(index));
      }
      return TunnelId(TunnelId::convertToTunnelValue(type, index));
   }

   // {"table": "ldp", "index": 7}: a tunnel of another (or the same) table.
   TunnelId tunnelRef(const Cursor& c) const {
      Object o(c);
      const Cursor tableKey = o.need("table");
      const std::string mountName = tableKey.string();
      const TableEntry* t = tableByMountName(mountName);
      if (!t) tableKey.fail("unknown table '" + mountName + "' (known: " + knownMountNames() + ")");
      const Cursor indexKey = o.need("index");
      const TunnelId id = makeId(indexKey, t->type->tunnelType,
                                 indexKey.unsignedNumber(std::numeric_limits<uint64_t>::max()));
      o.finish("in a tunnel reference");
      return id;
   }

   // An endpoint: a prefix, an address (its host prefix) or a router (its loopback).
   Wirekit::IpGenPrefix endpoint(const Cursor& c) const {
      const std::string s = c.string();
      if (const Router* r = d_.router(s)) return Wirekit::IpGenPrefix::host(r->loopback);
      try {
         if (s.find('/') == std::string::npos) {
            Wirekit::IpGenAddr a(s);
            if (!a.isNone()) return Wirekit::IpGenPrefix::host(a);
         } else {
            Wirekit::IpGenPrefix p(s);
            if (!p.isNone()) return p;
         }
      } catch (const Vela::Exception&) {
      }
      c.fail("bad endpoint '" + s + "': not an IPv4/IPv6 prefix or address, nor a router name");
   }

   // An empty operation is refused: it would read as "no label operation", which is what leaving
   // the key out says.
   static std::string labelText(const Cursor& c) {
      const std::string s = c.string();
      if (s.find_first_not_of(' ') == std::string::npos) {
         c.fail("an empty label operation; leave \"labels\" out for none");
      }
      return s;
   }

   Wirekit::MplsLabelOperation labels(const Cursor& c) const {
      const std::string s = labelText(c);
      try {
         return Wirekit::MplsLabelOperation(s);
      } catch (const std::exception& e) {
         c.fail("bad label operation '" + s + "' (" + e.what() + ")");
      }
   }
   Wirekit::UnboundedMplsLabelOperation unboundedLabels(const Cursor& c) const {
      const std::string s = labelText(c);
      try {
         return Wirekit::UnboundedMplsLabelOperation(s);
      } catch (const std::exception& e) {
         c.fail("bad label operation '" + s + "' (" + e.what() + ")");
      }
   }

   // The interface of a via: it must be one of the local router's interfaces (when the local
   // router is described), and a next hop on an addressed link must be on that link's subnet.
   Wirekit::IntfId viaInterface(Object& o, const Wirekit::IpGenAddr& nextHop) {
      auto c = o.get("interface");
      if (!c) return Wirekit::IntfId();
      const Wirekit::IntfId intf = c->interface();
      if (const Router* local = d_.router(d_.localRouter)) {
         const RouterInterface* ri = local->interface(intf);
         if (!ri)
            c->fail("'" + intf.name() + "' is not an interface of router '" + local->name + "'");
         if (ri->subnet && !nextHop.isNone() && !ri->subnet->contains(nextHop)) {
            o.cursor()
                .child("nextHop", o.cursor().value()["nextHop"])
                .fail(nextHop.stringValue() + " is not on the subnet of " + intf.name() + " (" +
                      ri->subnet->stringValue() + ")");
         }
      }
      return intf;
   }

   TT::MplsVia mplsVia(const Cursor& c) {
      Object o(c);
      const Wirekit::IpGenAddr nh = o.need("nextHop").address();
      TT::MplsVia v(nh, viaInterface(o, nh));
      if (auto l = o.get("labels")) v.labelsIs(labels(*l));
      o.finish("in an MPLS via");
      return v;
   }

   // A plain via; `tunnels` allows {"tunnel": {...}}, a via into another tunnel.
   TT::Via plainVia(const Cursor& c, bool tunnels) {
      Object o(c);
      if (tunnels) {
         if (auto t = o.get("tunnel")) {
            const TunnelId id = tunnelRef(*t);
            o.finish("in a via into a tunnel");
            return TT::Via::tunnelIdVia(id);
         }
      }
      const Wirekit::IpGenAddr nh = o.need("nextHop").address();
      TT::Via v(nh, viaInterface(o, nh));
      o.finish("in a via");
      return v;
   }

   template <class F>
   void eachVia(const Cursor& c, F&& add) {
      const json& a = c.array();
      if (a.size() > TT::kViaCapacity) {
         c.fail("at most " + std::to_string(TT::kViaCapacity) + " vias, got " +
                std::to_string(a.size()));
      }
      for (size_t i = 0; i < a.size(); ++i) add(TT::ViaIndex(uint16_t(i)), c.at(i));
   }

   template <class E>
   void readBase(Object& o, E& e) {
      if (auto c = o.get("entryPref"))
         e.entryPrefIs(TT::TunnelEntryPref(uint8_t(c->unsignedNumber(255))));
      if (auto c = o.get("entryMetric")) e.entryMetricIs(c->u32());
      if (auto c = o.get("tunnelBw")) e.tunnelBwIs(TT::TunnelBandwidth(c->real()));
      if (auto c = o.get("nexthopTunnel")) e.nexthopTunnelIdIs(tunnelRef(*c));
      if (auto c = o.get("endpoint")) {
         if (c->value().is_array()) {
            if (c->value().size() > TT::kTepCapacity) {
               c->fail("at most " + std::to_string(TT::kTepCapacity) + " endpoints, got " +
                       std::to_string(c->value().size()));
            }
            for (size_t i = 0; i < c->value().size(); ++i) {
               e.endpointIs(TT::TepIndex(unsigned(i)), endpoint(c->at(i)));
            }
         } else {
            e.endpointIs(TT::TepIndex(0u), endpoint(*c));
         }
      }
      if (auto c = o.get("name")) {
         const std::string n = c->string();
         if (n.size() > TT::kNameCapacity) {
            c->fail("a name has at most " + std::to_string(TT::kNameCapacity) +
                    " characters, got " + std::to_string(n.size()));
         }
         // Names are printed by every reader; bytes that would not print are refused here.
         for (size_t i = 0; i < n.size(); ++i) {
            const auto b = static_cast<unsigned char>(n[i]);
            if (b < 0x20 || b > 0x7e) {
               c->fail(fmt::format("a name is printable ASCII; byte 0x{:02x} at offset {} is not",
                                   unsigned(b), i));
            }
         }
         e.nameIs(n);
      }
   }

   TunnelId indexedId(Object& o) {
      const Cursor c = o.need("index");
      return makeId(c, tunnelType(), c.unsignedNumber(std::numeric_limits<uint64_t>::max()));
   }

   template <class Table, class E>
   void finishEntry(DescribedTunnel& t, const E& e) {
      t.id = e.tunnelId();
      t.bytes = EntryOpsOf<Table, E>::bytesOf(e);
      t.ops = &EntryOpsOf<Table, E>::kOps;
   }

   template <class Table, class E>
   void igp(Object& o, DescribedTunnel& t) {
      E e(indexedId(o));
      readBase(o, e);
      if (auto c = o.get("igpMetric")) e.igpMetricIs(c->u32());
      if (auto c = o.get("igpMetric2")) e.igpMetric2Is(c->u32());
      if (auto c = o.get("igpPref")) e.igpPrefIs(TT::TunnelIgpPref(c->u32()));
      if (auto c = o.get("igpPref2")) e.igpPref2Is(c->u32());
      if (auto c = o.get("vias"))
         eachVia(*c, [&](TT::ViaIndex i, const Cursor& v) { e.viaIs(i, mplsVia(v)); });
      finishEntry<Table>(t, e);
   }

   template <class E>
   void frrFields(Object& o, E& e) {
      if (auto c = o.get("via")) e.viaIs(mplsVia(*c));
      if (auto c = o.get("backupVia")) e.backupViaIs(mplsVia(*c));
      if (auto c = o.get("isPrimaryViaUsable")) e.isPrimaryViaUsableIs(c->boolean());
      if (auto c = o.get("seqNo"))
         e.seqNoIs(TT::TunnelEntrySequenceNumber(uint16_t(c->unsignedNumber(0xFFFF))));
   }

   template <class Table, class E>
   void frr(Object& o, DescribedTunnel& t) {
      E e(indexedId(o));
      readBase(o, e);
      frrFields(o, e);
      finishEntry<Table>(t, e);
   }

   void rsvpLer(Object& o, DescribedTunnel& t) {
      TT::RsvpLerTunnelTableEntry e(indexedId(o));
      readBase(o, e);
      frrFields(o, e);
      if (auto c = o.get("metric")) e.metricIs(c->u32());
      if (auto c = o.get("igpPref")) e.igpPrefIs(TT::TunnelIgpPref(c->u32()));
      if (auto c = o.get("isTunnelIgpShortcutEligible"))
         e.isTunnelIgpShortcutEligibleIs(c->boolean());
      if (auto c = o.get("isTunnelLdpTunnelingEligible"))
         e.isTunnelLdpTunnelingEligibleIs(c->boolean());
      if (auto c = o.get("color")) e.colorIs(TT::OptionalColor(c->u32()));
      if (auto c = o.get("splitVias"))
         eachVia(*c, [&](TT::ViaIndex i, const Cursor& v) { e.splitViaIs(i, mplsVia(v)); });
      finishEntry<TT::RsvpLerTunnelTable>(t, e);
   }

   void staticTunnel(Object& o, DescribedTunnel& t) {
      TT::StaticTunnelTableEntry e(indexedId(o));
      readBase(o, e);
      if (auto c = o.get("vias"))
         eachVia(*c, [&](TT::ViaIndex i, const Cursor& v) { e.viaIs(i, mplsVia(v)); });
      if (auto c = o.get("backupVias"))
         eachVia(*c, [&](TT::ViaIndex i, const Cursor& v) { e.backupViaIs(i, mplsVia(v)); });
      finishEntry<TT::StaticTunnelTable>(t, e);
   }

   void segmentList(Object& o, DescribedTunnel& t) {
      TT::SrTeSegmentListTunnelTableEntry e(indexedId(o));
      readBase(o, e);
      if (auto c = o.get("vias"))
         eachVia(*c, [&](TT::ViaIndex i, const Cursor& v) { e.viaIs(i, mplsVia(v)); });
      finishEntry<TT::SrTeSegmentListTunnelTable>(t, e);
   }

   void nexthopGroup(Object& o, DescribedTunnel& t) {
      TT::NexthopGroupTunnelTableEntry e(indexedId(o));
      readBase(o, e);
      if (auto c = o.get("nhgId")) e.nhgIdIs(c->u32());
      if (auto c = o.get("igpMetric")) e.igpMetricIs(c->u32());
      if (auto c = o.get("igpPref")) e.igpPrefIs(c->u32());
      finishEntry<TT::NexthopGroupTunnelTable>(t, e);
   }

   void srTePolicy(Object& o, DescribedTunnel& t) {
      TT::SrTePolicyTunnelTableEntry e(indexedId(o));
      readBase(o, e);
      if (auto c = o.get("color")) e.colorIs(c->u32());
      if (auto c = o.get("igpPref")) e.igpPrefIs(TT::TunnelIgpPref(c->u32()));
      if (auto c = o.get("igpMetric")) e.igpMetricIs(c->u32());
      finishEntry<TT::SrTePolicyTunnelTable>(t, e);
   }

   void flexAlgo(Object& o, DescribedTunnel& t) {
      TT::FlexAlgoTunnelTableEntry e(indexedId(o));
      readBase(o, e);
      if (auto c = o.get("color")) e.colorIs(c->u32());
      if (auto c = o.get("igpPref")) e.igpPrefIs(TT::TunnelIgpPref(c->u32()));
      if (auto c = o.get("igpMetric")) e.igpMetricIs(c->u32());
      if (auto c = o.get("isColored")) e.isColoredIs(c->boolean());
      if (auto c = o.get("vias"))
         eachVia(*c, [&](TT::ViaIndex i, const Cursor& v) { e.viaIs(i, mplsVia(v)); });
      finishEntry<TT::IsisFlexAlgoTunnelTable>(t, e);
   }

   void sbfd(Object& o, DescribedTunnel& t) {
      TT::NimboSdkSbfdSessionTunnelTableEntry e(indexedId(o));
      readBase(o, e);
      if (auto c = o.get("via")) {
         Object v(*c);
         const Wirekit::IpGenAddr nh = v.need("nextHop").address();
         TT::MplsCosVia via(nh, viaInterface(v, nh));
         if (auto cos = v.get("cosLabels")) {
            const json& a = cos->array();
            for (size_t i = 0; i < a.size(); ++i) {
               Object one(cos->at(i));
               const uint8_t cls = uint8_t(one.need("cos").unsignedNumber(TT::kCosCapacity - 1));
               via.cosLabelsIs(TT::CosIndex(cls), labels(one.need("labels")));
               one.finish("in a class-of-service label entry");
            }
         }
         v.finish("in a class-of-service via");
         e.viaIs(via);
      }
      finishEntry<TT::NimboSdkSbfdSessionTunnelTable>(t, e);
   }

   template <class Table, class E>
   void bgpLuPush(Object& o, E& e) {
      readBase(o, e);
      if (auto c = o.get("vias"))
         eachVia(*c, [&](TT::ViaIndex i, const Cursor& v) { e.viaIs(i, plainVia(v, true)); });
      if (auto c = o.get("labels")) e.labelsIs(unboundedLabels(*c));
   }

   void bgpLu(Object& o, DescribedTunnel& t) {
      TT::BgpLuTunnelTableEntry e(indexedId(o));
      bgpLuPush<TT::BgpLuTunnelTable>(o, e);
      if (auto c = o.get("contribution")) {
         const std::string s = c->string();
         try {
            e.contributionIs(TT::contributionToTunnelRIBFromString(s));
         } catch (const Vela::Exception&) {
            c->fail("bad contribution '" + s +
                    "' (notContributing, contributing or contributingAsBackup)");
         }
      }
      if (auto c = o.get("bgpMetric")) e.bgpMetricIs(c->u32());
      if (auto c = o.get("bgpMetricType")) {
         const std::string s = c->string();
         try {
            e.bgpMetricTypeIs(Wirekit::metricTypeFromString(s));
         } catch (const Vela::Exception&) {
            c->fail("bad metric type '" + s + "'");
         }
      }
      if (auto c = o.get("bgpMetric2")) e.bgpMetric2Is(c->u32());
      if (auto c = o.get("bgpPref")) e.bgpPrefIs(c->u32());
      if (auto c = o.get("bgpPref2")) e.bgpPref2Is(c->u32());
      if (auto c = o.get("bgpLinkBw")) e.bgpLinkBwIs(TT::TunnelBandwidth(c->real()));
      finishEntry<TT::BgpLuTunnelTable>(t, e);
   }

   // Interface tunnels: the index is the tunnel interface's port (16 bits), as the interface
   // tables allocate it; the info's tunnelIntfPort defaults to that port.
   template <class Table, class E, class Info, class ReadInfo>
   void intfTunnel(Object& o, DescribedTunnel& t, ReadInfo&& readInfo) {
      const Cursor ic = o.need("interface");
      const Wirekit::IntfId intf = ic.interface();
      if (!intf.isTunnelIntf())
         ic.fail("'" + intf.name() + "' is not a tunnel interface (TunnelN)");
      if (auto c = o.get("index")) {
         c->fail("an interface tunnel's index is its interface's port; give only \"interface\"");
      }
      E e(makeId(ic, tunnelType(), intf.tunnelPort() & 0xFFFF));
      readBase(o, e);
      if (auto c = o.get("vias"))
         eachVia(*c, [&](TT::ViaIndex i, const Cursor& v) { e.viaIs(i, plainVia(v, false)); });
      Info info;
      info.tunnelIntfPortIs(intf.tunnelPort());
      if (auto c = o.get("tunnelInfo")) {
         Object io(*c);
         readInfo(io, info);
         io.finish("in the tunnel info of table '" + table_->mountName + "'");
      }
      e.tunnelInfoIs(info);
      finishEntry<Table>(t, e);
   }

   template <class Info>
   void infoAddresses(Object& io, Info& info) {
      if (auto c = io.get("srcAddr")) info.srcAddrIs(c->address());
      if (auto c = io.get("dstAddr")) info.dstAddrIs(c->address());
      if (auto c = io.get("underlayVrfId")) info.underlayVrfIdIs(c->u32());
      if (auto c = io.get("ttl")) info.ttlIs(uint8_t(c->unsignedNumber(255)));
      if (auto c = io.get("tos")) info.tosIs(uint8_t(c->unsignedNumber(255)));
   }

   template <class Info>
   void infoIntf(Object& io, Info& info) {
      infoAddresses(io, info);
      if (auto c = io.get("tunnelIntfPort")) info.tunnelIntfPortIs(c->u32());
      if (auto c = io.get("mtu")) info.mtuIs(c->u32());
   }

   void evpn(Object& o, DescribedTunnel& t) {
      // Without an index the tunnel gets the next one the table would hand out.
      uint64_t index = lastEvpnIndex_ + 1;
      if (auto c = o.get("index")) index = c->unsignedNumber(TT::EvpnVxlanTunnelTable::maxId());
      if (index > TT::EvpnVxlanTunnelTable::maxId()) o.fail("no EVPN VXLAN index left");
      lastEvpnIndex_ = std::max(lastEvpnIndex_, index);
      TT::EvpnVxlanTunnelEntry e(TunnelId(TunnelId::convertToTunnelValue(tunnelType(), index)));
      Tunnel::VxlanTunnelInfo info;
      if (auto c = o.get("tunnelInfo")) {
         Object io(*c);
         infoAddresses(io, info);
         if (auto p = io.get("udpPort")) info.udpPortIs(uint16_t(p->unsignedNumber(0xFFFF)));
         io.finish("in the tunnel info of table 'evpnVxlan'");
      }
      e.tunnelInfoIs(info);
      finishEntry<TT::EvpnVxlanTunnelTable>(t, e);
   }

   // mLDP tunnels: the multicast tree the tunnel belongs to and the MPLS vias its traffic is
   // replicated over. The tree id's text is taken as written (its form is the multicast
   // library's); it must not be empty, and not longer than the table's store is sized for. The
   // entry has none of the shared fields.
   void mldp(Object& o, DescribedTunnel& t) {
      const TunnelId id = indexedId(o);
      const Cursor tc = o.need("mcastTreeId");
      const std::string tree = tc.string();
      if (tree.empty()) tc.fail("an mLDP tunnel needs the text of its multicast tree id");
      if (tree.size() > TT::kMldpTreeIdMaxLen) {
         tc.fail("a multicast tree id has at most " + std::to_string(TT::kMldpTreeIdMaxLen) +
                 " characters, got " + std::to_string(tree.size()));
      }
      TT::MldpTunnelTableEntry e(id, Routing::Multicast::MulticastTreeId(tree));
      if (auto c = o.get("vias"))
         eachVia(*c, [&](TT::ViaIndex i, const Cursor& v) { e.viaIs(i, mplsVia(v)); });
      finishEntry<TT::MldpTunnelTable>(t, e);
   }

   void build(Object& o, DescribedTunnel& t) {
      switch (table_->id) {
         case Id::bgpLuTunnelTable:
            return bgpLu(o, t);
         case Id::bgpLuPushTunnelTable: {
            TT::BgpLuPushTunnelTableEntry e(indexedId(o));
            bgpLuPush<TT::BgpLuPushTunnelTable>(o, e);
            return finishEntry<TT::BgpLuPushTunnelTable>(t, e);
         }
         case Id::ldpTunnelTable:
            return igp<TT::LdpTunnelTable, TT::LdpTunnelTableEntry>(o, t);
         case Id::isisSrTunnelTable:
            return igp<TT::IsisSrTunnelTable, TT::SrTunnelTableEntry>(o, t);
         case Id::ospfSrTunnelTable:
            return igp<TT::OspfSrTunnelTable, TT::SrTunnelTableEntry>(o, t);
         case Id::rsvpFrrTunnelTable:
            return frr<TT::RsvpFrrTunnelTable, TT::RsvpFrrTunnelTableEntry>(o, t);
         case Id::rsvpLerSubTunnelTable:
            return frr<TT::RsvpLerSubTunnelTable, TT::RsvpLerSubTunnelTableEntry>(o, t);
         case Id::tiLfaTunnelTable:
            return frr<TT::TiLfaTunnelTable, TT::TiLfaTunnelTableEntry>(o, t);
         case Id::rsvpLerTunnelTable:
            return rsvpLer(o, t);
         case Id::staticTunnelTable:
            return staticTunnel(o, t);
         case Id::nexthopGroupTunnelTable:
            return nexthopGroup(o, t);
         case Id::srTeSegmentListTunnelTable:
            return segmentList(o, t);
         case Id::srTePolicyTunnelTable:
            return srTePolicy(o, t);
         case Id::isisFlexAlgoTunnelTable:
            return flexAlgo(o, t);
         case Id::nimboSdkSbfdSessionTunnelTable:
            return sbfd(o, t);
         case Id::greIntfTunnelTable:
            return intfTunnel<TT::GreIntfTunnelTable, TT::GreIntfTunnelTableEntry,
                              Tunnel::GreTunnelInfo>(o, t,
                                                     [&](Object& io, Tunnel::GreTunnelInfo& i) {
                                                        infoIntf(io, i);
                                                        if (auto c = io.get("okey"))
                                                           i.okeyIs(c->u32());
                                                        if (auto c = io.get("ikey"))
                                                           i.ikeyIs(c->u32());
                                                        if (auto c = io.get("pathMtuDiscovery"))
                                                           i.pathMtuDiscoveryIs(c->boolean());
                                                        if (auto c = io.get("dontFragment"))
                                                           i.dontFragmentIs(c->boolean());
                                                     });
         case Id::ipsecGreIntfTunnelTable:
            return intfTunnel<TT::IpsecGreIntfTunnelTable, TT::IpsecGreIntfTunnelTableEntry,
                              Tunnel::IpsecGreTunnelInfo>(
                o, t, [&](Object& io, Tunnel::IpsecGreTunnelInfo& i) {
                   infoIntf(io, i);
                   if (auto c = io.get("okey")) i.okeyIs(c->u32());
                   if (auto c = io.get("ikey")) i.ikeyIs(c->u32());
                   if (auto c = io.get("spiIn")) i.spiInIs(c->u32());
                   if (auto c = io.get("spiOut")) i.spiOutIs(c->u32());
                });
         case Id::ipsecVtiIntfTunnelTable:
            return intfTunnel<TT::IpsecVtiIntfTunnelTable, TT::IpsecVtiIntfTunnelTableEntry,
                              Tunnel::IpsecVtiTunnelInfo>(
                o, t, [&](Object& io, Tunnel::IpsecVtiTunnelInfo& i) {
                   infoIntf(io, i);
                   if (auto c = io.get("spiIn")) i.spiInIs(c->u32());
                   if (auto c = io.get("spiOut")) i.spiOutIs(c->u32());
                });
         case Id::evpnVxlanTunnelTable:
            return evpn(o, t);
         case Id::mldpTunnelTable:
            return mldp(o, t);
         case Id::invalidTunnelTableId:
            break;
      }
      VELA_FAIL("table identifier {} has no description reader", unsigned(table_->id));
   }

   Description& d_;
   std::map<std::pair<const TableEntry*, TunnelId>, size_t> seen_;  // -> index in d_.tunnels
   const TableEntry* table_ = nullptr;
   uint64_t lastEvpnIndex_ = 0;
};

void readRouters(const Cursor& c, Description& d) {
   const json& a = c.array();
   for (size_t i = 0; i < a.size(); ++i) {
      Object o(c.at(i));
      Router r;
      const Cursor nameKey = o.need("name");
      r.name = nameKey.string();
      if (r.name.empty()) nameKey.fail("a router needs a name");
      if (d.router(r.name)) nameKey.fail("duplicate router name '" + r.name + "'");
      r.loopback = o.need("loopback").address();
      if (auto c6 = o.get("loopbackV6")) r.loopbackV6 = c6->address();
      if (auto ic = o.get("interfaces")) {
         const json& ia = ic->array();
         for (size_t k = 0; k < ia.size(); ++k) {
            Object io(ic->at(k));
            RouterInterface ri;
            const Cursor intfKey = io.need("name");
            ri.intf = intfKey.interface();
            if (r.interface(ri.intf)) {
               intfKey.fail("duplicate interface '" + ri.intf.name() + "' on router '" + r.name +
                            "'");
            }
            if (auto ac = io.get("address")) {
               // "10.1.2.1/31": the router's address and, through its length, the link.
               const std::string s = ac->string();
               const auto slash = s.find('/');
               try {
                  if (slash == std::string::npos) throw Vela::ParseException("no length");
                  ri.address = Wirekit::IpGenAddr(s.substr(0, slash));
                  ri.subnet = Wirekit::IpGenPrefix(s);
                  if (ri.address->isNone()) throw Vela::ParseException("none");
               } catch (const Vela::Exception&) {
                  ac->fail("bad interface address '" + s +
                           "' (an address and a length, as 10.0.0.1/31)");
               }
            }
            if (auto pc = io.get("peer")) ri.peer = pc->string();
            io.finish("in an interface");
            r.interfaces.push_back(std::move(ri));
         }
      }
      o.finish("in a router");
      d.routers.push_back(std::move(r));
   }
   // Peers name routers of the description.
   for (size_t i = 0; i < d.routers.size(); ++i) {
      for (size_t k = 0; k < d.routers[i].interfaces.size(); ++k) {
         const std::string& peer = d.routers[i].interfaces[k].peer;
         if (!peer.empty() && !d.router(peer)) {
            const Cursor router = c.at(i);
            const Cursor interfaces = router.child("interfaces", router.value()["interfaces"]);
            const Cursor pc = interfaces.at(k);
            pc.child("peer", pc.value()["peer"]).fail("unknown router '" + peer + "'");
         }
      }
   }
}

// "decapGroups": [{"name", "tunnelType", "decapIps": [prefix...], "forwardingVrf"}]
void readDecapGroups(const Cursor& c, Description& d) {
   const json& a = c.array();
   for (size_t i = 0; i < a.size(); ++i) {
      Object o(c.at(i));
      const Cursor nameKey = o.need("name");
      const std::string name = nameKey.string();
      for (const auto& g : d.decapGroups) {
         if (g->name() == name) nameKey.fail("duplicate decap group '" + name + "'");
      }
      const Cursor typeKey = o.need("tunnelType");
      Tunnel::Decap::DecapTunnelType type{};
      try {
         type = Tunnel::Decap::decapTunnelTypeFromString(typeKey.string());
      } catch (const Vela::Exception& e) {
         typeKey.fail(e.what());
      }
      std::vector<Wirekit::IpGenPrefix> ips;
      if (auto ic = o.get("decapIps")) {
         const json& ia = ic->array();
         for (size_t k = 0; k < ia.size(); ++k) ips.push_back(ic->at(k).prefix());
      }
      Vela::String vrf = "default";
      if (auto vc = o.get("forwardingVrf")) vrf = vc->string();
      o.finish("in a decap group");
      try {
         d.decapGroups.push_back(
             Tunnel::Decap::decapGroupFactory(name, type, std::move(ips), std::move(vrf)));
      } catch (const Vela::Exception& e) {
         c.at(i).fail(e.what());
      }
   }
}

// "decapPorts": [{"port", "payloadType"}]
void readDecapPorts(const Cursor& c, Description& d) {
   const json& a = c.array();
   for (size_t i = 0; i < a.size(); ++i) {
      Object o(c.at(i));
      const Cursor portKey = o.need("port");
      const auto port = uint16_t(portKey.unsignedNumber(65535));
      for (const auto& [p, t] : d.decapPorts) {
         if (p == port) portKey.fail("duplicate port " + std::to_string(port));
      }
      const Cursor typeKey = o.need("payloadType");
      try {
         d.decapPorts.emplace_back(port, Tunnel::Decap::payloadTypeFromString(typeKey.string()));
      } catch (const Vela::Exception& e) {
         typeKey.fail(e.what());
      }
      o.finish("in a decap port");
   }
}

// "nexthopGroupTunnels": [{"endpoint", "nexthopGroup", "igpPref", "igpMetric"}]
void readNexthopGroupTunnels(const Cursor& c, Description& d) {
   const json& a = c.array();
   for (size_t i = 0; i < a.size(); ++i) {
      Object o(c.at(i));
      const Cursor endpointKey = o.need("endpoint");
      const Wirekit::IpGenPrefix endpoint = endpointKey.prefix();
      for (const auto& e : d.nexthopGroupTunnels) {
         if (e.endpoint() == endpoint) {
            endpointKey.fail("duplicate nexthop-group tunnel endpoint " + endpoint.stringValue());
         }
      }
      Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry e(endpoint);
      const Cursor groupKey = o.need("nexthopGroup");
      try {
         e.nexthopGroupNameIs(groupKey.string());
      } catch (const Vela::Exception& x) {
         groupKey.fail(x.what());
      }
      if (auto pc = o.get("igpPref")) e.igpPrefIs(uint8_t(pc->unsignedNumber(255)));
      if (auto mc = o.get("igpMetric")) e.igpMetricIs(mc->u32());
      o.finish("in a nexthop-group tunnel");
      d.nexthopGroupTunnels.push_back(std::move(e));
   }
}

// The keys of the top-level object of a JSON text, in order. A plain scan of brackets and
// strings: it only decides whether tunnels can be read while the file is parsed, and anything it
// cannot follow is the parser's to report.
std::vector<std::string> topLevelKeys(const std::string& t) {
   std::vector<std::string> keys;
   int depth = 0;
   bool expectKey = false;
   for (size_t i = 0; i < t.size(); ++i) {
      const char c = t[i];
      if (c == '"') {
         size_t j = i + 1;
         while (j < t.size() && t[j] != '"') j += t[j] == '\\' ? 2 : 1;
         if (depth == 1 && expectKey) keys.push_back(t.substr(i + 1, j - i - 1));
         expectKey = false;
         i = j;
      } else if (c == '{' || c == '[') {
         ++depth;
         expectKey = depth == 1 && c == '{';
      } else if (c == '}' || c == ']') {
         --depth;
      } else if (c == ',' && depth == 1) {
         expectKey = true;
      }
   }
   return keys;
}

// Tunnels are read as the parser completes each one, and dropped from the document, when the
// routers and the local router they are checked against come before them in the file (as
// make_network.py writes it); otherwise they are read once the whole file is parsed.
bool tunnelsStream(const std::string& text) {
   const auto keys = topLevelKeys(text);
   const auto tunnels = std::find(keys.begin(), keys.end(), "tunnels");
   for (const char* before : {"routers", "localRouter"}) {
      if (std::find(tunnels, keys.end(), before) != keys.end()) return false;
   }
   return true;
}

// "tunnels[N]": an element of the top-level tunnel array.
bool isTunnelElement(const std::string& path) {
   constexpr std::string_view kPrefix = "tunnels[";
   return path.size() > kPrefix.size() + 1 && path.rfind(kPrefix, 0) == 0 && path.back() == ']' &&
          std::all_of(path.begin() + kPrefix.size(), path.end() - 1,
                      [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

Description parseDescription(const std::string& text, const std::string& file) {
   Description d;
   d.file = file;
   TunnelReader reader(d);
   bool localRouterChecked = false;
   json localRouterValue;
   // The local router names a router of the description, which may come before or after it.
   const auto checkLocalRouter = [&] {
      if (localRouterChecked || localRouterValue.is_null()) return;
      localRouterChecked = true;
      const Cursor c(d.file, localRouterValue, "localRouter");
      d.localRouter = c.string();
      if (!d.router(d.localRouter)) c.fail("unknown router '" + d.localRouter + "'");
   };
   const bool stream = tunnelsStream(text);
   json root = parseStrictJson(text, file, [&](const JsonPlace& at, json& v) {
      if (at.depth == 1 && at.path == "routers") {
         readRouters(Cursor(d.file, v, at.path), d);
      } else if (at.depth == 1 && at.path == "localRouter") {
         localRouterValue = v;
      } else if (stream && at.depth == 2 && isTunnelElement(at.path)) {
         checkLocalRouter();
         reader.read(Cursor(d.file, v, at.path));
         return false;
      }
      return true;
   });
   Object top(Cursor(d.file, root, ""));
   if (auto c = top.get("name")) d.name = c->string();
   top.get("routers");  // read as it was parsed
   if (top.get("localRouter")) checkLocalRouter();
   const Cursor tunnels = top.need("tunnels");
   const json& a = tunnels.array();
   for (size_t i = 0; i < a.size(); ++i) reader.read(tunnels.at(i));
   if (auto c = top.get("decapGroups")) {
      d.hasDecap = true;
      readDecapGroups(*c, d);
   }
   if (auto c = top.get("decapPorts")) {
      d.hasDecap = true;
      readDecapPorts(*c, d);
   }
   if (auto c = top.get("nexthopGroupTunnels")) {
      d.hasNexthopGroupTunnels = true;
      readNexthopGroupTunnels(*c, d);
   }
   top.finish();
   return d;
}

Description loadDescription(const std::string& path) {
   std::ifstream in(path, std::ios::binary);
   if (!in) throw DescriptionError(path + ": cannot read: " + std::strerror(errno));
   // Read in one piece into one string: a 100,000-tunnel file is 25 MB, not worth a second copy.
   std::string text;
   in.seekg(0, std::ios::end);
   const auto size = in.tellg();
   if (size > 0) {
      text.resize(size_t(size));
      in.seekg(0);
      in.read(text.data(), size);
   }
   if (size < 0) {  // not seekable (a pipe): read it as a stream
      in.clear();
      std::ostringstream s;
      s << in.rdbuf();
      text = s.str();
   }
   if (in.bad() || (size > 0 && in.gcount() != size)) {
      throw DescriptionError(path + ": cannot read: " + std::strerror(errno));
   }
   return parseDescription(text, path);
}

}  // namespace TunnelCtl
