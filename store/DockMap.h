// DockMap<K, V, KeyOf>: the one store type a table holds, either as the table's single writer
// (it owns a DockWriter) or as a key-shadowing reader (it owns a DockShadow that keeps only keys
// and tells the table per key through Region::Notify).
//
// The table names its store by "<mount path>/<collection>" under the store root
// (Region::storeRoot()), or by an absolute directory.
//
// Corruption: shared-memory state that fails its checks inside a write, a remove or a direct
// commit raises Loom::CorruptionException; the map then runs doCorruptionDetected(message) (trace
// and the installed hook) and ends the process: a writer that found its own files inconsistent
// cannot tell which of its published values are still right.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Loom/CorruptionException.h"
#include "Loom/EventLoop.h"
#include "Region/Notify.h"
#include "Region/StoreRoot.h"
#include "Spoor/Trace.h"
#include "Vela/Assert.h"
#include "store/DockConfig.h"
#include "store/reader/DockShadow.h"
#include "store/reader/IterHint.h"
#include "store/reader/ShadowStore.h"
#include "store/writer/DockWriter.h"

namespace Dock {

template <class K, class V, class KeyOf>
class DockMap {
  public:
   using Writer = DockWriter<K, V, KeyOf>;
   using Reader = DockShadow<K, V, KeyOf, KeyShadowSlot>;

   DockMap() = default;
   DockMap(const DockMap&) = delete;
   DockMap& operator=(const DockMap&) = delete;

   // Becomes the table's writer. Throws as DockWriter::initialize (Region::OwnerError for a
   // second writer).
   void initWriter(const std::string& name, const DockConfig& config) {
      VELA_ASSERT(!writer_ && !reader_);
      auto w = std::make_unique<Writer>(config);
      w->initialize(name);
      writer_ = std::move(w);
   }
   void initWriter(const std::string& mountPath, const std::string& collection,
                   const DockConfig& config) {
      initWriter(Region::tableName(mountPath, collection), config);
   }

   // Becomes a key-shadowing reader on `loop` (the thread that runs it). Returns false when the
   // files are not usable yet (the reader's attach error says why); the reader then keeps trying
   // on the loop until they are.
   bool initReader(const std::string& name, Region::Notify<K, V> notify, Loom::EventLoop& loop) {
      VELA_ASSERT(!writer_ && !reader_);
      reader_ =
          std::make_unique<Reader>(name, Region::tableDirectory(Region::storeRoot(), name), loop);
      reader_->notifyIs(std::move(notify));
      reader_->corruptionHandlerIs([this](const std::string& m) { corruptionNoted(m); });
      return reader_->initializeOrRetry();
   }
   bool initReader(const std::string& mountPath, const std::string& collection,
                   Region::Notify<K, V> notify, Loom::EventLoop& loop) {
      return initReader(Region::tableName(mountPath, collection), std::move(notify), loop);
   }

   bool isWriter() const { return writer_ != nullptr; }
   bool isReader() const { return reader_ != nullptr; }
   Writer* writer() const { return writer_.get(); }
   Reader* reader() const { return reader_.get(); }

   // ---- writer ----

   // Inserts or replaces. With `notify`, readers are woken for it: at the end of this event-loop
   // turn when a loop runs on this thread, else at once. Without, it waits for the next flush
   // (or the end of the turn). The herald decides (HeraldWriter). Throws TableFullError.
   void safeWrite(const V& value, bool notify = true) {
      VELA_ASSERT(writer_ && "safeWrite on a store that is not the writer");
      try {
         writer_->write(value);
      } catch (const Loom::CorruptionException& e) {
         doCorruptionDetected(e.what());
      }
      if (notify) writer_->wakeSoon();
   }

   bool safeRemove(const K& key, V* removed = nullptr) {
      VELA_ASSERT(writer_ && "safeRemove on a store that is not the writer");
      bool found = false;
      try {
         found = writer_->remove(key, removed);
      } catch (const Loom::CorruptionException& e) {
         doCorruptionDetected(e.what());
      }
      if (found) writer_->wakeSoon();
      return found;
   }

