// Feeds arbitrary bytes to the maps parser that PidMappings::populate uses:
// as one line, and as a whole file. A line that parses must survive being
// written back in the kernel's format and parsed again unchanged.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"
#include "Tolan/Assert.h"
#include "Tolan/Exception.h"
#include "Tolan/Impl/ProcParsers.h"
#include "Tolan/Mappings.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Every rejected input traces its assertion: keep that off the terminal.
  TolanFuzz::throwAssertionsQuietly();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  Tolan::MappingInfo info;
  if (Tolan::Impl::parseMapsLine(text, size, info)) {
    std::string again = fmt::format("{:x}-{:x} {} {:x} {:x}:{:x} {}", info.start, info.end, info.perms, info.offset,
                                    info.major, info.minor, info.inode);
    if (!info.path.empty()) again += " " + info.path;
    Tolan::MappingInfo second;
    if (!Tolan::Impl::parseMapsLine(again.data(), again.size(), second)) __builtin_trap();
    if (second.start != info.start || second.end != info.end || second.perms != info.perms ||
        second.offset != info.offset || second.major != info.major || second.minor != info.minor ||
        second.inode != info.inode || second.path != info.path) {
      __builtin_trap();
    }
  }
  Tolan::MappingInfos infos;
  try {
    Tolan::Impl::parseMaps(std::string(text, size), "fuzz", infos);
  } catch (const Tolan::AssertException&) {
  }
  return 0;
}
