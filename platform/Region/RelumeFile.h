// The relume file: the restart-generation identifier of the table's current writer (a
// Dock::RelumeRecord). A writer that starts picks next(previous) and stores it after formatting
// or re-attaching; readers attach only to files stamped with it and detach when it changes.
#pragma once

#include <cstdint>
#include <string>

namespace Region {

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
