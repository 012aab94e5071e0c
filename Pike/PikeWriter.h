// PikeWriter: the single writer of a Pike store, and the allocator its entities are bound with.
//
// The store is one shared-memory table of PikeRecords under the store root (`name`, e.g.
// "tunnel/rib/cli/pike"), written through the library's table writer, so a second writer is
// refused (Region::OwnerError) and readers follow it across restarts.
//
// Changes are pending until flushed: an entity's collections record here what they wrote or
// removed, coalesced per member (the last change wins); flush(entity) writes the pending members
// of that entity and of its descendants (and the roots and the id counter) to the table and wakes
// the readers once. Pending members are ordered by key, so one owner's are contiguous and whether
// it lies under the flushed entity is asked once per owner; flushing the only root writes all. So a
// reader sees an entity's changes a flush at a time, and a change undone before its flush costs the
// store nothing.
//
// Start: a new writer removes every member a previous one left (its entities are gone with its
// process) and carries on the previous writer's id counter, kept in the table, so an id never
// names two entities: a reader that saw the old tree cannot mistake a new entity for an old one.
//
// Corruption found while writing a member goes to its collection's corruption handler when the
// owner is alive and has one, else to the table's (which ends the process).
// Threads: the writer's thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "Pike/PikeAllocator.h"
#include "Pike/PikeRecord.h"
#include "store/DockMap.h"

namespace Pike {

class PikeEntity;

using PikeMap = Dock::DockMap<PikeKey, PikeRecord, PikeRecordKeyOf>;

// The record that carries the writer's next id: owner 0, this collection, no key bytes.
inline constexpr uint32_t kNextIdCollection = 0xffffffffu;
PikeKey rootKey(std::string_view name);

class PikeWriter final : public Allocator {
  public:
   struct Counters {
      uint64_t recordsWritten = 0;
      uint64_t recordsRemoved = 0;
      uint64_t flushes = 0;
      uint64_t staleRemoved = 0;  // left by a previous writer, removed at start
   };

   // Takes the table as its writer. Throws what the table writer throws (Region::OwnerError for
   // a second writer).
   explicit PikeWriter(const std::string& name, uint32_t maxRecords = 1u << 22);
   ~PikeWriter() override;
   PikeWriter(const PikeWriter&) = delete;
   PikeWriter& operator=(const PikeWriter&) = delete;

   uint64_t allocateId() override;
   PikeWriter& store() noexcept override { return *this; }

   // Publishes `root` under its entity name (at most 32 bytes) at the next flush, binding it first
   // if it is not bound yet.
   void rootIs(PikeEntity& root);

   // Pending changes, recorded by the collections.
   void childIs(PikeEntity& owner, PikeEntity& child, const PikeKey& key);
   void memberIs(PikeEntity& owner, PikeRecord record);
   void memberDel(PikeEntity& owner, const PikeKey& key);
   // An entity left the tree or was destroyed: it writes nothing more.
   void entityGone(uint64_t id);
   void entityIs(PikeEntity& entity);

   void flush(const PikeEntity& entity, const std::function<void()>& task = {});
   void flushAll();
   size_t pendingMembers() const noexcept;

   const Counters& counters() const noexcept { return counters_; }
   PikeMap& map() noexcept { return map_; }

  private:
   struct Node {
      PikeEntity* entity = nullptr;  // null once the entity is gone
      uint64_t parent = 0;
   };

   bool within(uint64_t id, uint64_t ancestor) const;
   bool hasPending(uint64_t owner) const;
   void writeMember(const PikeKey& key, const std::optional<PikeRecord>& record);
   void dropGoneNodes();
   void corruptionDetected(uint64_t owner, uint32_t collection, const std::string& message);

   PikeMap map_;
   uint64_t nextId_ = 1;
   std::unordered_map<uint64_t, Node> nodes_;
   std::unordered_set<uint64_t> roots_;
   std::unordered_set<uint64_t> gone_;  // entities gone whose removals are still pending
   std::map<PikeKey, std::optional<PikeRecord>> pending_;
   Counters counters_;
};

}  // namespace Pike
