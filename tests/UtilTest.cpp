// File functions, readers of /proc, and the memory mappings of a process.
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>

#include "Tolan/Impl/ProcParsers.h"
#include "Tolan/Loco.h"
#include "Tolan/Mappings.h"
#include "Tolan/Util.h"
#include "support/Support.h"

using namespace TolanTest;
namespace Util = Tolan::Util;

Tolan::Platform::DebugHandler& handler() {
  static auto h = Tolan::Platform::getDebugHandler("UtilTest");
  return *h;
}

std::string startTimeOf(const std::string& line) { return Tolan::Impl::parseProcStartTime(line, "f"); }

TEST(UtilFile, MkpathTouchReadAndRemove) {
  ScratchDir tmp;
  const std::string deep = tmp.path + "/a/b//c/", file = tmp.path + "/f";
  EXPECT_EQ(Util::mkpath(deep, 0750), 0);
  EXPECT_TRUE(std::filesystem::is_directory(tmp.path + "/a/b/c"));
  EXPECT_EQ(Util::mkpath(deep, 0750), EEXIST);
  EXPECT_EQ(Util::mkpath("", 0750), EINVAL);
  EXPECT_FALSE(Util::fileSize(file).has_value());
  ASSERT_TRUE(Util::touch(file));
  EXPECT_EQ(Util::mkpath(file, 0750), ENOTDIR);
  EXPECT_EQ(Util::mkpath(file + "/g/h", 0750), ENOTDIR);
  const std::string text = std::string(10000, 'x') + std::string("\0tail", 5);
  std::ofstream(file, std::ios::binary) << text;
  ASSERT_TRUE(Util::touch(file));  // keeps the contents
  EXPECT_EQ(Util::fileSize(file), text.size());
  std::string read = "old";
  ASSERT_TRUE(Util::readFile(handler(), file, read));
  EXPECT_EQ(read, text);
  ASSERT_TRUE(Util::readFile(handler(), "/proc/self/status", read));  // claims a size of 0
  EXPECT_THAT(read, HasSubstr("Name:"));
  EXPECT_TRUE(Util::removeFile(file));
  EXPECT_TRUE(Util::removeFile(file)) << "a missing file counts as removed";
  EXPECT_FALSE(Util::removeFile(tmp.path)) << "directories are not removed";
  EXPECT_THAT(traceOf(handler(), "1", [&] { EXPECT_FALSE(Util::readFile(handler(), file, read)); }),
              HasSubstr("Tolan::Util::readFile() could not read file:" + file + " error:No such file or directory"));
  EXPECT_EQ(read, "");
  EXPECT_FALSE(Util::touch(tmp.path + "/no/such/dir"));
  EXPECT_EQ(Util::getCwd(handler()), std::filesystem::current_path().string());
}

