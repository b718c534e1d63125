#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Exception.h"
#include "Tolan/Mappings.h"
#include "Tolan/Util.h"
#include "support/ForkedChild.h"

using ::testing::HasSubstr;
using ::testing::Not;

using Tolan::Test::exitedPid;
using Tolan::Test::ForkedChild;

namespace {

std::shared_ptr<Tolan::Platform::DebugHandler> testHandler() {
  static auto h = Tolan::Platform::getDebugHandler("UtilTest");
  return h;
}

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/tolan-util-XXXXXX";
    if (!mkdtemp(pattern)) std::abort();
    path_ = pattern;
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Captures standard error while tracing `levels` on the test handler.
std::string tracedOutput(const std::string& levels, const std::function<void()>& body) {
  auto h = testHandler();
  for (char c : levels) h->enabledIs(c - '0', true);
  testing::internal::CaptureStderr();
  body();
  std::string out = testing::internal::GetCapturedStderr();
  for (char c : levels) h->enabledIs(c - '0', false);
  return out;
}

}  // namespace

TEST(UtilFile, MkpathReportsCreatedExistingAndErrors) {
  TempDir tmp;
  const std::string deep = tmp.path() + "/a/b//c/";
  EXPECT_EQ(Tolan::Util::mkpath(deep, 0750), 0);
  struct stat st {};
  ASSERT_EQ(stat((tmp.path() + "/a/b/c").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(Tolan::Util::mkpath(deep, 0750), EEXIST);
  EXPECT_EQ(Tolan::Util::mkpath(tmp.path() + "/a", 0750), EEXIST);
  ASSERT_TRUE(Tolan::Util::touch(tmp.path() + "/f"));
  EXPECT_EQ(Tolan::Util::mkpath(tmp.path() + "/f", 0750), ENOTDIR);
  EXPECT_EQ(Tolan::Util::mkpath(tmp.path() + "/f/g/h", 0750), ENOTDIR);
  EXPECT_EQ(Tolan::Util::mkpath("", 0750), EINVAL);
}

TEST(UtilFile, TouchSizeReadAndRemove) {
  TempDir tmp;
  const std::string file = tmp.path() + "/data";
  EXPECT_FALSE(Tolan::Util::fileSize(file).has_value());
  ASSERT_TRUE(Tolan::Util::touch(file));
  EXPECT_EQ(Tolan::Util::fileSize(file), 0u);
  const std::string text = std::string(10000, 'x') + std::string("\0tail", 5);
  std::ofstream(file, std::ios::binary) << text;
  ASSERT_TRUE(Tolan::Util::touch(file));  // keeps the contents
  EXPECT_EQ(Tolan::Util::fileSize(file), text.size());
  std::string read = "old";
  ASSERT_TRUE(Tolan::Util::readFile(*testHandler(), file, read));
  EXPECT_EQ(read, text);

  // /proc files claim a size of 0 but have contents.
  ASSERT_TRUE(Tolan::Util::readFile(*testHandler(), "/proc/self/status", read));
  EXPECT_THAT(read, HasSubstr("Name:"));

  EXPECT_TRUE(Tolan::Util::removeFile(file));
  EXPECT_TRUE(Tolan::Util::removeFile(file)) << "a missing file counts as removed";
  EXPECT_FALSE(Tolan::Util::removeFile(tmp.path())) << "directories are not removed";
  const std::string out = tracedOutput("1", [&] { EXPECT_FALSE(Tolan::Util::readFile(*testHandler(), file, read)); });
  EXPECT_EQ(read, "");
  EXPECT_THAT(out, HasSubstr("Tolan::Util::readFile() could not read file:" + file +
                             " error:No such file or directory"));
  EXPECT_FALSE(Tolan::Util::touch(tmp.path() + "/no/such/dir"));
  EXPECT_EQ(Tolan::Util::getCwd(*testHandler()), std::filesystem::current_path().string());
}

TEST(UtilProc, TitleAndStartTimeOfAProcessWithAnAwkwardName) {
  // The command name holds ") " twice, so only the last ")" ends it.
  ForkedChild child([] { return prctl(PR_SET_NAME, "ut) x) y", 0, 0, 0) == 0 ? 'y' : 'n'; });
  ASSERT_EQ(child.report(), 'y');
  std::string title;
  const std::string traced =
      tracedOutput("5", [&] { title = Tolan::Util::readProcTitle(*testHandler(), child.pid(), true); });
  EXPECT_EQ(title, "ut) x) y");
  EXPECT_THAT(traced, HasSubstr("success - title:ut) x) y"));

  const std::string start = Tolan::Util::readProcStartTime(*testHandler(), child.pid());
  ASSERT_FALSE(start.empty());
  // Independent check: a child forked just now started at about the current
  // uptime. Any other field of the stat line is far from it.
  double uptime = 0;
  std::ifstream("/proc/uptime") >> uptime;
  const double startSeconds = std::stod(start) / static_cast<double>(sysconf(_SC_CLK_TCK));
  EXPECT_LT(std::fabs(uptime - startSeconds), 60.0) << "start " << start << " uptime " << uptime;
  // The same process keeps its start time; this process started no later.
  EXPECT_EQ(Tolan::Util::readProcStartTime(child.pid()), start);
  EXPECT_LE(std::stoull(Tolan::Util::readProcStartTime(getpid())), std::stoull(start));
}

TEST(UtilProc, ExitedProcessYieldsEmptyResultsAndTraces) {
  const pid_t gone = exitedPid();
  std::string title = "x", start = "x";
  const std::string traced = tracedOutput("15", [&] {
    title = Tolan::Util::readProcTitle(*testHandler(), gone, true);
    start = Tolan::Util::readProcStartTime(*testHandler(), gone);
  });
  EXPECT_EQ(title, "");
  EXPECT_EQ(start, "");
  EXPECT_THAT(traced, HasSubstr("error - Couldn't access status file:/proc/" + std::to_string(gone) + "/status"));
  EXPECT_THAT(traced, HasSubstr("error - Couldn't access stat file:/proc/" + std::to_string(gone) + "/stat"));
  const std::string quiet =
      tracedOutput("15", [&] { EXPECT_EQ(Tolan::Util::readProcTitle(*testHandler(), gone, false), ""); });
  EXPECT_THAT(quiet, Not(HasSubstr("Couldn't access")));
  EXPECT_EQ(Tolan::Util::readPidCmdline(*testHandler(), gone), "");
}

TEST(UtilProc, StartTimeParserHandlesNamesAndRefusesShortLines) {
  Tolan::throwOnAssertFailIs(true);
  std::string tail;
  for (int i = 0; i < 30; ++i) tail += " " + std::to_string(100 + i);
  // After ") " the state is token 0 and the start time token 19: here "118".
  EXPECT_EQ(Tolan::Impl::parseProcStartTime("42 (a) (b) c) S" + tail, "f"), "118");
  EXPECT_EQ(Tolan::Impl::parseProcStartTime("42 (plain) R" + tail, "f"), "118");
  try {
    Tolan::Impl::parseProcStartTime("42 (cut) S 1 2 3", "/proc/42/stat");
    ADD_FAILURE() << "accepted";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("Failed to parse start time from file: /proc/42/stat line: \"42 (cut) S 1 2 3\""));
    EXPECT_THAT(e.message(), HasSubstr("startTimeFieldPos:19"));
  }
  for (const std::string bad : {"42 no paren at all", "42 (name)", "42 (name) "}) {
    try {
      Tolan::Impl::parseProcStartTime(bad, "f");
      ADD_FAILURE() << "accepted " << bad;
    } catch (const Tolan::AssertException& e) {
      EXPECT_THAT(e.message(), HasSubstr("input not long enough to contain start time. file: f line: \"" + bad));
    }
  }
}

TEST(UtilProc, CmdlineIsTheRawArgumentList) {
  ForkedChild child([] {
    execl("/bin/sleep", "sleep", "30", "0", static_cast<char*>(nullptr));
    return 'n';
  });
  ASSERT_EQ(child.report(), 0) << "exec failed";
  EXPECT_EQ(Tolan::Util::readPidCmdline(*testHandler(), child.pid()), std::string("sleep\0" "30\0" "0\0", 11));
  EXPECT_EQ(Tolan::Util::readProcTitle(child.pid(), true), "sleep");
}

TEST(UtilProc, SocketOwnerIsTheProcessHoldingIt) {
  TempDir tmp;
  const std::string path = tmp.path() + "/sock";
  ForkedChild child([&] {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    return fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 && listen(fd, 1) == 0 ? 'y'
                                                                                                           : 'n';
  });
  ASSERT_EQ(child.report(), 'y');
  pid_t owner = 0;
  const std::string traced = tracedOutput("5", [&] { owner = Tolan::Util::readSocketPid(*testHandler(), path); });
  EXPECT_EQ(owner, child.pid());
  EXPECT_THAT(traced, HasSubstr("found owner pid:" + std::to_string(child.pid())));

  const std::string unknown = tracedOutput("5", [&] {
    EXPECT_EQ(Tolan::Util::readSocketPid(*testHandler(), tmp.path() + "/nosuch"), Tolan::Util::kNoPid);
  });
  EXPECT_THAT(unknown, HasSubstr("unable to find inode"));
}

TEST(UtilProc, IncludeShmemInCoreSetsTheSharedFileBit) {
  // Done in a child, whose filter we may change freely.
  ForkedChild child([] {
    const std::string file = "/proc/" + std::to_string(getpid()) + "/coredump_filter";
    if (!(std::ofstream(file) << "0x33")) return 'w';
    if (!Tolan::Util::includeShmemInCore()) return 'f';
    unsigned mask = 0;
    std::ifstream(file) >> std::hex >> mask;
    return mask == 59 ? 'y' : static_cast<char>('a' + (mask & 15));
  });
  EXPECT_EQ(child.report(), 'y');
}

TEST(UtilProc, WaitForDefaultTimeoutFromEnvironment) {
  const char* saved = std::getenv("WAITFOR_DEFAULT");
  const std::string savedValue = saved ? saved : "";
  unsetenv("WAITFOR_DEFAULT");
  EXPECT_EQ(Tolan::waitForDefaultTimeout(), Tolan::kWaitForDefaultSeconds);
  setenv("WAITFOR_DEFAULT", "2.5", 1);
  EXPECT_EQ(Tolan::waitForDefaultTimeout(), 2.5);
  for (const char* bad : {"soon", "3s", "", "-1"}) {
    setenv("WAITFOR_DEFAULT", bad, 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Tolan::waitForDefaultTimeout(), Tolan::kWaitForDefaultSeconds) << bad;
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("Parsing the WAITFOR_DEFAULT env. variable failed"));
  }
  if (saved) {
    setenv("WAITFOR_DEFAULT", savedValue.c_str(), 1);
  } else {
    unsetenv("WAITFOR_DEFAULT");
  }
}

