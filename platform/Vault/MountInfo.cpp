#include "Vault/MountInfo.h"

#include <algorithm>

#include "Vela/Exception.h"
#include "Vela/ValueText.h"

namespace VelaDock {

Vela::String CollectionInfo::stringValue() const {
   return Vela::ValueTextBuilder("VelaDock::CollectionInfo")
       .field("attrName", Vela::renderString(attrName))
       .field("sizing", Vela::renderUnsigned(sizing))
       .str();
}

void MountInfo::collectionIs(std::string_view attrName, uint32_t sizing) {
   if (attrName.empty()) {
      throw Vela::NullArgumentException("MountInfo::collectionIs: attribute name is empty");
   }
   auto it = std::find_if(collections_.begin(), collections_.end(),
                          [&](const CollectionInfo& c) { return c.attrName == attrName; });
   if (it != collections_.end()) {
      it->sizing = sizing;
   } else {
      collections_.push_back(CollectionInfo{Vela::String(attrName), sizing});
   }
}

bool MountInfo::collectionDel(std::string_view attrName) {
   auto it = std::find_if(collections_.begin(), collections_.end(),
                          [&](const CollectionInfo& c) { return c.attrName == attrName; });
   if (it == collections_.end()) return false;
   collections_.erase(it);
   return true;
}

std::optional<CollectionInfo> MountInfo::collection(std::string_view attrName) const {
   for (const auto& c : collections_) {
      if (c.attrName == attrName) return c;
   }
   return std::nullopt;
}

Vela::String MountInfo::stringValue() const {
   std::vector<Vela::String> items;
   items.reserve(collections_.size());
   for (const auto& c : collections_) items.push_back(c.stringValue());
   return Vela::ValueTextBuilder("VelaDock::MountInfo")
       .field("collection", Vela::renderArray(items))
       .str();
}

std::ostream& operator<<(std::ostream& os, const CollectionInfo& info) {
   return os << info.stringValue();
}

std::ostream& operator<<(std::ostream& os, const MountInfo& info) {
   return os << info.stringValue();
}

}  // namespace VelaDock
