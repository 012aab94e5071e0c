// TunnelFibEntry: equality, text, dump and byte forms.
#include "TunnelFib/TunnelFibEntry.h"

#include <cstring>
#include <vector>

#include "TunnelTable/ByteCursor.h"
#include "TunnelTable/EntryRecord.h"
#include "Vela/ArraySizeError.h"
#include "Vela/Assert.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelFib {

namespace {

using TunnelTable::ByteFormatError;
using TunnelTable::ByteReader;
using TunnelTable::loadHost32;
using TunnelTable::readHostCount;
using TunnelTable::storeHost32;

constexpr const char* kClassName = "TunnelFibEntry";
constexpr uint32_t kViaLen = TunnelVia::kSerializedSize;
static_assert(TunnelFibEntry::kMaxSerializedLen == 38424);
static_assert(TunnelFibEntry::kDeserializedLen == 38424);

// Throws unless each of the n vias at `in` is a TunnelVia byte form as its writer produces it.
void checkVias(const uint8_t* in, uint32_t n) {
   ByteReader r(in, size_t{n} * kViaLen);
   TunnelVia via;
   for (uint32_t i = 0; i < n; ++i) TunnelTable::Codec::BlockTraits<TunnelVia>::read(r, via);
}

// A fresh array (no stale place behind its count) holding the n vias at `in`.
// REQUIRES: checkVias(in, n) passed.
void readVias(TunnelViaArray& a, const uint8_t* in, uint32_t n) {
   a = TunnelViaArray();
   for (uint32_t i = 0; i < n; ++i) a.at(i) = TunnelVia::deserialize(in + size_t{i} * kViaLen);
   a.setCountUnchecked(n);
}

uint8_t* writeVias(uint8_t* out, const TunnelViaArray& a) noexcept {
   storeHost32(out, a.count());
   out += 4;
   for (const TunnelVia& v : a) {
      v.serialize(out);
      out += kViaLen;
   }
   return out;
}

// ", <name> (size <n>): {0:<via>,1:<via>}"
void appendDockVias(Vela::String& out, const char* name, const TunnelViaArray& a) {
   out += ", ";
   out += name;
   out += " (size " + std::to_string(a.count()) + "): {";
   uint32_t i = 0;
   for (const TunnelVia& v : a) {
      if (i != 0) out += ',';
      out += std::to_string(i++) + ":" + valueToStrep(v);
   }
   out += '}';
}

Vela::String viasText(const TunnelViaArray& a) {
   std::vector<Vela::String> items;
   items.reserve(a.count());
   for (const TunnelVia& v : a) items.push_back(valueToStrep(v));
   return Vela::renderArray(items);
}

}  // namespace

TunnelFibEntry::TunnelFibEntry(Vela::String::const_iterator, Vela::String::const_iterator) {
   // The position names the contract's source, which tools match on.
   Vela::assertionFailed("!\"No String constructor for TunnelFibEntry - has collection\"",
                         "Tunnel/TunnelFib", __LINE__);
}

TunnelFibEntry::operator bool() const noexcept {
   return tunnelId_ != TunnelId() || !arePrimaryViasUsable_ || flags_ != TunnelFlags() ||
          resetFailoverState_ != 0 || seqNo_ != TunnelEntrySequenceNumber() ||
          !tunnelVia_.empty() || !backupTunnelVia_.empty();
}

bool operator==(const TunnelFibEntry& a, const TunnelFibEntry& b) noexcept {
   return a.tunnelId_ == b.tunnelId_ && a.arePrimaryViasUsable_ == b.arePrimaryViasUsable_ &&
          a.flags_ == b.flags_ && a.resetFailoverState_ == b.resetFailoverState_ &&
          a.seqNo_ == b.seqNo_ && a.tunnelVia_ == b.tunnelVia_ &&
          a.backupTunnelVia_ == b.backupTunnelVia_;
}

void TunnelFibEntry::serialize(void* buffer) const noexcept {
   auto* out = static_cast<uint8_t*>(buffer);
   std::memcpy(out, reinterpret_cast<const uint8_t*>(this), kHeadLen);
   writeVias(writeVias(out + kHeadLen, tunnelVia_), backupTunnelVia_);
}

uint32_t TunnelFibEntry::deserializeLen(const void* buffer, uint32_t length) noexcept {
   const auto* in = static_cast<const uint8_t*>(buffer);
   if (length < kHeadLen + 4) return 0;
   const uint32_t n1 = loadHost32(in + kHeadLen);
   if (n1 > kTunnelViaCapacity) return 0;
   const uint32_t n2At = kHeadLen + 4 + n1 * kViaLen;
   if (length < n2At + 4) return 0;
   if (loadHost32(in + n2At) > kTunnelViaCapacity) return 0;
   return kDeserializedLen;
}

void TunnelFibEntry::deserialize(const void* buffer, uint32_t length) {
   // Everything is read and checked before anything is stored.
   ByteReader r(buffer, length);
   const uint8_t* head = r.take(kHeadLen);
   const uint32_t n1 = readHostCount(r, kTunnelViaCapacity);
   const uint8_t* vias1 = r.take(size_t{n1} * kViaLen);
   const uint32_t n2 = readHostCount(r, kTunnelViaCapacity);
   const uint8_t* vias2 = r.take(size_t{n2} * kViaLen);
   TunnelTable::Codec::checkRecordEnd(r, kClassName);

   uint64_t id;
   std::memcpy(&id, head, sizeof(id));
   (void)TunnelId(id);  // the range check
   if (head[8] > 1) {
      throw ByteFormatError("TunnelFibEntry arePrimaryViasUsable byte " + std::to_string(head[8]) +
                            " is neither 0 nor 1");
   }
   (void)TunnelFlags(head[9]);
   checkVias(vias1, n1);
   checkVias(vias2, n2);

   std::memcpy(reinterpret_cast<uint8_t*>(this), head, kHeadLen);
   readVias(tunnelVia_, vias1, n1);
   readVias(backupTunnelVia_, vias2, n2);
}

Vela::String TunnelFibEntry::dockString() const {
   Vela::String out = valueToStrep(tunnelId_);
   out += ": arePrimaryViasUsable: " + Vela::renderBool(arePrimaryViasUsable_);
   appendDockVias(out, "tunnelVia", tunnelVia_);
   appendDockVias(out, "backupTunnelVia", backupTunnelVia_);
   return out;
}

void TunnelFibEntry::dumpState(Vela::String& out, int indent) const {
   out += TunnelTable::dumpIndent(indent) + dockString() + "\n";
}

Vela::String valueToStrep(const TunnelFibEntry& v) {
   Vela::ValueTextBuilder b(TunnelFibEntry::kTypeName);
   b.field("tunnelId", valueToStrep(v.tunnelId()));
   b.field("arePrimaryViasUsable", Vela::renderBool(v.arePrimaryViasUsable()));
   b.field("flags", valueToStrep(v.flags()));
   b.field("resetFailoverState", Vela::renderUnsigned(v.resetFailoverState()));
   b.field("seqNo", valueToStrep(v.seqNo()));
   b.field("tunnelVia", viasText(v.tunnelVia()));
   b.field("backupTunnelVia", viasText(v.backupTunnelVia()));
   return b.str();
}

std::ostream& operator<<(std::ostream& os, const TunnelFibEntry& v) {
   return os << valueToStrep(v);
}

}  // namespace Tunnel::TunnelFib
