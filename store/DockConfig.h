// What a table tells the store when its writer formats the files.
//
// typeName goes into the slot table header's valueType and must match on re-attach; valueSize is
// the size of the in-memory value type (a guard against a reader built with another layout);
// minSlots..maxSlots bound the slot file (it starts at minSlots and grows in steps up to maxSlots);
// constFlags are the table's own format-time flags; maxValueSize is the largest serialized value
// (the slab allocator's maximum allocation size M); heraldCapacity is the number of notifications
// in the notification ring (a power of two).
#pragma once

#include <cstdint>
#include <string>

namespace Dock {

struct DockConfig {
   std::string typeName;
   uint32_t valueSize = 0;
   uint32_t minSlots = 16;
   uint32_t maxSlots = 1u << 20;
   uint16_t constFlags = 0;
   uint32_t maxValueSize = 46168;
   uint32_t heraldCapacity = 1u << 16;
};

}  // namespace Dock
