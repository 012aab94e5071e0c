// VelaDock::MountInfo: what a writer mount asks of the store, one description per collection of
// the mounted entity: the collection's attribute name ("entry") and its sizing value (1024). How
// the store reads the sizing value (initial or maximum entries) is the store's matter; a mount
// only carries it to the entity through that collection's CollectionControl.
//
// Collections keep the order in which they were added; adding a name again replaces its sizing.
// Text form:
//    Value('VelaDock::MountInfo', ** {'collection': [Value('VelaDock::CollectionInfo', **
//    {'attrName': 'entry', 'sizing': 1024})]})
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "Vela/String.h"

namespace VelaDock {

struct CollectionInfo {
   Vela::String attrName;
   uint32_t sizing = 0;

   Vela::String stringValue() const;
   friend bool operator==(const CollectionInfo&, const CollectionInfo&) = default;
};

class MountInfo {
  public:
   MountInfo() = default;

   // Adds the collection, or replaces the sizing of one already there. Throws
   // Vela::NullArgumentException for an empty attribute name.
   void collectionIs(std::string_view attrName, uint32_t sizing);
   // Removes the collection; false when there was none.
   bool collectionDel(std::string_view attrName);
   std::optional<CollectionInfo> collection(std::string_view attrName) const;
   const std::vector<CollectionInfo>& collections() const noexcept { return collections_; }
   size_t collectionCount() const noexcept { return collections_.size(); }
   bool empty() const noexcept { return collections_.empty(); }

   Vela::String stringValue() const;
   friend bool operator==(const MountInfo&, const MountInfo&) = default;

  private:
   std::vector<CollectionInfo> collections_;
};

std::ostream& operator<<(std::ostream& os, const CollectionInfo& info);
std::ostream& operator<<(std::ostream& os, const MountInfo& info);

}  // namespace VelaDock
