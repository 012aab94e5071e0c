// The mLDP tunnel entry and table.
#include <cstring>

#include "Mldp/MldpTunnelTable.h"
#include "Mldp/MldpTunnelTableEntry.h"
#include "TunnelTable/EntryRecord.h"
#include "Vela/ArraySizeError.h"
#include "Vela/Assert.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelTable {

MldpTunnelTableEntry::MldpTunnelTableEntry(Vela::String::const_iterator,
                                           Vela::String::const_iterator) {
   VELA_FAIL("No String constructor for MldpTunnelTableEntry - has collection");
}

MldpTunnelTableEntry::MldpTunnelTableEntry(const MldpTunnelTableEntry& other)
    : MulticastTunnelTableEntry(other) {
   std::copy(other.via_.begin(), other.via_.end(), via_.data());
   via_.setCountUnchecked(other.via_.count());
}

MldpTunnelTableEntry& MldpTunnelTableEntry::operator=(const MldpTunnelTableEntry& other) {
   if (this == &other) return *this;
   MulticastTunnelTableEntry::operator=(other);
   std::copy(other.via_.begin(), other.via_.end(), via_.data());
   via_.setCountUnchecked(other.via_.count());
   return *this;
}

MplsViaArray::const_iterator MldpTunnelTableEntry::viaDel(MplsViaArray::const_iterator it) {
   return Codec::delAt(via_, it);
}

bool operator==(const MldpTunnelTableEntry& a, const MldpTunnelTableEntry& b) {
   if (!(static_cast<const MulticastTunnelTableEntry&>(a) ==
         static_cast<const MulticastTunnelTableEntry&>(b))) {
      return false;
   }
   return a.via_.count() == b.via_.count() &&
          std::equal(a.via_.begin(), a.via_.end(), b.via_.begin());
}

MldpTunnelTableEntry::operator bool() const {
   return !(*this == MldpTunnelTableEntry());
}

uint32_t MldpTunnelTableEntry::serializeLen() const noexcept {
   return MulticastTunnelTableEntry::serializeLen() + 4 + via_.count() * MplsVia::kSerializedSize;
}

void MldpTunnelTableEntry::serialize(void* buffer) const {
   auto* out = static_cast<uint8_t*>(buffer);
   const uint32_t base = MulticastTunnelTableEntry::serializeLen();
   const uint32_t n = via_.count();
   MulticastTunnelTableEntry::serialize(out);
   if (n > kViaCapacity) throw Vela::ArraySizeError::make(kViaCapacity, n, out, base);
   std::memcpy(out + base, &n, 4);
   uint8_t* p = out + base + 4;
   for (const MplsVia& v : via_) {
      v.serialize(p);
      p += MplsVia::kSerializedSize;
   }
}

uint32_t MldpTunnelTableEntry::deserializeLen(const void* buffer, uint32_t length) noexcept {
   if (length < 4) return 0;
   const uint32_t base = MulticastTunnelTableEntry::deserializeLen(buffer, length - 4);
   if (base == 0) return 0;
   const auto* in = static_cast<const uint8_t*>(buffer);
   uint32_t len = 0;
   uint32_t n = 0;
   std::memcpy(&len, in + 8, 4);
   std::memcpy(&n, in + MulticastTunnelTableEntry::kFixedLen + len, 4);
   const uint64_t vias = uint64_t{n} * MplsVia::kSerializedSize;
   const uint64_t total = uint64_t{MulticastTunnelTableEntry::kFixedLen} + len + 4 + vias;
   if (total > length) return 0;
   return static_cast<uint32_t>(base + 4 + vias);
}

void MldpTunnelTableEntry::deserialize(const void* buffer, uint32_t length) {
   const auto* in = static_cast<const uint8_t*>(buffer);
   if (length < 4) throw Vela::Exception("MldpTunnelTableEntry: record shorter than 4 bytes");
   MulticastTunnelTableEntry::deserialize(buffer, length - 4);
   const uint32_t base = MulticastTunnelTableEntry::serializeLen();
   uint32_t n = 0;
   std::memcpy(&n, in + base, 4);
   if (n > kViaCapacity) throw Vela::ArraySizeError::make(kViaCapacity, n, buffer, length);
   if (uint64_t{base} + 4 + uint64_t{n} * MplsVia::kSerializedSize > length) {
      throw Vela::Exception("MldpTunnelTableEntry: " + std::to_string(n) + " vias do not fit in " +
                            std::to_string(length) + " bytes");
   }
   MplsVia::deserializeRun(via_.data(), in + base + 4, n);
   via_.setCountUnchecked(n);
}

void MldpTunnelTableEntry::dumpState(Vela::String& out, int indent) const {
   out += tunnelId().dumpLine(indent);
   out += dumpIndent(indent) + "mcastTreeId: " + Vela::String(mcastTreeId().text()) + "\n";
   out += dumpIndent(indent) + "via (size " + std::to_string(via_.count()) + "):\n";
   for (const MplsVia& v : via_) out += v.dumpLine(indent + 2);
}

Vela::String valueToStrep(const MldpTunnelTableEntry& e) {
   return "Value('Tunnel::TunnelTable::MldpTunnelTableEntry', ** {'tunnelId': " +
          valueToStrep(e.tunnelId()) +
          ", 'mcastTreeId': " + Routing::Multicast::valueToStrep(e.mcastTreeId()) +
          ", 'via': " + Codec::FieldTraits<MplsViaArray>::text(e.via()) + "})";
}

std::ostream& operator<<(std::ostream& os, const MldpTunnelTableEntry& e) {
   return os << valueToStrep(e);
}

void registerMldpTunnelTableType() {
   registerTables(MldpTables{});
}

namespace {
const bool registeredAtLoad = registerTables(MldpTables{});
}  // namespace

}  // namespace Tunnel::TunnelTable

TUNNEL_TABLE_FAMILY_INSTANCE(Tunnel::TunnelTable::MldpTunnelTableEntry,
                             Tunnel::TunnelTable::TunnelTableBase);
