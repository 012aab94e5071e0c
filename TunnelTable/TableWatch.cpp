// TableWatch: per-key notifications and reader states of the followed tables, batched per turn.
#include "TunnelTable/TableWatch.h"

#include "TunnelTable/TableRegistry.h"
#include "store/reader/DockShadow.h"

namespace Tunnel::TunnelTable {

struct TableWatch::Source : Vela::Entity::Notifiee {
   Source(TableWatch& watch, uint32_t index, Vela::Ptr<TunnelTableBase> table)
       : watch(watch), index(index), table(std::move(table)) {}

   void onAttribute(Vela::AttributeId attr, const void* key) override {
      if (attr == Vela::attrEntry && key) {
         watch.keyChanged(index, *static_cast<const TunnelId*>(key));
      }
   }

   bool ready() const {
      const auto state = Dock::ReaderState(table->storeMountStatus());
      return state == Dock::ReaderState::kDetached || state == Dock::ReaderState::kSynchronized ||
             state == Dock::ReaderState::kQuiesced;
   }

   TableWatch& watch;
   const uint32_t index;
   Vela::Ptr<TunnelTableBase> table;
   bool wasReady = false;
};

TableWatch::TableWatch(Loom::EventLoop& loop, Apply apply)
    : loop_(loop), apply_(std::move(apply)) {}

TableWatch::~TableWatch() {
   *alive_ = false;
   for (auto& s : sources_) {
      s->table->notifieeDel(s.get());
      if (const auto& control = s->table->entryControl()) control->reactorIs(nullptr);
   }
}

uint32_t TableWatch::add(Vela::Ptr<TunnelTableBase> table) {
   const auto index = uint32_t(sources_.size());
   auto source = std::make_unique<Source>(*this, index, std::move(table));
   source->table->notifieeAdd(source.get());
   if (const auto& control = source->table->entryControl()) {
      std::weak_ptr<bool> alive = alive_;
      control->reactorIs(
          [this, alive](const VelaDock::CollectionControl&, VelaDock::CollectionControl::Change) {
             if (auto a = alive.lock(); a && *a) readerStateChanged();
          });
   }
   sources_.push_back(std::move(source));
   return index;
}

void TableWatch::start() {
   for (const auto& s : sources_) {
      for (const TunnelId& key : s->table->entryKeys()) keyChanged(s->index, key);
   }
   readerStateChanged();
   schedule();
}

const Vela::Ptr<TunnelTableBase>& TableWatch::table(uint32_t source) const {
   return sources_[source]->table;
}

bool TableWatch::ready() const {
   for (const auto& s : sources_) {
      if (!s->ready()) return false;
   }
   return true;
}

bool TableWatch::settled() const {
   return ready() && !reconcileNeeded_ && pending_.empty() && !scheduled_;
}

void TableWatch::keyChanged(uint32_t source, const TunnelId& key) {
   pending_.insert(Change{source, key.value()});
   schedule();
}

void TableWatch::readerStateChanged() {
   // A reader that leaves the ready state is resynchronizing: reconcile once all are back.
   for (const auto& s : sources_) {
      const bool ready = s->ready();
      if (s->wasReady && !ready) reconcileNeeded_ = true;
      s->wasReady = ready;
   }
   if (reconcileNeeded_ && ready()) schedule();
}

void TableWatch::schedule() {
   if (scheduled_) return;
   scheduled_ = true;
   std::weak_ptr<bool> alive = alive_;
   loop_.post([this, alive] {
      if (auto a = alive.lock(); a && *a) run();
   });
}

void TableWatch::run() {
   scheduled_ = false;
   std::set<Change> changes;
   changes.swap(pending_);
   const bool reconcile = reconcileNeeded_ && ready();
   if (reconcile) reconcileNeeded_ = false;
   apply_(changes, reconcile);
}

std::vector<Vela::Ptr<TunnelTableBase>> mountProtocolReaders(
    const TunnelTableMounter& mounter, const std::function<bool(std::string_view)>& wanted) {
   std::vector<Vela::Ptr<TunnelTableBase>> sources;
   for (const TableRow& row : TableRegistry::rows()) {
      if (!row.type->mounted() || !isValidTunnelTableIdentifier(row.type->tableId)) continue;
      if (!wanted(row.type->typeName)) continue;
      sources.push_back(mounter.mountKeyshadow(row.type->tableId));
   }
   return sources;
}

}  // namespace Tunnel::TunnelTable