   void directWrite(const K& key) { writer_->directWrite(key); }
   bool directUpdate(const K& key) { return writer_->directUpdate(key); }
   // REQUIRES: value != nullptr, a direct write open for its key.
   void directCommit(const V* value) {
      VELA_ASSERT(value != nullptr);
      try {
         writer_->directCommit(*value);
      } catch (const Loom::CorruptionException& e) {
         doCorruptionDetected(e.what());
      }
      writer_->wakeSoon();
   }

   void flush() {
      if (writer_) writer_->flush();
   }

   // ---- both ----

   std::optional<V> lookup(const K& key) {
      if (writer_) return writer_->lookup(key);
      return reader_ ? reader_->lookup(key) : std::nullopt;
   }
   // lookup into the caller's value: one copy of a large value instead of two. False, with `out`
   // holding anything, when there is none.
   bool lookup(const K& key, V& out) {
      if (reader_) return reader_->directLookup(key, out);
      if (!writer_) return false;
      std::optional<V> v = writer_->lookup(key);
      if (v) out = std::move(*v);
      return v.has_value();
   }

   // Iteration: first() fills the hint, next() resumes from it. False at the end.
   bool first(IterHint& hint, V& value) {
      if (reader_) return reader_->first(hint, value);
      return fillHint(writer_ ? writer_->firstSlot() : kNone, hint, value);
   }
   bool next(IterHint& hint, V& value) {
      if (reader_) return reader_->next(hint, value);
      if (!writer_ || !hint.valid()) return false;
      const uint32_t s = writer_->nextSlot(KeyOf()(value), hint.slot, hint.version);
      return fillHint(s, hint, value);
   }

   bool quiesced() const {
      if (writer_) return writer_->quiesced();
      return reader_ && reader_->quiesced();
   }
   // What kept the store from using its files as they were: the writer's reason for re-formatting
   // them, or the reader's last attach failure. Empty when there was none.
   std::string problem() const {
      if (writer_) return writer_->reformatReason();
      return reader_ ? reader_->attachError() : std::string();
   }
   // How many times a reader has followed its writer's restart (0 for a writer).
   uint64_t reattaches() const { return reader_ ? reader_->readerCounters().reattaches : 0; }
   // Writer: MountStatus; reader: its ReaderState.
   uint32_t mountStatus() const {
      if (writer_) return uint32_t(writer_->mountStatus());
      return reader_ ? uint32_t(reader_->mountStatus()) : 0;
   }
   uint32_t members() const {
      if (writer_) return writer_->members();
      return reader_ ? reader_->members() : 0;
   }
   // The notification queue position: the writer's, or the one a reader has consumed up to.
   uint64_t sequence() const {
      if (writer_) return writer_->sequence();
      return reader_ ? reader_->position() : 0;
   }

   // ---- corruption ----

   void corruptionHookIs(std::function<void(const std::string&)> hook) {
      corruptionHook_ = std::move(hook);
   }
   // Traces and runs the hook, then ends the process.
   [[noreturn]] void doCorruptionDetected(const std::string& message) {
      corruptionNoted(message);
      VELA_FAIL("in no man's land: {}", message);
   }

  private:
   void corruptionNoted(const std::string& message) {
      SPOOR_TRACE(writerTrace(), 0, "corruption detected: {}", message);
      if (corruptionHook_) corruptionHook_(message);
   }

   bool fillHint(uint32_t s, IterHint& hint, V& value) {
      if (s == kNone) {
         hint = IterHint{};
         return false;
      }
      value = writer_->valueAt(s);
      hint.slot = s;
      hint.version = writer_->flagsOf(s);
      hint.bucket = writer_->table().records()[s].hash & (writer_->buckets() - 1);
      return true;
   }

   std::unique_ptr<Writer> writer_;
   std::unique_ptr<Reader> reader_;
   std::function<void(const std::string&)> corruptionHook_;
};

}  // namespace Dock
