#include "Tolan/DebugOutput.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "Tolan/Debug.h"
#include "Tolan/Thread.h"
#include "support/ChildProcess.h"

namespace {

using Tolan::Platform::setTraceFormat;
using Tolan::Test::traceProbe;
using testing::EndsWith;
using testing::HasSubstr;

constexpr const char* kDefaultFormat = "date,time,tid,handle,level";
constexpr const char* kDefaultSwitches = "1 1 0 1 1 1 0 0\n";
constexpr const char* kInvalid = " is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information.\n";

// Traces in this process go to standard error (the suite runs without
// TRACEFILE); each test puts the default format back.
class TraceOutputTest : public testing::Test {
 protected:
  void SetUp() override { handler_->enabledIs(5, true); }
  void TearDown() override { setTraceFormat(kDefaultFormat); }

  static std::string switches() {
    testing::internal::CaptureStdout();
    Tolan::Platform::printAllTraceFormat();
    return testing::internal::GetCapturedStdout();
  }

  std::shared_ptr<Tolan::Platform::DebugHandler> handler_ = Tolan::Platform::getDebugHandler("OutTest");
};

TEST_F(TraceOutputTest, FieldsAppearInFixedOrder) {
  setTraceFormat("func-name,line-info,level,handle,tid,pid,time,date");
  EXPECT_EQ(switches(), "1 1 1 1 1 1 1 1\n");
  testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  TOLAN_TRACE(handler_, 5, "hello {}", 42);
  const std::string out = testing::internal::GetCapturedStderr();

  std::smatch m;
  ASSERT_TRUE(std::regex_match(out, m,
                               std::regex(R"((\d{4}-\d\d-\d\d) \d\d:\d\d:\d\d\.\d+ (\d+) (\d+) OutTest 5 )"
                                          R"(TraceOutputTest.cpp:(\d+) TestBody hello 42\n)")))
      << out;  // the file's base name only
  EXPECT_EQ(m[2], std::to_string(getpid()));
  EXPECT_EQ(m[3], std::to_string(Tolan::gettid()));
  EXPECT_EQ(m[4], std::to_string(line));
  char today[16];
  const time_t now = time(nullptr);
  struct tm local;
  strftime(today, sizeof today, "%Y-%m-%d", localtime_r(&now, &local));
  EXPECT_EQ(m[1], today);

  setTraceFormat("level,,pid,");  // empty items are skipped
  EXPECT_EQ(switches(), "0 0 1 0 0 1 0 0\n");
  testing::internal::CaptureStderr();
  TOLAN_TRACE(handler_, 5, "x");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::to_string(getpid()) + " 5 x\n");
}

TEST_F(TraceOutputTest, MicrosecondsAreNotPadded) {
  setTraceFormat("time");
  // Trace in the first 100 ms of a second, where a padded field would show a
  // leading zero, bracketed by clock readings.
  for (int attempt = 0; attempt < 3; ++attempt) {
    timeval before, after;
    gettimeofday(&before, nullptr);
    std::this_thread::sleep_for(std::chrono::microseconds(1000000 - before.tv_usec + 1000));
    gettimeofday(&before, nullptr);
    testing::internal::CaptureStderr();
    TOLAN_TRACE(handler_, 5, "tick");
    const std::string out = testing::internal::GetCapturedStderr();
    gettimeofday(&after, nullptr);
    if (before.tv_sec != after.tv_sec || after.tv_usec >= 100000) continue;  // the machine stalled

    std::smatch m;
    ASSERT_TRUE(std::regex_match(out, m, std::regex(R"(\d\d:\d\d:\d\d\.([1-9]\d*) tick\n)"))) << out;
    EXPECT_GE(std::stol(m[1]), before.tv_usec) << out;
    EXPECT_LE(std::stol(m[1]), after.tv_usec) << out;
    return;
  }
  GTEST_SKIP() << "could not trace within the first 100 ms of a second";
}

TEST_F(TraceOutputTest, LongMessagesClassFormAndStreams) {
  setTraceFormat("handle");
  for (size_t size : {499u, 500u, 501u, 4000u}) {
    std::string text;
    for (size_t i = 0; text.size() < size; ++i) text += static_cast<char>('a' + i % 26);
    testing::internal::CaptureStderr();
    TOLAN_TRACE(handler_, 5, "{}", text);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "OutTest " + text + "\n") << size;
  }

  testing::internal::CaptureStderr();
  TOLAN_TRACE_C(handler_, 5, Widget, "ready {}", "now");
  Tolan::Platform::DebugStream stream;
  stream << "streamed " << 7;
  handler_->dump(stream, 2, __FILE__, __LINE__, __func__);  // dump writes whatever the level
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "OutTest Widget::TestBody() ready now\nOutTest streamed 7\n");
}

TEST_F(TraceOutputTest, HelpInvalidAndEmptyFormats) {
  setTraceFormat("level,pid");
  testing::internal::CaptureStderr();
  setTraceFormat("help");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n"
            "  date\n  time\n  pid\n  tid\n  handle\n  level\n  line-info\n  func-name\n");
  EXPECT_EQ(switches(), "0 0 1 0 0 1 0 0\n");

  // The first invalid item is named, and the format stays as it was.
  const struct { const char* format; const char* named; } bad[] = {
      {"date,bogus,more", "bogus"}, {"Date", "Date"}, {"level, pid", " pid"}, {"help,date", "help"}};
  for (const auto& c : bad) {
    testing::internal::CaptureStderr();
    setTraceFormat(c.format);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.named + std::string(kInvalid)) << c.format;
    EXPECT_EQ(switches(), "0 0 1 0 0 1 0 0\n") << c.format;
  }

  setTraceFormat("");
  EXPECT_EQ(switches(), "0 0 0 0 0 0 0 0\n");
  testing::internal::CaptureStderr();
  TOLAN_TRACE(handler_, 5, "bare");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "bare\n");

  setTraceFormat(kDefaultFormat);
  EXPECT_EQ(switches(), kDefaultSwitches);
  Tolan::Platform::clearTraceFormat();
  EXPECT_EQ(switches(), "0 0 0 0 0 0 0 0\n");
}

