// StoreTable<Key, Entry, KeyOf, Base>: the one implementation of every shared-memory table, over
// any key: the per-protocol tunnel tables (TunnelId keys, TunnelTableFamily.h), the tunnel RIBs
// (IpGenPrefix and ColoredTunnelEndpoint keys), and later tables. A table class differs only in
// its key, its entry, the function that reads the key from an entry (KeyOf), the base that says
// what kind of table it is (a StoreTableBase subclass) and its TableType, given to the constructor.
//
// The table holds its entries in a Dock::DockMap from Key to Entry. The map is opened in
// handleParent, as the table's single writer or as a key-shadowing reader, per the mode of the
// collection control the mount gave the table (entryControlIs / controlIs). A table that was never
// mounted has no store: entry(key) gives the default entry, and writing asserts.
//
// Writer path: entryIs copies the entry into the store (which serializes it into a slab, publishes
// the slot and queues the readers' wake-up), then notifies "entry" with the key. An entry whose
// byte form is longer than the table's largest (TableType::maxEntryLen: a BGP-LU label operation
// has no bound of its own) is refused with EntryTooLargeError before the store changes: the
// previous entry of the key stays, and the table and its writer go on. The table does not
// compare with the stored value: an equal entry is written and notified again. Detected corruption
// inside the store runs its corruption handler and ends the process with the assertion "in no
// man's land".
//
// Reader path: the store's reader calls back per key (added, changed, removed -> entryNotify),
// once when it has synchronized (-> entryNotifyMountStatus) and on each quiesced report
// (-> entryNotifyQuiesced).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "Loom/EventLoop.h"
#include "Region/Notify.h"
#include "Spoor/Trace.h"
#include "TunnelTable/KeyedTable.h"
#include "TunnelTable/StoreTableBase.h"
#include "Vela/Assert.h"
#include "Vela/Exception.h"
#include "store/DockConfig.h"
#include "store/DockMap.h"
#include "store/reader/IterHint.h"

namespace Tunnel::TunnelTable {

// The number of slots a writer starts with when its mount gives no sizing value. The mount's
// sizing value (1024 for the tunnel tables) is the initial slot count; the maximum is the store's
// default, the same for every mount of a table, since a re-attaching writer checks it.
inline constexpr uint32_t kDefaultInitialSlots = 16;

// An entry refused because its byte form does not fit the table.
class EntryTooLargeError : public Vela::Exception {
  public:
   using Vela::Exception::Exception;
};

template <class Key, class Entry, class KeyOf, class Base>
class StoreTable : public Base, public virtual KeyedTable<Key> {
   static_assert(std::is_base_of_v<StoreTableBase, Base>);

  public:
   using EntryType = Entry;
   using KeyType = Key;
   using Map = Dock::DockMap<Key, Entry, KeyOf>;

   // Walks every entry present, in the store's order; a cursor over a table without a store is
   // at its end at once. Entries removed or added while walking may or may not be seen.
   class Cursor {
     public:
      explicit Cursor(Map* map) : map_(map) {}
      // The next entry into `out`; false at the end.
      bool next(Entry& out) {
         if (!map_ || done_) return false;
         const bool more = started_ ? map_->next(hint_, out) : map_->first(hint_, out);
         started_ = true;
         done_ = !more;
         return more;
      }

     private:
      Map* map_;
      Dock::IterHint hint_;
      bool started_ = false;
      bool done_ = false;
   };

   // ---- writes (the table's writer only) ----

   // Writes or replaces the entry under its tunnelId, then notifies "entry" with that key.
   void entryIs(const Entry& entry) {
      ++this->operationsStarted_;
      requireWriter("entryIs");
      // The entry is not copied: the store only serializes it, and a copy would be a third pass
      // over its live bytes (the largest part of a 600-via write). The key is read before the
      // write, so observers hear the key that was written.
      const Key key = KeyOf()(entry);
      try {
         map_->safeWrite(entry, true);
      } catch (const Dock::ValueTooLargeError& e) {
         throw tooLarge(key, e);
      }
      this->entryNotify(key);
      ++this->operationsCompleted_;
   }

   // Opens the slot of `key` for a direct write: the entry is then changed in the store and
   // published with entryCommit. The two must be paired.
   void entryDirectIs(const Key& key) {
      requireWriter("entryDirectIs");
      map_->directWrite(key);
   }

