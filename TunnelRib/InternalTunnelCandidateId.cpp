#include "TunnelRib/InternalTunnelCandidateId.h"

#include "Vela/Hash.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelTable {

InternalTunnelCandidateId::InternalTunnelCandidateId(Vela::String::const_iterator begin,
                                                     Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   tunnelType_ =
       p.readField("tunnelType", [](std::string_view raw) { return tunnelTypeFromString(raw); });
   entryPref_ = p.readUnsigned<uint8_t>("entryPref");
   entryMetric_ = p.readUnsigned<uint32_t>("entryMetric");
}

uint32_t InternalTunnelCandidateId::hash(uint32_t seed) const noexcept {
   return Vela::HashMixer(seed)
       .add(static_cast<uint32_t>(tunnelType_))
       .add(entryPref_)
       .add(entryMetric_)
       .finish();
}

bool operator<(const InternalTunnelCandidateId& a, const InternalTunnelCandidateId& b) {
   if (a.entryPref_ != b.entryPref_) return a.entryPref_ < b.entryPref_;
   const auto da = getDefaultPrefForType(a.tunnelType_).value();
   const auto db = getDefaultPrefForType(b.tunnelType_).value();
   if (da != db) return da < db;
   if (a.entryMetric_ != b.entryMetric_) return a.entryMetric_ < b.entryMetric_;
   return static_cast<uint32_t>(a.tunnelType_) < static_cast<uint32_t>(b.tunnelType_);
}

Vela::String valueToStrep(const InternalTunnelCandidateId& v) {
   return Vela::ValueTextBuilder(InternalTunnelCandidateId::kTypeName)
       .field("tunnelType", valueToStrep(v.tunnelType()))
       .field("entryPref", Vela::renderUnsigned(v.entryPref()))
       .field("entryMetric", Vela::renderUnsigned(v.entryMetric()))
       .str();
}

std::ostream& operator<<(std::ostream& os, const InternalTunnelCandidateId& v) {
   return os << valueToStrep(v);
}

}  // namespace Tunnel::TunnelTable
