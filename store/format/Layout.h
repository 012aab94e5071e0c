// Byte layout of every file of a shared-memory table, in one place.
//
// A table (one collection of one mounted entity, e.g. the "entry" collection of tunnel/table/ldp)
// lives in one directory under the store root:
//
//    <root>/<mount path>/<collection>/
//       slots        slot table: SlotTableHeader, then numSlots Slots
//       buckets      bucket heads of the key hash chains: BucketHeader, then numBuckets heads
//       slab.00 ..   up to 32 slab files (one per size class): SlabHeader, then entries
//       slab.31
//       herald       notification queue: HeraldHeader, then capacity Notifications
//       relume       the writer's restart-generation identifier: RelumeRecord (Region)
//       owner        text naming the writing process; held with an exclusive flock while it lives
//       slabs.intent the writer's record of the slab operation under way: IntentRecord
//       wake/        one unix datagram socket per attached reader, "<pid>-<starttime>-<n>": the
//                    writer sends each a datagram per batch of notifications unless the last one
//                    is still unread (store/herald/WakeDirectory.h)
//
// All multi-byte fields are little-endian (the only byte order this library runs on; checked
// below). Every word that can change while another process maps the file is a std::atomic of a
// width that is always lock-free, so the layout is also the memory model: the writer publishes
// with release stores, readers copy under a version word (SeqRead.h). That includes the
// magic and relume words a writer rewrites in place (re-formatting a file readers still map,
// re-stamping the relume after a restart). Fields written only while a file is not yet published
// (before its magic, or before it is renamed into place) are plain.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Region/RelumeFile.h"

