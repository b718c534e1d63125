// A program outside the library's tree, built only from what `install` puts
// in place. It checks that the library started up on load, that a trace line
// reaches the file named by TRACEFILE exactly as written, that a disabled
// call neither writes nor evaluates its arguments, and that the library's
// exceptions cross into the program: an assertion failed inside the library
// and one failed by the program's own TOLAN_ASSERT are caught by type.
//
//   consumer <trace file>      exit 0 when every check holds
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/DebugOutput.h"
#include "Tolan/Exception.h"
#include "Tolan/Platform.h"

namespace {

int failures = 0;

void check(bool ok, const std::string& what) {
  if (!ok) {
    std::fprintf(stderr, "consumer: FAILED: %s\n", what.c_str());
    ++failures;
  }
}

int evaluations = 0;
int counted() { return ++evaluations; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <trace file>\n", argv[0]);
    return 2;
  }
  const std::string path = argv[1];

  // Start-up at load: the default handle exists with its levels 0 and 1.
  check(TOLAN_DEFAULT_HANDLE != nullptr, "TOLAN_DEFAULT_HANDLE is set at load");
  if (TOLAN_DEFAULT_HANDLE) {
    check(TOLAN_DEFAULT_HANDLE->enabled(0) && TOLAN_DEFAULT_HANDLE->enabled(1) && !TOLAN_DEFAULT_HANDLE->enabled(2),
          "default handle has exactly levels 0 and 1");
  }

  setenv("TRACEFILE", path.c_str(), 1);
  Tolan::Platform::setTraceFormat("handle,level");
  Tolan::Platform::setupTolanDebug("PackagingConsumer/5");
  auto handler = Tolan::Platform::getDebugHandler("PackagingConsumer");
  check(handler->enabled(5) && !handler->enabled(6), "handler has level 5 only");

  TOLAN_TRACE(handler, 5, "hello from the {} number {}", "consumer", 42);
  TOLAN_TRACE(handler, 6, "never written {}", counted());
  check(evaluations == 0, "arguments of a disabled trace call are not evaluated");

  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  const std::string expected = "PackagingConsumer 5 hello from the consumer number 42\n";
  check(text.str() == expected, "trace file holds \"" + expected + "\" but holds \"" + text.str() + "\"");

  // Library assertions throw once asked to, and the program catches them by
  // their type, whether the library or the program itself failed them.
  Tolan::throwOnAssertFailIs(true);
  const auto caught = [](auto&& fail, const std::string& text) {
    try {
      fail();
    } catch (const Tolan::AssertException& e) {
      return e.msg().find(text) != std::string::npos && std::string(e.name()) == "Tolan::AssertException";
    } catch (...) {
    }
    return false;
  };
  check(caught([] { Tolan::Platform::refCountingEnabled(); }, "not available in libTolan.so"),
        "an assertion failed inside the library is caught as Tolan::AssertException");
  check(caught([] { TOLAN_ASSERT(evaluations == 1, "consumer's own check {}", 7); }, "consumer's own check 7"),
        "the program's own TOLAN_ASSERT throws Tolan::AssertException");

  if (failures) return 1;
  std::printf("consumer: all checks passed\n");
  return 0;
}
