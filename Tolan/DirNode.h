// DirNode.h - one open directory stream, read entry by entry.
//
// Opens a directory by path, hands out its entries in stream order, rewinds,
// and lists the regular files and symbolic links whose names end in a given
// extension. Opening a directory that is missing, forbidden or not a
// directory is an expected condition: it is traced (level 9) and leaves the
// object closed. A closed object then answers readEntry() with null, while
// rewind() and findFiles() throw RuntimeException, because a caller that
// rewinds or searches assumed the directory was there. A readdir() failure
// also throws RuntimeException.
//
// One thread at a time; no locking. Costs are those of opendir/readdir.
#pragma once

#include <dirent.h>

#include <string>
#include <vector>

#include "Tolan/Common.h"
#include "Tolan/Debug.h"

namespace Tolan {

class TOLAN_EXPORT DirNode : public Debuggable {
 public:
  // No path, nothing open. `handler` must be owned by a shared pointer.
  explicit DirNode(Platform::DebugHandler& handler);
  // Opens `path` (see openDir).
  DirNode(Platform::DebugHandler& handler, const std::string& path);
  // As above, tracing on whatever `handler` points to (see
  // Debuggable::ownerOrBorrowed for handlers that nothing owns).
  DirNode(std::shared_ptr<Platform::DebugHandler> handler, const std::string& path);
  // A copy opens its own stream on the same path, positioned at the start:
  // two objects never share a DIR*.
  DirNode(const DirNode& other);
  // Takes over the stream; `other` is left closed (its path is kept).
  DirNode(DirNode&& other) noexcept;
  DirNode& operator=(const DirNode&) = delete;
  DirNode& operator=(DirNode&&) = delete;
  ~DirNode();

  // Makes `path` current and (re)opens it, also when it is the current one.
  void pathIs(const std::string& path);
  // Closes any open stream and opens the current path from its start.
  void openDir();

  // The next entry, or null at the end of the directory or when nothing is
  // open. The entry stays valid until the next call on this object.
  struct dirent* readEntry() const;
  // Restarts the stream at its first entry.
  void rewind() const;
  // Bare names of the regular files and symbolic links whose names end with
  // `extension` (all of them for ""), in stream order. Reads the whole
  // stream: afterwards readEntry() returns null until rewind().
  std::vector<std::string> findFiles(const std::string& extension) const;

  const std::string& path() const noexcept { return path_; }
  bool isOpen() const noexcept { return dir_ != nullptr; }

 private:
  DIR* dir_ = nullptr;
  std::string path_;
};

}  // namespace Tolan
