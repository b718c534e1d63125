// The asynchronous JSON output: the document written from inside the
// scheduler to a pipe and to a loopback TCP socket with small buffers, read
// by another thread slowly and in small pieces, or abandoned mid-document.
#include "Tolan/TaskSchedulerRenderJsonAsync.h"

#include <fcntl.h>

#include "support/FdTesting.h"
#include "support/JsonCheck.h"
#include "support/SchedulerTesting.h"
#include "support/Support.h"

using namespace TolanTest;
using Tolan::TaskScheduler;

namespace {

class RenderJsonAsync : public SchedulerFixture {
 protected:
  // A root with enough tasks for a document of some 60 KB.
  void SetUp() override {
    std::string names;
    for (int i = 0; i < 200; ++i) names += " n" + std::to_string(i);
    tasks = scheduled(names);
    drain();
  }
  std::vector<std::shared_ptr<Probe>> tasks;
  std::shared_ptr<Tolan::TaskSchedulerRoot> other = Tolan::TaskSchedulerRootIs("other");
};

// Each row: the channel, the root's test yield ratio (2: the tasks yield
// every other time they ask, so the document is rendered and written in
// many small pieces), and how many bytes the reader takes before it closes
// its end. The reader reads 700 bytes at a time with a pause in between,
// so the write task keeps meeting a full buffer and waiting for writability.
TEST_F(RenderJsonAsync, SlowOrVanishingReadersOverPipeAndTcp) {
  const struct {
    FdPair::Kind kind;
    unsigned char yieldRatio;
    size_t readerCloseAfter;
  } rows[] = {{FdPair::pipe, 0, SIZE_MAX}, {FdPair::tcp, 2, SIZE_MAX}, {FdPair::pipe, 0, 2000}, {FdPair::tcp, 0, 2000}};
  for (const auto& row : rows) {
    const bool tcp = row.kind == FdPair::tcp, vanishes = row.readerCloseAfter != SIZE_MAX;
    SCOPED_TRACE(std::string(tcp ? "tcp" : "pipe") + (vanishes ? ", the reader vanishes" : ""));
    root->taskTestYieldRatioIs(row.yieldRatio);
    const std::vector<std::shared_ptr<const Tolan::TaskSchedulerSnapshot>> snapshots{
        root->snapshot(true, true, true), other->snapshot(false, false, false, 10, false)};
    std::ostringstream expected;
    {
      Tolan::TaskSchedulerPrintContext context(expected);
      for (const auto& s : snapshots) s->renderJson(context);
    }
    FdPair pair(row.kind);
    const int small = 4096;
    setsockopt(pair.b, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);  // fail quietly on the pipe
    setsockopt(pair.a, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    fcntl(pair.b, F_SETPIPE_SZ, small);                                 // and these on the socket
    fcntl(pair.b, F_SETFL, fcntl(pair.b, F_GETFL) | O_NONBLOCK);
    std::string got;
    std::thread reader([&, fd = std::exchange(pair.a, -1)] {
      char buffer[700];
      for (ssize_t n; got.size() < row.readerCloseAfter && (n = read(fd, buffer, sizeof buffer)) > 0;) {
        got.append(buffer, static_cast<size_t>(n));
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
      close(fd);
    });
    bool done = false, failed = !vanishes;
    size_t written = 0;
    uint32_t renderRuns = 0;
    root->snapshotRenderJsonAsync(pair.b, snapshots, [&](TaskScheduler::SnapshotRenderJsonTask& output) {
      done = true;
      failed = output.writeFailed();
      written = output.bytesWritten();
      renderRuns = output.taskRunCount();
    });
    EXPECT_EQ(root->renderJsonTaskCount(), 1u);
    EXPECT_TRUE(runUntil([&] { return done; }, 20));
    EXPECT_EQ(failed, vanishes);
    EXPECT_EQ(root->renderJsonTaskCount(), 0u);
    EXPECT_EQ(root->taskForTest("TaskSchedulerRenderJson-fd:" + std::to_string(pair.b)), nullptr);
    pair.closeB();
    reader.join();
    if (vanishes) {
      EXPECT_LT(written, expected.str().size());
      continue;
    }
    EXPECT_EQ(written, expected.str().size());
    EXPECT_TRUE(got == expected.str()) << got.size() << " bytes of " << expected.str().size();
    EXPECT_GT(renderRuns, row.yieldRatio ? 5u : 2u) << "one run per snapshot, one to close, one to end";
    EXPECT_VALID_DOCUMENTS({got});
  }
}

TEST_F(RenderJsonAsync, RefusesABlockingOrClosedDescriptorAndEndsWithItsRoot) {
  FdPair pair(FdPair::pipe);
  EXPECT_THROWS_WITH(root->snapshotRenderJsonAsync(pair.b, root->snapshot(true, false, false)),
                     Tolan::RuntimeException, "is blocking, not supported");
  EXPECT_THROWS_WITH(root->snapshotRenderJsonAsync(-1, root->snapshot(true, false, false)), Tolan::RuntimeException,
                     "Bad file descriptor");
  EXPECT_EQ(root->renderJsonTaskCount(), 0u);
  // A root destroyed with an output under way takes it along, unfinished.
  fcntl(pair.b, F_SETFL, O_NONBLOCK);
  auto shortLived = Tolan::TaskSchedulerRootIs("short-lived");
  shortLived->snapshotRenderJsonAsync(pair.b, {shortLived->snapshot(true, true, true)},
                                      [](auto&) { FAIL() << "an output that never ran cannot end"; });
  EXPECT_EQ(shortLived->renderJsonTaskCount(), 1u);
  shortLived.reset();
}

}  // namespace