TEST(UtilProc, TitleStartTimeAndCommandLineOfLiveAndExitedProcesses) {
  // Only the last ")" ends the command name.
  ForkedChild child([] { return prctl(PR_SET_NAME, "ut) x) y", 0, 0, 0) == 0 ? 'y' : 'n'; });
  ASSERT_EQ(child.report(), 'y');
  EXPECT_EQ(Util::readProcTitle(handler(), child.pid(), true), "ut) x) y");
  const std::string start = Util::readProcStartTime(handler(), child.pid());
  // A child forked just now started at about the current uptime; no other
  // field of the stat line is near it.
  double uptime = 0;
  std::ifstream("/proc/uptime") >> uptime;
  EXPECT_LT(std::fabs(uptime - std::stod(start) / sysconf(_SC_CLK_TCK)), 60.0) << start << " vs " << uptime;
  ForkedChild sleeper([] { return execl("/bin/sleep", "sleep", "30", "0", nullptr), 'n'; });
  ASSERT_EQ(sleeper.report(), 0) << "exec failed";
  // The exec has closed our pipe a moment before the kernel publishes its arguments.
  std::string cmdline;
  for (int i = 0; i < 500 && (cmdline = Util::readPidCmdline(handler(), sleeper.pid())).empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(cmdline, std::string("sleep\0" "30\0" "0\0", 11));

  const pid_t gone = exitedPid();
  std::string title = "x", startTime = "x";
  const std::string out = traceOf(handler(), "15", [&] {
    title = Util::readProcTitle(handler(), gone, true);
    startTime = Util::readProcStartTime(handler(), gone);
  });
  EXPECT_EQ(title + startTime + Util::readPidCmdline(handler(), gone), "");
  EXPECT_THAT(out, HasSubstr("error - Couldn't access status file:/proc/" + std::to_string(gone) + "/status"));
  EXPECT_THAT(out, HasSubstr("error - Couldn't access stat file:/proc/" + std::to_string(gone) + "/stat"));
  EXPECT_EQ(traceOf(handler(), "15", [&] { EXPECT_EQ(Util::readProcTitle(handler(), gone, false), ""); }), "");
}

TEST(UtilProc, StartTimeParserHandlesNamesAndRefusesShortLines) {
  std::string tail;
  for (int i = 0; i < 30; ++i) tail += " " + std::to_string(100 + i);
  // After ") " the state is token 0 and the start time token 19: here "118".
  EXPECT_EQ(startTimeOf("42 (a) (b) c) S" + tail), "118");
  EXPECT_EQ(startTimeOf("42 (plain) R" + tail), "118");
  EXPECT_ASSERTS(Tolan::Impl::parseProcStartTime("42 (cut) S 1 2 3", "/proc/42/stat"),
                 "Failed to parse start time from file: /proc/42/stat line: \"42 (cut) S 1 2 3\" procStartTime.size():");
  for (const std::string bad : {"42 no paren at all", "42 (name)", "42 (name) "})
    EXPECT_ASSERTS(startTimeOf(bad), "input not long enough to contain start time. file: f line: \"" + bad);
}

TEST(UtilProc, SocketOwnerShmemInCoreAndWaitDefault) {
  ScratchDir tmp;
  const std::string path = tmp.path + "/sock";
  ForkedChild server([&] {
    sockaddr_un addr{AF_UNIX, {}};
    path.copy(addr.sun_path, sizeof addr.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    return bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 && listen(fd, 1) == 0 ? 'y' : 'n';
  });
  ASSERT_EQ(server.report(), 'y');
  EXPECT_EQ(Util::readSocketPid(handler(), path), server.pid());
  std::unique_ptr<Tolan::Orn::DebugHandler> unshared;  // no shared owner: must serve as well
  {
    Tolan::Platform::LocoGuard guard;
    unshared = std::make_unique<Tolan::Orn::DebugHandler>("UtilUnshared", 0, false);
  }
  EXPECT_EQ(Util::readSocketPid(*unshared, path), server.pid());
  EXPECT_EQ(Util::readLockPid(*unshared, path + "-no-such-lock"), Util::kNoPid);
  EXPECT_THAT(traceOf(handler(), "5", [&] { EXPECT_EQ(Util::readSocketPid(handler(), path + "x"), Util::kNoPid); }),
              HasSubstr("unable to find inode"));

  ForkedChild child([] {  // a child's filter we may change freely
    const std::string file = "/proc/" + std::to_string(getpid()) + "/coredump_filter";
    if (!(std::ofstream(file) << "0x33")) return 'w';
    if (!Util::includeShmemInCore()) return 'f';
    unsigned mask = 0;
    std::ifstream(file) >> std::hex >> mask;
    return static_cast<char>(mask);
  });
  EXPECT_EQ(child.report(), 0x3b);

  unsetenv("WAITFOR_DEFAULT");
  EXPECT_EQ(Tolan::waitForDefaultTimeout(), Tolan::kWaitForDefaultSeconds);
  setenv("WAITFOR_DEFAULT", "2.5", 1);
  EXPECT_EQ(Tolan::waitForDefaultTimeout(), 2.5);
  for (const char* bad : {"soon", "3s", "", "-1"}) {
    setenv("WAITFOR_DEFAULT", bad, 1);
    EXPECT_THAT(traceOf([] { EXPECT_EQ(Tolan::waitForDefaultTimeout(), Tolan::kWaitForDefaultSeconds); }),
                HasSubstr("Parsing the WAITFOR_DEFAULT env. variable failed"))
        << bad;
  }
  unsetenv("WAITFOR_DEFAULT");
}

TEST(Mappings, ParsesLinesFormatsThemAndFindsAddresses) {
  Tolan::MappingInfo info;
  const std::string line = "7f12a000-7f12b000 r-xp 00001000 08:1f 1234567                    /usr/lib/x y.so";
  const std::string anon = "ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0";
  for (auto [text, expected] :
       {std::pair{line, "start:0x7f12a000 end:0x7f12b000 perms:r-xp offset:0x1000 major:0x8 minor:0x1f "
                        "inode:0x12d687 path:/usr/lib/x y.so }"},
        {anon, "start:0xffffffffff600000 end:0xffffffffff601000 perms:--xp offset:0x0 major:0x0 minor:0x0 "
               "inode:0x0 path: }"}}) {
    ASSERT_TRUE(Tolan::Impl::parseMapsLine(text.data(), text.size(), info)) << text;
    EXPECT_EQ(fmt::format("{}", info), "MappingInfo { " + std::string(expected));
  }
  for (const std::string bad : {"", "7f12a000 r-xp 0 08:01 1 /x", "1-2 r-xp 0 08 1", "1-2 r-xp 0 08:01 1x /p",
                                "1-2 r-xp 0 08:01", "zz-2 r-xp 0 08:01 1"})
    EXPECT_FALSE(Tolan::Impl::parseMapsLine(bad.data(), bad.size(), info)) << bad;
  Tolan::MappingInfos two;
  Tolan::Impl::parseMaps(line + "\n\n" + anon + "\n", "/proc/1/maps", two);
  ASSERT_EQ(two.size(), 2u);
  EXPECT_ASSERTS(Tolan::Impl::parseMaps(line + "\ngarbage\n", "/proc/1/maps", two), "malformed line in /proc/1/maps: \"garbage\"");
  // The end address belongs to the next mapping, not this one.
  for (auto [address, path] : {std::pair{0x7f129fffull, ""}, {0x7f12a000ull, "/usr/lib/x y.so"},
                               {0x7f12afffull, "/usr/lib/x y.so"}, {0x7f12b000ull, ""}}) {
    const Tolan::MappingInfo* found = two.find(reinterpret_cast<const void*>(address));
    EXPECT_EQ(found ? found->path : "", path) << address;
  }
  Tolan::PidMappings cache;
  const Tolan::MappingInfo* code = cache.mappingInfos(getpid()).find(reinterpret_cast<const void*>(&Util::hash));
  ASSERT_NE(code, nullptr);
  EXPECT_THAT(code->path, HasSubstr("libTolan.so"));
  EXPECT_EQ(code->perms[2], 'x') << code->toString();
  EXPECT_NE(code->inode, 0u);
  EXPECT_TRUE(cache.mappingInfos(exitedPid()).empty());
}
