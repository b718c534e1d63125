// Impl/TraceOutput.h - the trace sink as the handler registry (Debug.cpp)
// reaches it. Knows nothing of handlers: a line arrives with the name its
// handler goes by.
#pragma once

#include <cstddef>
#include <string_view>

namespace Tolan {
namespace Impl {

// Writes one trace line: the TRACEFORMAT prefix (with `handleName` in the
// "handle" field), exactly `len` bytes of `msg`, a newline; flushed, under the
// global lock.
void writeTraceLine(const char* msg, size_t len, unsigned level, std::string_view handleName, const char* file,
                    const char* func, int line);

// (Re)opens the trace file from TRACEFILE; called by setupTolanDebug(). Unset:
// output returns to standard error.
void reopenTraceFile();

// Calls fn(item) for each item of a comma-separated list, empty items included
// ("a,,b" gives "a", "", "b"; "" gives one empty item), until fn returns
// false. Returns false when fn stopped the walk. The one splitter of the
// trace control strings (TRACE, TRACEFORMAT); each decides what an empty item
// means.
template <typename Fn>
bool forEachCommaItem(std::string_view list, Fn&& fn) {
  size_t begin = 0;
  while (true) {
    const size_t comma = list.find(',', begin);
    if (!fn(list.substr(begin, comma == std::string_view::npos ? std::string_view::npos : comma - begin)))
      return false;
    if (comma == std::string_view::npos) return true;
    begin = comma + 1;
  }
}

}  // namespace Impl
}  // namespace Tolan