   // Publishes an entry opened with entryDirectIs, then notifies "entry" with its key.
   // REQUIRES: entry != nullptr, a direct write open for its key.
   void entryCommit(const Entry* entry) {
      ++this->operationsStarted_;
      requireWriter("entryCommit");
      const Key key = KeyOf()(*entry);
      try {
         map_->directCommit(entry);
      } catch (const Dock::ValueTooLargeError& e) {
         throw tooLarge(key, e);
      }
      this->entryNotify(key);
      ++this->operationsCompleted_;
   }

   // The default entry, made once: `Entry()` zero-fills the whole fixed-capacity object (tens of
   // kilobytes), while a copy of this one costs only its (empty) live places.
   static const Entry& emptyEntry() {
      static const Entry empty{};
      return empty;
   }

   // Removes the entry of `key` and returns it; for an absent key returns the default entry and
   // notifies nobody.
   Entry entryDel(const Key& key) {
      std::optional<Entry> removed = entryDelIf(key);
      return removed ? std::move(*removed) : emptyEntry();
   }
   // entryDel that tells an absent key from a removed default entry: nothing when absent.
   std::optional<Entry> entryDelIf(const Key& key) {
      ++this->operationsStarted_;
      requireWriter("entryDel");
      Entry removed;
      if (!map_->safeRemove(key, &removed)) return std::nullopt;
      this->entryNotify(key);
      ++this->operationsCompleted_;
      return removed;
   }

   // Removes every entry one by one, each removal notified on its own. Removals may shrink and
   // rehash the store under the walk, so a pass may miss keys; passes repeat until none is left
   // (each pass removes at least the first key it finds).
   void entryDelAll() override {
      if (!map_) return;
      Dock::IterHint hint;
      Entry current;
      while (map_->first(hint, current)) {
         bool more = true;
         while (more) {
            const Key key = KeyOf()(current);
            // Step past the key before removing it: the hint of the next entry stays valid, or
            // the store finds the next entry again by its key.
            more = map_->next(hint, current);
            entryDel(key);
         }
      }
   }

   // ---- reads (writer and readers) ----

   // The entry of `key`, or the default entry when there is none.
   Entry entry(const Key& key) const {
      // Into the returned entry itself: a large entry is copied once, not into an optional first.
      Entry out = emptyEntry();
      if (map_ && !map_->lookup(key, out)) out = emptyEntry();
      return out;
   }
   std::optional<Entry> entryIf(const Key& key) const {
      if (!map_) return std::nullopt;
      return map_->lookup(key);
   }
   Cursor entries() const { return Cursor(map_.get()); }

   // Tells the observers of "entry" (386) that `key` changed; the notification carries a pointer
   // to the key.
   void entryNotify(const Key& key) { this->notify(Vela::attrEntry, &key); }

   bool hasStore() const override { return map_ != nullptr; }
   bool isWriter() const override { return map_ && map_->isWriter(); }
   uint32_t storeMountStatus() const override { return map_ ? map_->mountStatus() : 0; }
   std::string storeProblem() const override { return map_ ? map_->problem() : std::string(); }
   uint64_t storeReattaches() const override { return map_ ? map_->reattaches() : 0; }
   bool storeQuiesced() const override { return map_ && map_->quiesced(); }
   uint64_t storeSequence() const override { return map_ ? map_->sequence() : 0; }
   uint32_t entryCount() const override { return map_ ? map_->members() : 0; }
   bool entryHas(const Key& key) const override { return entryIf(key).has_value(); }
   std::vector<Key> entryKeys() const override {
      std::vector<Key> keys;
      Cursor c = entries();
      Entry e;
      while (c.next(e)) keys.push_back(KeyOf()(e));
      return keys;
   }
   std::optional<Vela::String> entryStrep(const Key& key) const override {
      std::optional<Entry> v = entryIf(key);
      if (!v) return std::nullopt;
      return valueToStrep(*v);
   }
   Vela::String entryDump(const Key& key, int indent) const override {
      Vela::String out;
      if (std::optional<Entry> v = entryIf(key)) v->dumpState(out, indent);
      return out;
   }
   bool entryRemove(const Key& key) override { return entryDelIf(key).has_value(); }

   // The store itself (null before handleParent and after unmountIs).
   Map* store() const noexcept { return map_.get(); }

   // ---- mounting ----

