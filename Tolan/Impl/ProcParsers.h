// Impl/ProcParsers.h - the parsers behind the /proc readers (UtilProc.h,
// Mappings.h), apart from the file reading so that they can be tested and
// fuzzed on any text. Internal and not installed; exported all the same, so
// that the in-tree tests and fuzzers link against them.
#pragma once

#include <cstddef>
#include <string>

#include "Tolan/Common.h"
#include "Tolan/Mappings.h"

namespace Tolan {
namespace Impl {

// The start-time token of one stat line (field 22, counting the pid as 1),
// as readProcStartTime finds it; `file` names the source in assertion texts.
// Library assertion when the line has no ")" followed by text, or too few
// fields after it.
TOLAN_EXPORT String parseProcStartTime(const String& line, const String& file);

// Parses one maps line, without its newline ("start-end perms offset
// major:minor inode [path]", numbers in hexadecimal except the decimal inode;
// the path is the rest of the line after the blanks that pad it, so it may
// contain blanks). False when the line does not have that form; `info` is then
// unspecified.
TOLAN_EXPORT bool parseMapsLine(const char* line, size_t len, MappingInfo& info);

// Parses a whole maps file into `infos`; a malformed line is a library
// assertion naming `file` and the line. Empty lines are skipped.
TOLAN_EXPORT void parseMaps(const String& text, const String& file, MappingInfos& infos);

}  // namespace Impl
}  // namespace Tolan
