// Trace lines: the TRACEFORMAT fields, the message, the sink (TRACEFILE), and
// the formatting of values in messages. What is read at load, and the file,
// are seen from child processes (trace_probe).
//
// This program counts heap allocations (support/CountingNew.h).
#include <sys/time.h>

#include <sys/stat.h>

#include <regex>
#include <set>

#include "Tolan/DebugOutput.h"
#include "Tolan/Fmt.h"
#include "Tolan/Thread.h"
#include "support/CountingNew.h"
#include "support/Support.h"

using Tolan::Platform::setTraceFormat;
using namespace TolanTest;

constexpr const char* kDefaultFormat = "date,time,tid,handle,level";
constexpr const char* kDefaultSwitches = "1 1 0 1 1 1 0 0\n";
const std::string kInvalid = " is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information.\n";
const std::string kHelp =
    "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n"
    "  date\n  time\n  pid\n  tid\n  handle\n  level\n  line-info\n  func-name\n";

static std::string switches() { return stdoutOf(Tolan::Platform::printAllTraceFormat); }

// Each test puts the default format back.
class TraceOutput : public Test {
 protected:
  void SetUp() override { h->enabledIs(5, true); }
  void TearDown() override { setTraceFormat(kDefaultFormat); }
  std::shared_ptr<Tolan::Platform::DebugHandler> h = Tolan::Platform::getDebugHandler("OutTest");
};

// Each row sets a format (and what that writes on standard error), then the
// switches and the layout of a traced line must follow. Fields come in a
// fixed order whatever the order given; an invalid item or "help" changes nothing.
TEST_F(TraceOutput, FormatsSwitchFieldsInTheirFixedOrder) {
  char today[16];
  const time_t now = time(nullptr);
  struct tm local;
  strftime(today, sizeof today, "%Y-%m-%d", localtime_r(&now, &local));
  const std::string pid = std::to_string(getpid()), tid = std::to_string(Tolan::gettid());
  const int line = __LINE__ + 1;
  auto traceX = [&] { TOLAN_TRACE(h, 5, "x"); };
  const struct {
    const char* format;
    std::string complaint, switches, line;  // line: a regular expression
  } rows[] = {
      {"func-name,line-info,level,handle,tid,pid,time,date", "", "1 1 1 1 1 1 1 1\n",
       std::string(today) + R"( \d\d:\d\d:\d\d\.\d+ )" + pid + " " + tid + " OutTest 5 TraceOutputTest\\.cpp:" +
           std::to_string(line) + " operator\\(\\) x\n"},
      {"level,,pid,", "", "0 0 1 0 0 1 0 0\n", pid + " 5 x\n"},
      {"date,bogus,more", "bogus" + kInvalid, "0 0 1 0 0 1 0 0\n", pid + " 5 x\n"},
      {"Date", "Date" + kInvalid, "0 0 1 0 0 1 0 0\n", pid + " 5 x\n"},
      {"level, pid", " pid" + kInvalid, "0 0 1 0 0 1 0 0\n", pid + " 5 x\n"},
      {"help,date", "help" + kInvalid, "0 0 1 0 0 1 0 0\n", pid + " 5 x\n"},
      {"help", kHelp, "0 0 1 0 0 1 0 0\n", pid + " 5 x\n"},
      {"", "", "0 0 0 0 0 0 0 0\n", "x\n"}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.format);
    EXPECT_EQ(traceOf([&] { setTraceFormat(r.format); }), r.complaint);
    EXPECT_EQ(switches(), r.switches);
    const std::string out = traceOf(traceX);
    EXPECT_TRUE(std::regex_match(out, std::regex(r.line))) << out;
  }
  setTraceFormat(kDefaultFormat);
  EXPECT_EQ(switches(), kDefaultSwitches);
  Tolan::Platform::clearTraceFormat();
  EXPECT_EQ(switches(), "0 0 0 0 0 0 0 0\n");
}

