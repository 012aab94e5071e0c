#include "Vela/Entity.h"

#include <algorithm>

namespace Vela {

void Entity::notifieeAdd(Notifiee* n) {
   if (n == nullptr) throw NullArgumentException("Entity::notifieeAdd: notifiee is null");
   if (std::find(notifiees_.begin(), notifiees_.end(), n) == notifiees_.end()) {
      notifiees_.push_back(n);
   }
}

void Entity::notifieeDel(Notifiee* n) {
   auto it = std::find(notifiees_.begin(), notifiees_.end(), n);
   if (it == notifiees_.end() || n == nullptr) return;
   if (notifyDepth_ > 0) {
      *it = nullptr;  // a notify() loop is walking the list by position
   } else {
      notifiees_.erase(it);
   }
}

size_t Entity::notifieeCount() const {
   return static_cast<size_t>(
       std::count_if(notifiees_.begin(), notifiees_.end(), [](Notifiee* n) { return n; }));
}

void Entity::notify(AttributeId attr, const void* key) {
   if (!notificationActive_) return;
   // Positions are stable during the walk (removal nulls, addition appends); the size is taken
   // first so notifiees added by a callback wait for the next notify().
   ++notifyDepth_;
   struct Leave {
      Entity* self;
      ~Leave() {
         if (--self->notifyDepth_ == 0) {
            auto& v = self->notifiees_;
            v.erase(std::remove(v.begin(), v.end(), nullptr), v.end());
         }
      }
   } leave{this};
   const size_t n = notifiees_.size();
   for (size_t i = 0; i < n; ++i) {
      if (Notifiee* target = notifiees_[i]) target->onAttribute(attr, key);
   }
}

void Entity::onZeroReferences() {
   // A notifiee that takes and drops a temporary reference brings the count to zero again; the
   // outer call does the deletion.
   if (dying_) return;
   dying_ = true;
   if (zeroRefNotifiee_) zeroRefNotifiee_->onZeroReferences(this);
   VELA_ASSERT(references() == 0 && "an entity was revived by its zero-references notifiee");
   delete this;
}

}  // namespace Vela
