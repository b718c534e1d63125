// TRACEFORMAT from untrusted bytes: setTraceFormat must accept a list of known
// fields, print the usage for "help", refuse anything else naming the first
// bad item and keeping the old format, and a line traced afterwards must come
// out whole.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Tolan/DebugOutput.h"
#include "Tolan/Exception.h"

namespace {

TolanFuzz::CaptureBuffer gOut, gErr;
const char* const kFields[] = {"date", "time", "pid", "tid", "handle", "level", "line-info", "func-name"};

std::shared_ptr<Tolan::Platform::DebugHandler>& handler() {
  static auto h = Tolan::Platform::getDebugHandler("TolanFuzz");
  return h;
}

bool init() {
  TolanFuzz::captureStandardStreams(gOut, gErr, nullptr);  // trace lines into a pipe
  Tolan::Platform::setupTolanDebug("TolanFuzz/*");
  return true;
}

std::string switches() {
  gOut.clear();
  Tolan::Platform::printAllTraceFormat();
  return gOut.text();
}

// What the format should become: the switches line, "" for help, or the
// first invalid item prefixed with "!".
std::string expected(const std::string& spec) {
  if (spec == "help") return "";
  bool on[8] = {};
  size_t begin = 0;
  while (begin <= spec.size()) {
    size_t comma = spec.find(',', begin);
    if (comma == std::string::npos) comma = spec.size();
    const std::string item = spec.substr(begin, comma - begin);
    begin = comma + 1;
    if (item.empty()) continue;
    size_t f = 0;
    while (f < 8 && item != kFields[f]) ++f;
    if (f == 8) return "!" + item;
    on[f] = true;
  }
  std::string line;
  for (int f = 0; f < 8; ++f) line += std::string(f ? " " : "") + (on[f] ? "1" : "0");
  return line + "\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = init();
  (void)ready;
  if (size > 1024) return -1;
  const std::string raw(reinterpret_cast<const char*>(data), size);
  const std::string spec(raw.c_str());  // what a C string of these bytes holds

  try {
    const std::string before = switches();
    gErr.clear();
    Tolan::Platform::setTraceFormat(spec.c_str());
    const std::string after = switches();
    const std::string want = expected(spec);
    if (want.empty()) {
      if (after != before || gErr.text().compare(0, 7, "Usage:\n") != 0) __builtin_trap();
    } else if (want[0] == '!') {
      if (after != before || gErr.text() != want.substr(1) + " is an invalid field in TRACEFORMAT\n"
                                                            "Set TRACEFORMAT=help for more information.\n")
        __builtin_trap();
    } else if (after != want) {
      __builtin_trap();
    }

    gErr.clear();
    TOLAN_TRACE(handler(), 5, "fuzz {}", raw.size());
    TolanFuzz::drainTrace(gErr);
    const std::string tail = "fuzz " + std::to_string(raw.size()) + "\n";
    const std::string& line = gErr.text();
    if (line.size() < tail.size() || line.compare(line.size() - tail.size(), tail.size(), tail) != 0 ||
        line.find('\n') != line.size() - 1)
      __builtin_trap();
  } catch (const Tolan::AssertException&) {
  }
  return 0;
}
