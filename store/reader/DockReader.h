// DockReader: the plain reader of a shared-memory table - no shadow, no callbacks. It searches the
// writer's own hash chains (bucket file + slot `next` words, ReaderHashMap) and copies values out
// under the slot's flags word (SlotCopy). Meant for occasional lookups and tools; a process that
// follows a table's changes uses DockShadow.
//
// Attach steps, each with the text it reports on failure (lastStatus(), traced at level 3):
//   the table directory exists                     "no shared memory region"
//   the slot file holds at least a header          "cannot attach to shmem size:{}"
//   map the bucket file                            "failed to attach to buckets"
//   map the slot file                              "failed to attach to slots"
//   read the writer's relume                       "failed to read relume file"
//   validate the bucket header                     "failed to validate buckets"
//   validate the slot table header                 "failed to validate slots"
// and on success "success {} capacity:{} relumeId:{} mtime:{} delay:{} event:{}" (directory,
// numSlots, relume, the slot file's modification time in seconds, seconds since then, and the
// count of attaches this reader made).
//
// Writer restarts. Every read (lookup, getValue, first, next) first checks that the files it maps
// are still the writer's: the slot table's relume is the one attached under (a restarted writer
// re-stamps it in place) and the slot file is still linked (a writer that re-formats replaces the
// files; a system call, so made on every read that found nothing and otherwise at most every
// 10 ms: a value read from replaced files is at most that old). A read that finds otherwise, or
// that fails during the read with WriterRestarted or with an anomaly the restart explains,
// re-attaches ("writer restarted: {}; re-attaching", level 5) and reads again from the new files,
// at most kReattachRounds times per read. While the new files cannot be attached the read answers
// "nothing" and the next read tries again; a read never throws a restart to its caller.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Loom/CorruptionException.h"
#include "Region/MappedFile.h"
#include "Region/RelumeFile.h"
#include "Spoor/Trace.h"
#include "store/format/SlotTable.h"
#include "store/reader/BucketReader.h"
#include "store/reader/IterHint.h"
#include "store/reader/ReaderHashMap.h"
#include "store/reader/SlotCopy.h"
#include "store/slab/ReaderAllocator.h"

namespace Dock {

template <class K, class V, class KeyOf>
class DockReader {
  public:
   DockReader(std::string name, std::string dir)
       : name_(std::move(name)), dir_(std::move(dir)), map_(name_, buckets_, slotAccess()) {}
   DockReader(const DockReader&) = delete;
   DockReader& operator=(const DockReader&) = delete;

   static constexpr uint32_t kReattachRounds = 3;
   // How often a read that found its value checks that the files were not replaced.
   static constexpr std::chrono::milliseconds kReplacedCheck{10};

