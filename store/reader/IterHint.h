// IterHint: where an iteration over a table stands, so that the next step resumes without a fresh
// lookup. `version` is the slot's flags word when the hint was saved: while the slot still shows
// it, the slot (and its place in its chain) is unchanged and the step continues from there;
// otherwise the step restarts from `bucket`.
#pragma once

#include <cstdint>

#include "store/format/Layout.h"

namespace Dock {

struct IterHint {
   uint32_t version = 0;
   uint32_t slot = kNone;
   uint32_t bucket = kNone;

   bool valid() const { return slot != kNone; }
   bool operator==(const IterHint&) const = default;
};

}  // namespace Dock
