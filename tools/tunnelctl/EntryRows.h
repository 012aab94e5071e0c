// EntryRows: the aligned text view of `show`, one row per tunnel:
//
//    INDEX  ENDPOINT     NAME  NEXTHOP   INTERFACE  LABELS    METRIC  VIAS
//    1      10.0.0.1/32  pe1   10.0.1.1  Ethernet1  push 100  20      2
//
// ENDPOINT is the first endpoint (an interface tunnel's destination), NEXTHOP, INTERFACE and
// LABELS those of the first via (LABELS the entry's own operation when its vias carry none), VIAS
// the number of vias. A missing value prints as "-". Columns are as wide as their widest cell, so
// rows are gathered before they print.
#pragma once

#include <array>
#include <iosfwd>
#include <string>
#include <vector>

#include "EntryJson.h"

namespace TunnelCtl {

class EntryRows {
  public:
   static constexpr size_t kColumns = 8;
   using Row = std::array<std::string, kColumns>;

   void add(const EntryView& e);
   void print(std::ostream& out) const;
   static Row rowOf(const EntryView& e);

  private:
   std::vector<Row> rows_;
};

// A label operation's JSON as its text ("push 100 200", "swap 7", "pop 1"); "" for none.
std::string labelsText(const Json& labels);

}  // namespace TunnelCtl