   bool attach() {
      release();
      wanted_ = true;
      ++events_;
      struct stat st {};
      if (::stat(dir_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
         return fail("no shared memory region");
      const std::string slotsPath = dir_ + "/" + kSlotsFile;
      const bool exists = ::stat(slotsPath.c_str(), &st) == 0;
      const size_t size = exists ? size_t(st.st_size) : 0;
      if (size < kSlotHeaderSize) return fail(fmt::format("cannot attach to shmem size:{}", size));
      std::string reason;
      if (!buckets_.attach(dir_, reason)) return fail("failed to attach to buckets");
      try {
         slotsFile_ =
             std::make_unique<Region::MappedFile>(Region::MappedFile::openReadOnly(slotsPath));
      } catch (const Vela::Exception&) {
         return fail("failed to attach to slots");
      }
      mapSlots();
      relume_ = Region::RelumeFile::read(dir_);
      if (relume_ == 0) return fail("failed to read relume file");
      const auto copy = headerCopy();
      if (!buckets_.validate(relume_, copy.header->hashSeed, reason)) {
         SPOOR_TRACE(trace(), 3, "{} {}", name_, reason);
         return fail("failed to validate buckets");
      }
      if (!SlotTable::validateHeader(*copy.header, slotsFile_->fileSize(), relume_, reason)) {
         SPOOR_TRACE(trace(), 3, "{} {}", name_, reason);
         return fail("failed to validate slots");
      }
      map_.hashSeedIs(copy.header->hashSeed);
      allocator_ = std::make_unique<Tessel::ReaderAllocator>(dir_, relume_);
      const auto now = std::chrono::system_clock::now().time_since_epoch();
      const long mtime = long(st.st_mtim.tv_sec);
      const long delay =
          long(std::chrono::duration_cast<std::chrono::seconds>(now).count()) - mtime;
      status_ = fmt::format("success {} capacity:{} relumeId:{} mtime:{} delay:{} event:{}", dir_,
                            capacity(), relume_, mtime, delay, events_);
      SPOOR_TRACE(trace(), 5, "{} {}", name_, status_);
      return true;
   }
   void detach() {
      wanted_ = false;
      release();
   }
   bool attached() const { return header_ != nullptr; }
   const std::string& lastStatus() const { return status_; }
   // Re-attaches this reader made after a writer restart (or a failed attach).
   uint64_t reattaches() const { return reattaches_; }

   std::optional<V> lookup(const K& key) {
      return reading<std::optional<V>>([&]() -> std::optional<V> {
         V value;
         if (map_.find(key, value)) return value;
         return std::nullopt;
      });
   }
   // The value in `slot`, when it is occupied.
   std::optional<V> getValue(uint32_t slot) {
      return reading<std::optional<V>>([&]() -> std::optional<V> {
         SlotImage image;
         V value;
         if (copyValue(slot, image, value)) return value;
         return std::nullopt;
      });
   }
   bool first(IterHint& hint, V& value) {
      return reading<bool>([&] { return map_.first(hint, value); });
   }
   bool next(IterHint& hint, V& value) {
      return reading<bool>([&] { return map_.next(hint, value); });
   }

   uint32_t capacity() const { return header_ ? SlotTable::numSlots(*header_) : 0; }
   uint32_t members() const {
      return header_ ? header_->occupiedSlots.load(std::memory_order_acquire) : 0;
   }
   uint32_t buckets() const { return buckets_.numBuckets(); }
   uint32_t relumeId() const { return relume_; }
   const std::string& name() const { return name_; }

  private:
   static Spoor::Handle& trace() { return Spoor::handle("DockReader"); }

   // Runs `read` against the writer's current files (see the top); R{} when there are none.
   template <class R, class Read>
   R reading(Read&& read) {
      for (uint32_t round = 0;; ++round) {
         if (!current() && (!wanted_ || round >= kReattachRounds || !reattach())) return R{};
         try {
            R result = read();
            // Nothing found may be the old files' answer: made sure of at once.
            if (result || !restarted(true)) return result;
         } catch (const WriterRestarted& e) {
            SPOOR_TRACE(trace(), 5, "{} writer restarted: {}; re-attaching", name_, e.what());
         } catch (const Loom::CorruptionException& e) {
            if (!restarted(true)) throw;
            SPOOR_TRACE(trace(), 5, "{} writer restarted: {}; re-attaching", name_, e.what());
         }
         release();
      }
   }
   bool current() { return attached() && !restarted(); }
   // The files mapped are no longer the writer's: re-stamped (a word in the mapping, checked on
   // every read), or replaced (the slot file unlinked: a system call, so made at most every
   // kReplacedCheck, and on every read that failed).
   bool restarted(bool failed = false) {
      if (writerRestarted(relume_, *header_, nullptr)) return true;
      const auto now = std::chrono::steady_clock::now();
      if (!failed && now - replacedChecked_ < kReplacedCheck) return false;
      replacedChecked_ = now;
      struct stat st {};
      return ::fstat(slotsFile_->fd(), &st) == 0 && st.st_nlink == 0;
   }
   bool reattach() {
      if (attached()) {
         SPOOR_TRACE(trace(), 5, "{} writer restarted: relume:{}; re-attaching", name_, relume_);
      }
      if (!attach()) return false;
      ++reattaches_;
      return true;
   }
   void release() {
      allocator_.reset();
      slotsFile_.reset();
      buckets_.detach();
      header_ = nullptr;
      slots_ = nullptr;
      mappedSlots_ = 0;
   }

   bool fail(const std::string& text) {
      status_ = text;
      SPOOR_TRACE(trace(), 3, "{} {}", name_, text);
      release();
      return false;
   }
   SafeHeader<SlotTableHeader, uint64_t> headerCopy() const {
      return safeHeaderCopy(header_, header_->sizeWord, [this] { return slotsFile_->size(); });
   }
   void mapSlots() {
      header_ = reinterpret_cast<const SlotTableHeader*>(slotsFile_->data());
      slots_ = SlotTable::slots(header_);
      mappedSlots_ = uint32_t((slotsFile_->size() - kSlotHeaderSize) / kSlotSize);
   }
   // Follows a grown slot file so that `slot` is mapped; false when it is beyond the file.
   bool reach(uint32_t slot) {
      if (slot < mappedSlots_) return true;
      slotsFile_->remap();
      mapSlots();
      return slot < mappedSlots_;
   }
   bool copyValue(uint32_t slot, SlotImage& image, V& value) {
      if (!header_ || !reach(slot)) return false;
      if (!copySlotValue(*header_, slots_, slot, *allocator_, image, bytes_)) return false;
      value.deserialize(bytes_.data(), uint32_t(bytes_.size()));
      return true;
   }
   ReaderSlots<V> slotAccess() {
      ReaderSlots<V> a;
      a.capacity = [this] { return capacity(); };
      a.slot = [this](uint32_t s) -> const Slot* { return reach(s) ? &slots_[s] : nullptr; };
      a.copy = [this](uint32_t s, SlotImage& image) {
         if (!reach(s)) return false;
         copySlot(*header_, slots_, s, image);
         return true;
      };
      a.copyValue = [this](uint32_t s, SlotImage& image, V& value) {
         return copyValue(s, image, value);
      };
      return a;
   }

   std::string name_;
   std::string dir_;
   BucketReader buckets_;
   std::unique_ptr<Region::MappedFile> slotsFile_;
   const SlotTableHeader* header_ = nullptr;
   const Slot* slots_ = nullptr;
   uint32_t mappedSlots_ = 0;
   std::unique_ptr<Tessel::ReaderAllocator> allocator_;
   ReaderHashMap<K, V, KeyOf> map_;
   std::vector<uint8_t> bytes_;
   uint32_t relume_ = 0;
   uint64_t events_ = 0;
   uint64_t reattaches_ = 0;
   std::chrono::steady_clock::time_point replacedChecked_{};
   bool wanted_ = false;  // attach() called and detach() not since: reads re-attach
   std::string status_;
};

}  // namespace Dock
