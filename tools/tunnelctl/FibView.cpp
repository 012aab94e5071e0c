#include "FibView.h"

#include <algorithm>
#include <charconv>
#include <ostream>

#include "StoreEntityReader.h"
#include "TableCatalog.h"
#include "Vela/Exception.h"

namespace TunnelCtl {

namespace TT = Tunnel::TunnelTable;
namespace TF = Tunnel::TunnelFib;

Vela::Ptr<TF::TunnelFib> readTunnelFib(Agent& agent) {
   return readStoreEntity<TF::TunnelFib>(agent, TF::kTunnelFibPath, "the tunnel FIB",
                                         "is a fib-builder running?");
}

std::string tunnelName(const TT::TunnelId& id) {
   return TT::tunnelTypeName(id.tunnelType()) + ":" + std::to_string(id.tunnelIndex());
}

namespace {

std::optional<uint64_t> number(std::string_view s) {
   uint64_t v = 0;
   const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
   if (s.empty() || ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
   return v;
}

}  // namespace

TT::TunnelId parseTunnel(const std::string& text) {
   const auto bad = [&](const std::string& why) {
      return UsageError("bad TUNNEL '" + text + "': " + why +
                        " (TABLE:INDEX as in ldp:7, TYPE:INDEX as in ldpTunnel:7, or the tunnel "
                        "id's value)");
   };
   const size_t colon = text.rfind(':');
   if (colon == std::string::npos) {
      const auto value = number(text);
      if (!value) throw bad("not a number");
      if (*value > TT::TunnelId::maxValue) throw bad("beyond the largest tunnel id");
      return TT::TunnelId(*value);
   }
   const std::string name = text.substr(0, colon);
   TT::TunnelType type;
   if (const TableEntry* t = tableByMountName(name)) {
      type = t->type->tunnelType;
   } else {
      try {
         type = TT::tunnelTypeFromString(name);
      } catch (const Vela::Exception&) {
         throw bad("'" + name + "' is neither a table nor a tunnel type");
      }
   }
   const auto index = number(std::string_view(text).substr(colon + 1));
   if (!index) throw bad("the index is not a number");
   const uint64_t max = type == TT::TunnelType::isisFlexAlgoTunnel
                            ? TT::TunnelId::kFlexAlgoIndexMask
                            : TT::TunnelId::kIndexMask;
   if (*index > max) throw bad("the index is beyond " + std::to_string(max));
   return TT::TunnelId(TT::TunnelId::convertToTunnelValue(type, *index));
}

std::optional<TT::TunnelId> innerTunnel(const Wirekit::IntfId& intf) {
   if (!Wirekit::DynamicTunnelIntfId::isDynamicTunnelIntfId(intf)) return std::nullopt;
   const uint64_t value = Wirekit::DynamicTunnelIntfId::tunnelId(intf);
   if (value > TT::TunnelId::maxValue) return std::nullopt;
   return TT::TunnelId(value);
}

std::string interfaceText(const Wirekit::IntfId& intf) {
   if (const auto inner = innerTunnel(intf)) return tunnelName(*inner);
   return intf.isEmpty() ? "-" : intf.name();
}

std::string encapText(const TT::EncapId& id) {
   return id.encapType() == TT::EncapType::none ? "-" : id.stringValue();
}

Json encapIdJson(const TT::EncapId& id) {
   return {{"type", TT::valueToStrep(id.encapType())}, {"value", id.value()}};
}

std::string fibViaText(const TT::TunnelVia& via) {
   return via.nextHop().stringValue() + " " + interfaceText(via.intfId()) + " " +
          encapText(via.encapId());
}

Json fibViaJson(const TT::TunnelVia& via) {
   Json j = {{"nextHop", via.nextHop().stringValue()}, {"intfId", via.intfId().name()}};
   if (const auto inner = innerTunnel(via.intfId())) j["tunnelId"] = tunnelIdJson(*inner);
   j["encapId"] = encapIdJson(via.encapId());
   return j;
}

namespace {

// "srcAddr 10.0.0.1 dstAddr 10.0.0.2 ...": each field of the parameters, in order.
std::string fieldsText(const Json& fields) {
   std::string s;
   for (const auto& [name, value] : fields.items()) {
      if (!s.empty()) s += ' ';
      s += name + " " + (value.is_string() ? value.get<std::string>() : value.dump());
   }
   return s;
}

}  // namespace

std::optional<std::string> encapContent(const TF::TunnelFib& fib, const TT::EncapId& id) {
   switch (id.encapType()) {
      case TT::EncapType::labelStack:
         if (const auto e = fib.labelStackEncapIf(id)) return e->labelStack().stringValue();
         break;
      case TT::EncapType::gre:
         if (const auto e = fib.greEncapIf(id)) return fieldsText(tunnelInfoJson(e->tunnelInfo()));
         break;
      case TT::EncapType::ipsecGre:
         if (const auto e = fib.ipsecGreEncapIf(id)) {
            return fieldsText(tunnelInfoJson(e->tunnelInfo()));
         }
         break;
      case TT::EncapType::ipsecVti:
         if (const auto e = fib.ipsecVtiEncapIf(id)) {
            return fieldsText(tunnelInfoJson(e->tunnelInfo()));
         }
         break;
      default:
         break;
   }
   return std::nullopt;
}

void printColumns(std::ostream& out, const std::vector<std::string>& header,
                  const std::vector<std::vector<std::string>>& rows) {
   std::vector<size_t> width(header.size());
   for (size_t c = 0; c < header.size(); ++c) width[c] = header[c].size();
   for (const auto& r : rows) {
      for (size_t c = 0; c < r.size() && c < width.size(); ++c) {
         width[c] = std::max(width[c], r[c].size());
      }
   }
   const auto line = [&](const std::vector<std::string>& r) {
      std::string s;
      for (size_t c = 0; c < r.size(); ++c) {
         s += r[c];
         if (c + 1 < r.size()) s.append(width[c] - r[c].size() + 2, ' ');
      }
      out << s << "\n";
   };
   line(header);
   for (const auto& r : rows) line(r);
}

}  // namespace TunnelCtl
