// WriterCore: the writer's files, restart and recovery, the publishing protocol, removal, slot
// moves and shrinking, for every table type (see the header).
#include "store/writer/WriterCore.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <random>

#include "Loom/CorruptionException.h"
#include "Region/Error.h"
#include "Region/MappedFile.h"
#include "Region/RelumeFile.h"
#include "Region/StoreRoot.h"
#include "Vela/Assert.h"
#include "store/DeepValidate.h"
#include "store/FileChecks.h"
#include "store/format/SharedBytes.h"
#include "store/format/SlotTable.h"
#include "store/slab/SlotEntryCheck.h"

namespace Dock {

Spoor::Handle& writerTrace() {
   static Spoor::Handle& h = Spoor::handle("Dock");
   return h;
}

ValueTooLargeError::ValueTooLargeError(uint32_t length, uint32_t limit)
    : Vela::Exception(fmt::format("serialized value of {} bytes is above the table's largest: {}",
                                  length, limit)),
      length_(length),
      limit_(limit) {}

WriterCore::WriterCore(DockConfig config, SlotFile& table, WriterIndex& index)
    : config_(std::move(config)),
      table_(table),
      index_(index),
      maxValueLength_(config_.maxValueSize > Tessel::kEntryOverhead
                          ? config_.maxValueSize - Tessel::kEntryOverhead
                          : 0) {}

WriterCore::~WriterCore() {
   if (herald_.attached()) herald_.wake();
}

void WriterCore::initialize(const std::string& name) {
   name_ = name;
   rootPath_ = Region::storeRoot();
   dir_ = Region::tableDirectory(rootPath_, name);
   Region::makeDirectories(dir_);
   owner_ = Region::OwnerFile::acquire(dir_);
   relume_ = Region::RelumeFile::next(Region::RelumeFile::read(dir_));
   struct stat st;
   const bool existing = ::stat((dir_ + "/" + kSlotsFile).c_str(), &st) == 0;
   bool kept = false;
   if (existing) {
      kept = attachAndValidate();
      if (!kept) {
         SPOOR_TRACE(writerTrace(), 0, "all entries from {} will be lost", name_);
         cleanup();
      }
   }
   if (!kept) {
      try {
         createFiles();
         std::string reason;
         if (!validateFiles(reason)) throw Loom::CorruptionException(reason);
      } catch (const std::exception& e) {
         SPOOR_TRACE(writerTrace(), 0, "failed to attach to and validate new files");
         cleanup();
         mountStatus_ = MountStatus::kUnmounted;
         throw Vela::Exception(
             fmt::format("failed to attach to and validate new files: {}", e.what()));
      }
      if (existing) SPOOR_TRACE(writerTrace(), 0, "re-formatted successfully");
      mountStatus_ = existing ? MountStatus::kReformatted : MountStatus::kCreated;
   } else {
      mountStatus_ = MountStatus::kReattached;
   }
   Region::RelumeFile::write(dir_, relume_);
   anchor_ = currentAnchor();
   herald_.wake();
}

bool WriterCore::attachAndValidate() {
   try {
      attach();
   } catch (const std::exception& e) {
      SPOOR_TRACE(writerTrace(), 0, "failed to attach to existing files: {}", e.what());
      reformatReason_ = fmt::format("failed to attach to existing files: {}", e.what());
      return false;
   }
   std::string reason;
   if (!validateHeaderAgainstConfig(reason)) {
      SPOOR_TRACE(writerTrace(), 0, "failed to validate existing files: {}", reason);
      reformatReason_ = fmt::format("failed to validate existing files: {}", reason);
      return false;
   }
   try {
      recover();
   } catch (const std::exception& e) {
      SPOOR_TRACE(writerTrace(), 0, "Dock {} validation failed: {}", name_, e.what());
      SPOOR_TRACE(writerTrace(), 0, "failed initial validation of {} after re-attaching", name_);
      reformatReason_ = fmt::format("Dock {} validation failed: {}", name_, e.what());
      return false;
   }
   if (!validate()) {
      SPOOR_TRACE(writerTrace(), 0, "failed initial validation of {} after re-attaching", name_);
      reformatReason_ = fmt::format("failed initial validation of {} after re-attaching", name_);
      return false;
   }
   return true;
}

void WriterCore::attach() {
   // The herald first: its re-stamped relume and wake tell readers of the restart before the
   // slab headers below change generation under them.
   try {
      // The whole check first: a herald whose writerPos is not sane is replaced by recover().
      checkHeraldFile(dir_, 0);
      herald_.attach(dir_, relume_);
   } catch (const std::exception& e) {
      SPOOR_TRACE(writerTrace(), 1, "herald not kept: {}", e.what());
   }
   table_.attach(dir_ + "/" + kSlotsFile);
   if (!table_.attached()) throw Vela::Exception("slot table shorter than its header");
   // The slot table next, before any slab: from here until the relume file names this
   // generation, readers fail the slot header's relume check and wait, instead of attaching
   // under the old relume to slabs that already carry the new one (a writer killed in between
   // would leave them unable to read any entry while the slots look stable).
   table_.header()->relume.store(relume_, std::memory_order_release);
   allocator_ = std::make_unique<Tessel::WriterAllocator>(
       dir_, Tessel::LinearSizeConfig(config_.maxValueSize), relume_);
   allocator_->attach();
}

void WriterCore::detach() {
   herald_.detach();
   buckets_.detach();
   index_.indexDropped();
   allocator_.reset();
   table_.detach();
}

void WriterCore::cleanup() {
   detach();
   ::unlink((dir_ + "/" + kSlotsFile).c_str());
   ::unlink((dir_ + "/" + kBucketsFile).c_str());
   Tessel::WriterAllocator::removeFiles(dir_);
}

bool WriterCore::validate() {
   std::string reason;
   if (!validateFiles(reason)) {
      SPOOR_TRACE(writerTrace(), 0, "Dock {} validation failed: {}", name_, reason);
      return false;
   }
   return true;
}

bool WriterCore::validateFiles(std::string& reason) {
   try {
      if (!SlotTable::validateHeader(*table_.header(), table_.fileSize(), relume_, reason)) {
         return false;
      }
      deepValidate(*table_.header(), *allocator_);
      if (!buckets_.validate(relume_, table_.header()->hashSeed, reason)) return false;
      // The same checks `tunnelctl validate` makes of the files readers depend on.
      const auto* heads = reinterpret_cast<const std::atomic<uint32_t>*>(
          reinterpret_cast<const uint8_t*>(buckets_.header()) + kBucketHeaderSize);
      checkBucketChains(heads, buckets_.numBuckets(), SlotTable::slots(table_.header()),
                        table_.numSlots());
      checkHeraldFile(dir_, relume_);
      checkIntentFile(dir_);
      return true;
   } catch (const std::exception& e) {
      reason = e.what();
      return false;
   }
}

std::string WriterCore::dumpHeaders() const {
   return table_.attached() ? SlotTable::headerString(*table_.header()) : std::string();
}

// ---------------------------------------------------------------------------------------------
// Writes.

uint32_t WriterCore::allocSlot() {
   if (table_.header()->freeSlots.load(std::memory_order_relaxed) != kNone) {
      return table_.allocSlot(name_);
   }
   CriticalYield yield(criticalTaskCheck_);  // one budget for the file and the records
   const uint32_t s = table_.allocSlot(name_, &yield);
   index_.slotsGrown(yield);
   return s;
}

void WriterCore::closeDirect() {
   auto* h = table_.header();
   directSlot_ = kNone;
   h->lookaside.directSlot.store(kNone, std::memory_order_relaxed);
   h->runtimeFlags.store(h->runtimeFlags.load(std::memory_order_relaxed) & ~kRuntimeDirectOpen,
                         std::memory_order_release);
}

void WriterCore::abandonDirect() {
   const uint32_t flags = table_.slot(directSlot_).flags.load(std::memory_order_relaxed);
   if (!(flags & kOccupied)) table_.freeSlot(directSlot_);
   closeDirect();
}

WriterCore::Published WriterCore::publish(uint32_t length) {
   const uint32_t s = directSlot_;
   auto* h = table_.header();
   Slot& slot = table_.slot(s);
   Tessel::SlabValue nv;
   const uint32_t flags = slot.flags.load(std::memory_order_relaxed);
   try {
      // A NEW slab entry that names slot `s`.
      nv = allocator_->store(s, scratch_.data(), length);
   } catch (...) {
      abandonDirect();
      throw;
   }
   const bool inserted = !(flags & kOccupied);
   if (!inserted) {
      const Tessel::Offset old = offsetOf(s);
      Lookaside& la = h->lookaside;
      // Release fence: a reader that sees any of these lookaside words (relaxed) and then
      // re-checks an earlier slot's flags after its acquire fence sees that slot's last store.
      releaseFence();
      la.savedWord.store(slot.heraldPos.load(std::memory_order_relaxed), std::memory_order_relaxed);
      la.slot.store(s, std::memory_order_relaxed);
      la.offset.store(nv.offset.value, std::memory_order_relaxed);
      la.length.store(nv.length, std::memory_order_relaxed);
      // Release: a reader that acquires LOOKASIDE sees the lookaside words above.
      slot.flags.store(flags + kLookaside, std::memory_order_release);
      // Orders the LOOKASIDE store before the slot's value stores; pairs with the reader's
      // acquire fence before its second flags load (a torn copy then sees a changed word).
      releaseFence();
      slot.offset.store(la.offset.load(std::memory_order_relaxed), std::memory_order_relaxed);
      slot.length.store(la.length.load(std::memory_order_relaxed), std::memory_order_relaxed);
      // Release: the value words are stored before LOOKASIDE clears and the counter advances.
      slot.flags.store(flags + 2 * kLookaside, std::memory_order_release);
      allocator_->free(old);
      ++counters_.replaces;
   } else {
      slot.offset.store(nv.offset.value, std::memory_order_relaxed);
      slot.length.store(nv.length, std::memory_order_relaxed);
      slot.keyHash.store(directHash_, std::memory_order_relaxed);
      // Release: value words before OCCUPIED (pairs with the reader's acquire flags load).
      slot.flags.store(((flags + kWriteStep) | kOccupied) & ~kLookaside, std::memory_order_release);
      index_.slotInserted(s, directHash_, nv.offset.value);
      h->occupiedSlots.store(h->occupiedSlots.load(std::memory_order_relaxed) + 1,
                             std::memory_order_relaxed);
      ++counters_.inserts;
   }
   directSlot_ = kNone;
   h->lookaside.directSlot.store(kNone, std::memory_order_relaxed);
   if (h->occupiedSlots.load(std::memory_order_relaxed) > buckets_.numBuckets()) {
      index_.growBuckets(criticalTaskCheck_);
      ++counters_.bucketGrowths;
   }
   notify(s);
   h->runtimeFlags.store(h->runtimeFlags.load(std::memory_order_relaxed) & ~kRuntimeDirectOpen,
                         std::memory_order_release);
   return Published{s, nv.offset.value, inserted};
}

void WriterCore::removeSlot(uint32_t s) {
   Slot& slot = table_.slot(s);
   const uint32_t flags = slot.flags.load(std::memory_order_relaxed);
   // Release: pairs with the reader's acquire load of flags; the slot is free from here on.
   slot.flags.store((flags + kWriteStep) & ~kOccupied, std::memory_order_release);
   notify(s);
   allocator_->free(offsetOf(s));
   table_.freeSlot(s);
   auto* h = table_.header();
   h->occupiedSlots.store(h->occupiedSlots.load(std::memory_order_relaxed) - 1,
                          std::memory_order_relaxed);
   ++counters_.removes;
   maybeShrinkBuckets();
   maybeShrinkSlots();
}

void WriterCore::notify(uint32_t s) {
   const uint64_t pos = herald_.postChange(s);
   table_.slot(s).heraldPos.store(uint32_t(pos), std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------------
// Shrinking.

void WriterCore::maybeShrinkBuckets() {
   if (buckets_.numBuckets() > kInitialBuckets && uint64_t(members()) * 4 < buckets_.numBuckets()) {
      index_.shrinkBuckets(criticalTaskCheck_);
      ++counters_.bucketShrinks;
   }
}

void WriterCore::maybeShrinkSlots() {
   if (autoShrink_ && table_.numSlots() > minSize() &&
       uint64_t(members()) * 8 <= table_.numSlots()) {
      doMaybeShrinkSlots(table_.numSlots());
   }
}

void WriterCore::doMaybeShrinkSlots(uint32_t shrinkThreshold) {
   if (shrinkThreshold == 0) return;
   if (shrinking_) {
      SPOOR_TRACE(writerTrace(), 5, "shrink started, ignoring shrinkThreshold:{}", shrinkThreshold);
      return;
   }
   auto* h = table_.header();
   const uint32_t occupied = h->occupiedSlots.load(std::memory_order_relaxed);
   uint64_t target = minSize();
   if (occupied != 0) {
      target = std::max<uint64_t>(uint64_t(1) << (std::bit_width(occupied) + 1), minSize());
   }
   const uint32_t threshold = uint32_t(std::min<uint64_t>(target, table_.numSlots()));
   SPOOR_TRACE(writerTrace(), 5, "threshold:{} shrinkThreshold:{}{}", threshold, shrinkThreshold,
               shrinkThreshold > threshold ? " SUPER SHRINK!" : "");
   if (threshold >= table_.numSlots()) return;
   shrinking_ = true;
   table_.purgeFreeSlots(threshold);
   // The moves below re-store their values: in the lowest free entries, so that the slabs' tails
   // can be given back afterwards.
   allocator_->prepareShrink();
   herald_.shrinkStart();
   CriticalYield yield(criticalTaskCheck_);
   const uint32_t numSlots = table_.numSlots();
   // The moved slots' old entries are freed after every move: freed at once, each would head its
   // free list and take the next move's value, high in the slab.
   std::vector<Tessel::Offset> moved;
   for (uint32_t from = threshold; from < numSlots; ++from) {
      Slot& fs = table_.slot(from);
      const uint32_t flags = fs.flags.load(std::memory_order_relaxed);
      if (!(flags & kOccupied)) {
         SPOOR_TRACE(writerTrace(), 9, "skipping not occupied slot:{}", from);
         continue;
      }
      moved.push_back(moveSlot(from));
      yield.check();
   }
   // No slot names these entries any more; a writer killed before this leaves them to recovery.
   for (Tessel::Offset o : moved) allocator_->free(o);
   counters_.criticalYields += yield.yields();
   herald_.shrinkEnd();
   SPOOR_TRACE(writerTrace(), 5, "newNumSlots:{}", threshold);
   table_.shrinkTo(threshold);
   SPOOR_TRACE(writerTrace(), 5, "{} from {} slots to {}", name_, numSlots, threshold);
   // A burst that filled the slot file filled the slabs too: release their free tails.
   const uint32_t slabs = allocator_->shrink();
   SPOOR_TRACE(writerTrace(), 5, "{} slabs shrunk: {}", name_, slabs);
   SPOOR_TRACE(writerTrace(), 5, "at threshold:{} done", shrinkThreshold);
   ++counters_.slotShrinks;
   shrinking_ = false;
}

Tessel::Offset WriterCore::moveSlot(uint32_t from) {
   const uint32_t hash = index_.hashAt(from);
   if (!index_.findsOwnKey(from)) {
      VELA_FAIL("fromSlot:{} key not found", from);
   }
   // The value's bytes are re-stored under a fresh entry check: damaged ones are refused here
   // rather than laundered (Loom::CorruptionException).
   const Tessel::Offset fromOffset = offsetOf(from);
   Slot& fs = table_.slot(from);
   const uint32_t length = fs.length.load(std::memory_order_relaxed);
   Tessel::checkSlotEntry(from, fromOffset, length, *allocator_->lookup(fromOffset),
                          allocator_->maxPayload(fromOffset));
   // The free list holds only slots below the target (purgeFreeSlots), never growth.
   const uint32_t to = table_.allocSlot(name_);
   SPOOR_TRACE(writerTrace(), 9, "moving fromSlot:{} toSlot:{}", from, to);
   Slot& ts = table_.slot(to);
   // Release fence: as in publish, the stores below follow every earlier flags store.
   releaseFence();
   // The value's bytes as they are: nothing to deserialize and serialize again.
   copyFromShared(scratch(length), allocator_->payload(fromOffset), length);
   const Tessel::SlabValue nv = allocator_->store(to, scratch_.data(), length);
   ts.offset.store(nv.offset.value, std::memory_order_relaxed);
   ts.length.store(nv.length, std::memory_order_relaxed);
   ts.keyHash.store(hash, std::memory_order_relaxed);
   const uint32_t tflags = ts.flags.load(std::memory_order_relaxed);
   // Release: the new slot's words before OCCUPIED.
   ts.flags.store(((tflags + kWriteStep) | kOccupied) & ~kLookaside, std::memory_order_release);
   // Until `from` is cleared below, two occupied slots hold the key with the same bytes: a writer
   // killed here leaves that to recovery (dropInterruptedMove).
   Tessel::storePoint(Tessel::StorePoint::kMovePublished);
   if (!index_.slotMoved(from, to, nv.offset.value)) VELA_FAIL("fromSlot:{} not referenced", from);
   notify(to);
   herald_.postTombstone(from);
   const uint32_t fflags = fs.flags.load(std::memory_order_relaxed);
   fs.flags.store((fflags + kWriteStep) & ~kOccupied, std::memory_order_release);
   notify(from);
   ++counters_.slotMoves;
   return fromOffset;
}

bool WriterCore::dropInterruptedMove(uint32_t kept, uint32_t dropped) {
   Slot& d = table_.slot(dropped);
   const uint32_t length = table_.slot(kept).length.load(std::memory_order_relaxed);
   // A move goes down, and copies the value's bytes exactly.
   if (kept >= dropped || d.length.load(std::memory_order_relaxed) != length ||
       std::memcmp(allocator_->payload(offsetOf(kept)), allocator_->payload(offsetOf(dropped)),
                   length) != 0) {
      return false;
   }
   SPOOR_TRACE(writerTrace(), 0, "{}: move of slot {} to {} interrupted, finished", name_, dropped,
               kept);
   d.flags.store((d.flags.load(std::memory_order_relaxed) + kWriteStep) & ~kOccupied,
                 std::memory_order_release);
   allocator_->free(offsetOf(dropped));
   table_.freeSlot(dropped);
   auto* h = table_.header();
   h->occupiedSlots.store(h->occupiedSlots.load(std::memory_order_relaxed) - 1,
                          std::memory_order_relaxed);
   return true;
}

// ---------------------------------------------------------------------------------------------
// State.

void WriterCore::clientQuiesced(const std::string& client) {
   SPOOR_TRACE(writerTrace(), 5, "client {} quiesced on {}", client, name_);
   handleQuiesced(quiesced());
}

bool WriterCore::validateVersionAnchor() {
   const Region::VersionAnchor now = currentAnchor();
   if (versionAnchorHook_) versionAnchorHook_(now);
   return anchor_.compare(now) == Region::AnchorChange::kNone;
}

Region::VersionAnchor WriterCore::currentAnchor() const {
   Region::MappedFile f = Region::MappedFile::openReadOnly(dir_ + "/" + kSlotsFile);
   return Region::VersionAnchor::of(
       f, relume_, sizeWordCounter(table_.header()->sizeWord.load(std::memory_order_relaxed)));
}

// ---------------------------------------------------------------------------------------------
// Files.

bool WriterCore::validateHeaderAgainstConfig(std::string& reason) {
   const SlotTableHeader& h = *table_.header();
   if (!SlotTable::validateHeader(h, table_.fileSize(), 0, reason)) return false;
   if (std::string(h.valueType, strnlen(h.valueType, kValueTypeSize)) != config_.typeName ||
       h.valueSize != config_.valueSize || h.maxSlots != config_.maxSlots ||
       h.constFlags != config_.constFlags) {
      reason = fmt::format("table formatted for another type: {}", SlotTable::headerString(h));
      return false;
   }
   return true;
}

void WriterCore::createFiles() {
   detach();
   allocator_ = std::make_unique<Tessel::WriterAllocator>(
       dir_, Tessel::LinearSizeConfig(config_.maxValueSize), relume_);
   allocator_->create();
   std::random_device rd;
   const uint32_t seed = rd();
   table_.create(dir_ + "/" + kSlotsFile, config_, relume_, seed);
   buckets_.create(dir_ + "/" + kBucketsFile, relume_, seed, kInitialBuckets);
   index_.indexStarted();
   herald_.create(dir_, relume_, config_.heraldCapacity);
   directSlot_ = kNone;
}

void WriterCore::recover() {
   auto* h = table_.header();
   table_.minSlotsIs(std::max<uint32_t>(1, std::min(config_.minSlots, config_.maxSlots)));
   const uint32_t n = table_.numSlots();
   Lookaside& la = h->lookaside;
   // An open direct write never committed: forget it (its slot is re-listed below).
   la.directSlot.store(kNone, std::memory_order_relaxed);
   h->runtimeFlags.store(h->runtimeFlags.load(std::memory_order_relaxed) & ~kRuntimeDirectOpen,
                         std::memory_order_relaxed);
   // A replacement interrupted between its two flags increments: finish it.
   for (uint32_t s = 0; s < n; ++s) {
      Slot& slot = table_.slot(s);
      const uint32_t flags = slot.flags.load(std::memory_order_relaxed);
      if (!(flags & kLookaside)) continue;
      if (la.slot.load(std::memory_order_relaxed) != s) {
         throw Loom::CorruptionException(fmt::format("stuck LOOKASIDE bit: {:#x}", flags));
      }
      slot.offset.store(la.offset.load(std::memory_order_relaxed), std::memory_order_relaxed);
      slot.length.store(la.length.load(std::memory_order_relaxed), std::memory_order_relaxed);
      slot.flags.store(flags + kLookaside, std::memory_order_release);
   }
   table_.rebuildFreeList();
   // Slab entries no slot names (allocated before a crash, or replaced and not yet freed).
   allocator_->numOccupied();  // attaches (and validates) every slab file present
   for (uint32_t c = 0; c < Tessel::kNumClasses; ++c) {
      Tessel::SlabWriter* slab = allocator_->attachedSlab(c);
      if (!slab) continue;
      const uint32_t entries = slab->numEntries();
      for (uint32_t i = 0; i < entries; ++i) {
         SlabEntryHeader* e = slab->getEntry(i);
         if (e->payloadSize.load(std::memory_order_relaxed) < 0) continue;
         const uint32_t client = e->clientData.load(std::memory_order_relaxed);
         const Tessel::Offset off = Tessel::Offset::make(c, i);
         const bool named =
             client < n &&
             (table_.slot(client).flags.load(std::memory_order_relaxed) & kOccupied) &&
             offsetOf(client) == off;
         if (!named) {
            slab->free(i);
            ++counters_.reclaimedEntries;
         }
      }
   }
   // The private records and the index from the values themselves.
   const uint32_t occupied = h->occupiedSlots.load(std::memory_order_relaxed);
   uint32_t nb = kInitialBuckets;
   while (nb < occupied) nb *= 2;
   buckets_.create(dir_ + "/" + kBucketsFile, relume_, h->hashSeed, nb);
   index_.indexStarted();
   for (uint32_t s = 0; s < n; ++s) {
      if (!(table_.slot(s).flags.load(std::memory_order_relaxed) & kOccupied)) continue;
      index_.slotRecovered(s);
   }
   if (!herald_.attached()) herald_.create(dir_, relume_, config_.heraldCapacity);
   directSlot_ = kNone;
}

}  // namespace Dock
