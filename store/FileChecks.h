// Checks of the table files beside the slot table and the slabs: the relume file, the herald and
// the bucket file, which readers depend on, and the writer's intent file. Each throws
// Loom::CorruptionException with its first finding, led by the file's name ("herald: bad magic:
// 0"), and Region::Error when a file that must exist cannot be opened. Files are read with pread
// (or mapped only once their size is known to be mappable), so no content makes a check read past
// a file's end.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "store/format/Layout.h"

namespace Dock {

// <dir>/relume: size, magic, check ("relume: bad header file size: {} wanted:16", "relume: bad
// magic: {:x}", "relume: checksum fail: {:x} != {:x}", "relume: bad relume:0"). Returns the
// relume it records.
uint32_t checkRelumeFile(const std::string& dir);

// <dir>/herald: the header (Herald::validate's texts, against `wantedRelume` unless 0; "bad file
// size:{}" for a file too large to map), then writerPos: the latest notification carries
// seqBase + writerPos - 1 ("herald: bad writerPos: {} latest notification seq:{:#x} wanted:{:#x}")
// and each shrink mark is none or below writerPos ("herald: bad shrinkStart: {} writerPos: {}").
void checkHeraldFile(const std::string& dir, uint32_t wantedRelume);

// The chains of a bucket file's `numBuckets` heads over `numSlots` slots: every head and next
// word is kNone or a slot index ("buckets: bad head: {} of bucket {} numSlots: {}", "buckets: bad
// next: {} of slot {} in bucket {} numSlots: {}"), no chain is longer than numSlots ("buckets:
// chain of bucket {} loops"), and every occupied slot is on the chain of its bucket ("buckets:
// occupied slot {} with keyHash {:#x} is not reachable from bucket {}").
void checkBucketChains(const std::atomic<uint32_t>* heads, uint32_t numBuckets, const Slot* slots,
                       uint32_t numSlots);

// <dir>/buckets: the header (BucketReader's texts, against the slot table's relume and hash
// seed), then checkBucketChains.
void checkBucketFile(const std::string& dir, uint32_t relume, uint32_t hashSeed, const Slot* slots,
                     uint32_t numSlots);

// <dir>/slabs.intent, when present: size, magic, version, and op idle or a known operation on a
// slab ("slabs.intent: bad op: {:#x}").
void checkIntentFile(const std::string& dir);

}  // namespace Dock
