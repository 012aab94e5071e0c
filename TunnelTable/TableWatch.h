// TableWatch: follows tunnel tables that this process mounted as key-shadowing readers, for an
// agent that derives something from them (the tunnel RIB and FIB builders).
//
// Per-key changes are collected and handed over once per event-loop turn, so a burst of writes to
// one key is handled once: the batch holds each changed (source, key) once, and the owner re-reads
// the entries it names. What the readers already hold when the watch starts arrives as changes.
//
// Reconcile: the owner is asked to compare the whole of its output with what it derived once all
// readers are ready at start, and again each time a reader that was ready resynchronizes (its
// writer restarted, or the reader was lapped) and all are ready again. A reader is ready when it
// has synchronized, or while it waits for a writer that has not made the table yet (nothing to
// wait for: its keys arrive as changes when it does). A reader's state reaches the watch through
// its collection control, whose reactor the watch takes over.
//
// One owning thread, the agent's event loop.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "Loom/EventLoop.h"
#include "TunnelTable/TunnelId.h"
#include "TunnelTable/TunnelMount.h"
#include "TunnelTable/TunnelTableBase.h"

namespace Tunnel::TunnelTable {

class TableWatch {
  public:
   // A changed key of source table `source` (the index add() returned).
   struct Change {
      uint32_t source;
      uint64_t tunnelId;
      TunnelId key() const { return TunnelId(tunnelId); }
      friend auto operator<=>(const Change&, const Change&) = default;
   };
   // Handed every batch; `reconcile` asks for a whole-output comparison after the changes.
   using Apply = std::function<void(const std::set<Change>& changes, bool reconcile)>;

   TableWatch(Loom::EventLoop& loop, Apply apply);
   ~TableWatch();
   TableWatch(const TableWatch&) = delete;
   TableWatch& operator=(const TableWatch&) = delete;

   // Follows `table` from now on; returns its source index (0, 1, ...).
   uint32_t add(Vela::Ptr<TunnelTableBase> table);
   // Queues every key the tables hold and the first reconcile. Call once, after the adds.
   void start();

   size_t size() const noexcept { return sources_.size(); }
   const Vela::Ptr<TunnelTableBase>& table(uint32_t source) const;
   // Every reader ready.
   bool ready() const;
   // Ready, nothing queued, no reconcile owed: the owner's output follows the tables.
   bool settled() const;

  private:
   struct Source;

   void keyChanged(uint32_t source, const TunnelId& key);
   void readerStateChanged();
   void schedule();
   void run();

   Loom::EventLoop& loop_;
   Apply apply_;
   std::vector<std::unique_ptr<Source>> sources_;
   std::set<Change> pending_;
   bool scheduled_ = false;
   bool reconcileNeeded_ = true;
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// Mounts, as key-shadowing readers through `mounter`, every protocol table of the registry whose
// type name `wanted` accepts: the sources of a builder.
std::vector<Vela::Ptr<TunnelTableBase>> mountProtocolReaders(
    const TunnelTableMounter& mounter, const std::function<bool(std::string_view)>& wanted);

}  // namespace Tunnel::TunnelTable