TEST(Mappings, ParsesLinesAndFormatsThem) {
  Tolan::MappingInfo info;
  const std::string line = "7f12a000-7f12b000 r-xp 00001000 08:1f 1234567                    /usr/lib/x y.so";
  ASSERT_TRUE(Tolan::Impl::parseMapsLine(line.data(), line.size(), info));
  EXPECT_EQ(fmt::format("{}", info),
            "MappingInfo { start:0x7f12a000 end:0x7f12b000 perms:r-xp offset:0x1000 major:0x8 minor:0x1f "
            "inode:0x12d687 path:/usr/lib/x y.so }");
  const std::string anon = "ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0";
  ASSERT_TRUE(Tolan::Impl::parseMapsLine(anon.data(), anon.size(), info));
  EXPECT_EQ(info.start, 0xffffffffff600000u);
  EXPECT_EQ(info.inode, 0u);
  EXPECT_EQ(info.path, "");
  for (const std::string bad : {"", "7f12a000 r-xp 0 08:01 1 /x", "1-2 r-xp 0 08 1", "1-2 r-xp 0 08:01 1x /p",
                                "1-2 r-xp 0 08:01", "zz-2 r-xp 0 08:01 1"}) {
    EXPECT_FALSE(Tolan::Impl::parseMapsLine(bad.data(), bad.size(), info)) << bad;
  }

  Tolan::throwOnAssertFailIs(true);
  Tolan::MappingInfos infos;
  Tolan::Impl::parseMaps(line + "\n\n" + anon + "\n", "/proc/1/maps", infos);
  ASSERT_EQ(infos.size(), 2u);
  EXPECT_EQ(infos.find(reinterpret_cast<const void*>(0x7f12a800))->path, "/usr/lib/x y.so");
  EXPECT_THROW(Tolan::Impl::parseMaps(line + "\ngarbage\n", "/proc/1/maps", infos), Tolan::AssertException);
}

