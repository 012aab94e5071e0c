// The relume file: the restart-generation identifier of the table's current writer. A writer
// that starts picks next(previous) and stores it after formatting or re-attaching; readers attach
// only to files stamped with it and detach when it changes.
//
// File <table dir>/relume (16 bytes, little-endian). It is replaced whole (written aside and
// renamed over), never changed in place, so no word of it is shared while it changes.
//
//   offset  width  field
//        0      8  magic   "DOCKRLUM" (0x4d554c524b434f44)
//        8      4  relume
//       12      4  check   one-at-a-time hash of relume
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Region {

constexpr const char* kRelumeFile = "relume";
constexpr uint64_t kRelumeMagic = 0x4d554c524b434f44ull;  // "DOCKRLUM"

struct RelumeRecord {
   uint64_t magic;   // 0
   uint32_t relume;  // 8
   uint32_t check;   // 12
};
static_assert(offsetof(RelumeRecord, relume) == 8);
static_assert(offsetof(RelumeRecord, check) == 12);
static_assert(sizeof(RelumeRecord) == 16);

class RelumeFile {
  public:
   // The relume in <dir>/relume, or 0 when the file is missing, short or fails its check.
   static uint32_t read(const std::string& dir);
   // Replaces <dir>/relume atomically (write a temporary file, rename over), so a reader opening
   // it sees the old record or the new one, never a mix. Throws Region::Error.
   // REQUIRES: relume != 0.
   static void write(const std::string& dir, uint32_t relume);
   // A random identifier that differs from `previous` and is never 0.
   static uint32_t next(uint32_t previous);
};

}  // namespace Region
