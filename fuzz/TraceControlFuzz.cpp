// Control strings from untrusted bytes: setupTolanDebug and clearTolanDebug
// must take anything, and handlers made afterwards must get levels the rules
// could have granted and trace without trouble.
//
// Input: one byte choosing the operations, then the control string (a NUL
// ends it, as it would in an environment variable).
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "Tolan/Exception.h"

namespace {

TolanFuzz::CaptureBuffer gOut, gErr;

bool init() {
  TolanFuzz::captureStandardStreams(gOut, gErr, "/dev/null");
  return true;
}

// Every input starts from the state at load, so that runs are reproducible and
// the registry does not grow from one input to the next.
void resetRules() {
  Tolan::Platform::clearTolanDebug("*/*");
  Tolan::Platform::setupTolanDebug("Tolan*/01");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = init();
  (void)ready;
  if (size == 0 || size > 512) return -1;
  const uint8_t mode = data[0];
  const std::string spec(reinterpret_cast<const char*>(data + 1), size - 1);
  gOut.clear();
  gErr.clear();

  try {
    if (mode & 1) Tolan::Platform::setupTolanDebug(spec.c_str());
    if (mode & 2) Tolan::Platform::clearTolanDebug(spec.c_str());
    if (mode & 4) Tolan::Platform::setupTolanDebug(spec.c_str());

    const std::string cspec(spec.c_str());
    const std::string name = cspec.substr(0, cspec.find_first_of(",/"));
    auto h = Tolan::Platform::getDebugHandler(name);
    // Only the ten levels exist; nothing may set the bits above them.
    if (h->activeLevels() & ~Tolan::Platform::kAllTraceLevels) __builtin_trap();
    for (unsigned level = 0; level < 10; ++level) TOLAN_TRACE(h, level, "fuzz level {} {}", level, name);

    Tolan::Debuggable d(name);
    TOLAN_TRACE_C(d, 1, Fuzz, "debuggable {}", spec.size());
    if (mode & 8) Tolan::Platform::dumpTolanDebugMap();
  } catch (const Tolan::AssertException&) {
  }
  resetRules();
  return 0;
}