TEST(Mappings, FindsTheMappingOfAnAddressInThisProcess) {
  Tolan::PidMappings cache;
  const Tolan::MappingInfos& mine = cache.mappingInfos(getpid());
  ASSERT_FALSE(mine.empty());
  // Code of the library itself lies in an executable mapping of its file.
  const Tolan::MappingInfo* code = mine.find(reinterpret_cast<const void*>(&Tolan::Util::hash));
  ASSERT_NE(code, nullptr);
  EXPECT_THAT(code->path, HasSubstr("libTolan.so"));
  EXPECT_EQ(code->perms[2], 'x') << code->toString();
  EXPECT_NE(code->inode, 0u);
  int local = 0;
  const Tolan::MappingInfo* stack = mine.find(&local);
  ASSERT_NE(stack, nullptr);
  EXPECT_EQ(stack->perms.substr(0, 2), "rw");
  EXPECT_EQ(mine.find(nullptr), nullptr);
  EXPECT_EQ(mine.find(reinterpret_cast<const void*>(~uintptr_t(0))), nullptr);
  // Adjacent ranges: the end address belongs to the next mapping, not this one.
  Tolan::MappingInfos two;
  two.insert({0x1000, 0x2000, "r--p", 0, 0, 0, 0, "a"});
  two.insert({0x3000, 0x4000, "r--p", 0, 0, 0, 0, "b"});
  EXPECT_EQ(two.find(reinterpret_cast<const void*>(0x1fff))->path, "a");
  EXPECT_EQ(two.find(reinterpret_cast<const void*>(0x2000)), nullptr);
  EXPECT_EQ(two.find(reinterpret_cast<const void*>(0x3000))->path, "b");
  EXPECT_EQ(two.find(reinterpret_cast<const void*>(0xfff)), nullptr);
  // A process that is gone has no mappings.
  EXPECT_TRUE(cache.mappingInfos(exitedPid()).empty());
}