// TRACEFORMAT and TRACEFILE as read at load and by setupTolanDebug, in a child.
class TraceChildTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mkdtemp(dir_.data()), nullptr); }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  static std::string slurp(const std::string& path) {
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
  }

  std::string dir_ = "/tmp/tolan-trace-XXXXXX";
};

TEST_F(TraceChildTest, FormatFromTheEnvironment) {
  const struct { const char* format; const char* out; const char* err; } cases[] = {
      {nullptr, kDefaultSwitches, "[0-9-]+ [0-9:.]+ [0-9]+ Tolan 1 msg\n"},
      {"level,pid", "0 0 1 0 0 1 0 0\n", "[0-9]+ 1 msg\n"},
      {"", "0 0 0 0 0 0 0 0\n", "msg\n"},
      {"help", kDefaultSwitches, "Usage:\n  TRACEFORMAT=field,field,...\n(.|\n)*  func-name\n.* Tolan 1 msg\n"},
      {"date,bogus", kDefaultSwitches,
       "bogus is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information\\.\n"
       "[0-9-]+ .* Tolan 1 msg\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.format ? c.format : "unset");
    auto child = traceProbe({"print-format", "trace Tolan 1 msg"});
    if (c.format) child.env("TRACEFORMAT", c.format);
    const auto r = child.run();
    EXPECT_TRUE(r.exitedWith(0)) << r.describe();
    EXPECT_EQ(r.out, c.out);
    EXPECT_THAT(r.err, testing::ContainsRegex("^" + std::string(c.err) + "$"));
  }

  // setTraceFormat(null) re-reads the variable; unset leaves the format alone.
  const auto r =
      traceProbe({"format level", "format", "print-format", "setenv TRACEFORMAT pid", "format", "print-format"}).run();
  EXPECT_EQ(r.out, "0 0 0 0 0 1 0 0\n0 0 1 0 0 0 0 0\n");
}

TEST_F(TraceChildTest, UnopenableTraceFileFallsBackToStandardError) {
  // A directory, a missing directory, and set but empty.
  for (const std::string& file : {dir_, dir_ + "/no/such/dir/f", std::string()}) {
    const auto r = traceProbe({"trace Tolan 1 still seen"}).env("TRACEFILE", file).env("TRACEFORMAT", "handle").run();
    EXPECT_TRUE(r.exitedWith(0)) << r.describe();
    EXPECT_EQ(r.err,
              "Error opening TRACEFILE=" + file + "\nDefaulting to std::cerr for trace output.\nTolan still seen\n");
  }
}

TEST_F(TraceChildTest, TraceFileIsReconsideredBySetup) {
  const std::string a = dir_ + "/a.log", b = dir_ + "/b.log";
  std::ofstream(a) << "stale content\n";
  // Opening at load truncates; setup with the same name keeps the open file, a
  // new name switches files, unset returns to stderr, and coming back truncates.
  auto r = traceProbe({"trace Tolan 1 one", "setup", "trace Tolan 1 two", "setenv TRACEFILE " + b, "setup",
                       "trace Tolan 1 three", "unsetenv TRACEFILE", "setup", "trace Tolan 1 four",
                       "setenv TRACEFILE " + b, "setup", "trace Tolan 1 five"})
               .env("TRACEFILE", a)
               .env("TRACEFORMAT", "")
               .run();
  ASSERT_TRUE(r.exitedWith(0)) << r.describe();
  EXPECT_EQ(slurp(a), "one\ntwo\n");
  EXPECT_EQ(slurp(b), "five\n");
  EXPECT_EQ(r.err, "four\n");

  // After a failed open, the next setup with a good name recovers.
  r = traceProbe({"trace Tolan 1 one", "setenv TRACEFILE " + b, "setup", "trace Tolan 1 two"})
          .env("TRACEFILE", dir_)
          .env("TRACEFORMAT", "")
          .run();
  EXPECT_THAT(r.err, EndsWith("Defaulting to std::cerr for trace output.\none\n"));
  EXPECT_EQ(slurp(b), "two\n");
}

TEST_F(TraceChildTest, ConcurrentLinesArriveWholeAndAllOfThem) {
  constexpr int kThreads = 8, kLines = 2000;
  const std::string file = dir_ + "/a.log";
  const auto r = traceProbe({fmt::format("threads {} {} TolanConc", kThreads, kLines)}).env("TRACEFILE", file).run();
  ASSERT_TRUE(r.exitedWith(0)) << r.describe();

  std::ifstream in(file);
  const std::regex lineRe(R"(\d{4}-\d\d-\d\d [\d:.]+ \d+ TolanConc 1 line t=([0-7]) i=(\d+) ([A-H]{120}) end)");
  std::set<std::pair<int, int>> seen;
  int count = 0;
  std::string line;
  for (std::smatch m; std::getline(in, line); ++count) {
    const bool whole = std::regex_match(line, m, lineRe) && m[3] == std::string(120, 'A' + std::stoi(m[1]));
    if (!whole) {
      ADD_FAILURE() << "torn line: " << line;
      break;
    }
    seen.emplace(std::stoi(m[1]), std::stoi(m[2]));
  }
  EXPECT_EQ(count, kThreads * kLines);
  EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
}

}  // namespace
