// Vias: hashes, text forms, text constructors and byte forms.
#include "TunnelTable/Via.h"

#include <bit>
#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

#include "TunnelTable/ByteCursor.h"
#include "Vela/Exception.h"
#include "Vela/Hash.h"
#include "Vela/ValueText.h"

namespace Tunnel::TunnelTable {

namespace {

// Network values sit in the text forms as quoted strings of their own text forms, so blanks and
// empty forms (the empty interface, the empty label operation) survive the field splitter.
Vela::String quoted(const std::string& text) {
   return Vela::renderString(text);
}

Wirekit::IpGenAddr readNextHop(const Vela::ValueTextParser& p) {
   return p.readField("nextHop",
                      [](std::string_view t) { return Wirekit::IpGenAddr(Vela::parseString(t)); });
}

Wirekit::IntfId readIntfId(const Vela::ValueTextParser& p) {
   return p.readField("intfId",
                      [](std::string_view t) { return Wirekit::IntfId(Vela::parseString(t)); });
}

// Splits "['a', 'b']" into the texts of its quoted items. Throws ParseException otherwise.
std::vector<Vela::String> parseQuotedList(std::string_view t) {
   auto bad = [t]() -> Vela::ParseException {
      return Vela::ParseException("expected a list of quoted strings, got \"" + Vela::String(t) +
                                  "\"");
   };
   std::vector<Vela::String> items;
   if (t.size() < 2 || t.front() != '[' || t.back() != ']') throw bad();
   size_t i = 1;
   const size_t end = t.size() - 1;
   auto skipBlanks = [&] {
      while (i < end && t[i] == ' ') ++i;
   };
   skipBlanks();
   while (i < end) {
      if (t[i] != '\'') throw bad();
      size_t j = i + 1;
      while (j < end && t[j] != '\'') j += (t[j] == '\\') ? 2 : 1;
      if (j >= end) throw bad();
      items.push_back(Vela::parseString(t.substr(i, j + 1 - i)));
      i = j + 1;
      skipBlanks();
      if (i < end) {
         if (t[i] != ',') throw bad();
         ++i;
         skipBlanks();
         if (i >= end) throw bad();
      }
   }
   return items;
}

}  // namespace

// ---- MplsVia ----

MplsVia::MplsVia(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   nextHop_ = readNextHop(p);
   intfId_ = readIntfId(p);
   labels_ = p.readField("labels", [](std::string_view t) {
      return Wirekit::MplsLabelOperation(Vela::parseString(t));
   });
}

uint32_t MplsVia::hash() const noexcept {
   return Vela::HashMixer().add(nextHop_.hash()).add(intfId_.hash()).add(labels_.hash(0)).finish();
}

Vela::String MplsVia::stringValue() const {
   return "nextHop: " + nextHop_.stringValue() + ", intfId: " + intfId_.stringValue() +
          ", labels: [" + labels_.stringValue() + "]";
}

Vela::String MplsVia::dumpLine(int indent) const {
   return dumpIndent(indent) + stringValue() + "\n";
}

MplsVia MplsVia::deserializeChecked(const uint8_t* in) {
   return MplsVia(Wirekit::IpGenAddr::deserialize(in), Wirekit::IntfId::deserialize(in + 20),
                  Wirekit::MplsLabelOperation::deserialize(in + 28));
}

namespace {

using Lanes = uint64_t __attribute__((vector_size(16)));

// Below this many vias, learning a shape costs more than it saves.
constexpr size_t kShortRun = 4;

Lanes lanesAt(const uint8_t* in) {
   Lanes v;
   std::memcpy(&v, in, sizeof v);
   return v;
}

// A run's current shape and the bits its vias may not set, as masks over the 16-byte reads of
// the address (bytes 4..19) and of the label operation (bytes 28..75). A Vlan's number range is
// the one rule left outside them.
struct ViaShape {
   uint32_t family = ~0u;  // no family has it: the first via learns its shape
   uint64_t intf = 0;
   uint32_t labelHead = 0;
   Lanes address{};
   Lanes labels[3]{};
   uint64_t intfForbidden = 0;
   bool ranged = false;  // the interface kind's number has a range (Vlan)

