// Entity: a named, reference-counted object of the runtime (a table, a RIB, a configuration
// object) whose attribute changes are told to a list of notifiees.
//
// - parent() is a raw, non-owning pointer: a parent owns its children through Ptr, so an owning
//   back pointer would make a cycle that never reaches zero references.
// - Notifications are active from construction; hasNotificationActiveIs(false) silences notify()
//   (used while a whole table is rebuilt, for instance).
// - notify() may be re-entered, and a notifiee may add or remove notifiees (itself included)
//   during the call: removed ones are not called again, added ones are first called by the next
//   notify().
// - A ZeroReferencesNotifiee, if set, runs when the last reference goes, just before the entity is
//   deleted (the tables use it to hand their store control back to the platform).
// Entities are not thread-safe: each has one owning thread, its agent's event loop.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "Vela/AttributeId.h"
#include "Vela/Exception.h"
#include "Vela/Ptr.h"
#include "Vela/String.h"

namespace Vela {

class Entity : public RefCounted {
  public:
   class Notifiee {
     public:
      virtual ~Notifiee() = default;
      // `key` points at the changed element's key (a TunnelId for "entry"), or is null for an
      // attribute without keys; it is valid only during the call.
      virtual void onAttribute(AttributeId attr, const void* key) = 0;
   };

   class ZeroReferencesNotifiee {
     public:
      virtual ~ZeroReferencesNotifiee() = default;
      // REQUIRES: keeps no reference to the entity; the entity is deleted when this returns.
      virtual void onZeroReferences(Entity* entity) = 0;
   };

   explicit Entity(String name, Entity* parent = nullptr)
       : name_(std::move(name)), parent_(parent) {}
   Entity(const Entity&) = delete;
   Entity& operator=(const Entity&) = delete;

   const String& name() const noexcept { return name_; }
   Entity* parent() const noexcept { return parent_; }
   // Set by a collection when it takes in an entity built apart from its parent.
   void parentIs(Entity* parent) noexcept { parent_ = parent; }
   // The framework type name, e.g. "Tunnel::TunnelTable::LdpTunnelTable".
   virtual std::string_view fwkTypeName() const { return "Vela::Entity"; }

   bool hasNotificationActive() const noexcept { return notificationActive_; }
   void hasNotificationActiveIs(bool active) noexcept { notificationActive_ = active; }

   // Adding a notifiee that is already in the list, or removing one that is not, does nothing;
   // adding null throws NullArgumentException.
   // REQUIRES: n stays alive until removed or until the entity is gone.
   void notifieeAdd(Notifiee* n);
   void notifieeDel(Notifiee* n);
   size_t notifieeCount() const;

   // Calls every notifiee's onAttribute(attr, key) if notifications are active.
   // REQUIRES: no notifiee drops the last reference to this entity during the call.
   void notify(AttributeId attr, const void* key = nullptr);

   ZeroReferencesNotifiee* zeroReferencesNotifiee() const noexcept { return zeroRefNotifiee_; }
   void zeroReferencesNotifieeIs(ZeroReferencesNotifiee* n) noexcept { zeroRefNotifiee_ = n; }

  protected:
   ~Entity() override = default;
   void onZeroReferences() override;

  private:
   String name_;
   Entity* parent_;
   bool notificationActive_ = true;
   bool dying_ = false;
   uint32_t notifyDepth_ = 0;  // nested notify() calls in progress
   // Removal during notify() leaves a null place; the outermost notify() compacts the list.
   std::vector<Notifiee*> notifiees_;
   ZeroReferencesNotifiee* zeroRefNotifiee_ = nullptr;
};

}  // namespace Vela
