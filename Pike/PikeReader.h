// PikeReader: a read-only view of a Pike store from another process, through private copies.
//
// It follows the store's table as a key-shadowing reader on `loop` (retrying until the writer's
// files exist): every record copy is consistent without locks, it is woken per flush, and a
// restarted writer is followed. It keeps an index of the member keys per owner id, so that a copy
// made later (depike) finds members whose records arrived before the record naming their owner:
// a flush writes owners in no particular order, and a resynchronization reports keys in slot
// order.
//
// Per member record: the owner's copy, if one is bound, gets handleChild / handleChildDel. A root
// copy (rootIs) is filled from the store's root of the same name and gets handleChildRestart
// whenever that root record names another image (a restarted writer) or goes away.
// Threads: the loop's thread only.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "Loom/EventLoop.h"
#include "Pike/PikeWriter.h"

namespace Pike {

class PikeEntity;

class PikeReader {
  public:
   struct Counters {
      uint64_t records = 0;   // member records applied
      uint64_t removals = 0;  // member removals applied
      uint64_t restarts = 0;  // root copies re-read
   };

   PikeReader(const std::string& name, Loom::EventLoop& loop);
   ~PikeReader();
   PikeReader(const PikeReader&) = delete;
   PikeReader& operator=(const PikeReader&) = delete;

   // Binds `root` (a copy, not bound elsewhere) to the store's root of its name; it is filled now
   // if the writer has published it, and kept current.
   void rootIs(PikeEntity& root);
   void rootDel(PikeEntity& root);

   // True once the reader has worked through the store as it was at attach.
   bool synchronized() const;
   bool quiesced() const { return map_.quiesced(); }

   // For copies: the member keys an owner has in one collection, and a record's current copy.
   std::vector<PikeKey> membersOf(uint64_t owner, Vela::AttributeId collection) const;
   std::optional<PikeRecord> record(const PikeKey& key);
   void entityIs(uint64_t id, PikeEntity& copy);
   void entityDel(uint64_t id, const PikeEntity& copy);
   // A copy is being destroyed: forget it (as a root too).
   void copyGone(const PikeEntity& copy);

   const Counters& counters() const noexcept { return counters_; }

  private:
   void keyChanged(const PikeKey& key);
   void keyRemoved(const PikeKey& key);
   // Hands a member's record (null: removed) to its owner's copy.
   void dispatch(const PikeKey& key, const PikeRecord* record);

   PikeMap map_;
   std::unordered_map<uint64_t, std::set<PikeKey>> index_;
   std::unordered_map<uint64_t, PikeEntity*> entities_;
   std::map<std::string, PikeEntity*, std::less<>> roots_;
   Counters counters_;
};

}  // namespace Pike
