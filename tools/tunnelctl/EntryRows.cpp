#include "EntryRows.h"

#include <algorithm>
#include <ostream>

#include "EntryFilter.h"
#include "Wirekit/MplsLabel.h"

namespace TunnelCtl {

namespace {

const EntryRows::Row kHeader = {"INDEX",     "ENDPOINT", "NAME",   "NEXTHOP",
                                "INTERFACE", "LABELS",   "METRIC", "VIAS"};

std::string orDash(std::string s) {
   return s.empty() ? "-" : s;
}

// The entry's vias as a list: "via" (a list, or one via), else the split vias.
Json viasOf(const Json& f) {
   for (const char* name : {"via", "splitVia"}) {
      const auto it = f.find(name);
      if (it == f.end()) continue;
      return it->is_array() ? *it : Json::array({*it});
   }
   return Json::array();
}

}  // namespace

std::string labelsText(const Json& labels) {
   std::vector<uint32_t> stack = labels["labels"].get<std::vector<uint32_t>>();
   return Wirekit::MplsText::format(labels["pops"].get<unsigned>(), stack);
}

EntryRows::Row EntryRows::rowOf(const EntryView& e) {
   const Json& f = e.fields;
   Row r;
   r[0] = std::to_string(e.id.tunnelIndex());
   const auto endpoints = endpointsOf(e);
   r[1] = endpoints.empty() ? "" : Wirekit::valueToStrep(endpoints.front());
   if (auto it = f.find("name"); it != f.end()) r[2] = it->get<std::string>();
   const Json vias = viasOf(f);
   if (!vias.empty()) {
      const Json& v = vias.front();
      r[3] = v.value("nextHop", "");
      r[4] = v.value("intfId", "");
      if (v.contains("labels")) r[5] = labelsText(v["labels"]);
   }
   if (r[5].empty() && f.contains("labels")) r[5] = labelsText(f["labels"]);
   if (auto it = f.find("entryMetric"); it != f.end()) r[6] = std::to_string(it->get<uint32_t>());
   r[7] = std::to_string(vias.size());
   for (auto& cell : r) cell = orDash(std::move(cell));
   return r;
}

void EntryRows::add(const EntryView& e) {
   rows_.push_back(rowOf(e));
}

void EntryRows::print(std::ostream& out) const {
   std::array<size_t, kColumns> width{};
   for (size_t c = 0; c < kColumns; ++c) width[c] = kHeader[c].size();
   for (const Row& r : rows_) {
      for (size_t c = 0; c < kColumns; ++c) width[c] = std::max(width[c], r[c].size());
   }
   auto line = [&](const Row& r) {
      std::string s;
      for (size_t c = 0; c < kColumns; ++c) {
         s += r[c];
         if (c + 1 < kColumns) s.append(width[c] - r[c].size() + 2, ' ');
      }
      out << s << "\n";
   };
   line(kHeader);
   for (const Row& r : rows_) line(r);
}

}  // namespace TunnelCtl
