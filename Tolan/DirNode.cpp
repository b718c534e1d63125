#include "Tolan/DirNode.h"

#include <errno.h>

#include "Tolan/Errno.h"
#include "Tolan/Exception.h"

namespace Tolan {
namespace {

// Traced at level 0 and thrown: the caller's assumption about the directory
// was wrong, which it must hear about even with tracing off.
template <typename... Args>
[[noreturn]] TOLAN_COLD void traceAndThrow(const DirNode& node, const char* func, fmt::format_string<Args...> format,
                                           Args&&... args) {
  const String msg = fmt::format(format, std::forward<Args>(args)...);
  if (TOLAN_TRACE_ENABLED(node, 0)) {
    Impl::trace(node.debugHandler(), 0, __FILE__, true, func, "DirNode", __LINE__, "{}", msg);
  }
  RuntimeException::throwException(msg);
}

}  // namespace

DirNode::DirNode(Platform::DebugHandler& handler) : Debuggable(handler) {}

DirNode::DirNode(Platform::DebugHandler& handler, const std::string& path) : Debuggable(handler), path_(path) {
  TOLAN_TRACE_C(*this, 9, DirNode, "path: {}", path_);
  openDir();
}

DirNode::DirNode(std::shared_ptr<Platform::DebugHandler> handler, const std::string& path)
    : Debuggable(std::move(handler)), path_(path) {
  TOLAN_TRACE_C(*this, 9, DirNode, "path: {}", path_);
  openDir();
}

DirNode::DirNode(const DirNode& other) : Debuggable(other.debug_), path_(other.path_) {
  TOLAN_TRACE_C(*this, 9, DirNode, "path: {}", path_);
  if (other.dir_ != nullptr) openDir();
}

DirNode::DirNode(DirNode&& other) noexcept
    : Debuggable(std::move(other.debug_)), dir_(other.dir_), path_(other.path_) {
  other.dir_ = nullptr;
  // The moved-from object keeps tracing on the same channel.
  other.debug_ = debug_;
}

DirNode::~DirNode() {
  TOLAN_TRACE_C(*this, 9, DirNode, "path: {}", path_);
  if (dir_ != nullptr && ::closedir(dir_) != 0) {
    TOLAN_TRACE_C(*this, 1, DirNode, "failed to close {} errno: {}", path_, Tolan::strerror(errno));
  }
}

void DirNode::pathIs(const std::string& path) {
  TOLAN_TRACE_C(*this, 9, DirNode, "path: {}", path);
  if (path != path_) path_ = path;
  openDir();
}

void DirNode::openDir() {
  if (dir_ != nullptr) {
    if (::closedir(dir_) != 0 && TOLAN_TRACE_ENABLED(*this, 1)) {
      TOLAN_TRACE_C(*this, 1, DirNode, "failed to close {} before reopening. errno: {}", path_,
                    Tolan::strerror(errno));
    }
    dir_ = nullptr;
  }
  dir_ = ::opendir(path_.c_str());
  if (dir_ != nullptr) return;
  const int err = errno;
  const bool expected = err == ENOENT || err == EACCES || err == ENOTDIR;
  if (expected) {
    TOLAN_TRACE_C(*this, 9, DirNode, "failed to open {} errno: {}", path_, Tolan::strerror(err));
  } else {
    TOLAN_TRACE_C(*this, 1, DirNode, "failed to open {} errno: {}", path_, Tolan::strerror(err));
  }
}

struct dirent* DirNode::readEntry() const {
  TOLAN_TRACE_C(*this, 9, DirNode, "path: {}", path_);
  if (dir_ == nullptr) {
    TOLAN_TRACE_C(*this, 5, DirNode, "cannot read {} because the directory is not open", path_);
    return nullptr;
  }
  // readdir reports the end and an error alike with null; only errno differs.
  errno = 0;
  struct dirent* entry = ::readdir(dir_);
  if (entry == nullptr && errno != 0) {
    traceAndThrow(*this, "readEntry", "failed to read {} errno: {}", path_, Tolan::strerror(errno));
  }
  return entry;
}

void DirNode::rewind() const {
  TOLAN_TRACE_C(*this, 9, DirNode, "path: {}", path_);
  if (dir_ == nullptr) {
    traceAndThrow(*this, "rewind", "cannot rewind {} because the directory is not open", path_);
  }
  ::rewinddir(dir_);
}

std::vector<std::string> DirNode::findFiles(const std::string& extension) const {
  TOLAN_TRACE_C(*this, 9, DirNode, "path: {} extension: {}", path_, extension);
  if (dir_ == nullptr) {
    traceAndThrow(*this, "findFiles", "cannot find {} files in {} because the directory is not open", extension,
                  path_);
  }
  ::rewinddir(dir_);
  std::vector<std::string> found;
  while (struct dirent* entry = readEntry()) {
    if (entry->d_type != DT_REG && entry->d_type != DT_LNK) continue;
    const std::string name(entry->d_name);
    if (name.size() >= extension.size() &&
        name.compare(name.size() - extension.size(), extension.size(), extension) == 0) {
      TOLAN_TRACE_C(*this, 8, DirNode, "found file with extension {}: {}", extension, name);
      found.push_back(name);
    } else {
      TOLAN_TRACE_C(*this, 9, DirNode, "skipping file: {}", name);
    }
  }
  return found;
}

}  // namespace Tolan
