// FuzzSupport.h - shared by the fuzz targets (not a target itself).
//
// The library reports bad input on std::cerr and prints listings on
// std::cout. A fuzzing run makes millions of calls, so the targets point both
// streams at a bounded in-memory buffer: the terminal and the run log stay
// small, and a target can check what would have been printed.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <streambuf>
#include <string>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Exception.h"

namespace TolanFuzz {

// Keeps the first `limit` characters written and counts the rest.
class CaptureBuffer : public std::streambuf {
 public:
  explicit CaptureBuffer(size_t limit = 1 << 16) : limit_(limit) {}
  void clear() { text_.clear(); }
  const std::string& text() const { return text_; }

 protected:
  int_type overflow(int_type c) override {
    if (c != traits_type::eof() && text_.size() < limit_) text_.push_back(static_cast<char>(c));
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    const size_t room = limit_ - std::min(limit_, text_.size());
    text_.append(s, std::min(room, static_cast<size_t>(n)));
    return n;
  }

 private:
  size_t limit_;
  std::string text_;
};

// The pipe that trace lines go to when captureStandardStreams has no file.
inline int gTracePipe[2] = {-1, -1};

// Captures std::cout and std::cerr for the whole run, and sends trace lines
// to `traceFile` or, when null, to a pipe that drainTrace() empties. Trace
// lines are written to a descriptor, whole, so a stream buffer cannot catch them.
inline void captureStandardStreams(CaptureBuffer& out, CaptureBuffer& err, const char* traceFile) {
  Tolan::throwOnAssertFailIs(true);
  std::cout.rdbuf(&out);
  std::cerr.rdbuf(&err);
  std::string file = traceFile ? traceFile : "";
  if (!traceFile) {
    if (pipe2(gTracePipe, O_CLOEXEC | O_NONBLOCK) != 0) std::abort();
    file = "/proc/self/fd/" + std::to_string(gTracePipe[1]);
  }
  setenv("TRACEFILE", file.c_str(), 1);
  Tolan::Platform::setupTolanDebug("");  // (re)opens the trace file
}

// Appends to `into` the trace lines written since the last call.
inline void drainTrace(CaptureBuffer& into) {
  char buffer[4096];
  for (ssize_t n; (n = read(gTracePipe[0], buffer, sizeof buffer)) > 0;) into.sputn(buffer, n);
}

// For targets that only need failed assertions thrown: their trace lines go
// to /dev/null unless the run names a TRACEFILE of its own.
inline void throwAssertionsQuietly() {
  Tolan::throwOnAssertFailIs(true);
  if (!std::getenv("TRACEFILE")) {
    setenv("TRACEFILE", "/dev/null", 1);
    Tolan::Platform::setupTolanDebug("");  // (re)opens the trace file
  }
}

}  // namespace TolanFuzz