TEST_F(TraceOutput, MicrosecondsAreNotPadded) {
  setTraceFormat("time");
  // Trace in the first 100 ms of a second, where a padded field would show a
  // leading zero, bracketed by clock readings.
  for (int attempt = 0; attempt < 3; ++attempt) {
    timeval before, after;
    gettimeofday(&before, nullptr);
    std::this_thread::sleep_for(std::chrono::microseconds(1000000 - before.tv_usec + 1000));
    gettimeofday(&before, nullptr);
    const std::string out = traceOf([&] { TOLAN_TRACE(h, 5, "tick"); });
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

// Messages are never cut; up to 500 characters they are built and written
// without touching the heap (after the first line: time zone, stream set-up).
TEST_F(TraceOutput, MessagesWholeAndWithoutAllocationUpTo500Characters) {
  setTraceFormat("date,time,tid,handle,level,line-info");
  bool warm = false;
  for (size_t size : {10u, 10u, 499u, 500u, 501u, 5000u}) {
    std::string text;
    for (size_t i = 0; text.size() < size; ++i) text += static_cast<char>('a' + i % 26);
    const char* message = text.c_str();
    long allocations = 0;
    int line = 0;
    const std::string out = traceOf([&] {
      allocations = -allocationsOnThisThread;
      line = __LINE__ + 1;
      TOLAN_TRACE(h, 5, "{}", message);
      allocations += allocationsOnThisThread;
    });
    if (std::exchange(warm, true)) {
      EXPECT_EQ(allocations > 0, size > 500) << size << " characters: " << allocations;
    }
    EXPECT_THAT(out, EndsWith(" OutTest 5 TraceOutputTest.cpp:" + std::to_string(line) + " " + text + "\n"));
  }
  setTraceFormat("handle");
  Tolan::Platform::DebugStream stream;
  stream << "streamed " << 7;
  EXPECT_EQ(traceOf([&] {
              TOLAN_TRACE_C(h, 5, Widget, "ready {}", "now");
              h->dump(stream, 2, __FILE__, __LINE__, __func__);  // dump writes whatever the level
            }),
            "OutTest Widget::operator()() ready now\nOutTest streamed 7\n");
}

TEST(Fmt, TimesPrintAsSecondsAndPointersAsAddresses) {
  const char* text = "not printed";
  const std::pair<std::string, std::string> rows[] = {
      {fmt::format("{}", timeval{0, 7}), "0.000007"},
      {fmt::format("{}", timeval{-2, 500000}), "-1.500000"},  // normalised: -1.5 s is {-2, 500000}
      {fmt::format("{}", timeval{-1, 500000}), "-0.500000"},
      {fmt::format("{}", timeval{1700000000, 999999}), "1700000000.999999"},
      {fmt::format("{}", timespec{2, 5}), "2.000000005"},
      {fmt::format("{}", timespec{-1, 0}), "-1.000000000"},
      {Tolan::DisplayPointer(reinterpret_cast<void*>(0xBEEF)).toString(), "0xbeef"},
      {fmt::format("{}", Tolan::DisplayPointer(text)), fmt::format("{}", static_cast<const void*>(text))}};
  for (const auto& [shown, expected] : rows) EXPECT_EQ(shown, expected);
}

// With TRACEFORMAT unset, lines carry the library's default fields from the start.
TEST(TraceStartup, DefaultFormatWithoutTheVariable) {
  const auto c = traceProbe({"print-format", "trace Tolan 1 msg"});
  EXPECT_TRUE(c.exitedWith(0)) << c.describe();
  EXPECT_EQ(c.out, kDefaultSwitches);
  EXPECT_THAT(c.err, ContainsRegex("^[0-9-]+ [0-9:.]+ [0-9]+ Tolan 1 msg\n$"));
}

TEST(TraceStartup, TraceFileIsOpenedAtLoadAndReconsideredBySetup) {
  ScratchDir tmp;
  const std::string a = tmp.path + "/a.log", b = tmp.path + "/b.log";
  // A directory, a missing directory, set but empty: the trace goes to stderr.
  for (const std::string& file : {tmp.path, tmp.path + "/no/such/dir/f", std::string()}) {
    const auto c = traceProbe({"trace Tolan 1 still seen"}, {{"TRACEFILE", file}, {"TRACEFORMAT", "handle"}});
    EXPECT_EQ(c.err, "Error opening TRACEFILE=" + file + "\nDefaulting to std::cerr for trace output.\nTolan still seen\n");
  }
  std::ofstream(a) << "stale content\n";
  // Opening at load truncates; setup with the same name keeps the open file, a
  // new name switches files, unset returns to stderr, and coming back truncates;
  // after a failed open, the next good name recovers.
  const auto c = traceProbe({"trace Tolan 1 one", "setup", "trace Tolan 1 two", "setenv TRACEFILE " + b, "setup",
                             "trace Tolan 1 three", "unsetenv TRACEFILE", "setup", "trace Tolan 1 four",
                             "setenv TRACEFILE " + tmp.path, "setup", "trace Tolan 1 five", "setenv TRACEFILE " + b,
                             "setup", "trace Tolan 1 six"},
                            {{"TRACEFILE", a}, {"TRACEFORMAT", ""}});
  ASSERT_TRUE(c.exitedWith(0)) << c.describe();
  EXPECT_EQ(fileText(a), "one\ntwo\n");
  EXPECT_EQ(fileText(b), "six\n");
  EXPECT_THAT(c.err, StartsWith("four\nError opening TRACEFILE="));
  EXPECT_THAT(c.err, EndsWith("Defaulting to std::cerr for trace output.\nfive\n"));
}

// What a trace file must never do to the process: block it (a FIFO without a
// reader), leak into what it execs, kill it (SIGPIPE, SIGXFSZ), or lose lines
// silently. A failing file is reported once, its lines go to standard error
// whole, and the next setup reopens it without losing what it held.
TEST(TraceStartup, TheTraceFileNeverHangsLeaksKillsOrLosesLines) {
  ScratchDir tmp;
  const std::string fifo = tmp.path + "/fifo", log = tmp.path + "/a.log";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string opening = "Error opening TRACEFILE=" + fifo + "\nDefaulting to std::cerr for trace output.\n";
  const std::string writing = ": Broken pipe\nDefaulting to std::cerr for trace output.\n";
  const struct {
    std::vector<std::string> commands;
    std::string file, err, out;
  } rows[] = {
      {{"trace Tolan 1 a"}, fifo, opening + "a\n", ""},
      {{"exec ls -l /proc/$$/fd | grep -c a.log || true"}, log, "", "0\n"},
      {{"stderr-to-dead-pipe", "trace Tolan 1 a", "exec echo alive"}, "", "", "alive\n"},
      {{"fifo-reader-gone " + tmp.path + "/f2", "trace Tolan 1 a", "trace Tolan 1 b"}, "",
       "Error writing TRACEFILE=" + tmp.path + "/f2" + writing + "a\nb\n", ""},
      {{"trace Tolan 1 a", "trace Tolan 1 b", "setup", "trace Tolan 1 c"}, "/dev/full",
       "Error writing TRACEFILE=/dev/full: No space left on device\nDefaulting to std::cerr for trace output.\na\nb\n"
       "Error writing TRACEFILE=/dev/full: No space left on device\nDefaulting to std::cerr for trace output.\nc\n",
       ""},
  };
  for (const auto& r : rows) {
    std::optional<std::string> file;
    if (!r.file.empty()) file = r.file;
    const auto c = traceProbe(r.commands, {{"TRACEFILE", file}, {"TRACEFORMAT", ""}});
    EXPECT_TRUE(c.exitedWith(0)) << r.commands[0] << ": " << c.describe();
    EXPECT_EQ(c.err, r.err) << r.commands[0];
    EXPECT_EQ(c.out, r.out) << r.commands[0];
  }
  // Past a size limit (counted from the setup after it was lowered; the
  // captured stderr file obeys it too, hence a long first line): no SIGXFSZ death, no torn line, and after the limit is
  // lifted the next setup appends to what the file held.
  const std::string one(200, '1');
  const auto c = traceProbe({"trace Tolan 1 " + one, "fsize 204", "setup", "trace Tolan 1 three", "fsize unlimited", "setup",
                             "trace Tolan 1 four"},
                            {{"TRACEFILE", log}, {"TRACEFORMAT", ""}});
  EXPECT_TRUE(c.exitedWith(0)) << c.describe();
  EXPECT_EQ(fileText(log), one + "\nfour\n");
  EXPECT_THAT(c.err, EndsWith("File too large\nDefaulting to std::cerr for trace output.\nthree\n"));
}

TEST(TraceStartup, ConcurrentLinesArriveWholeAndAllOfThem) {
  constexpr int kThreads = 8, kLines = 2000;
  ScratchDir tmp;
  const std::string file = tmp.path + "/a.log";
  const auto c = traceProbe({fmt::format("threads {} {} TolanConc", kThreads, kLines)}, {{"TRACEFILE", file}});
  ASSERT_TRUE(c.exitedWith(0)) << c.describe();
  std::ifstream in(file);
  const std::regex lineRe(R"(\d{4}-\d\d-\d\d [\d:.]+ \d+ TolanConc 1 line t=([0-7]) i=(\d+) ([A-H]{120}) end)");
  std::set<std::pair<int, int>> seen;
  int count = 0;
  std::string line;
  for (std::smatch m; std::getline(in, line); ++count) {
    if (!std::regex_match(line, m, lineRe) || m[3] != std::string(120, 'A' + std::stoi(m[1]))) {
      ADD_FAILURE() << "torn line: " << line;
      break;
    }
    seen.emplace(std::stoi(m[1]), std::stoi(m[2]));
  }
  EXPECT_EQ(count, kThreads * kLines);
  EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
}
