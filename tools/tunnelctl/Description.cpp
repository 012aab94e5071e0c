// Reading a network description: JSON -> routers and tunnel entries. Each value is read through
// a small cursor that knows its key path, so every error can say exactly where it is. Entries are
// built with the entry kinds' own setters; what the setters refuse (too many endpoints, a name
// over 128 characters) is checked here first, with the file's words.
#include "Description.h"

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

// One JSON value and where it sits in the file.
class Cursor {
  public:
   Cursor(const std::string& file, const json& value, std::string path)
       : file_(&file), value_(&value), path_(std::move(path)) {}

   const json& value() const { return *value_; }
   const std::string& path() const { return path_; }

   [[noreturn]] void fail(const std::string& what) const {
      throw DescriptionError(*file_ + ": " + (path_.empty() ? "(top level)" : path_) + ": " + what);
   }

   Cursor at(size_t i) const {
      return Cursor(*file_, (*value_)[i], path_ + "[" + std::to_string(i) + "]");
   }
   Cursor child(const std::string& key, const json& v) const {
      return Cursor(*file_, v, path_.empty() ? key : path_ + "." + key);
   }

   std::string string() const {
      if (!value_->is_string()) fail("expected a string, got " + value_->dump());
      return value_->get<std::string>();
   }
   uint64_t unsignedNumber(uint64_t max) const {
      if (!value_->is_number_unsigned() || value_->get<uint64_t>() > max) {
         fail("expected a whole number from 0 to " + std::to_string(max) + ", got " +
              value_->dump());
      }
      return value_->get<uint64_t>();
   }
   uint32_t u32() const { return uint32_t(unsignedNumber(std::numeric_limits<uint32_t>::max())); }
   float real() const {
      if (!value_->is_number()) fail("expected a number, got " + value_->dump());
      const double d = value_->get<double>();
      if (!(d >= 0) || !std::isfinite(d) || d > std::numeric_limits<float>::max()) {
         fail("expected a non-negative number, got " + value_->dump());
      }
      return float(d);
   }
   bool boolean() const {
      if (!value_->is_boolean()) fail("expected true or false, got " + value_->dump());
      return value_->get<bool>();
   }
   const json& array() const {
      if (!value_->is_array()) fail("expected an array, got " + value_->dump());
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
   const std::string* file_;
   const json* value_;
   std::string path_;
};

// A JSON object: keys are taken one by one, and finish() refuses any key nobody took.
class Object {
  public:
   explicit Object(const Cursor& c) : cursor_(c) {
      if (!c.value().is_object()) c.fail("expected an object, got " + c.value().dump());
   }
   const Cursor& cursor() const { return cursor_; }
   [[noreturn]] void fail(const std::string& what) const { cursor_.fail(what); }

   std::optional<Cursor> get(const std::string& key) {
      taken_.insert(key);
      auto it = cursor_.value().find(key);
      if (it == cursor_.value().end()) return std::nullopt;
      return cursor_.child(key, *it);
   }
   Cursor need(const std::string& key) {
      auto c = get(key);
      if (!c) fail("missing key '" + key + "'");
      return *c;
   }
   // `what` names the kind of object for the message: "for table 'ldp'".
   void finish(const std::string& what = "") const {
      for (auto it = cursor_.value().begin(); it != cursor_.value().end(); ++it) {
         if (!taken_.count(it.key())) {
            cursor_.child(it.key(), it.value())
                .fail("unknown key" + (what.empty() ? std::string() : " " + what));
         }
      }
   }

  private:
   Cursor cursor_;
   std::set<std::string> taken_;
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
      for (const auto& other : d_.tunnels) {
         if (other.table == table && other.id == t.id) {
            c.fail("duplicate tunnel: " + mountName + " index " +
                   std::to_string(t.id.tunnelIndex()) + " is also " + other.path);
         }
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

   Wirekit::MplsLabelOperation labels(const Cursor& c) const {
      const std::string s = c.string();
      try {
         return Wirekit::MplsLabelOperation(s);
      } catch (const std::exception& e) {
         c.fail("bad label operation '" + s + "' (" + e.what() + ")");
      }
   }
   Wirekit::UnboundedMplsLabelOperation unboundedLabels(const Cursor& c) const {
      const std::string s = c.string();
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
         e.nameIs(n);
      }
   }

