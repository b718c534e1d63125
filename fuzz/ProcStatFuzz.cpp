// The stat-line parser behind readProcStartTime, against a reference.
//
// Input byte 0 picks the check:
//  - even: the rest is a raw line. The parser must agree with a reference
//    written from the format (the text after the last ")" and one more
//    character, split at single blanks; token 19 is the start time): the
//    same token, or an assertion exactly where the reference finds none.
//  - odd: the rest builds a well-formed line around a command name made of
//    the input (blanks and parentheses included) and a start time chosen
//    from it; the parser must return that start time.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Tolan/Impl/ProcParsers.h"

namespace {

std::optional<std::string> referenceStartTime(const std::string& line) {
  const size_t paren = line.rfind(')');
  if (paren == std::string::npos || paren + 2 >= line.size()) return std::nullopt;
  std::vector<std::string> tokens(1);
  for (size_t i = paren + 2; i < line.size(); ++i) {
    if (line[i] == ' ') {
      tokens.emplace_back();
    } else {
      tokens.back() += line[i];
    }
  }
  if (tokens.size() <= 19) return std::nullopt;
  return tokens[19];
}

std::optional<std::string> parsed(const std::string& line) {
  try {
    return Tolan::Impl::parseProcStartTime(line, "fuzz");
  } catch (const Tolan::AssertException&) {
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Every rejected input traces its assertion: keep that off the terminal.
  TolanFuzz::throwAssertionsQuietly();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return -1;
  const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
  if (data[0] % 2 == 0) {
    if (parsed(rest) != referenceStartTime(rest)) __builtin_trap();
    return 0;
  }
  const std::string start = std::to_string(size * 7919u + data[0]);
  std::string line = "4711 (" + rest + ") S";
  for (int field = 1; field <= 25; ++field) line += " " + (field == 19 ? start : std::to_string(field * 3));
  if (parsed(line) != start) __builtin_trap();
  return 0;
}
