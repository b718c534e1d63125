// JsonCheck.h - every JSON document a test produces is read back by an
// independent parser (Python's json module, duplicate keys refused) and
// validated against the shipped schema (python3-jsonschema), by
// support/check_json.py.
//
//   EXPECT_VALID_DOCUMENTS({doc1, doc2});
//
// The test is skipped, saying why, only when python3 or its jsonschema
// module is missing; any other problem fails with the checker's words.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace TolanTest {

struct JsonCheck {
  bool skipped = false, ok = false;
  std::string message;
};
JsonCheck checkJsonDocuments(const std::vector<std::string>& documents);

// What `write` wrote to the write end of a fresh pipe (at most the pipe's
// capacity, 64 KiB: the reading starts after `write` returns).
std::string writtenToPipe(const std::function<void(int fd)>& write);

}  // namespace TolanTest

#define EXPECT_VALID_DOCUMENTS(...)                                   \
  do {                                                                \
    const auto check_ = ::TolanTest::checkJsonDocuments(__VA_ARGS__); \
    if (check_.skipped) GTEST_SKIP() << check_.message;               \
    EXPECT_TRUE(check_.ok) << check_.message;                         \
  } while (0)