   TunnelId indexedId(Object& o) {
      const Cursor c = o.need("index");
      return makeId(c, tunnelType(), c.unsignedNumber(std::numeric_limits<uint64_t>::max()));
   }

   template <class Table, class E>
   void finishEntry(DescribedTunnel& t, const E& e) {
      auto entry = std::make_shared<const E>(e);
      t.id = e.tunnelId();
      t.text = valueToStrep(e);
      t.write = [entry](TT::TunnelTableBase& base) {
         auto* table = dynamic_cast<Table*>(&base);
         VELA_ASSERT(table && "the writer mounted for a described tunnel has its table's class");
         table->entryIs(*entry);
      };
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
      auto entry = std::make_shared<const TT::EvpnVxlanTunnelEntry>(e);
      t.id = e.tunnelId();
      t.text = valueToStrep(e);
      t.write = [entry](TT::TunnelTableBase& base) {
         auto* table = dynamic_cast<TT::EvpnVxlanTunnelTable*>(&base);
         VELA_ASSERT(table && "the writer mounted for a described tunnel has its table's class");
         table->entryIs(*entry);
         // The table's counter must not hand out an index the description used.
         if (table->lastAllocatedId() < entry->tunnelId().tunnelIndex()) {
            table->lastAllocatedIdIs(entry->tunnelId().tunnelIndex());
         }
      };
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
            const Cursor pc = c.at(i).child("interfaces", c.value()[i]["interfaces"]).at(k);
            pc.child("peer", pc.value()["peer"]).fail("unknown router '" + peer + "'");
         }
      }
   }
}

// The line of byte `offset` (1-based, as nlohmann counts) in `text`.
size_t lineOf(const std::string& text, size_t offset) {
   size_t line = 1;
   for (size_t i = 0; i + 1 < offset && i < text.size(); ++i) {
      if (text[i] == '\n') ++line;
   }
   return line;
}

}  // namespace

Description parseDescription(const std::string& text, const std::string& file) {
   json root;
   try {
      root = json::parse(text);
   } catch (const json::parse_error& e) {
      // nlohmann's text is "[json.exception.parse_error.101] parse error at line L, column C:
      // <what>"; the line is ours to give, the rest is kept.
      std::string what = e.what();
      if (auto p = what.find("]: "); p != std::string::npos) what = what.substr(p + 3);
      if (auto p = what.find("] "); p != std::string::npos) what = what.substr(p + 2);
      if (auto p = what.find(": "); what.rfind("parse error", 0) == 0 && p != std::string::npos) {
         what = what.substr(p + 2);
      }
      throw DescriptionError(file + ":" + std::to_string(lineOf(text, e.byte)) + ": " + what);
   }
   Description d;
   d.file = file;
   Object top(Cursor(d.file, root, ""));
   if (auto c = top.get("name")) d.name = c->string();
   if (auto c = top.get("routers")) readRouters(*c, d);
   if (auto c = top.get("localRouter")) {
      d.localRouter = c->string();
      if (!d.router(d.localRouter)) c->fail("unknown router '" + d.localRouter + "'");
   }
   TunnelReader reader(d);
   const Cursor tunnels = top.need("tunnels");
   const json& a = tunnels.array();
   for (size_t i = 0; i < a.size(); ++i) reader.read(tunnels.at(i));
   top.finish();
   return d;
}

Description loadDescription(const std::string& path) {
   std::ifstream in(path, std::ios::binary);
   if (!in) throw DescriptionError(path + ": cannot read: " + std::strerror(errno));
   std::ostringstream s;
   s << in.rdbuf();
   if (in.bad()) throw DescriptionError(path + ": cannot read: " + std::strerror(errno));
   return parseDescription(s.str(), path);
}

}  // namespace TunnelCtl
