#include "Region/VersionAnchor.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include "Region/MappedFile.h"

namespace Region {

FileIdentity FileIdentity::ofFd(int fd) {
   struct stat st;
   if (fd < 0 || ::fstat(fd, &st) != 0) return {};
   return {uint64_t(st.st_dev), uint64_t(st.st_ino)};
}

FileIdentity FileIdentity::ofPath(const std::string& path) {
   struct stat st;
   if (::stat(path.c_str(), &st) != 0) return {};
   return {uint64_t(st.st_dev), uint64_t(st.st_ino)};
}

VersionAnchor VersionAnchor::of(const MappedFile& file, uint32_t relume, uint32_t resizeCounter) {
   return VersionAnchor{relume, resizeCounter, FileIdentity::ofFd(file.fd())};
}

AnchorChange VersionAnchor::compare(const VersionAnchor& now) const {
   if (!valid() || !now.valid() || now.identity != identity || now.relume != relume) {
      return AnchorChange::kReplaced;
   }
   return now.resizeCounter != resizeCounter ? AnchorChange::kResized : AnchorChange::kNone;
}

bool VersionAnchor::samePath(const std::string& path) const {
   return valid() && FileIdentity::ofPath(path) == identity;
}

std::string VersionAnchor::toString() const {
   return fmt::format("VersionAnchor{{ relume: {} resizeCounter: {} device: {} inode: {} }}",
                      relume, resizeCounter, identity.device, identity.inode);
}

}  // namespace Region