namespace Dock {

static_assert(std::endian::native == std::endian::little, "the store's files are little-endian");
static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(std::atomic<uint64_t>::is_always_lock_free);
static_assert(std::atomic<int32_t>::is_always_lock_free);

constexpr uint32_t kNone = 0xFFFFFFFFu;  // end of a list, no slot, no direct write
constexpr uint32_t kPlatform = 1;        // the only accepted platform specification

// ---------------------------------------------------------------------------------------------
// File names.
constexpr const char* kSlotsFile = "slots";
constexpr const char* kBucketsFile = "buckets";
constexpr const char* kHeraldFile = "herald";
constexpr const char* kOwnerFile = "owner";
constexpr const char* kWakeDirectory = "wake";
constexpr uint32_t kNumSlabs = 32;
// "slab.00" .. "slab.31"
std::string slabFileName(uint32_t slab);
// A table's directory: Region::tableDirectory(Region::storeRoot(), "<mountPath>/<collection>").

// ---------------------------------------------------------------------------------------------
// Slot table file: 600-byte header, then numSlots slots of 24 bytes.
//
//   offset  width  field
//        0      8  magic            "DOCKSLOT" (0x544f4c534b434f44)
//        8      4  version          23
//       12      4  relume
//       16      4  platform         1
//       20    512  valueType        NUL-terminated type name, at most 511 characters
//      532      4  valueSize
//      536      4  slotSize         24
//      540      4  maxSlots
//      544      2  constFlags
//      546      2  runtimeFlags     bit 0: a direct write is open
//      548      4  hash             FNV-1a over valueType..constFlags and hashSeed
//      552      4  occupiedSlots
//      556      4  freeSlots        head of the free-slot list, kNone when empty
//      560      4  mostSlots
//      564      4  hashSeed
//      568      8  sizeWord         resize counter (low 32 bits) | numSlots (high 32 bits),
//                                   stored in one 8-byte store so readers see both or neither
//      576     20  lookaside        the slot being rewritten and its new value words
//      596      4  reserved
constexpr uint64_t kSlotMagic = 0x544f4c534b434f44ull;  // "DOCKSLOT"
constexpr uint32_t kSlotVersion = 23;
constexpr uint32_t kSlotHeaderSize = 600;
constexpr uint32_t kSlotSize = 24;
constexpr uint32_t kValueTypeSize = 512;

// Slot flags word (slot offset 8). Bits 2..31 count completed writes in steps of 4.
constexpr uint32_t kOccupied = 1;
constexpr uint32_t kLookaside = 2;
constexpr uint32_t kWriteStep = 4;

// Header runtimeFlags.
constexpr uint16_t kRuntimeDirectOpen = 1;

// The lookaside area (header offset 576). While a replacement of an occupied slot is published,
// LOOKASIDE is set in that slot's flags and readers take the slot's value words from here.
// Format-time values: 0, kNone, 0, 0, kNone.
struct Lookaside {
   std::atomic<uint32_t> savedWord;  // 576: the slot's word at offset 12 when the rewrite began
   std::atomic<uint32_t> slot;       // 580: index of the slot being rewritten, kNone when none
   std::atomic<uint32_t> offset;     // 584: the new value Offset
   std::atomic<uint32_t> length;     // 588: the new value's serialized length
   std::atomic<uint32_t>
       directSlot;  // 592: slot opened by directWrite/directUpdate, kNone when none
};

struct SlotTableHeader {
   std::atomic<uint64_t> magic;          // 0: 0 while (re)formatted, then published (release)
   uint32_t version;                     // 8
   std::atomic<uint32_t> relume;         // 12: re-stamped by a restarted writer
   uint32_t platform;                    // 16
   char valueType[kValueTypeSize];       // 20
   uint32_t valueSize;                   // 532
   uint32_t slotSize;                    // 536
   uint32_t maxSlots;                    // 540
   uint16_t constFlags;                  // 544
   std::atomic<uint16_t> runtimeFlags;   // 546
   uint32_t hash;                        // 548
   std::atomic<uint32_t> occupiedSlots;  // 552
   std::atomic<uint32_t> freeSlots;      // 556
   std::atomic<uint32_t> mostSlots;      // 560
   uint32_t hashSeed;                    // 564
   std::atomic<uint64_t> sizeWord;       // 568: resizeCounter | uint64_t(numSlots) << 32
   Lookaside lookaside;                  // 576
   uint32_t reserved;                    // 596
};

constexpr uint64_t makeSizeWord(uint32_t resizeCounter, uint32_t numSlots) {
   return uint64_t(resizeCounter) | (uint64_t(numSlots) << 32);
}
constexpr uint32_t sizeWordCounter(uint64_t w) {
   return uint32_t(w);
}
constexpr uint32_t sizeWordNumSlots(uint64_t w) {
   return uint32_t(w >> 32);
}

// One slot. The writer alone stores to it; readers copy it under the flags word.
//
//   offset  width  field
//        0      4  next        next slot in the same bucket chain (or in the free list), kNone ends
//        4      4  keyHash     the key's hash (with the header's hashSeed); its bucket is
//                              keyHash & (numBuckets - 1)
//        8      4  flags       OCCUPIED | LOOKASIDE | write counter
//       12      4  heraldPos   low 32 bits of the queue position of the slot's latest notification
//       16      4  offset      value Offset: slab number in bits 0..4, entry index in bits 5..31
//       20      4  length      the value's serialized length in bytes
struct Slot {
   std::atomic<uint32_t> next;       // 0
   std::atomic<uint32_t> keyHash;    // 4
   std::atomic<uint32_t> flags;      // 8
   std::atomic<uint32_t> heraldPos;  // 12
   std::atomic<uint32_t> offset;     // 16
   std::atomic<uint32_t> length;     // 20
};

static_assert(offsetof(SlotTableHeader, magic) == 0);
static_assert(offsetof(SlotTableHeader, version) == 8);
static_assert(offsetof(SlotTableHeader, relume) == 12);
static_assert(offsetof(SlotTableHeader, platform) == 16);
static_assert(offsetof(SlotTableHeader, valueType) == 20);
static_assert(offsetof(SlotTableHeader, valueSize) == 532);
static_assert(offsetof(SlotTableHeader, slotSize) == 536);
static_assert(offsetof(SlotTableHeader, maxSlots) == 540);
static_assert(offsetof(SlotTableHeader, constFlags) == 544);
static_assert(offsetof(SlotTableHeader, runtimeFlags) == 546);
static_assert(offsetof(SlotTableHeader, hash) == 548);
static_assert(offsetof(SlotTableHeader, occupiedSlots) == 552);
static_assert(offsetof(SlotTableHeader, freeSlots) == 556);
static_assert(offsetof(SlotTableHeader, mostSlots) == 560);
static_assert(offsetof(SlotTableHeader, hashSeed) == 564);
static_assert(offsetof(SlotTableHeader, sizeWord) == 568);
static_assert(offsetof(SlotTableHeader, lookaside) == 576);
static_assert(offsetof(SlotTableHeader, lookaside.savedWord) == 576);
static_assert(offsetof(SlotTableHeader, lookaside.slot) == 580);
static_assert(offsetof(SlotTableHeader, lookaside.offset) == 584);
static_assert(offsetof(SlotTableHeader, lookaside.length) == 588);
static_assert(offsetof(SlotTableHeader, lookaside.directSlot) == 592);
static_assert(offsetof(SlotTableHeader, reserved) == 596);
static_assert(sizeof(SlotTableHeader) == kSlotHeaderSize);
static_assert(offsetof(Slot, next) == 0);
static_assert(offsetof(Slot, keyHash) == 4);
static_assert(offsetof(Slot, flags) == 8);
static_assert(offsetof(Slot, heraldPos) == 12);
static_assert(offsetof(Slot, offset) == 16);
static_assert(offsetof(Slot, length) == 20);
static_assert(sizeof(Slot) == kSlotSize);

// ---------------------------------------------------------------------------------------------
// Slab file: 40-byte header, then numEntries entries of entrySize bytes.
//
//   offset  width  field
//        0      8  magic          "TESSLSLB" (0x424c534c53534554)
//        8      4  version        3 (the 16-byte entry header; the check of EntryCheck.h)
//       12      4  relume
//       16      4  resizeCounter  changed on every resize; version word of the header copy
//       20      4  numEntries
//       24      4  numOccupied
//       28      4  entrySize
//       32      4  hash           4-byte hash of entrySize
//       36      4  freeList       first free entry, kNone when none is free
constexpr uint64_t kSlabMagic = 0x424c534c53534554ull;  // "TESSLSLB"
constexpr uint32_t kSlabVersion = 3;
constexpr uint32_t kSlabHeaderSize = 40;

struct SlabHeader {
   std::atomic<uint64_t> magic;          // 0: 0 while (re)formatted, then published (release)
   uint32_t version;                     // 8
   std::atomic<uint32_t> relume;         // 12: re-stamped by a restarted writer
   std::atomic<uint32_t> resizeCounter;  // 16
   std::atomic<uint32_t> numEntries;     // 20
   std::atomic<uint32_t> numOccupied;    // 24
   uint32_t entrySize;                   // 28
   uint32_t hash;                        // 32
   std::atomic<uint32_t> freeList;       // 36
};
static_assert(offsetof(SlabHeader, magic) == 0);
static_assert(offsetof(SlabHeader, version) == 8);
static_assert(offsetof(SlabHeader, relume) == 12);
static_assert(offsetof(SlabHeader, resizeCounter) == 16);
static_assert(offsetof(SlabHeader, numEntries) == 20);
static_assert(offsetof(SlabHeader, numOccupied) == 24);
static_assert(offsetof(SlabHeader, entrySize) == 28);
static_assert(offsetof(SlabHeader, hash) == 32);
static_assert(offsetof(SlabHeader, freeList) == 36);
static_assert(sizeof(SlabHeader) == kSlabHeaderSize);

// Slab entry: 16-byte header, then the payload (the value's serialized bytes), 8-byte aligned.
//
//   offset  width  field
//        0      4  payloadSize  signed; negative while the entry is free (then on the free list)
//        4      4  clientData   index of the slot whose Offset names this entry; while free, the
//                               index of the next free entry (kNone ends the list)
//        8      8  check        64-bit hash of the payload seeded with payloadSize and clientData
//                               (slab/EntryCheck.h); meaningful only while the entry is occupied
//       16      -  payload
struct SlabEntryHeader {
   std::atomic<int32_t> payloadSize;  // 0
   std::atomic<uint32_t> clientData;  // 4
   std::atomic<uint64_t> check;       // 8
};
constexpr uint32_t kSlabEntryHeaderSize = 16;
static_assert(offsetof(SlabEntryHeader, payloadSize) == 0);
static_assert(offsetof(SlabEntryHeader, clientData) == 4);
static_assert(offsetof(SlabEntryHeader, check) == 8);
static_assert(sizeof(SlabEntryHeader) == kSlabEntryHeaderSize);

// ---------------------------------------------------------------------------------------------
// Bucket file: 32-byte header, then numBuckets chain heads (slot indices, kNone when empty).
//
//   offset  width  field
//        0      8  magic       "DOCBKCKT"
//        8      4  version     1
//       12      4  relume
//       16      8  sizeWord    resize counter (low 32 bits) | numBuckets (high 32 bits)
//       24      4  hashSeed    copy of the slot table's hashSeed
//       28      4  check       FNV-1a over magic..relume and hashSeed
//       32      -  heads[numBuckets]
constexpr uint64_t kBucketMagic = 0x544b434b42434f44ull;  // "DOCBKCKT"
constexpr uint32_t kBucketVersion = 1;
constexpr uint32_t kBucketHeaderSize = 32;

// The file is re-formatted in place by a restarted writer under readers that still map it, so
// every header word is atomic; the odd resize counter brackets the rewrite.
struct BucketHeader {
   std::atomic<uint64_t> magic;     // 0
   std::atomic<uint32_t> version;   // 8
   std::atomic<uint32_t> relume;    // 12
   std::atomic<uint64_t> sizeWord;  // 16
   std::atomic<uint32_t> hashSeed;  // 24
   std::atomic<uint32_t> check;     // 28
};
static_assert(offsetof(BucketHeader, magic) == 0);
static_assert(offsetof(BucketHeader, version) == 8);
static_assert(offsetof(BucketHeader, relume) == 12);
static_assert(offsetof(BucketHeader, sizeWord) == 16);
static_assert(offsetof(BucketHeader, hashSeed) == 24);
static_assert(offsetof(BucketHeader, check) == 28);
static_assert(sizeof(BucketHeader) == kBucketHeaderSize);

// ---------------------------------------------------------------------------------------------
// Relume file: the writer's restart-generation identifier, RelumeRecord in Region/RelumeFile.h
// (below the store: the platform reads and replaces it whole). A writer that starts (or restarts)
// picks a new relume different from the previous one and stores it there after formatting or
// re-attaching; readers compare it with the files' relume and with the one they attached under.
using Region::kRelumeFile;
using Region::RelumeRecord;

// ---------------------------------------------------------------------------------------------
// Herald file: the notification queue, a ring of `capacity` notifications (a power of two) seen
// by readers as two tables of capacity/2 (the halves); the writer appends one notification per
// published slot. A notification at queue position p lives at index p % capacity and carries
// sequence seqBase + p; a reader that finds another sequence there has been lapped.
//
//   offset  width  field
//        0      8  magic        "DOCKHRLD"
//        8      4  version      1
//       12      4  relume
//       16      4  capacity     number of notifications in the ring (power of two)
//       20      4  wakeWord     wake count: the writer increments it once per wake of its readers
//       24      8  seqBase      sequence of queue position 0
//       32      8  writerPos    next queue position to be written (release-stored after the entry)
//       40      8  shrinkStart  queue position of the latest shrink-start mark, all-ones if none
//       48      8  shrinkEnd    queue position of the latest shrink-end mark, all-ones if none
//       56      8  reserved
//       64      -  ring[capacity]
constexpr uint64_t kHeraldMagic = 0x444c52484b434f44ull;  // "DOCKHRLD"
constexpr uint32_t kHeraldVersion = 1;
constexpr uint32_t kHeraldHeaderSize = 64;

// Formatted aside and renamed into place, so only the run-time words are atomic (the relume is
// re-stamped by a restarted writer, in the file it keeps or the one it replaces).
struct HeraldHeader {
   uint64_t magic;                     // 0
   uint32_t version;                   // 8
   std::atomic<uint32_t> relume;       // 12
   uint32_t capacity;                  // 16
   std::atomic<uint32_t> wakeWord;     // 20
   uint64_t seqBase;                   // 24
   std::atomic<uint64_t> writerPos;    // 32
   std::atomic<uint64_t> shrinkStart;  // 40
   std::atomic<uint64_t> shrinkEnd;    // 48
   uint64_t reserved;                  // 56
};
static_assert(offsetof(HeraldHeader, capacity) == 16);
static_assert(offsetof(HeraldHeader, wakeWord) == 20);
static_assert(offsetof(HeraldHeader, seqBase) == 24);
static_assert(offsetof(HeraldHeader, writerPos) == 32);
static_assert(offsetof(HeraldHeader, shrinkStart) == 40);
static_assert(offsetof(HeraldHeader, shrinkEnd) == 48);
static_assert(sizeof(HeraldHeader) == kHeraldHeaderSize);

// One notification. The writer stores slot and kind, then seq with release; a reader loads seq
// with acquire, then slot and kind, then seq again: the entry is valid only if both loads of seq
// give the expected sequence.
//
//   offset  width  field
//        0      8  seq    seqBase + queue position
//        8      4  slot   the published slot, kNone for an empty entry
//       12      4  kind   kSlotChanged, kTombstone, kShrinkStart or kShrinkEnd
constexpr uint32_t kSlotChanged = 0;
constexpr uint32_t kTombstone = 1;
constexpr uint32_t kShrinkStart = 2;
constexpr uint32_t kShrinkEnd = 3;
struct Notification {
   std::atomic<uint64_t> seq;   // 0
   std::atomic<uint32_t> slot;  // 8
   std::atomic<uint32_t> kind;  // 12
};
static_assert(offsetof(Notification, seq) == 0);
static_assert(offsetof(Notification, slot) == 8);
static_assert(offsetof(Notification, kind) == 12);
static_assert(sizeof(Notification) == 16);

// ---------------------------------------------------------------------------------------------
// Intent file "slabs.intent" (64 bytes): the writer's record of the slab operation it is in the
// middle of (slab/SlabIntent.h). Private to the writer: readers never open it, so nothing in it
// is shared while it changes; op is atomic for the slab writer's compiler-ordered stores.
//
//   offset  width  field
//        0      8  magic     "TESSINTN" (0x4e544e4953534554)
//        8      4  version   1
//       12      4  op        kind << 8 | slab while an operation is under way, 0 when idle
//       16     48  reserved
constexpr const char* kIntentFile = "slabs.intent";
constexpr uint64_t kIntentMagic = 0x4e544e4953534554ull;  // "TESSINTN"
constexpr uint32_t kIntentVersion = 1;
constexpr uint32_t kIntentSize = 64;

struct IntentRecord {
   uint64_t magic;            // 0
   uint32_t version;          // 8
   std::atomic<uint32_t> op;  // 12
   uint32_t reserved[12];     // 16
};
static_assert(offsetof(IntentRecord, op) == 12);
static_assert(sizeof(IntentRecord) == kIntentSize);

}  // namespace Dock
