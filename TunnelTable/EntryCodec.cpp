#include "TunnelTable/EntryCodec.h"

#include <fmt/format.h>

#include "TunnelTable/EntryFieldTraits.h"

namespace Tunnel::TunnelTable::Codec {

std::vector<std::string_view> splitArray(std::string_view text) {
   if (text.size() < 2 || text.front() != '[' || text.back() != ']') {
      Vela::throwBadValue("a value array", text);
   }
   std::vector<std::string_view> items;
   const std::string_view body = text.substr(1, text.size() - 2);
   if (body.empty()) return items;
   size_t start = 0;
   int depth = 0;
   for (size_t pos = 0; pos <= body.size(); ++pos) {
      if (pos == body.size() || (body[pos] == ',' && depth == 0)) {
         if (depth != 0) Vela::throwBadValue("a value array", text);
         items.push_back(body.substr(start, pos - start));
         if (pos == body.size()) break;
         // Elements are separated by ", " exactly, as renderArray writes them.
         if (pos + 1 >= body.size() || body[pos + 1] != ' ')
            Vela::throwBadValue("a value array", text);
         start = pos + 2;
         ++pos;
         continue;
      }
      const char c = body[pos];
      if (c == '\'') {
         ++pos;
         while (pos < body.size() && body[pos] != '\'') pos += body[pos] == '\\' ? 2 : 1;
         if (pos >= body.size()) Vela::throwBadValue("a value array", text);
      } else if (c == '(' || c == '[' || c == '{') {
         ++depth;
      } else if (c == ')' || c == ']' || c == '}') {
         if (--depth < 0) Vela::throwBadValue("a value array", text);
      }
   }
   return items;
}

void dumpLine(Vela::String& out, int indent, std::string_view name, std::string_view text) {
   if (indent > 0) out.append(static_cast<size_t>(indent), ' ');
   out += name;
   out += ": ";
   out += text;
   out += '\n';
}

void throwNonCanonical(size_t offset, size_t len) {
   throw ByteFormatError(fmt::format(
       "the {} bytes at offset {} are not a byte form this library writes", len, offset));
}

void FieldTraits<ContributionToTunnelRIB>::read(ByteReader& r, ContributionToTunnelRIB& v) {
   const size_t at = r.offset();
   const uint32_t code = r.u32();
   if (code > kMaxContributionToTunnelRIBCode) {
      throw ByteFormatError(
          fmt::format("ContributionToTunnelRIB code {} at offset {} is unknown", code, at));
   }
   v = ContributionToTunnelRIB(code);
}

void FieldTraits<Wirekit::UnboundedMplsLabelOperation>::throwTruncated(const ByteReader& r) {
   throw ByteFormatError(fmt::format("label operation at offset {} runs past the {} bytes given",
                                     r.offset(), r.length()));
}

// Every bit of the class mask names a class, so a mask read is a mask written.
static_assert(kCosCapacity == 8);

void FieldTraits<MplsCosVia>::read(ByteReader& r, MplsCosVia& v) {
   const uint32_t n = MplsCosVia::deserializeLen(r.data() + r.offset(), clampU32(r.remaining()));
   if (n == 0) {
      throw ByteFormatError(fmt::format("MplsCosVia at offset {} runs past the {} bytes given",
                                        r.offset(), r.length()));
   }
   // deserialize checks or copies every byte, and n follows from the class mask it reads, so
   // what it accepts is written back unchanged: no second serialize is needed.
   v.deserialize(r.take(n), n);
}

}  // namespace Tunnel::TunnelTable::Codec
