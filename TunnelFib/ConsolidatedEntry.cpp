// ConsolidatedEntry: the sorted-vector set of flattened vias.
#include "TunnelFib/ConsolidatedEntry.h"

#include <algorithm>
#include <iterator>

namespace Tunnel::TunnelFib {

bool ConsolidatedEntry::viaInfoHas(const MplsVia& via) const {
   return std::binary_search(viaInfo_.begin(), viaInfo_.end(), via);
}

bool ConsolidatedEntry::viaInfoIs(const MplsVia& via) {
   auto it = std::lower_bound(viaInfo_.begin(), viaInfo_.end(), via);
   if (it != viaInfo_.end() && *it == via) return false;
   viaInfo_.insert(it, via);
   return true;
}

MplsVia ConsolidatedEntry::viaInfoDel(const MplsVia& via) {
   auto it = std::lower_bound(viaInfo_.begin(), viaInfo_.end(), via);
   if (it == viaInfo_.end() || !(*it == via)) return MplsVia();
   MplsVia removed = *it;
   viaInfo_.erase(it);
   return removed;
}

void ConsolidatedEntry::viaInfoIsAll(std::vector<MplsVia>& vias) {
   // A few vias go in one by one; more are sorted and merged, so a large join costs
   // n log n rather than a shift of the vector per via.
   if (vias.size() <= 8) {
      for (const MplsVia& v : vias) viaInfoIs(v);
      return;
   }
   std::sort(vias.begin(), vias.end());
   vias.erase(std::unique(vias.begin(), vias.end()), vias.end());
   if (viaInfo_.empty()) {
      viaInfo_.swap(vias);
      return;
   }
   ViaInfo merged;
   merged.reserve(viaInfo_.size() + vias.size());
   std::set_union(viaInfo_.begin(), viaInfo_.end(), vias.begin(), vias.end(),
                  std::back_inserter(merged));
   viaInfo_.swap(merged);
}

}  // namespace Tunnel::TunnelFib
