// The asynchronous JSON output: the document written from inside the
// scheduler to a pipe and to a loopback TCP socket, read by another thread
// slowly and in small pieces, or abandoned mid-document.
#include "Tolan/TaskSchedulerRenderJsonAsync.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "support/JsonCheck.h"
#include "support/SchedulerTesting.h"
#include "support/Support.h"

using namespace TolanTest;
using Tolan::TaskScheduler;
using Snapshots = std::vector<std::shared_ptr<const Tolan::TaskSchedulerSnapshot>>;

namespace {

// A connected pair: [0] is read by the test's reader, [1] is written by the
// library (non-blocking). A pipe with a one-page buffer, or loopback TCP
// with small socket buffers, so that the document fills them many times.
std::array<int, 2> channel(bool tcp) {
  std::array<int, 2> fds{-1, -1};
  if (!tcp) {
    EXPECT_EQ(pipe2(fds.data(), O_CLOEXEC), 0);
    fcntl(fds[1], F_SETPIPE_SZ, 4096);
  } else {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), len), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    fds[1] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int small = 4096;
    setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    EXPECT_EQ(connect(fds[1], reinterpret_cast<sockaddr*>(&addr), len), 0);
    fds[0] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    setsockopt(fds[0], SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    close(listener);
  }
  fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
  return fds;
}

// Reads `fd` on a thread of its own, `piece` bytes at a time with a pause
// between reads, until end of file or, with `closeAfter`, closes it once it
// has that many bytes.
struct Reader {
  Reader(int fd, size_t piece, std::chrono::microseconds pause, size_t closeAfter = SIZE_MAX)
      : thread([=] {
          std::vector<char> buffer(piece);
          for (ssize_t n; text.size() < closeAfter && (n = read(fd, buffer.data(), piece)) > 0;) {
            text.append(buffer.data(), static_cast<size_t>(n));
            std::this_thread::sleep_for(pause);
          }
          close(fd);
        }) {}
  std::string result() {
    thread.join();
    return text;
  }
  std::string text;
  std::thread thread;
};

class RenderJsonAsync : public SchedulerFixture {
 protected:
  // A root with enough tasks for a document of some 60 KB.
  void SetUp() override {
    std::string names;
    for (int i = 0; i < 200; ++i) names += " n" + std::to_string(i);
    tasks = scheduled(names);
    drain();
    ran();
  }
  std::vector<std::shared_ptr<Probe>> tasks;
  std::shared_ptr<Tolan::TaskSchedulerRoot> other = Tolan::TaskSchedulerRootIs("other");
  // Runs the loop until the output has ended, or 20 s have passed.
  void runUntilDone(const bool& done) {
    for (const double end = realNow() + 20; !done && realNow() < end;) Tolan::Platform::doEventLoop(0.01);
  }
  // Snapshots of two roots, and the document they make when rendered at once.
  Snapshots twoSnapshots(std::string* document) {
    Snapshots list{root->snapshot(true, true, true), other->snapshot(false, false, false, 10, false)};
    std::ostringstream out;
    Tolan::TaskSchedulerPrintContext context(out);
    for (const auto& s : list) s->renderJson(context);
    context.closeJson();
    *document = out.str();
    return list;
  }
};

// A slow reader in small pieces: the write task alternates partial writes
// with waiting for writability, and everything arrives in order. Over TCP
// the tasks also yield every other time they ask (the root's test ratio), so
// the snapshots are rendered and written in many small pieces.
TEST_F(RenderJsonAsync, SlowReaderGetsTheWholeDocumentOverPipeAndTcp) {
  for (bool tcp : {false, true}) {
    SCOPED_TRACE(tcp ? "tcp" : "pipe");
    root->taskTestYieldRatioIs(tcp ? 2 : 0);
    std::string expected;
    const Snapshots list = twoSnapshots(&expected);
    const auto fds = channel(tcp);
    Reader reader(fds[0], 1000, std::chrono::microseconds(100));
    bool done = false, failed = true;
    size_t written = 0;
    uint32_t renderRuns = 0;
    root->snapshotRenderJsonAsync(fds[1], list, [&](TaskScheduler::SnapshotRenderJsonTask& output) {
      done = true;
      failed = output.writeFailed();
      written = output.bytesWritten();
      renderRuns = output.taskRunCount();
    });
    EXPECT_EQ(root->renderJsonTaskCount(), 1u);
    runUntilDone(done);
    ASSERT_TRUE(done);
    EXPECT_FALSE(failed);
    EXPECT_EQ(written, expected.size());
    EXPECT_EQ(root->renderJsonTaskCount(), 0u);
    close(fds[1]);
    const std::string got = reader.result();
    EXPECT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected);
    EXPECT_GT(count(Tolan::TaskSchedulerEventType::fdWritable), 2u);
    EXPECT_GT(renderRuns, tcp ? 5u : 2u) << "one run per snapshot, one to close, one to end";
    EXPECT_VALID_DOCUMENTS({got});
  }
}

// The reader goes away mid-document: the output ends quietly (no SIGPIPE,
// no assertion), `done` still runs and says so, and nothing stays behind.
TEST_F(RenderJsonAsync, ReaderClosingMidDocumentEndsTheOutputQuietly) {
  for (bool tcp : {false, true}) {
    SCOPED_TRACE(tcp ? "tcp" : "pipe");
    std::string expected;
    const Snapshots list = twoSnapshots(&expected);
    const auto fds = channel(tcp);
    Reader reader(fds[0], 512, std::chrono::microseconds(100), 2000);
    bool done = false, failed = false;
    root->snapshotRenderJsonAsync(fds[1], list, [&](TaskScheduler::SnapshotRenderJsonTask& output) {
      done = true;
      failed = output.writeFailed();
    });
    runUntilDone(done);
    ASSERT_TRUE(done);
    EXPECT_TRUE(failed);
    EXPECT_LT(reader.result().size(), expected.size());
    EXPECT_EQ(root->renderJsonTaskCount(), 0u);
    EXPECT_EQ(root->taskForTest("TaskSchedulerRenderJson-fd:" + std::to_string(fds[1])), nullptr);
    close(fds[1]);
  }
}

TEST_F(RenderJsonAsync, RefusesABlockingOrClosedDescriptorAndStartsNothing) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_THROWS_WITH(root->snapshotRenderJsonAsync(fds[1], root->snapshot(true, false, false)),
                     Tolan::RuntimeException, "is blocking, not supported");
  close(fds[0]);
  close(fds[1]);
  EXPECT_THROWS_WITH(root->snapshotRenderJsonAsync(fds[1], root->snapshot(true, false, false)),
                     Tolan::RuntimeException, "Bad file descriptor");
  EXPECT_EQ(root->renderJsonTaskCount(), 0u);
}

// A scheduler destroyed with an output under way takes it along.
TEST(RenderJsonAsyncLifetime, UnfinishedOutputGoesWithItsRoot) {
  const auto fds = channel(false);
  {
    auto root = Tolan::TaskSchedulerRootIs("short-lived");
    root->snapshotRenderJsonAsync(fds[1], {root->snapshot(true, true, true)}, [](auto&) { FAIL() << "not done"; });
    EXPECT_EQ(root->renderJsonTaskCount(), 1u);
  }
  close(fds[0]);
  close(fds[1]);
}

}  // namespace