   bool is(uint32_t f, uint64_t code, uint32_t head) const {
      return f == family && (code & Wirekit::IntfId::kShapeBits) == intf && head == labelHead;
   }
   // False for a family or label header no via has (the via is then refused part by part). An
   // interface shape no interface has forbids every bit of the code, so its vias are refused.
   bool learn(uint32_t f, uint64_t code, uint32_t head) {
      if (!Wirekit::IpGenAddr::isKnownFamily(f) ||
          !Wirekit::MplsLabelOperation::isWellFormedHeader(head)) {
         return false;
      }
      family = f;
      intf = code & Wirekit::IntfId::kShapeBits;
      labelHead = head;
      const auto a = Wirekit::IpGenAddr::forbiddenAddressBits(f);
      address = Lanes{a.low, a.high};
      const auto& image = Wirekit::MplsLabelOperation::forbiddenImage(uint8_t(head >> 8));
      for (size_t k = 0; k < 3; ++k) labels[k] = Lanes{image[2 * k], image[2 * k + 1]};
      intfForbidden = Wirekit::IntfId::forbiddenBits(code);
      ranged = !Wirekit::IntfId::numberInRange(intf);  // number 0 is out of any range there is
      return true;
   }
};

}  // namespace

void MplsVia::deserializeRun(MplsVia* out, const uint8_t* in, size_t count) {
   static_assert(std::is_trivially_destructible_v<MplsVia>);
   if (std::endian::native != std::endian::little || count < kShortRun) {
      for (size_t i = 0; i < count; ++i)
         ::new (out + i) MplsVia(deserialize(in + i * kSerializedSize));
   } else {
      ViaShape shape;
      for (size_t i = 0; i < count; ++i, in += kSerializedSize) {
         const auto family = Wirekit::ByteForm::loadLe<uint32_t>(in);
         const auto code = Wirekit::ByteForm::loadLe<uint64_t>(in + 20);
         const auto head = Wirekit::ByteForm::loadLe<uint32_t>(in + 28);
         bool ok = shape.is(family, code, head) || shape.learn(family, code, head);
         const Lanes stray =
             (lanesAt(in + 4) & shape.address) | (lanesAt(in + 28) & shape.labels[0]) |
             (lanesAt(in + 44) & shape.labels[1]) | (lanesAt(in + 60) & shape.labels[2]);
         ok = ok && ((stray[0] | stray[1]) | (code & shape.intfForbidden)) == 0 &&
              (!shape.ranged || Wirekit::IntfId::numberInRange(code));
         if (!ok) [[unlikely]] {
            ::new (out + i) MplsVia(deserialize(in));  // throws the error of record
            continue;
         }
         // The parts copy their bytes; their own answers are not needed (the masks gave them).
         MplsVia* v = ::new (out + i) MplsVia;
         (void)v->nextHop_.readWellFormed(in);
         (void)v->intfId_.readWellFormed(in + 20);
         (void)v->labels_.readWellFormed(in + 28);
      }
   }
}

Vela::String valueToStrep(const MplsVia& v) {
   Vela::ValueTextBuilder b(MplsVia::kTypeName);
   b.field("nextHop", quoted(v.nextHop().stringValue()));
   b.field("intfId", quoted(v.intfId().stringValue()));
   b.field("labels", quoted(v.labels().stringValue()));
   return b.str();
}

// ---- Via ----

Via::Via(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   nextHop_ = readNextHop(p);
   intfId_ = readIntfId(p);
}

Via Via::tunnelIdVia(const TunnelId& tunnelId) {
   return Via(Wirekit::IpGenAddr::ipv4(0),
              Wirekit::DynamicTunnelIntfId::tunnelIdToIntfId(tunnelId.value()));
}

bool Via::isTunnelIdVia() const noexcept {
   return Wirekit::DynamicTunnelIntfId::isDynamicTunnelIntfId(intfId_) &&
          nextHop_ == Wirekit::IpGenAddr::ipv4(0);
}

TunnelId Via::viaTunnelId() const {
   VELA_ASSERT(isTunnelIdVia());
   return TunnelId(Wirekit::DynamicTunnelIntfId::tunnelId(intfId_));
}

uint32_t Via::hash() const noexcept {
   return Vela::HashMixer().add(nextHop_.hash()).add(intfId_.hash()).finish();
}

Vela::String Via::stringValue() const {
   return "nextHop: " + nextHop_.stringValue() + ", intfId: " + intfId_.stringValue();
}

Vela::String Via::dumpLine(int indent) const {
   return dumpIndent(indent) + stringValue() + "\n";
}

void Via::serialize(uint8_t* out) const noexcept {
   nextHop_.serialize(out);
   intfId_.serialize(out + 20);
}

Via Via::deserializeChecked(const uint8_t* in) {
   return Via(Wirekit::IpGenAddr::deserialize(in), Wirekit::IntfId::deserialize(in + 20));
}

Vela::String valueToStrep(const Via& v) {
   Vela::ValueTextBuilder b(Via::kTypeName);
   b.field("nextHop", quoted(v.nextHop().stringValue()));
   b.field("intfId", quoted(v.intfId().stringValue()));
   return b.str();
}

// ---- TunnelVia ----

TunnelVia::TunnelVia(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   nextHop_ = readNextHop(p);
   intfId_ = readIntfId(p);
   encapId_ = p.readField("encapId", [](std::string_view t) {
      const Vela::String text(t);
      return EncapId(text.begin(), text.end());
   });
}

uint32_t TunnelVia::hash() const noexcept {
   return Vela::HashMixer().add(nextHop_.hash()).add(intfId_.hash()).add(encapId_.hash()).finish();
}

Vela::String TunnelVia::stringValue() const {
   return "nextHop: " + nextHop_.stringValue() + ", intfId: " + intfId_.stringValue() +
          ", encapId: " + encapId_.stringValue();
}

Vela::String TunnelVia::dumpLine(int indent) const {
   return dumpIndent(indent) + stringValue() + "\n";
}

void TunnelVia::serialize(uint8_t* out) const noexcept {
   nextHop_.serialize(out);
   intfId_.serialize(out + 20);
   encapId_.serialize(out + 28);
}

TunnelVia TunnelVia::deserialize(const uint8_t* in) {
   return TunnelVia(Wirekit::IpGenAddr::deserialize(in), Wirekit::IntfId::deserialize(in + 20),
                    EncapId::deserialize(in + 28));
}

Vela::String valueToStrep(const TunnelVia& v) {
   Vela::ValueTextBuilder b(TunnelVia::kTypeName);
   b.field("nextHop", quoted(v.nextHop().stringValue()));
   b.field("intfId", quoted(v.intfId().stringValue()));
   b.field("encapId", valueToStrep(v.encapId()));
   return b.str();
}

// ---- MplsCosVia ----

namespace {

// "<class>: <operation>" for each class that has an operation, class 0 first.
std::vector<Vela::String> cosItems(const MplsCosVia& v) {
   std::vector<Vela::String> items;
   for (uint32_t c = 0; c < kCosCapacity; ++c) {
      if (v.cosLabelsHas(c))
         items.push_back(std::to_string(c) + ": " + v.cosLabels(c).stringValue());
   }
   return items;
}

}  // namespace

MplsCosVia::MplsCosVia(Vela::String::const_iterator begin, Vela::String::const_iterator end) {
   const Vela::ValueTextParser p(begin, end, kTypeName);
   nextHop_ = readNextHop(p);
   intfId_ = readIntfId(p);
   const std::vector<Vela::String> items = p.readField("cosLabels", parseQuotedList);
   for (const Vela::String& item : items) {
      p.readField("cosLabels", [&](std::string_view) {
         const size_t colon = item.find(':');
         if (colon == Vela::String::npos || item.compare(colon, 2, ": ") != 0) {
            throw Vela::ParseException("expected \"<class>: <operation>\", got \"" + item + "\"");
         }
         const CosIndex cos = Vela::parseUnsigned<uint8_t>(std::string_view(item).substr(0, colon));
         if (cosLabelsHas(cos)) {
            throw Vela::ParseException("traffic class " + std::to_string(cos.value()) +
                                       " given twice");
         }
         cosLabelsIs(cos, Wirekit::MplsLabelOperation(std::string_view(item).substr(colon + 2)));
         return 0;
      });
   }
}

const Wirekit::MplsLabelOperation& MplsCosVia::cosLabels(CosIndex cos) const noexcept {
   return cosLabels_[cos.value()];
}

void MplsCosVia::cosLabelsIs(CosIndex cos, const Wirekit::MplsLabelOperation& labels) noexcept {
   cosLabels_[cos.value()] = labels;
   cosMask_ = static_cast<uint8_t>(cosMask_ | (1u << cos.value()));
}

Wirekit::MplsLabelOperation MplsCosVia::cosLabelsDel(CosIndex cos) noexcept {
   Wirekit::MplsLabelOperation removed = cosLabels_[cos.value()];
   cosLabels_[cos.value()] = {};
   cosMask_ = static_cast<uint8_t>(cosMask_ & ~(1u << cos.value()));
   return removed;
}

void MplsCosVia::cosLabelsDelAll() noexcept {
   cosLabels_.fill({});
   cosMask_ = 0;
}

uint32_t MplsCosVia::cosLabelsCount() const noexcept {
   return static_cast<uint32_t>(std::popcount(cosMask_));
}

Vela::String MplsCosVia::stringValue() const {
   Vela::String out = "nextHop: " + nextHop_.stringValue() + ", intfId: " + intfId_.stringValue() +
                      ", cosLabels: [";
   const std::vector<Vela::String> items = cosItems(*this);
   for (size_t i = 0; i < items.size(); ++i) {
      if (i != 0) out += ", ";
      out += items[i];
   }
   return out + "]";
}

Vela::String MplsCosVia::dumpLine(int indent) const {
   return dumpIndent(indent) + stringValue() + "\n";
}

uint32_t MplsCosVia::serializeLen() const noexcept {
   return kFixedSize + cosLabelsCount() * Wirekit::MplsLabelOperation::kSerializedSize;
}

void MplsCosVia::serialize(void* buffer) const {
   ByteWriter w(buffer, serializeLen());
   w.block(nextHop_);
   w.block(intfId_);
   w.u8(cosMask_);
   for (uint32_t c = 0; c < kCosCapacity; ++c) {
      if (cosLabelsHas(c)) w.block(cosLabels_[c]);
   }
}

uint32_t MplsCosVia::deserializeLen(const void* buffer, uint32_t available) noexcept {
   if (available < kFixedSize) return 0;
   const uint8_t mask = static_cast<const uint8_t*>(buffer)[kFixedSize - 1];
   const uint32_t len = kFixedSize + static_cast<uint32_t>(std::popcount(mask)) *
                                         Wirekit::MplsLabelOperation::kSerializedSize;
   return len <= available ? len : 0;
}

void MplsCosVia::deserialize(const void* buffer, uint32_t length) {
   ByteReader r(buffer, length);
   MplsCosVia v;
   v.nextHop_ = r.block<Wirekit::IpGenAddr>();
   v.intfId_ = r.block<Wirekit::IntfId>();
   const uint8_t mask = r.u8();
   for (uint32_t c = 0; c < kCosCapacity; ++c) {
      if ((mask >> c) & 1) v.cosLabelsIs(c, r.block<Wirekit::MplsLabelOperation>());
   }
   *this = v;
}

Vela::String valueToStrep(const MplsCosVia& v) {
   std::vector<Vela::String> items;
   for (const Vela::String& item : cosItems(v)) items.push_back(quoted(item));
   Vela::ValueTextBuilder b(MplsCosVia::kTypeName);
   b.field("nextHop", quoted(v.nextHop().stringValue()));
   b.field("intfId", quoted(v.intfId().stringValue()));
   b.field("cosLabels", Vela::renderArray(items));
   return b.str();
}

std::ostream& operator<<(std::ostream& os, const MplsVia& v) {
   return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, const Via& v) {
   return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, const TunnelVia& v) {
   return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, const MplsCosVia& v) {
   return os << valueToStrep(v);
}

}  // namespace Tunnel::TunnelTable
