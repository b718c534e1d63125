// DebugOutput.h - where trace lines go, and what stands before each message.
//
// A trace line is "<prefix><message>\n", written whole and flushed under the
// library-global lock, so lines of different threads never interleave and a
// line written just before a crash is not lost. The prefix fields are chosen
// by TRACEFORMAT (default "date,time,tid,handle,level") and always appear in
// this order: date, time, pid, tid, handle, level, line-info, func-name.
// Lines go to the file named by TRACEFILE, or to standard error.
//
// Cost of one line: a clock read and local-time conversion (when date or time
// is shown), the prefix built on the stack, then one locked write + flush.
// Any thread may call any of these.
#pragma once

#include <sstream>

#include "Tolan/Common.h"

namespace Tolan {
namespace Platform {

// A string stream for building a message with stream insertions; hand it to
// DebugHandler::dump() to write it as one trace line.
class TOLAN_EXPORT DebugStream : public std::ostringstream {};

// Sets the prefix fields from a comma-separated list of the keywords "date",
// "time", "pid", "tid", "handle", "level", "line-info", "func-name". A null
// spec reads TRACEFORMAT (unset: no change). "help" prints the usage on
// standard error; an unknown keyword prints an error there; neither changes
// the format. An empty list turns every field off.
TOLAN_EXPORT void setTraceFormat(const char* spec);
// Turns every prefix field off.
TOLAN_EXPORT void clearTraceFormat();
// Prints the eight field switches as "1"/"0" in field order on standard output.
TOLAN_EXPORT void printAllTraceFormat();

}  // namespace Platform
}  // namespace Tolan
