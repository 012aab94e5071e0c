// The directory under which every shared-memory table lives: "/var/shmem" unless the environment
// variable TUNNEL_SHMEM_ROOT names another one (tests always do).
#pragma once

#include <string>

namespace Region {

constexpr const char* kDefaultStoreRoot = "/var/shmem";
constexpr const char* kStoreRootVariable = "TUNNEL_SHMEM_ROOT";

// Read on every call, so a test that changes the variable sees the new root.
std::string storeRoot();

// A table's name under the store root: "<mountPath>/<collection>".
std::string tableName(const std::string& mountPath, const std::string& collection);
// The one composition of a table's directory: <root>/<name>, or `name` itself when it is
// absolute.
std::string tableDirectory(const std::string& root, const std::string& name);

// Creates `dir` and its missing parents (mode 0755 whatever the umask); throws Region::Error on
// failure.
void makeDirectories(const std::string& dir);

}  // namespace Region
