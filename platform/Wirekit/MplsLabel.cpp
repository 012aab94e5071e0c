#include "Wirekit/MplsLabel.h"

#include <fmt/format.h>

#include <optional>

#include "Vela/Exception.h"
#include "Wirekit/Errors.h"

namespace Wirekit {

void checkMplsLabel(uint32_t label) {
   if (label > kMaxMplsLabel) throw Vela::RangeException::forType("Wirekit::MplsLabel");
}

void checkMplsPopCount(uint64_t pops) {
   if (pops > kMaxMplsPopCount) throw LabelStackOverflow::pops(pops, kMaxMplsPopCount);
}

namespace MplsText {

namespace {

void appendLabels(std::string& s, std::span<const uint32_t> labels) {
   for (uint32_t l : labels) {
      s += ' ';
      s += std::to_string(l);
   }
}

std::vector<std::string_view> words(std::string_view text) {
   std::vector<std::string_view> out;
   size_t i = 0;
   while (i < text.size()) {
      while (i < text.size() && text[i] == ' ') ++i;
      size_t j = i;
      while (j < text.size() && text[j] != ' ') ++j;
      if (j > i) out.push_back(text.substr(i, j - i));
      i = j;
   }
   return out;
}

std::optional<uint32_t> number(std::string_view s, uint32_t max) {
   if (s.empty() || s.size() > 10 || (s.size() > 1 && s[0] == '0')) return std::nullopt;
   uint64_t v = 0;
   for (char c : s) {
      if (c < '0' || c > '9') return std::nullopt;
      v = v * 10 + static_cast<uint64_t>(c - '0');
   }
   if (v > max) return std::nullopt;
   return static_cast<uint32_t>(v);
}

}  // namespace

std::string format(unsigned pops, std::span<const uint32_t> labels) {
   std::string s;
   switch (mplsOpKindOf(pops, labels.size())) {
      case MplsOpKind::none:
         break;
      case MplsOpKind::push:
         s = "push";
         appendLabels(s, labels);
         break;
      case MplsOpKind::swap:
         s = "swap";
         appendLabels(s, labels);
         break;
      case MplsOpKind::pop:
         s = fmt::format("pop {}", pops);
         if (!labels.empty()) {
            s += " push";
            appendLabels(s, labels);
         }
         break;
   }
   return s;
}

void parse(std::string_view text, unsigned& pops, std::vector<uint32_t>& labels) {
   auto bad = [&](std::string_view why) {
      throw Vela::ParseException(
          fmt::format("invalid label operation '{}': {}", printableText(text), why));
   };
   const auto w = words(text);
   pops = 0;
   labels.clear();
   size_t i = 0;
   auto readLabels = [&]() {
      if (i == w.size()) bad("no labels");
      for (; i < w.size(); ++i) {
         const auto l = number(w[i], kMaxMplsLabel);
         if (!l) bad(fmt::format("bad label '{}'", printableText(w[i])));
         labels.push_back(*l);
      }
   };
   if (w.empty()) return;
   if (w[0] == "push") {
      ++i;
      readLabels();
   } else if (w[0] == "swap") {
      ++i;
      pops = 1;
      readLabels();
   } else if (w[0] == "pop") {
      if (w.size() < 2) bad("no pop count");
      const auto n = number(w[1], kMaxMplsPopCount);
      if (!n || *n == 0) bad(fmt::format("bad pop count '{}'", printableText(w[1])));
      pops = *n;
      i = 2;
      if (i < w.size()) {
         if (w[i] != "push") bad(fmt::format("unexpected '{}'", printableText(w[i])));
         ++i;
         readLabels();
      }
   } else {
      bad(fmt::format("unknown operation '{}'", printableText(w[0])));
   }
}

}  // namespace MplsText

std::string valueToStrep(MplsOpKind kind) {
   switch (kind) {
      case MplsOpKind::none:
         return "none";
      case MplsOpKind::push:
         return "push";
      case MplsOpKind::swap:
         return "swap";
      case MplsOpKind::pop:
         return "pop";
   }
   return fmt::format("MplsOpKind({})", static_cast<unsigned>(kind));
}

}  // namespace Wirekit
