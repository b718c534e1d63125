// FdToStream.h - a std::ostream that writes to a file descriptor.
//
// For the synchronous text and JSON renderers (the history dump, the
// statistics report, the snapshot writer) that are handed a descriptor rather
// than a stream: wrap the descriptor and render into the stream.
//
//   Tolan::FdToStream out(fd, false);
//   history.historyRenderTextForDebug(out);
//   out.flush();
//
// The descriptor must be blocking: writes are ordinary blocking write(2)
// calls from a 4 KiB buffer, and a non-blocking descriptor, which could leave
// a document cut off at the first EAGAIN, is refused (library assertion
// "fd <n> is non-blocking, not supported"). The stream never closes the
// descriptor. A failed write sets badbit; with `throwOnError` it also throws
// std::ios_base::failure from the write or flush that failed. Destruction
// flushes what is left but never throws: flush() first to learn the outcome.
//
// One thread at a time, as any stream.
#pragma once

#include <memory>
#include <ostream>

#include "Tolan/Common.h"

namespace Tolan {

class TOLAN_EXPORT FdToStream : public std::ostream {
 public:
  FdToStream(int fd, bool throwOnError);
  ~FdToStream() override;
  FdToStream(const FdToStream&) = delete;
  FdToStream& operator=(const FdToStream&) = delete;

  int fd() const noexcept { return fd_; }

 private:
  class Buffer;
  int fd_;
  std::unique_ptr<Buffer> buffer_;
};

}  // namespace Tolan
