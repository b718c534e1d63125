// Feeds arbitrary bytes to the stat-line parser that readProcStartTime uses.
// Malformed lines must end in the library assertion (caught here), never in
// a crash; a line that parses must yield one blank-free token.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"
#include "Tolan/Assert.h"
#include "Tolan/Exception.h"
#include "Tolan/Impl/ProcParsers.h"
#include "Tolan/UtilProc.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Every rejected input traces its assertion: keep that off the terminal.
  TolanFuzz::throwAssertionsQuietly();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);
  try {
    const std::string token = Tolan::Impl::parseProcStartTime(line, "fuzz");
    if (token.find(' ') != std::string::npos || token.size() > line.size()) __builtin_trap();
  } catch (const Tolan::AssertException&) {
  }
  return 0;
}
