// A version anchor: what a reader needs to know that a view it cached (a mapping, a header copy,
// an index built from it) still describes the table the writer is writing.
//
// The anchor is a snapshot of three things taken together:
//   relume         the writer generation the view was built under (a restarted writer changes it);
//   resizeCounter  the file's resize counter when the view was built (a resize changes it);
//   identity       device and inode of the file mapped (a re-formatted table is a new file).
// A cached view is current while a fresh snapshot equals the cached one; any difference means the
// holder must re-attach (identity or relume) or re-map (resize counter only).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace Region {

class MappedFile;

struct FileIdentity {
   uint64_t device = 0;
   uint64_t inode = 0;
   bool operator==(const FileIdentity&) const = default;
   static FileIdentity ofFd(int fd);                // {0, 0} when fstat fails
   static FileIdentity ofPath(const std::string&);  // {0, 0} when the file is missing
};

enum class AnchorChange {
   kNone,      // the view is current
   kResized,   // same file and writer, re-map and re-copy
   kReplaced,  // another writer generation or another file: re-attach
};

struct VersionAnchor {
   uint32_t relume = 0;
   uint32_t resizeCounter = 0;
   FileIdentity identity;

   static VersionAnchor of(const MappedFile& file, uint32_t relume, uint32_t resizeCounter);
   bool valid() const { return identity.inode != 0; }
   bool operator==(const VersionAnchor&) const = default;
   // How `now` differs from this (cached) anchor.
   AnchorChange compare(const VersionAnchor& now) const;
   // Whether the file at `path` is still the one this anchor was taken from.
   bool samePath(const std::string& path) const;
   std::string toString() const;
};

}  // namespace Region