   // Opens the store as the entry control's mode says: the writer creates or re-attaches the
   // files at the control's store directory; a reader attaches to them and follows the writer.
   // A reader whose writer has not made the files yet keeps trying (10 ms doubling to 1 s) on its
   // event loop. "reader" mounts are served by the key-shadowing reader too: it is the only
   // reader a table has. Throws Vela::Exception without an entry control, or when a reader has
   // no event loop; the writer's own errors (a second writer, files that cannot be made) pass on.
   void handleParent(const Vela::Ptr<Vela::Entity>& parent) override {
      const auto& control = this->entryControl();
      if (!control) {
         throw Vela::Exception(Vela::String(this->fwkTypeName()) + " " + this->name() +
                               ": handleParent without an entry control");
      }
      if (map_) {
         throw Vela::Exception(Vela::String(this->fwkTypeName()) + " " + this->name() +
                               ": already has a store");
      }
      const Vela::String dir = control->storeDirectory();
      auto map = std::make_unique<Map>();
      map->corruptionHookIs([this](const std::string& message) {
         SPOOR_TRACE(tunnelTableTrace(), 0, "{} {}: corruption detected: {}", this->fwkTypeName(),
                     this->name(), message);
      });
      if (control->mode().isWriter()) {
         Dock::DockConfig config;
         config.typeName = this->fwkType().entryTypeName;
         config.valueSize = sizeof(Entry);
         config.minSlots = control->sizing() ? control->sizing() : kDefaultInitialSlots;
         config.maxValueSize = this->fwkType().maxEntryLen + Tessel::kEntryOverhead;
         map->initWriter(dir, config);
         map->writer()->quiescedHandlerIs([this](bool q) { this->entryNotifyQuiesced(q); });
         map_ = std::move(map);
         this->mountParentIs(parent.get());
         this->entryNotifyMountStatus();
         this->entryNotifyQuiesced(this->getCurrentQuiescedState());
         return;
      }
      Loom::EventLoop* loop =
          control->eventLoop() ? control->eventLoop() : Loom::EventLoop::current();
      if (!loop) {
         throw Vela::Exception(Vela::String(this->fwkTypeName()) + " " + this->name() +
                               ": a reader mount needs an event loop");
      }
      Region::Notify<Key, Entry> notify;
      notify.onKey = [this](const Key& key) { this->entryNotify(key); };
      notify.onKeyRemoved = [this](const Key& key) { this->entryNotify(key); };
      notify.onWholeTable = [this] {
         SPOOR_TRACE(tunnelTableTrace(), 5, "{} {}: whole table", this->fwkTypeName(),
                     this->name());
      };
      notify.onSyncComplete = [this] { this->entryNotifyMountStatus(); };
      notify.onQuiesced = [this](bool q) { this->entryNotifyQuiesced(q); };
      map_ = std::move(map);
      this->mountParentIs(parent.get());
      // Not usable yet (no writer has published): the reader keeps trying on its loop.
      if (!map_->initReader(dir, std::move(notify), *loop)) {
         SPOOR_TRACE(tunnelTableTrace(), 5, "{} {}: {}; retrying", this->fwkTypeName(),
                     this->name(), map_->reader()->attachError());
      }
   }

   // Lets go of the store: a writer releases its files and owner file, a reader stops following.
   void unmountIs() override {
      map_.reset();
      this->mountParentIs(nullptr);
   }

  protected:
   StoreTable(const Vela::String& name, const TableType& type) : Base(name, type) {}

   Vela::String storeRootPath() const override {
      if (map_ && map_->isWriter()) return map_->writer()->rootPath();
      return Base::storeRootPath();
   }

  private:
   // A key in messages: its text form when it has one, else what the store prints for it.
   static std::string keyText(const Key& key) {
      if constexpr (requires { valueToStrep(key); }) {
         return std::string(valueToStrep(key));
      } else {
         return Dock::describe(key);
      }
   }

   EntryTooLargeError tooLarge(const Key& key, const Dock::ValueTooLargeError& e) const {
      const auto text = fmt::format(
          "{} {}: entry {} is {} bytes serialized, above the table's largest of {} bytes; not "
          "written",
          this->fwkTypeName(), this->name(), keyText(key), e.length(), e.limit());
      SPOOR_TRACE(tunnelTableTrace(), 0, "{}", text);
      return EntryTooLargeError(text);
   }

   void requireWriter(const char* op) const {
      if (!map_ || !map_->isWriter()) {
         VELA_FAIL("{} on {} {}, which is not the writer of its store", op, this->fwkTypeName(),
                   this->name());
      }
   }

   // Mutable through const reads: looking an entry up copies it out of the store.
   std::unique_ptr<Map> map_;
};

// Builds a table with notifications on, as every factory does.
template <class Table>
Vela::Ptr<Table> makeStoreTable(const Vela::String& name) {
   Vela::Ptr<Table> table(new Table(name));
   table->hasNotificationActiveIs(true);
   return table;
}

}  // namespace Tunnel::TunnelTable
