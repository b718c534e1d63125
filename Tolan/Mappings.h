// Mappings.h - the memory mappings of a process, from /proc/<pid>/maps.
//
// MappingInfo is one line of a maps file; MappingInfos holds the mappings of
// one process ordered by start address and answers "which mapping contains
// this address"; PidMappings caches MappingInfos per pid, read on first use.
// Use them to attribute addresses (of a backtrace, say) to libraries.
//
// Reading a maps file costs one read of /proc plus a parse per line; find()
// is a logarithmic lookup. The cache is not locked: each owner keeps its own
// and uses it from one thread at a time. A cached entry is not refreshed when
// the process maps more memory later; drop the cache to see new mappings.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <unordered_map>

#include <fmt/core.h>

#include <string>

#include "Tolan/Common.h"

namespace Tolan {

struct TOLAN_EXPORT MappingInfo {
  uintptr_t start = 0;   // first address of the mapping
  uintptr_t end = 0;     // first address after it
  String perms;          // e.g. "r-xp"
  uint64_t offset = 0;   // offset in the mapped file
  unsigned major = 0;    // device of the mapped file
  unsigned minor = 0;
  uint64_t inode = 0;    // 0 for anonymous mappings
  String path;           // file path or pseudo-name ("[heap]"); empty if none

  bool contains(uintptr_t address) const noexcept { return address >= start && address < end; }
  // "MappingInfo { start:0x... end:0x... perms:... offset:0x... major:0x...
  // minor:0x... inode:0x... path:... }"
  String toString() const;
};

class TOLAN_EXPORT MappingInfos {
 public:
  // Adds a mapping, replacing one with the same start address.
  void insert(const MappingInfo& info);
  // The mapping whose [start, end) contains `address`, or null. The pointer
  // is valid until the next insert.
  const MappingInfo* find(const void* address) const;

  size_t size() const noexcept { return byStart_.size(); }
  bool empty() const noexcept { return byStart_.empty(); }
  // Iteration in address order; values are (start, MappingInfo) pairs.
  auto begin() const noexcept { return byStart_.begin(); }
  auto end() const noexcept { return byStart_.end(); }

 private:
  std::map<uintptr_t, MappingInfo> byStart_;
};

class TOLAN_EXPORT PidMappings {
 public:
  // The mappings of `pid`, read with populate() on the first request. A
  // process that cannot be read yields an empty collection (cached as well).
  const MappingInfos& mappingInfos(pid_t pid);
  // (Re)reads "/proc/<pid>/maps" into the cache entry of `pid`. Returns false
  // when the file could not be read (the entry is then left empty). A line
  // that is not in the kernel's format is a library assertion.
  bool populate(pid_t pid);
  void clear() noexcept { cache_.clear(); }

 private:
  std::unordered_map<pid_t, MappingInfos> cache_;
};

}  // namespace Tolan

template <>
struct fmt::formatter<Tolan::MappingInfo> : fmt::formatter<fmt::string_view> {
  TOLAN_EXPORT format_context::iterator format(const Tolan::MappingInfo& info, format_context& ctx) const;
};
