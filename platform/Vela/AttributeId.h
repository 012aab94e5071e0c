// Attribute identifiers: the number an entity's notification carries to say which attribute
// changed. Numbers are shared by every process that observes an entity, so they are fixed here.
#pragma once

#include <compare>
#include <cstdint>

namespace Vela {

struct AttributeId {
   uint32_t value;
   friend constexpr bool operator==(AttributeId, AttributeId) = default;
   friend constexpr auto operator<=>(AttributeId, AttributeId) = default;
};

// The table family's entries and their control records.
inline constexpr AttributeId attrEntry{386};
inline constexpr AttributeId attrEntryControl{387};

}  // namespace Vela
